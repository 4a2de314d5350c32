// The one request of the volume processing library that can run: a driver
// whose volume must be seen through a rewritten view asks for a device
// that shows it. A refusal of the library makes the volume unusable to the
// driver, so it becomes FILE_CORRUPT with the refusal as its cause.
#include "loader/common/raise.h"
#include "fsdriver/file_system_driver.h"
#include "fsdriver/reference_guard.h"
#include "fsdriver/volume_processing.h"

namespace {

constexpr std::uint32_t kRecoveryActions = resizer::kActionOpenSource | resizer::kActionDeviceFromProcessor;

// Runs the request; answers the library's refusal, or success.
Common::Error AskForDevice(resizer::Request& request) {
    NoMemoryAsError memory;
    try {
        resizer::process_volume(request);
    } catch (const Common::Error& refusal) {
        return refusal;
    }
    return Common::Error();
}

}  // namespace

void FileSystemDriver::install_recovery_device(FileSystemDriver& driver, std::uint32_t type_mask) {
    resizer::Volume volume;
    volume.device = driver.base_device;
    volume.first_sector = driver.first_sector;
    volume.volume_sectors = driver.volume_sectors;
    volume.type_mask = type_mask;
    Fdisk::SimpleDisk* replayed = nullptr;
    resizer::Request request;
    request.actions = kRecoveryActions;
    request.source = &volume;
    request.device_out = &replayed;
    Common::Error refusal = AskForDevice(request);
    if (refusal) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT, refusal);
    // before_first_write commits through this device and then goes back
    // to base_device.
    if (replayed != nullptr) driver.device = replayed;
}
