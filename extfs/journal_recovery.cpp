#include "extfs/journal_recovery.h"

#include "fsdriver/driver_error.h"
#include "loader/common/resizer_errors.h"

namespace extfs {

namespace {

// What the layer is told: the volume, where it lies, and which types would
// do. The type itself is not known.
struct VolumeRecord {
    Fdisk::SimpleDisk* device;
    std::uint64_t first_sector;
    std::uint64_t volume_sectors;
    std::uint32_t type;
    std::uint32_t type_mask;
};

constexpr std::uint32_t kTypeBits = 0x1FFFE;    // types 1 to 16
constexpr std::uint32_t kProcessorTypes = 0;     // the layer holds a processor for none

// The layer's answer for a device request. It holds a processor for no
// file-system type, so the type it would need is never there.
Fdisk::SimpleDisk* RequestDevice(const VolumeRecord& volume) {
    if (volume.device == nullptr) {
        throw Common::Error(ERROR_TAG, Common::RESIZER_INTERNAL, u"Internal error: source drive not specified");
    }
    std::uint32_t servable = volume.type_mask & kTypeBits & kProcessorTypes;
    if (volume.type == 0 || (servable & (1u << (volume.type & 31))) == 0) throw resizer::InvalidFileSystem(ERROR_TAG);
    return nullptr;
}

}  // namespace

void InstallRecoveryDevice(FileSystemDriver& driver, std::uint32_t type_mask) {
    VolumeRecord volume{driver.base_device, driver.first_sector, driver.volume_sectors, 0, type_mask};
    Fdisk::SimpleDisk* replayed = nullptr;
    try {
        replayed = RequestDevice(volume);
    } catch (const Common::Error& refusal) {
        RaiseDriverError(ERROR_TAG, Common::FILE_CORRUPT, Common::Messages::FILE_CORRUPT, refusal);
    }
    if (replayed != nullptr) driver.device = replayed;
}

}  // namespace extfs
