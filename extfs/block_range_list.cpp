#include "extfs/block_range_list.h"

#include <algorithm>

#include "loader/common/raise.h"

namespace extfs {

void BlockRangeList::add(std::uint64_t first, std::uint64_t count) {
    if (count == 0) return;
    if (first + count < first) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    // The common case: a release walks forwards, so a block mostly extends the last run.
    if (!ranges_.empty() && ranges_.back().first + ranges_.back().count == first) {
        ranges_.back().count += count;
        total_ += count;
        return;
    }
    auto after = std::upper_bound(ranges_.begin(), ranges_.end(), first,
                                  [](std::uint64_t block, const Range& range) { return block < range.first; });
    if (after != ranges_.end() && after->first < first + count) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    if (after != ranges_.begin()) {
        auto before = after - 1;
        if (before->first + before->count > first) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        if (before->first + before->count == first) {
            before->count += count;
            total_ += count;
            return;
        }
    }
    ranges_.insert(after, Range{first, count});
    total_ += count;
}

}  // namespace extfs
