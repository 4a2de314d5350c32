#pragma once
// What a volume's own header says of its length, read by the tool alone to
// explain a volume that no driver took: an image cut short is a host
// problem, not a damaged or unknown volume.
#include <cstdint>
#include <string>
#include <vector>

namespace MorvaneTool {

struct VolumeClaim {
    const char* header = nullptr;  // "boot sector", "superblock", "volume header"; null when none is recognised
    std::uint64_t bytes = 0;
};

// `start`: the first bytes of the volume (2 KiB or more reach every header).
VolumeClaim ClaimedLength(const std::vector<unsigned char>& start);

}  // namespace MorvaneTool
