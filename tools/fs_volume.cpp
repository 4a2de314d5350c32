#include "tools/fs_volume.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>
#include <stdexcept>

#include "firmware/block_device.h"
#include "firmware/block_enumeration.h"
#include "firmware/device_path.h"
#include "firmware/firmware_access.h"
#include "fsdriver/driver_selection.h"
#include "loader/common/byte_order.h"
#include "loader/load_kernel.h"
#include "loader/mount_volume.h"
#include "loader/partition_disk.h"
#include "platform/host/block_io_devices.h"
#include "platform/host/collation_stand_in.h"
#include "platform/host/simulator.h"
#include "tools/error_names.h"
#include "tools/volume_claim.h"

namespace MorvaneTool {
namespace {

constexpr std::size_t kLongestPartitionNumber = 9;

bool IsFile(const std::string& path) {
    struct stat info {};
    return stat(path.c_str(), &info) == 0;
}

bool AllDigits(const std::string& text) {
    return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

// "{GUID}" as many tools print it, or the bare GUID.
bool ParseGuidText(std::string text, std::uint8_t (&guid)[16]) {
    if (text.size() == 38 && text.front() == '{' && text.back() == '}') text = text.substr(1, 36);
    return text.size() == 36 && EfiLoader::ParseGuid(text, guid);
}

// A disk image is a regular file or a block device; `identity` tells it
// apart from every other host file.
bool IsImageFile(const std::string& path, std::string& problem, HostIdentity& identity) {
    struct stat info {};
    if (stat(path.c_str(), &info) != 0) return true;  // the attach says why it can't be opened
    identity = {info.st_dev, info.st_ino};
    if (S_ISREG(info.st_mode) || S_ISBLK(info.st_mode)) return true;
    problem = S_ISDIR(info.st_mode) ? "a directory, not a disk image" : "not a disk image (neither a file nor a disk)";
    return false;
}

// The GPT entry number (from 1) of a partition handle, from the hard drive
// node of its device path; 0 when it has none.
std::uint32_t PartitionNumberOf(const HostFirmware::BlockIoMedium& medium) {
    std::uint32_t number = 0;
    Fdisk::WalkDevicePath(medium.DevicePath().data(), [&](const std::uint8_t* node, std::uint16_t length) {
        if (node[0] != Uefi::kMediaDevicePath || node[1] != Uefi::kHardDriveSubtype ||
            length < Uefi::kHardDriveNodeSize) {
            return false;
        }
        number = reinterpret_cast<const Uefi::HardDriveNode*>(node)->PartitionNumber.get();
        return true;
    });
    return number;
}

std::string ErrorText(const Common::Error& error) {
    char code[16];
    std::snprintf(code, sizeof(code), "0x%X", error.Code());
    const char* name = ErrorName(error.Code());
    return name != nullptr ? std::string(name) + " (" + code + ")" : std::string(code);
}

bool HasGptHeaderAt(const std::vector<unsigned char>& start, std::size_t offset) {
    return start.size() >= offset + 8 && std::memcmp(start.data() + offset, "EFI PART", 8) == 0;
}

constexpr std::uint32_t kSmallSector = 512;
constexpr std::uint32_t kLargeSector = 4096;

// The first two large sectors of an image, or fewer bytes if it is shorter.
std::vector<unsigned char> ImageStart(const std::string& image) {
    std::vector<unsigned char> start(2 * kLargeSector);
    std::FILE* file = std::fopen(image.c_str(), "rb");
    if (file == nullptr) return {};
    start.resize(std::fread(start.data(), 1, start.size(), file));
    std::fclose(file);
    return start;
}

// A GPT header behind the protective MBR, at either sector size.
bool HasGpt(const std::string& image) {
    std::vector<unsigned char> start = ImageStart(image);
    return HasGptHeaderAt(start, kSmallSector) || HasGptHeaderAt(start, kLargeSector);
}

// The first 2 KiB hold the boot sector, superblock or volume header of
// every format served: enough to tell a claimed length or a geometry.
std::vector<unsigned char> ReadVolumeStart(Fdisk::SimpleDisk& disk) {
    std::uint32_t sector = disk.GetSectorSize();
    std::uint64_t sectors = disk.GetLastSector() + 1;
    std::uint64_t count = (2048 + sector - 1) / sector;
    if (count > sectors) count = sectors;
    std::vector<unsigned char> start(count * sector);
    if (disk.Transfer(Fdisk::kTransferRead, 0, start.data(), count).Failed()) return {};
    return start;
}

}  // namespace

std::uint32_t GuessSectorSize(const std::string& image) {
    std::vector<unsigned char> start = ImageStart(image);
    if (HasGptHeaderAt(start, kSmallSector)) return kSmallSector;
    if (HasGptHeaderAt(start, kLargeSector)) return kLargeSector;
    bool boot_signature = start.size() >= kSmallSector && start[510] == 0x55 && start[511] == 0xAA;
    bool large_sectors = start.size() >= kSmallSector && Common::LoadLE16(&start[11]) == kLargeSector;
    return boot_signature && large_sectors ? kLargeSector : kSmallSector;
}

std::string GuidText(const std::uint8_t guid[16]) {
    char text[40];
    std::snprintf(text, sizeof(text), "%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X",
                  static_cast<unsigned>(Common::LoadLE32(guid)), static_cast<unsigned>(Common::LoadLE16(guid + 4)),
                  static_cast<unsigned>(Common::LoadLE16(guid + 6)), guid[8], guid[9], guid[10], guid[11], guid[12],
                  guid[13], guid[14], guid[15]);
    return text;
}

bool ReadImageGpt(const std::string& image, std::uint32_t sector_size,
                  std::vector<HostFirmware::GptPartition>& entries, std::string& problem) {
    int file = ::open(image.c_str(), O_RDONLY);
    struct stat info {};
    if (file < 0 || fstat(file, &info) != 0) {
        problem = image + ": " + std::strerror(errno);
        if (file >= 0) ::close(file);
        return false;
    }
    entries = HostFirmware::ReadGpt(file, static_cast<std::uint64_t>(info.st_size), sector_size);
    ::close(file);
    return true;
}

bool ParseVolumeName(const std::string& text, VolumeName& name, std::string& problem) {
    name = VolumeName();
    name.image = text;
    std::size_t colon = text.rfind(':');
    // A file whose own name holds a colon is taken whole.
    if (colon == std::string::npos || colon == 0 || IsFile(text)) return true;
    std::string suffix = text.substr(colon + 1);
    std::string image = text.substr(0, colon);
    if (AllDigits(suffix)) {
        if (suffix.size() > kLongestPartitionNumber) {
            problem = "no GPT has a partition " + suffix;
            return false;
        }
        name.partition_number = static_cast<std::uint32_t>(std::strtoul(suffix.c_str(), nullptr, 10));
        if (name.partition_number == 0) {
            problem = "partition numbers count from 1";
            return false;
        }
    } else if (ParseGuidText(suffix, name.guid)) {
        name.by_guid = true;
    } else if (IsFile(image)) {
        problem = "':" + suffix + "' names no partition: give :N, a GPT entry number from 1, or :GUID";
        return false;
    } else {
        return true;
    }
    name.image = image;
    return true;
}

MountedVolume::MountedVolume() = default;

MountedVolume::~MountedVolume() { Dismount(); }

void MountedVolume::Dismount() {
    root_.reset();
    disk_.reset();
    collation_.reset();
}

bool MountedVolume::ImageCutShort(std::string& problem) {
    if (start_.empty()) return false;
    VolumeClaim claim = ClaimedLength(start_);
    std::uint64_t present = (disk_->GetLastSector() + 1) * disk_->GetSectorSize();
    if (claim.header == nullptr || claim.bytes <= present) return false;
    problem = "the volume is shorter than its " + std::string(claim.header) + " says (" + std::to_string(present) +
              " of " + std::to_string(claim.bytes) + " bytes): is the image cut off?";
    return true;
}

bool MountedVolume::OpenDisk(const VolumeName& name, std::string& problem, bool& refused) {
    HostFirmware::BlockDevices& disks = firmware_->Disks();
    if (name.by_guid) {
        Common::Error error = EfiLoader::FindPartitionDisk(name.guid, disk_);
        if (error.Failed()) {
            refused = true;
            problem = "no GPT partition with that unique GUID: " + ErrorText(error);
        }
        return !error.Failed();
    }
    EFI_HANDLE handle = disks.Disk(0).Handle();
    if (name.partition_number != 0) {
        handle = nullptr;
        for (HostFirmware::BlockIoMedium* partition : disks.Partitions(0)) {
            if (PartitionNumberOf(*partition) == name.partition_number) handle = partition->Handle();
        }
        if (handle == nullptr) {
            refused = true;
            problem = disks.Partitions(0).empty() && !HasGpt(name.image)
                          ? "the image has no GPT, so no partition " + std::to_string(name.partition_number)
                          : "the image's GPT has no partition " + std::to_string(name.partition_number);
            return false;
        }
    }
    Common::Error error;
    disk_ = std::make_unique<Fdisk::BlockDevice>(handle, error);
    if (error.Failed()) {
        disk_.reset();
        problem = "the block device can't be opened: " + ErrorText(error);
        return false;
    }
    return true;
}

bool MountedVolume::Mount(const VolumeName& name, std::uint32_t sector_size, bool writable, std::string& problem,
                          bool& refused) {
    refused = false;
    if (!IsImageFile(name.image, problem, image_)) return false;
    firmware_ = std::make_unique<HostFirmware::Simulator>();
    Uefi::InitializeFirmwareAccess(firmware_->ImageHandle(), firmware_->SystemTable());
    collation_ = std::make_unique<HostFirmware::CollationStandIn>(*firmware_);
    HostFirmware::DiskOptions options;
    options.sector_size = sector_size;
    options.writable = writable;
    try {
        firmware_->Disks().Attach(name.image, options);
    } catch (const std::runtime_error& failure) {
        problem = failure.what();
        return false;
    }
    if (!OpenDisk(name, problem, refused)) return false;
    start_ = ReadVolumeStart(*disk_);
    root_.reset(EfiLoader::MountVolume(kDriverTable[0].factory, disk_));
    if (root_ == nullptr) {
        refused = !ImageCutShort(problem);
        if (refused && !WholeGptDisk(name, problem)) problem = "no driver recognises the volume";
        return false;
    }
    return true;
}

bool MountedVolume::WholeGptDisk(const VolumeName& name, std::string& problem) {
    if (name.partition_number != 0 || name.by_guid || firmware_->Disks().Partitions(0).empty()) return false;
    problem = "the image holds a GPT partition table: name a partition as " + name.image + ":N (see 'morvane fs " +
              name.image + " parts')";
    return true;
}

}  // namespace MorvaneTool
