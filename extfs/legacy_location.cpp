// The classic block map. A logical block's path runs through at most three
// indirect blocks; a run ends at the end of the pointer array that holds
// it, which keeps one lookup inside one block in hand.
#include "extfs/location_processor.h"
#include "loader/common/raise.h"

namespace extfs {

namespace {

constexpr std::uint32_t kSingle = 12;  // i_block slots of the three indirect blocks
constexpr std::uint32_t kDouble = 13;
constexpr std::uint32_t kTriple = 14;

// From entry `at` of an array of `length` pointers: a mapped block with the
// following pointers that continue it, or a hole with the zeros behind it.
std::uint64_t RunInArray(const Common::le32* words, std::uint64_t length, std::uint64_t at, std::uint64_t& count) {
    const std::uint64_t first = words[at].get();
    std::uint64_t n = 1;
    if (first == 0) {
        while (at + n < length && words[at + n].get() == 0) ++n;
        count = n;
        return ExtfsDriver::kNoBlock;
    }
    while (at + n < length && words[at + n].get() == first + n) ++n;
    count = n;
    return first;
}

}  // namespace

std::uint64_t LegacyLocationProcessor::max_blocks() const {
    const std::uint64_t p = driver->pointers_per_block;
    return kDirect + p + p * p + p * p * p;
}

std::uint64_t LegacyLocationProcessor::first_block(const unsigned char* map) {
    const Common::le32* pointers = BlockPointers(map);
    for (std::uint32_t n = 0; n < kPointers; ++n) {
        if (pointers[n].get() != 0) return pointers[n].get();
    }
    return 0;
}

std::uint64_t LegacyLocationProcessor::locate(const unsigned char* map, std::uint64_t block, std::uint64_t& count,
                                              bool& unwritten, ExtfsBlockWalk& walk) {
    count = 0;
    unwritten = false;
    const Common::le32* pointers = BlockPointers(map);
    if (block < kDirect) return RunInArray(pointers, kDirect, block, count);
    const std::uint64_t p = driver->pointers_per_block;
    std::uint64_t rest = block - kDirect;
    std::uint32_t slot = kSingle;
    std::uint32_t depth = 1;
    std::uint64_t span = p;  // logical blocks under the inode's pointer
    if (rest >= span) {
        rest -= span;
        slot = kDouble;
        depth = 2;
        span = p * p;
        if (rest >= span) {
            rest -= span;
            slot = kTriple;
            depth = 3;
            span = p * p * p;
            if (rest >= span) Common::Raise(ERROR_TAG, Common::Failures::FILE_SEEK);
        }
    }
    std::uint64_t pointer = pointers[slot].get();
    if (pointer == 0) {
        count = span - rest;
        return ExtfsDriver::kNoBlock;
    }
    for (std::uint32_t level = 0;; ++level) {
        const Common::le32* words = BlockPointers(walk.level_block(pointer, level).data());
        span /= p;  // logical blocks under one pointer of this block
        const std::uint64_t at = rest / span;
        rest %= span;
        if (level + 1 == depth) return RunInArray(words, p, at, count);
        pointer = words[at].get();
        if (pointer == 0) {
            // The hole goes on over the zero pointers that follow in this block.
            std::uint64_t hole = span - rest;
            for (std::uint64_t next = at + 1; next < p && words[next].get() == 0; ++next) hole += span;
            count = hole;
            return ExtfsDriver::kNoBlock;
        }
    }
}

}  // namespace extfs
