#pragma once
// Which driver reads a volume is decided by trial: each driver's mount is
// its own test, and the first that doesn't refuse wins. Nothing here looks
// at the volume's bytes.
#include <cstdint>

#include "firmware/simple_disk.h"
#include "fsdriver/file_system_driver.h"

// A factory mounts the volume with one driver, or answers null when that
// driver refuses it. The device stays with the caller until the caller sets
// MOUNT_OWNS_DEVICE on the result; the result has `references` 0.
// `boot_sector` is sector 0 of the volume, or null; `option_a` and
// `option_b` go to the driver's constructor as its own options.
using DriverFactory = FileSystemDriver* (*)(Fdisk::SimpleDisk* device, std::uint64_t first_sector,
                                           std::uint64_t volume_sectors, std::uint32_t cache_group,
                                           const void* boot_sector, std::uintptr_t option_a,
                                           std::uintptr_t option_b);

struct DriverTableRow {
    DriverFactory factory;
    // The file-system type numbers the factory can serve, one bit each.
    std::uint32_t mask;
};

// Row 0 tries every driver; the others name one driver each.
constexpr std::uint32_t kDriverTableRows = 5;
extern const DriverTableRow kDriverTable[kDriverTableRows];

// The trial: reads sector 0 when `boot_sector` is null, then tries the
// drivers in the order FAT, NTFS, ext, HFS+.
FileSystemDriver* TryAllDrivers(Fdisk::SimpleDisk* device, std::uint64_t first_sector,
                                std::uint64_t volume_sectors, std::uint32_t cache_group,
                                const void* boot_sector, std::uintptr_t option_a, std::uintptr_t option_b);

// The single-driver factories, each beside its driver.
FileSystemDriver* TryFATDriver(Fdisk::SimpleDisk* device, std::uint64_t first_sector,
                               std::uint64_t volume_sectors, std::uint32_t cache_group,
                               const void* boot_sector, std::uintptr_t option_a, std::uintptr_t option_b);
FileSystemDriver* TryNTFSDriver(Fdisk::SimpleDisk* device, std::uint64_t first_sector,
                                std::uint64_t volume_sectors, std::uint32_t cache_group,
                                const void* boot_sector, std::uintptr_t option_a, std::uintptr_t option_b);
FileSystemDriver* TryExtDriver(Fdisk::SimpleDisk* device, std::uint64_t first_sector,
                               std::uint64_t volume_sectors, std::uint32_t cache_group,
                               const void* boot_sector, std::uintptr_t option_a, std::uintptr_t option_b);
FileSystemDriver* TryHFSPlusDriver(Fdisk::SimpleDisk* device, std::uint64_t first_sector,
                                   std::uint64_t volume_sectors, std::uint32_t cache_group,
                                   const void* boot_sector, std::uintptr_t option_a, std::uintptr_t option_b);
