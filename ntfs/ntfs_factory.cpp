// The NTFS driver's place in the trial of drivers: a refusal of the mount
// means "not an NTFS volume this driver serves", and the trial goes on.
#include "fsdriver/driver_selection.h"
#include "loader/common/error.h"
#include "ntfs/ntfs_driver.h"

FileSystemDriver* TryNTFSDriver(Fdisk::SimpleDisk* device, std::uint64_t first_sector, std::uint64_t volume_sectors,
                                std::uint32_t cache_group, const void* boot_sector, std::uintptr_t option_a,
                                std::uintptr_t option_b) {
    // The two options are the record filter: its bits and its size in bits.
    const auto* filter_bits = reinterpret_cast<const unsigned char*>(option_a);
    try {
        return new ntfs::NTFSDriver(device, first_sector, volume_sectors, cache_group, boot_sector, filter_bits,
                                    static_cast<std::uint64_t>(option_b));
    } catch (const Common::Error&) {
        return nullptr;
    }
}
