#pragma once
// The physical blocks that one release takes out of a map, gathered in
// ascending runs before any of them goes back to the allocator. A block
// entered twice means the map pointed at it twice: that is damage, and it
// is raised before anything is freed.
#include <cstdint>
#include <vector>

namespace extfs {

class BlockRangeList {
public:
    struct Range {
        std::uint64_t first;
        std::uint64_t count;
    };

    // Enters `count` blocks from `first`. FILE_CORRUPT for one already in.
    void add(std::uint64_t first, std::uint64_t count = 1);
    const std::vector<Range>& ranges() const { return ranges_; }
    std::uint64_t total() const { return total_; }

private:
    std::vector<Range> ranges_;  // sorted by first block, apart from each other
    std::uint64_t total_ = 0;
};

}  // namespace extfs
