#include "tools/volume_claim.h"

#include "loader/common/byte_order.h"

namespace MorvaneTool {
namespace {

using Common::LoadLE16;
using Common::LoadLE32;

// A FAT boot sector: the signature, a power-of-two sector size from 512 to
// 4096, and the 16-bit total, else the 32-bit one.
bool FatClaim(const std::vector<unsigned char>& start, VolumeClaim& claim) {
    if (start.size() < 512 || start[510] != 0x55 || start[511] != 0xAA) return false;
    std::uint32_t sector = LoadLE16(&start[11]);
    if (sector < 512 || sector > 4096 || (sector & (sector - 1)) != 0) return false;
    std::uint32_t sectors = LoadLE16(&start[19]);
    if (sectors == 0) sectors = LoadLE32(&start[32]);
    if (sectors == 0) return false;
    claim.header = "boot sector";
    claim.bytes = static_cast<std::uint64_t>(sectors) * sector;
    return true;
}

// An ext superblock at byte 1024: its magic, block count and block size;
// the count's high half only where the 64-bit feature is set.
bool ExtClaim(const std::vector<unsigned char>& start, VolumeClaim& claim) {
    constexpr std::size_t kSuper = 1024;
    constexpr std::uint32_t kIncompat64Bit = 0x80;
    if (start.size() < kSuper + 1024 || LoadLE16(&start[kSuper + 56]) != 0xEF53) return false;
    std::uint32_t log_block = LoadLE32(&start[kSuper + 24]);
    if (log_block > 6) return false;
    std::uint64_t blocks = LoadLE32(&start[kSuper + 4]);
    if ((LoadLE32(&start[kSuper + 96]) & kIncompat64Bit) != 0) {
        blocks |= static_cast<std::uint64_t>(LoadLE32(&start[kSuper + 0x150])) << 32;
    }
    claim.header = "superblock";
    claim.bytes = blocks * (1024ull << log_block);
    return true;
}

}  // namespace

VolumeClaim ClaimedLength(const std::vector<unsigned char>& start) {
    VolumeClaim claim;
    if (!ExtClaim(start, claim)) FatClaim(start, claim);
    return claim;
}

}  // namespace MorvaneTool
