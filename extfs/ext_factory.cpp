// The ext driver's place in the trial of drivers: a refusal of the mount
// means "not an ext volume this driver serves", and the trial goes on.
// The superblock lies at byte 1024, so the boot sector isn't used.
#include "extfs/extfs_driver.h"
#include "fsdriver/driver_selection.h"
#include "loader/common/error.h"

FileSystemDriver* TryExtDriver(Fdisk::SimpleDisk* device, std::uint64_t first_sector, std::uint64_t volume_sectors,
                               std::uint32_t cache_group, const void*, std::uintptr_t option_a,
                               std::uintptr_t option_b) {
    // The two options are the inode filter: its bits and its size in bits.
    const auto* filter_bits = reinterpret_cast<const unsigned char*>(option_a);
    try {
        return new extfs::ExtfsDriver(device, first_sector, volume_sectors, cache_group, filter_bits,
                                      static_cast<std::uint64_t>(option_b));
    } catch (const Common::Error&) {
        return nullptr;
    }
}
