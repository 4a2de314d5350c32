#pragma once
// A disk image, or one GPT partition of it, mounted through the loader's own
// road: the image becomes a block device of the firmware simulator, the
// partition is found as the loader finds it, and the driver trial mounts it.
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "files/dir_object.h"
#include "firmware/simple_disk.h"
#include "platform/host/block_io_devices.h"
#include "tools/fs_operations.h"

namespace HostFirmware {
class Simulator;
class CollationStandIn;
}

namespace MorvaneTool {

// What the IMAGE argument names: the whole image, the N-th entry of its GPT,
// or the GPT partition with a unique GUID.
struct VolumeName {
    std::string image;
    std::uint32_t partition_number = 0;  // 0: not named by number
    bool by_guid = false;
    std::uint8_t guid[16] = {};
};

// Splits "IMAGE", "IMAGE:N" and "IMAGE:GUID" (the GUID also in braces). A
// file whose whole name exists is taken whole; otherwise a suffix behind an
// existing file that is neither a partition number nor a GUID is refused.
bool ParseVolumeName(const std::string& text, VolumeName& name, std::string& problem);

// The sector size an image was made with: where its GPT header lies, else
// what its boot sector says; 512 when neither tells.
std::uint32_t GuessSectorSize(const std::string& image);

// A GUID as it stands in a GPT, in its text form with capital digits.
std::string GuidText(const std::uint8_t guid[16]);

// The GPT entries of a disk image read at `sector_size`, as the simulator
// reads them when it attaches the image; none when it has no GPT. False,
// with the host's cause in `problem`, when the image can't be opened.
bool ReadImageGpt(const std::string& image, std::uint32_t sector_size,
                  std::vector<HostFirmware::GptPartition>& entries, std::string& problem);

// Mounted for the lifetime of the object. The destructor deletes the root,
// so the driver writes what it holds back to the image before the simulated
// disk goes away.
class MountedVolume {
public:
    MountedVolume();
    ~MountedVolume();
    MountedVolume(const MountedVolume&) = delete;
    MountedVolume& operator=(const MountedVolume&) = delete;

    // False with `problem` set. `refused` tells a volume that no driver
    // accepts or a partition that isn't there apart from an image that can't
    // be opened at all.
    bool Mount(const VolumeName& name, std::uint32_t sector_size, bool writable, std::string& problem, bool& refused);
    rio_dir& Root() { return *root_; }
    const HostIdentity& Image() const { return image_; }
    // The volume's first bytes as the mount found them (2 KiB at least when
    // the volume is that long): where each format keeps its geometry.
    const std::vector<unsigned char>& Start() const { return start_; }
    // Deletes the root now; the volume is written back.
    void Dismount();

private:
    bool OpenDisk(const VolumeName& name, std::string& problem, bool& refused);
    // Why no driver took the volume, when the image itself is the cause.
    bool ImageCutShort(std::string& problem);
    // Why no driver took a whole image that is a partitioned disk.
    bool WholeGptDisk(const VolumeName& name, std::string& problem);

    std::unique_ptr<HostFirmware::Simulator> firmware_;
    // Names on FAT compare as a typical firmware compares them, beyond ASCII.
    std::unique_ptr<HostFirmware::CollationStandIn> collation_;
    HostIdentity image_;
    std::vector<unsigned char> start_;
    std::unique_ptr<rio_dir> root_;
    // Only until the driver takes it over.
    std::unique_ptr<Fdisk::SimpleDisk> disk_;
};

// Commands on the image or volume itself rather than on paths of it; each
// prints its own errors and answers an exit code of tools/command.h.
// `shown` is the IMAGE argument as the user gave it.
// The image's GPT entries, each with the driver that mounts its partition.
int ShowPartitions(const VolumeName& name, std::uint32_t sector_size, const std::string& shown);
// The file system, label, allocation unit, space and access of one volume.
// The file system as a person names it: the driver's type name, with a
// 12-bit FAT told apart from FAT16. Empty when the driver names none.
std::string VolumeKindName(MountedVolume& volume);

int ShowVolumeInfo(const VolumeName& name, std::uint32_t sector_size, const std::string& shown);

// "N bytes" below 1 KiB, else one decimal in the largest binary unit that
// leaves more than 1024 of the unit below it, the way sgdisk -p shows sizes.
std::string SizeText(std::uint64_t bytes);

}  // namespace MorvaneTool
