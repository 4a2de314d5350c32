#pragma once
// A disk whose power goes off after a number of sector writes: the first
// `allowed` sectors written reach the disk below, every later one is
// dropped, and the driver is told each write succeeded, as a drive with a
// volatile cache would tell it before the power went. Writes are counted
// per sector: a transfer of k sectors is k writes, and a cut inside one
// lets its first part through, as a drive may have written the start of a
// long transfer when the power went.
#include <cstdint>

#include "firmware/simple_disk.h"
#include "loader/common/error.h"

namespace TestSupport {

class PowerCutDisk : public Fdisk::SimpleDisk {
public:
    static constexpr std::uint64_t kNoCut = ~0ull;

    PowerCutDisk(Fdisk::SimpleDisk& below, std::uint64_t allowed) : below_(below), allowed_(allowed) {
        sector_size = below.GetSectorSize();
        last_sector = below.GetLastSector();
    }

    Common::Error Transfer(std::uint32_t operation, std::uint64_t sector, void* buffer,
                           std::uint64_t count) override {
        if (operation != Fdisk::kTransferWrite) return below_.Transfer(operation, sector, buffer, count);
        const std::uint64_t left = written_ < allowed_ ? allowed_ - written_ : 0;
        const std::uint64_t through = count < left ? count : left;
        written_ += count;
        if (through == 0) return Common::Error();
        return below_.Transfer(operation, sector, buffer, through);
    }

    // Sector writes asked for, those let through included.
    std::uint64_t writes() const { return written_; }
    bool cut() const { return written_ > allowed_; }

private:
    Fdisk::SimpleDisk& below_;
    std::uint64_t allowed_;
    std::uint64_t written_ = 0;
};

}  // namespace TestSupport
