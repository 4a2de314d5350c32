// morvane fs IMAGE parts: the GPT of a disk image, each partition with the
// driver that mounts it, so that an integrator finds the partition and its
// unique GUID before writing a document that names it.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "loader/common/byte_order.h"
#include "platform/host/block_io_devices.h"
#include "tools/command.h"
#include "tools/fs_operations.h"
#include "tools/fs_volume.h"

namespace MorvaneTool {
namespace {

// The entry fields that the simulator leaves out: it needs no names.
constexpr std::size_t kHeaderDiskGuid = 56;
constexpr std::size_t kHeaderEntriesLba = 72;
constexpr std::size_t kHeaderEntryCount = 80;
constexpr std::size_t kHeaderEntrySize = 84;
constexpr std::size_t kEntryName = 56;
constexpr std::size_t kNameUnits = 36;
constexpr std::uint64_t kSmallestEntry = kEntryName + 2 * kNameUnits;
constexpr std::uint64_t kMostEntries = 4096;
constexpr std::uint64_t kLargestEntry = 4096;

struct KnownType {
    const char* guid;
    const char* name;
};

// The types an integrator of this loader meets most; others show bare.
const KnownType kKnownTypes[] = {
    {"C12A7328-F81F-11D2-BA4B-00A0C93EC93B", "EFI system"},
    {"0FC63DAF-8483-4772-8E79-3D69D8477DE4", "Linux filesystem"},
    {"0657FD6D-A4AB-43C4-84E5-0933C84B4F4F", "Linux swap"},
    {"4F68BCE3-E8CD-4DB1-96E7-FBCAF984B709", "Linux x86-64 root"},
    {"BC13C2FF-59E6-4262-A352-B275FD6F7172", "Linux extended boot"},
    {"E6D6D379-F507-44C2-A23C-238F2A3DF928", "Linux LVM"},
    {"A19D880F-05FC-4D3B-A006-743F0F84911E", "Linux RAID"},
    {"EBD0A0A2-B9E5-4433-87C0-68B6B72699C7", "Microsoft basic data"},
    {"E3C9E316-0B5C-4DB8-817D-F92DF00215AE", "Microsoft reserved"},
    {"DE94BBA4-06D1-4D40-A16A-BFD50179D6AC", "Windows recovery"},
    {"48465300-0000-11AA-AA11-00306543ECAC", "Apple HFS+"},
    {"7C3457EF-0000-11AA-AA11-00306543ECAC", "Apple APFS"},
    {"21686148-6449-6E6F-744E-656564454649", "BIOS boot"},
};

std::string TypeText(const std::uint8_t* bytes) {
    std::string guid = GuidText(bytes);
    for (const KnownType& type : kKnownTypes) {
        if (guid == type.guid) return guid + " (" + type.name + ")";
    }
    return guid;
}

bool ReadAt(int file, std::uint64_t offset, void* buffer, std::size_t size) {
    return pread(file, buffer, size, static_cast<off_t>(offset)) == static_cast<ssize_t>(size);
}

// The header's disk GUID and the entries' names, by entry number.
struct GptText {
    std::string disk_guid;
    std::vector<std::string> names;  // index: entry number - 1
};

bool ReadGptText(int file, std::uint64_t file_size, std::uint32_t sector_size, GptText& text) {
    std::vector<std::uint8_t> header(sector_size);
    if (!ReadAt(file, sector_size, header.data(), header.size())) return false;
    if (std::memcmp(header.data(), "EFI PART", 8) != 0) return false;
    std::uint64_t entries_lba = Common::LoadLE64(&header[kHeaderEntriesLba]);
    std::uint64_t count = Common::LoadLE32(&header[kHeaderEntryCount]);
    std::uint64_t entry_size = Common::LoadLE32(&header[kHeaderEntrySize]);
    if (count > kMostEntries || entry_size < kSmallestEntry || entry_size > kLargestEntry) return false;
    if (entries_lba > file_size / sector_size || count * entry_size > file_size - entries_lba * sector_size) {
        return false;
    }
    std::vector<std::uint8_t> table(static_cast<std::size_t>(count * entry_size));
    if (!ReadAt(file, entries_lba * sector_size, table.data(), table.size())) return false;
    text.disk_guid = GuidText(&header[kHeaderDiskGuid]);
    for (std::uint64_t index = 0; index < count; ++index) {
        const std::uint8_t* name = &table[static_cast<std::size_t>(index * entry_size + kEntryName)];
        std::u16string wide;
        for (std::size_t unit = 0; unit < kNameUnits && Common::LoadLE16(name + 2 * unit) != 0; ++unit) {
            wide.push_back(static_cast<char16_t>(Common::LoadLE16(name + 2 * unit)));
        }
        text.names.push_back(HostText(wide));
    }
    return true;
}

// The driver that takes the partition, read-only, as `fs` would mount it.
std::string MountingDriver(const std::string& image, std::uint32_t number, std::uint32_t sector_size) {
    VolumeName name;
    name.image = image;
    name.partition_number = number;
    MountedVolume volume;
    std::string problem;
    bool refused = false;
    if (!volume.Mount(name, sector_size, false, problem, refused)) return "-";
    std::string type = VolumeKindName(volume);
    return type.empty() ? "-" : type;
}

void PrintPartition(const HostFirmware::GptPartition& entry, const GptText& text, const std::string& image,
                    std::uint32_t sector_size) {
    std::uint64_t sectors = entry.last_lba - entry.first_lba + 1;
    std::printf("\npartition:     %u\n", entry.number);
    std::printf("unique GUID:   %s\n", GuidText(entry.unique_guid).c_str());
    std::printf("type GUID:     %s\n", TypeText(entry.type_guid).c_str());
    std::printf("name:          %s\n", entry.number <= text.names.size() ? text.names[entry.number - 1].c_str() : "");
    std::printf("first sector:  %llu\n", static_cast<unsigned long long>(entry.first_lba));
    std::printf("last sector:   %llu\n", static_cast<unsigned long long>(entry.last_lba));
    std::printf("size:          %s\n", SizeText(sectors * sector_size).c_str());
    std::printf("mounted by:    %s\n", MountingDriver(image, entry.number, sector_size).c_str());
}

// No GPT: says so, and whether the image is one volume of its own.
int ReportNoGpt(const VolumeName& name, std::uint32_t sector_size, const std::string& shown) {
    MountedVolume volume;
    std::string problem;
    bool refused = false;
    std::string whole;
    if (volume.Mount(name, sector_size, false, problem, refused)) whole = VolumeKindName(volume);
    std::fprintf(stderr, "morvane fs: %s: the image has no GPT", shown.c_str());
    if (!whole.empty()) std::fprintf(stderr, "; it is a single %s volume", whole.c_str());
    std::fputs("\n", stderr);
    return kExitRefused;
}

}  // namespace

std::string SizeText(std::uint64_t bytes) {
    static const char* const kUnits[] = {"bytes", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    std::size_t unit = 0;
    while (unit + 1 < sizeof(kUnits) / sizeof(kUnits[0]) && (bytes >> (10 * unit)) > 1024) ++unit;
    char text[32];
    if (unit == 0) {
        std::snprintf(text, sizeof(text), "%llu bytes", static_cast<unsigned long long>(bytes));
    } else {
        double value = static_cast<double>(bytes) / static_cast<double>(1ull << (10 * unit));
        std::snprintf(text, sizeof(text), "%.1f %s", value, kUnits[unit]);
    }
    return text;
}

int ShowPartitions(const VolumeName& name, std::uint32_t sector_size, const std::string& shown) {
    if (name.partition_number != 0 || name.by_guid) {
        std::fprintf(stderr, "morvane fs: parts lists a whole disk image: give IMAGE without :N or :GUID\n");
        return kExitUsageOrIo;
    }
    int file = open(name.image.c_str(), O_RDONLY);
    struct stat info {};
    if (file < 0 || fstat(file, &info) != 0) {
        std::fprintf(stderr, "morvane fs: %s: %s\n", shown.c_str(), std::strerror(errno));
        if (file >= 0) close(file);
        return kExitUsageOrIo;
    }
    std::uint64_t file_size = static_cast<std::uint64_t>(info.st_size);
    std::vector<HostFirmware::GptPartition> entries = HostFirmware::ReadGpt(file, file_size, sector_size);
    GptText text;
    bool has_table = ReadGptText(file, file_size, sector_size, text);
    close(file);
    if (!has_table) return ReportNoGpt(name, sector_size, shown);
    std::printf("disk:          %s, %llu sectors of %u bytes (%s)\ndisk GUID:     %s\n", shown.c_str(),
                static_cast<unsigned long long>(file_size / sector_size), sector_size, SizeText(file_size).c_str(),
                text.disk_guid.c_str());
    if (entries.empty()) std::printf("partitions:    none\n");
    for (const HostFirmware::GptPartition& entry : entries) PrintPartition(entry, text, name.image, sector_size);
    return kExitOk;
}

}  // namespace MorvaneTool
