#pragma once
// The sector device under every file-system driver. Drivers see a disk only
// through this class, so a firmware block device and a disk image on the
// host serve them alike.
#include <cstdint>

#include "loader/common/error.h"

namespace Fdisk {

// The operations of Transfer.
constexpr std::uint32_t kTransferRead = 2;   // count sectors from sector into buffer
constexpr std::uint32_t kTransferWrite = 3;  // count sectors from buffer to sector
constexpr std::uint32_t kTransferFlush = 4;  // make written data durable
constexpr std::uint32_t kTransferNoAction5 = 5;  // accepted, nothing to do
constexpr std::uint32_t kTransferNoAction6 = 6;  // accepted, nothing to do

// A disk's shape as old partitioning tools want it; only reported.
struct Geometry {
    std::uint8_t sectors_per_track = 63;
    std::uint8_t last_head = 15;
    std::uint64_t cylinders = 0;
};

class SimpleDisk {
public:
    virtual ~SimpleDisk() = default;

    virtual std::uint32_t GetSectorSize() { return sector_size; }
    // The number of the last sector: the disk has GetLastSector() + 1 sectors.
    virtual std::uint64_t GetLastSector() { return last_sector; }
    virtual Geometry* GetGeometry() { return &geometry; }
    // Moves `count` whole sectors; `buffer` holds count x sector size bytes.
    virtual Common::Error Transfer(std::uint32_t operation, std::uint64_t sector, void* buffer, std::uint64_t count) = 0;
    // Optional abilities beyond Transfer. No disk of the system has any.
    virtual std::uint32_t Extensions() { return 0; }

protected:
    SimpleDisk() = default;
    SimpleDisk(const SimpleDisk&) = delete;
    SimpleDisk& operator=(const SimpleDisk&) = delete;

    std::uint32_t sector_size = 0;
    std::uint64_t last_sector = 0;
    Geometry geometry;
};

}  // namespace Fdisk
