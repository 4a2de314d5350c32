// The mount: the boot sector decides whether the volume is FAT at all, of
// which width, and where its parts lie. Everything is checked before it is
// believed, because the trial of drivers hands every volume to this
// constructor first and a refusal is how it says "not mine".
#include <cstring>

#include "fat/fat12_handler.h"
#include "fat/fat_driver.h"
#include "fat/fatxx_handler.h"
#include "fsdriver/driver_error.h"

namespace {

// Offsets of the published boot sector fields.
constexpr std::uint32_t kSecPerClus = 13;
constexpr std::uint32_t kRsvdSecCnt = 14;
constexpr std::uint32_t kNumFATs = 16;
constexpr std::uint32_t kRootEntCnt = 17;
constexpr std::uint32_t kTotSec16 = 19;
constexpr std::uint32_t kFATSz16 = 22;
constexpr std::uint32_t kTotSec32 = 32;
constexpr std::uint32_t kFATSz32 = 36;
constexpr std::uint32_t kExtFlags = 40;
constexpr std::uint32_t kFSVer = 42;
constexpr std::uint32_t kRootClus = 44;
constexpr std::uint32_t kFSInfo = 48;
constexpr std::uint32_t kLabel32 = 0x47;
constexpr std::uint32_t kLabel16 = 0x2B;
constexpr std::uint32_t kSignature = 510;

constexpr std::uint32_t kMaxFAT32Clusters = 0xFFFFFEE;
constexpr std::uint32_t kMaxFAT16Clusters = 0xFFF5;
constexpr std::uint32_t kFAT12Line = 0xFF6;  // fewer clusters than this are FAT12
constexpr std::uint32_t kNoMirror = 0x80;     // ExtFlags: only the active table is kept

std::uint32_t U16(const unsigned char* boot, std::uint32_t at) { return boot[at] | std::uint32_t(boot[at + 1]) << 8; }

std::uint32_t U32(const unsigned char* boot, std::uint32_t at) { return U16(boot, at) | U16(boot, at + 2) << 16; }

[[noreturn]] void Refuse(std::uint64_t tag) {
    RaiseDriverError(tag, Common::FILE_CORRUPT, Common::Messages::FILE_CORRUPT);
}

bool PowerOfTwoUpTo128(std::uint32_t value) { return value != 0 && value <= 128 && (value & (value - 1)) == 0; }

}  // namespace

FATDriver::FATDriver(Fdisk::SimpleDisk* device, std::uint64_t first_sector, std::uint64_t volume_sectors,
                     std::uint32_t cache_group, const void* boot_sector, const unsigned char* filter_bits,
                     std::uint64_t filter_size)
    : FileSystemDriverWindows(device, first_sector, volume_sectors, cache_group) {
    alloc_run = ClusterRun{2, 2, 2};
    if (sector_size < 512 || volume_sectors == 0) Refuse(ERROR_TAG);
    if (filter_size != 0 && filter_bits != nullptr) {
        this->filter_bits = filter_bits;
        this->filter_size = filter_size;
    }
    if (boot_sector != nullptr) {
        read_geometry(static_cast<const unsigned char*>(boot_sector));
    } else {
        // Held only for the checks: the handle gives it back at once.
        BlockHandle boot = get_block(0, 1, false);
        read_geometry(boot.data());
    }
    check_device_size();
    if (root_cluster != 0) {
        handler = new FAT32Handler(this);
    } else if (cluster_count < kFAT12Line) {
        handler = new FAT12Handler(this);
    } else {
        handler = new FAT16Handler(this);
    }
}

void FATDriver::read_geometry(const unsigned char* boot) {
    if (U16(boot, kSignature) != 0xAA55 || (boot[0] != 0xEB && boot[0] != 0xE9)) Refuse(ERROR_TAG);
    sectors_per_cluster = boot[kSecPerClus];
    reserved_sectors = U16(boot, kRsvdSecCnt);
    fat_count = boot[kNumFATs];
    if (!PowerOfTwoUpTo128(sectors_per_cluster) || reserved_sectors == 0 || fat_count == 0 || fat_count > 127) {
        Refuse(ERROR_TAG);
    }
    std::uint64_t total = U32(boot, kTotSec32);
    if (total == 0) total = U16(boot, kTotSec16);
    if (U16(boot, kFATSz16) == 0) {
        read_fat32_geometry(boot, total);
        std::memcpy(boot_label, boot + kLabel32, sizeof(boot_label));
    } else {
        read_fat16_geometry(boot, total);
        std::memcpy(boot_label, boot + kLabel16, sizeof(boot_label));
    }
}

void FATDriver::read_fat32_geometry(const unsigned char* boot, std::uint64_t total) {
    std::uint32_t fat_size = U32(boot, kFATSz32);
    if (U16(boot, kFSVer) != 0 || fat_size == 0) Refuse(ERROR_TAG);
    std::uint64_t data_start = reserved_sectors + std::uint64_t(fat_count) * fat_size;
    if (data_start >= total) Refuse(ERROR_TAG);
    std::uint64_t clusters = (total - data_start) / sectors_per_cluster;
    if (clusters < 1 || clusters > kMaxFAT32Clusters) Refuse(ERROR_TAG);
    // The table's size wins over the volume's.
    std::uint32_t per_sector = sector_size / 4;
    if (fat_size <= (clusters + 1) / per_sector) clusters = std::uint64_t(per_sector) * fat_size - 2;
    first_data_sector = static_cast<std::uint32_t>(data_start);
    cluster_count = static_cast<std::uint32_t>(clusters);
    sectors_per_fat = fat_size;
    root_cluster = U32(boot, kRootClus);
    if (!valid_cluster(root_cluster)) Refuse(ERROR_TAG);
    std::uint32_t flags = U16(boot, kExtFlags);
    std::uint32_t active = flags & 0x0F;
    if (active >= fat_count) Refuse(ERROR_TAG);
    active_fat_first = active * fat_size + reserved_sectors;
    fsinfo_sector = U16(boot, kFSInfo);
    if (fsinfo_sector >= reserved_sectors) fsinfo_sector = 0;
    mirror_fats = fat_count > 1 && (flags & kNoMirror) == 0;
    root_dir_sectors = 0;
}

void FATDriver::read_fat16_geometry(const unsigned char* boot, std::uint64_t total) {
    std::uint32_t root_entries = U16(boot, kRootEntCnt);
    std::uint32_t entries_per_sector = sector_size / 32;
    if (root_entries == 0 || root_entries % entries_per_sector != 0) Refuse(ERROR_TAG);
    root_dir_sectors = root_entries / entries_per_sector;
    std::uint32_t fat_size = U16(boot, kFATSz16);
    std::uint64_t data_start = reserved_sectors + std::uint64_t(fat_count) * fat_size + root_dir_sectors;
    if (data_start >= total) Refuse(ERROR_TAG);
    std::uint64_t clusters = (total - data_start) / sectors_per_cluster;
    if (clusters < 1 || clusters > kMaxFAT16Clusters) Refuse(ERROR_TAG);
    std::uint32_t nibbles = clusters < kFAT12Line ? 3 : 4;
    std::uint64_t nibbles_per_sector = std::uint64_t(sector_size) * 2;
    if (fat_size <= ((clusters + 2) * nibbles - 1) / nibbles_per_sector) {
        // A table too small for the volume: only what it can map is used,
        // as long as that leaves the width as it is.
        clusters = nibbles_per_sector * fat_size / nibbles - 2;
        if ((clusters < kFAT12Line ? 3u : 4u) != nibbles) Refuse(ERROR_TAG);
    }
    first_data_sector = static_cast<std::uint32_t>(data_start);
    cluster_count = static_cast<std::uint32_t>(clusters);
    sectors_per_fat = fat_size;
    root_cluster = 0;
    fsinfo_sector = 0;
    active_fat_first = reserved_sectors;
    mirror_fats = fat_count > 1;
}

void FATDriver::check_device_size() const {
    std::uint64_t needed = std::uint64_t(cluster_count) * sectors_per_cluster + first_data_sector;
    if (volume_sectors < needed) Refuse(ERROR_TAG);
}
