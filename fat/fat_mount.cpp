// The mount: the boot sector decides whether the volume is FAT at all, of
// which width, and where its parts lie. Everything is checked before it is
// believed, because the trial of drivers hands every volume to this
// constructor first and a refusal is how it says "not mine".
#include <cstring>

#include "fat/boot_sector.h"
#include "fat/fat12_handler.h"
#include "fat/fat_driver.h"
#include "fat/fatxx_handler.h"
#include "loader/common/raise.h"

namespace {

constexpr std::uint32_t kMaxFAT32Clusters = 0xFFFFFEE;
constexpr std::uint32_t kMaxFAT16Clusters = 0xFFF5;

bool PowerOfTwoUpTo128(std::uint32_t value) { return value != 0 && value <= 128 && (value & (value - 1)) == 0; }

}  // namespace

FATDriver::FATDriver(Fdisk::SimpleDisk* device, std::uint64_t first_sector, std::uint64_t volume_sectors,
                     std::uint32_t cache_group, const void* boot_sector, const unsigned char* filter_bits,
                     std::uint64_t filter_size)
    : FileSystemDriverWindows(device, first_sector, volume_sectors, cache_group) {
    alloc_run = ClusterRun{2, 2, 2};
    if (sector_size < 512 || volume_sectors == 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    if (filter_size != 0 && filter_bits != nullptr) {
        this->filter_bits = filter_bits;
        this->filter_size = filter_size;
    }
    if (boot_sector != nullptr) {
        read_geometry(*static_cast<const FATBootSector*>(boot_sector));
    } else {
        // Held only for the checks: the handle gives it back at once. The
        // sector size was checked above, so the block holds the record.
        BlockHandle boot = get_block(0, 1, false);
        read_geometry(*reinterpret_cast<const FATBootSector*>(boot.data()));
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

void FATDriver::read_geometry(const FATBootSector& boot) {
    if (!boot.has_boot_marks()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    sectors_per_cluster = boot.sectors_per_cluster();
    reserved_sectors = boot.reserved_sectors();
    fat_count = boot.fat_count();
    if (!PowerOfTwoUpTo128(sectors_per_cluster) || reserved_sectors == 0 || fat_count == 0 || fat_count > 127) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    const std::uint64_t total = boot.total_sectors();
    if (boot.is_fat32()) {
        read_fat32_geometry(boot, total);
    } else {
        read_fat16_geometry(boot, total);
    }
    std::memcpy(boot_label, boot.volume_label(), sizeof(boot_label));
}

void FATDriver::read_fat32_geometry(const FATBootSector& boot, std::uint64_t total) {
    const FAT32BootExtension& wide = boot.fat32;
    std::uint32_t fat_size = wide.fat_size();
    if (wide.version() != 0 || fat_size == 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    std::uint64_t data_start = reserved_sectors + std::uint64_t(fat_count) * fat_size;
    if (data_start >= total) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    std::uint64_t clusters = (total - data_start) / sectors_per_cluster;
    if (clusters < 1 || clusters > kMaxFAT32Clusters) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    // The table's size wins over the volume's.
    std::uint32_t per_sector = sector_size / 4;
    if (fat_size <= (clusters + 1) / per_sector) clusters = std::uint64_t(per_sector) * fat_size - 2;
    first_data_sector = static_cast<std::uint32_t>(data_start);
    cluster_count = static_cast<std::uint32_t>(clusters);
    sectors_per_fat = fat_size;
    root_cluster = wide.root_cluster();
    if (!valid_cluster(root_cluster)) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    std::uint32_t active = wide.active_fat();
    if (active >= fat_count) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    active_fat_first = active * fat_size + reserved_sectors;
    fsinfo_sector = wide.fsinfo_sector();
    if (fsinfo_sector >= reserved_sectors) fsinfo_sector = 0;
    mirror_fats = fat_count > 1 && wide.mirrored();
    root_dir_sectors = 0;
}

void FATDriver::read_fat16_geometry(const FATBootSector& boot, std::uint64_t total) {
    std::uint32_t root_entries = boot.root_entries();
    std::uint32_t entries_per_sector = sector_size / 32;
    if (root_entries == 0 || root_entries % entries_per_sector != 0) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    root_dir_sectors = root_entries / entries_per_sector;
    std::uint32_t fat_size = boot.fat_size16();
    std::uint64_t data_start = reserved_sectors + std::uint64_t(fat_count) * fat_size + root_dir_sectors;
    if (data_start >= total) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    std::uint64_t clusters = (total - data_start) / sectors_per_cluster;
    if (clusters < 1 || clusters > kMaxFAT16Clusters) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    std::uint32_t nibbles = clusters < kFAT12Line ? 3 : 4;
    std::uint64_t nibbles_per_sector = std::uint64_t(sector_size) * 2;
    if (fat_size <= ((clusters + 2) * nibbles - 1) / nibbles_per_sector) {
        // A table too small for the volume: only what it can map is used,
        // as long as that leaves the width as it is.
        clusters = nibbles_per_sector * fat_size / nibbles - 2;
        if ((clusters < kFAT12Line ? 3u : 4u) != nibbles) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
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
    if (volume_sectors < needed) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
}
