#include "fsdriver/driver_selection.h"

#include <cstdint>
#include <vector>

namespace {

// The trial order, a fixed order of calls that has nothing to do with the
// table's rows: a volume that passes the FAT checks is FAT, whatever else
// its first sectors might also pass for.
constexpr DriverFactory kTrialOrder[] = {TryFATDriver, TryNTFSDriver, TryExtDriver, TryHFSPlusDriver};

// Sector 0 of the volume, read into a buffer aligned on the sector size as
// block devices want it. False when the device refuses.
bool ReadFirstSector(Fdisk::SimpleDisk* device, std::uint64_t first_sector, std::vector<unsigned char>& storage,
                     unsigned char*& sector) {
    std::uint32_t size = device->GetSectorSize();
    if (size == 0) return false;
    storage.assign(2 * static_cast<std::size_t>(size) - 1, 0);
    std::uintptr_t address = reinterpret_cast<std::uintptr_t>(storage.data());
    sector = storage.data() + (size - address % size) % size;
    return !device->Transfer(Fdisk::kTransferRead, first_sector, sector, 1).Failed();
}

}  // namespace

FileSystemDriver* TryAllDrivers(Fdisk::SimpleDisk* device, std::uint64_t first_sector, std::uint64_t volume_sectors,
                                std::uint32_t cache_group, const void* boot_sector, std::uintptr_t option_a,
                                std::uintptr_t option_b) {
    std::vector<unsigned char> storage;
    if (boot_sector == nullptr) {
        unsigned char* sector = nullptr;
        if (!ReadFirstSector(device, first_sector, storage, sector)) return nullptr;
        boot_sector = sector;
    }
    for (DriverFactory factory : kTrialOrder) {
        FileSystemDriver* driver =
            factory(device, first_sector, volume_sectors, cache_group, boot_sector, option_a, option_b);
        if (driver != nullptr) return driver;
    }
    return nullptr;
}

// The type numbers of the masks: 0 for all, 4 to 6 ext2 to ext4, 7 and 8
// HFS+ and HFSX, 10 NTFS, 12 and 13 FAT. The loader uses row 0 only.
const DriverTableRow kDriverTable[kDriverTableRows] = {
    {TryAllDrivers, 0x35F1},
    {TryExtDriver, 0x71},
    {TryFATDriver, 0x3001},
    {TryHFSPlusDriver, 0x181},
    {TryNTFSDriver, 0x401},
};
