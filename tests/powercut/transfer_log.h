#pragma once
// A disk that passes every transfer on and notes which sector each sector
// write went to, in order. The driver writes a block of several sectors (a
// record, an index buffer) as writes to neighbouring sectors one after the
// other, so a cut can only tear such a block where the writes just before
// and just after it go to neighbouring sectors.
#include <cstdint>
#include <vector>

#include "firmware/simple_disk.h"

namespace PowerCut {

class TransferLog : public Fdisk::SimpleDisk {
public:
    explicit TransferLog(Fdisk::SimpleDisk& below) : below_(below) {
        sector_size = below.GetSectorSize();
        last_sector = below.GetLastSector();
    }

    Common::Error Transfer(std::uint32_t operation, std::uint64_t sector, void* buffer,
                           std::uint64_t count) override {
        if (operation == Fdisk::kTransferWrite) {
            for (std::uint64_t i = 0; i < count; ++i) sectors_.push_back(sector + i);
        }
        return below_.Transfer(operation, sector, buffer, count);
    }

    // Whether letting only `allowed` sector writes through stops between
    // writes to two neighbouring sectors.
    bool may_tear(std::uint64_t allowed) const {
        return allowed > 0 && allowed < sectors_.size() && sectors_[allowed] == sectors_[allowed - 1] + 1;
    }

private:
    Fdisk::SimpleDisk& below_;
    std::vector<std::uint64_t> sectors_;  // the sector of each sector write, in order
};

}  // namespace PowerCut
