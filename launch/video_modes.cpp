#include "launch/video_modes.h"

namespace EfiLoader {

bool IsWorse(const ModeCandidate& a, const ModeCandidate& b) {
    if (a.preferred != b.preferred) return a.preferred < b.preferred;
    const VideoRecord& left = a.record;
    const VideoRecord& right = b.record;
    if (left.lfb_width != right.lfb_width || left.lfb_height != right.lfb_height) {
        std::uint32_t left_area = std::uint32_t(left.lfb_width) * left.lfb_height;
        std::uint32_t right_area = std::uint32_t(right.lfb_width) * right.lfb_height;
        if (left_area != right_area) return left_area < right_area;
    }
    if (left.lfb_depth != right.lfb_depth) return left.lfb_depth < right.lfb_depth;
    return a.refresh < b.refresh;
}

const ModeCandidate* BestCandidate(const std::vector<ModeCandidate>& candidates) {
    const ModeCandidate* best = nullptr;
    for (const ModeCandidate& candidate : candidates) {
        if (best == nullptr || IsWorse(*best, candidate)) best = &candidate;
    }
    return best;
}

}  // namespace EfiLoader
