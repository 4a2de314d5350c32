#pragma once
// A graphics mode that passed the monitor filter, and the order in which
// such modes are ranked.
#include <cstdint>
#include <vector>

#include "launch/video_record.h"

namespace EfiLoader {

struct ModeCandidate {
    VideoRecord record;         // as Query would fill it for this mode
    std::uint32_t mode;         // the firmware's mode number
    std::uint8_t preferred;     // 1 if the mode equals the EDID's first detailed timing
    std::uint8_t refresh;       // best vertical rate known for the mode, 0 if unknown
};

// True when `a` ranks below `b`: a preferred mode first, then the larger
// area, then the deeper pixel, then the higher refresh.
bool IsWorse(const ModeCandidate& a, const ModeCandidate& b);

// The best candidate, the earliest of equals; null when there is none.
const ModeCandidate* BestCandidate(const std::vector<ModeCandidate>& candidates);

}  // namespace EfiLoader
