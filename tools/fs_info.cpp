// morvane fs IMAGE[:N] info: what the driver makes of a volume as a whole,
// so that an integrator sees which file system the loader will meet, how
// full it is, and whether the loader may change it (rename jobs, backups).
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "extfs/ext_records.h"
#include "fat/boot_sector.h"
#include "loader/common/byte_order.h"
#include "loader/common/error_codes.h"
#include "tools/command.h"
#include "tools/error_names.h"
#include "tools/fs_operations.h"
#include "tools/fs_volume.h"

namespace MorvaneTool {
namespace {

// Where each format keeps its allocation unit, in its first 2 KiB.
constexpr std::size_t kBootBytesPerSector = 11;
constexpr std::size_t kBootSectorsPerCluster = 13;
constexpr std::size_t kExtLogBlockSize = 1024 + 24;
constexpr std::size_t kExtRoCompat = 1024 + 100;
constexpr std::size_t kHfsAttributes = 1024 + 4;
constexpr std::size_t kHfsBlockSize = 1024 + 40;
constexpr std::uint32_t kLargestUnit = 1u << 21;
// HFS+ volume attribute bits that make a volume one not to change.
constexpr std::uint32_t kHfsHardwareLock = 1u << 7;
constexpr std::uint32_t kHfsUnmounted = 1u << 8;
constexpr std::uint32_t kHfsInconsistent = 1u << 11;
constexpr std::uint32_t kHfsSoftwareLock = 1u << 15;

bool PowerOfTwo(std::uint64_t value) { return value != 0 && (value & (value - 1)) == 0; }

// Bytes per sector times the cluster field; NTFS writes a large cluster as
// a negative power of two.
std::uint32_t BootSectorCluster(const std::vector<unsigned char>& start, bool ntfs) {
    std::uint32_t sector = Common::LoadLE16(&start[kBootBytesPerSector]);
    std::uint32_t field = start[kBootSectorsPerCluster];
    if (!PowerOfTwo(sector)) return 0;
    if (field <= 0x80) return field * sector;
    if (!ntfs) return 0;
    std::uint32_t shift = 0x100 - field;
    return shift < 32 ? 1u << shift : 0;
}

// The allocation unit in bytes; 0 when the volume's first bytes don't tell
// a sane one.
std::uint32_t AllocationUnit(const std::string& type, const std::vector<unsigned char>& start) {
    if (start.size() < kHfsBlockSize + 4) return 0;
    std::uint32_t unit = 0;
    if (type.compare(0, 3, "FAT") == 0 || type == "NTFS") {
        unit = BootSectorCluster(start, type == "NTFS");
    } else if (type.compare(0, 3, "Ext") == 0) {
        std::uint32_t log = Common::LoadLE32(&start[kExtLogBlockSize]);
        unit = log <= 11 ? 1024u << log : 0;
    } else if (type == "HFS+") {
        unit = Common::LoadBE32(&start[kHfsBlockSize]);
    }
    return PowerOfTwo(unit) && unit <= kLargestUnit ? unit : 0;
}

// The driver's type name counts a 12-bit table as FAT16; the width is the
// one the cluster count gives, as the driver itself takes it at mount.
std::string FatWidthName(const std::vector<unsigned char>& start) {
    FATBootSector boot;
    std::memcpy(&boot, start.data(), sizeof(boot));
    const std::uint32_t sector = boot.BPB_BytsPerSec.get();
    const std::uint64_t root_sectors = sector == 0 ? 0 : (boot.root_entries() * 32u + sector - 1) / sector;
    const std::uint64_t metadata =
        boot.reserved_sectors() + std::uint64_t(boot.fat_count()) * boot.fat_size16() + root_sectors;
    const std::uint64_t total = boot.total_sectors();
    if (boot.sectors_per_cluster() == 0 || metadata >= total) return "FAT16";
    return (total - metadata) / boot.sectors_per_cluster() < kFAT12Line ? "FAT12" : "FAT16";
}

// What an HFS+ header tells of why a volume is not to be changed.
std::string HfsReadOnlyReason(const std::vector<unsigned char>& start) {
    if (start.size() < kHfsAttributes + 4) return std::string();
    std::uint32_t attributes = Common::LoadBE32(&start[kHfsAttributes]);
    if ((attributes & (kHfsHardwareLock | kHfsSoftwareLock)) != 0) return "the volume is locked";
    if ((attributes & kHfsUnmounted) == 0 && (attributes & kHfsInconsistent) != 0) {
        return "the volume was not unmounted cleanly";
    }
    return std::string();
}

// The read-only compatible features of an ext superblock that the driver
// reads past but never writes around, by the names mke2fs gives them.
std::string ExtReadOnlyReason(const std::vector<unsigned char>& start) {
    if (start.size() < kExtRoCompat + 4) return std::string();
    const std::uint32_t unserved = Common::LoadLE32(&start[kExtRoCompat]) & ~extfs::kRoCompatServed;
    static const struct {
        std::uint32_t bit;
        const char* name;
    } kNames[] = {{0x4, "btree_dir"},     {0x100, "quota"},        {0x200, "bigalloc"},
                  {0x400, "metadata_csum"}, {0x800, "replica"},      {0x1000, "read-only"},
                  {0x2000, "project"},      {0x4000, "shared_blocks"}, {0x8000, "verity"},
                  {0x10000, "orphan_present"}};
    std::string names;
    std::uint32_t named = 0;
    for (const auto& feature : kNames) {
        if ((unserved & feature.bit) == 0) continue;
        names += (names.empty() ? "" : ", ") + std::string(feature.name);
        named |= feature.bit;
    }
    char rest[32];
    std::snprintf(rest, sizeof rest, "0x%x", static_cast<unsigned>(unserved & ~named));
    if ((unserved & ~named) != 0) names += (names.empty() ? "" : ", ") + std::string(rest);
    return names.empty() ? std::string() : "features it does not write: " + names;
}

std::string ReadOnlyReason(const std::string& type, const std::vector<unsigned char>& start) {
    if (type == "HFS+") return HfsReadOnlyReason(start);
    if (type.compare(0, 3, "Ext") == 0) return ExtReadOnlyReason(start);
    return std::string();
}

// A change that the framework refuses at once on a volume that takes none,
// before it looks for the path: the root is never removed, so on a volume
// that takes changes it is refused for being the root, and nothing moves.
std::string AccessText(rio_dir& root, const std::string& type, const std::vector<unsigned char>& start) {
    std::unique_ptr<rio_dir> probe(root.clone());
    if (probe == nullptr) return "unknown";
    probe->remove_dir(u"/");
    std::uint32_t code = probe->error().Code();
    if (code == Common::FILE_READ_ONLY) {
        std::string reason = ReadOnlyReason(type, start);
        return "read-only: the driver holds the volume read only" + (reason.empty() ? "" : " (" + reason + ")");
    }
    if (code == Common::FILE_UNSUPPORTED) return "read-only: the driver has no write path for it";
    return "read-write";
}

std::string LabelText(rio_dir& root) {
    constexpr std::uint32_t kLongestLabel = 256;
    char16_t buffer[kLongestLabel + 1] = {};
    root.label(buffer, kLongestLabel);
    return HostText(std::u16string(buffer));
}

std::string SpaceText(std::uint64_t bytes) {
    return std::to_string(bytes) + " bytes (" + SizeText(bytes) + ")";
}

}  // namespace

std::string VolumeKindName(MountedVolume& volume) {
    std::string type = VolumeTypeName(volume.Root());
    if (type == "FAT16" && volume.Start().size() >= sizeof(FATBootSector)) type = FatWidthName(volume.Start());
    return type;
}

int ShowVolumeInfo(const VolumeName& name, std::uint32_t sector_size, const std::string& shown) {
    MountedVolume volume;
    std::string problem;
    bool refused = false;
    if (!volume.Mount(name, sector_size, false, problem, refused)) {
        std::fprintf(stderr, "morvane fs: %s: %s\n", shown.c_str(), problem.c_str());
        return refused ? kExitRefused : kExitUsageOrIo;
    }
    rio_dir& root = volume.Root();
    std::string type = VolumeKindName(volume);
    std::uint64_t total = 0, free = 0, available = 0;
    root.space(total, free, available);
    std::uint32_t unit = AllocationUnit(type, volume.Start());
    bool clusters = type == "NTFS" || type.compare(0, 3, "FAT") == 0;
    std::printf("file system:   %s\n", type.c_str());
    std::printf("label:         %s\n", LabelText(root).c_str());
    std::printf("%s  %s\n", clusters ? "cluster size:" : "block size:  ",
                unit == 0 ? "unknown" : (std::to_string(unit) + " bytes").c_str());
    std::printf("total space:   %s\n", SpaceText(total).c_str());
    std::printf("free space:    %s\n", SpaceText(free).c_str());
    if (available != free) std::printf("available:     %s\n", SpaceText(available).c_str());
    std::printf("access:        %s\n", AccessText(root, type, volume.Start()).c_str());
    return kExitOk;
}

}  // namespace MorvaneTool
