// The HFS+ driver's place in the trial of drivers, the last: a refusal of
// the mount means "not an HFS+ volume this driver serves", and the trial
// ends there.
#include "fsdriver/driver_selection.h"
#include "hfsplus/hfsplus_driver.h"
#include "loader/common/error.h"

FileSystemDriver* TryHFSPlusDriver(Fdisk::SimpleDisk* device, std::uint64_t first_sector,
                                   std::uint64_t volume_sectors, std::uint32_t cache_group, const void*,
                                   std::uintptr_t option_a, std::uintptr_t option_b) {
    // The two options are the allocation bitmap that stands for the
    // volume's own, and its length in bytes; the sector 0 that others take
    // isn't where this format starts.
    const auto* bitmap = reinterpret_cast<const unsigned char*>(option_a);
    try {
        return new hfsplus::HFSPlusDriver(device, first_sector, volume_sectors, cache_group, bitmap,
                                          static_cast<std::uint64_t>(option_b));
    } catch (const Common::Error&) {
        return nullptr;
    }
}
