#include "loader/mount_volume.h"

#include "fsdriver/file_system_driver.h"

namespace EfiLoader {

rio_dir* MountVolume(DriverFactory factory, std::unique_ptr<Fdisk::SimpleDisk>& disk) {
    // A partition's device holds only the partition's sectors, so the volume
    // starts at its sector 0.
    FileSystemDriver* driver = factory(disk.get(), 0, disk->GetLastSector() + 1, 0, nullptr, 0, 0);
    if (driver == nullptr) return nullptr;
    driver->flags |= MOUNT_OWNS_DEVICE;
    disk.release();
    // The driver lives as long as something counts it: the root directory
    // does, so the reference taken here is only for the time of the call.
    ++driver->references;
    rio_dir* root = driver->open_root();
    release(driver);
    return root;
}

}  // namespace EfiLoader
