// The classic block map. A logical block's path runs through at most three
// indirect blocks; a run ends at the end of the pointer array that holds
// it, which keeps one lookup inside one block in hand.
#include "extfs/location_processor.h"
#include "fsdriver/driver_error.h"

namespace extfs {

namespace {

constexpr std::uint32_t kSingle = 12;  // i_block slots of the three indirect blocks
constexpr std::uint32_t kDouble = 13;
constexpr std::uint32_t kTriple = 14;

std::uint32_t Word(const unsigned char* words, std::uint64_t n) { return Le32(words + 4 * n); }

// From entry `at` of an array of `length` pointers: a mapped block with the
// following pointers that continue it, or a hole with the zeros behind it.
std::uint64_t RunInArray(const unsigned char* words, std::uint64_t length, std::uint64_t at, std::uint64_t& count) {
    const std::uint64_t first = Word(words, at);
    std::uint64_t n = 1;
    if (first == 0) {
        while (at + n < length && Word(words, at + n) == 0) ++n;
        count = n;
        return ExtfsDriver::kNoBlock;
    }
    while (at + n < length && Word(words, at + n) == first + n) ++n;
    count = n;
    return first;
}

}  // namespace

std::uint64_t LegacyLocationProcessor::max_blocks() const {
    const std::uint64_t p = driver->pointers_per_block;
    return kDirect + p + p * p + p * p * p;
}

std::uint64_t LegacyLocationProcessor::first_block(const unsigned char* map) {
    for (std::uint32_t n = 0; n < kPointers; ++n) {
        if (Word(map, n) != 0) return Word(map, n);
    }
    return 0;
}

std::uint64_t LegacyLocationProcessor::locate(const unsigned char* map, std::uint64_t block, std::uint64_t& count,
                                              bool& unwritten, ExtfsBlockWalk& walk) {
    count = 0;
    unwritten = false;
    if (block < kDirect) return RunInArray(map, kDirect, block, count);
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
            if (rest >= span) Fail(ERROR_TAG, Common::FILE_SEEK);
        }
    }
    std::uint64_t pointer = Word(map, slot);
    if (pointer == 0) {
        count = span - rest;
        return ExtfsDriver::kNoBlock;
    }
    for (std::uint32_t level = 0;; ++level) {
        const unsigned char* words = walk.level_block(pointer, level).data();
        span /= p;  // logical blocks under one pointer of this block
        const std::uint64_t at = rest / span;
        rest %= span;
        if (level + 1 == depth) return RunInArray(words, p, at, count);
        pointer = Word(words, at);
        if (pointer == 0) {
            // The hole goes on over the zero pointers that follow in this block.
            std::uint64_t hole = span - rest;
            for (std::uint64_t next = at + 1; next < p && Word(words, next) == 0; ++next) hole += span;
            count = hole;
            return ExtfsDriver::kNoBlock;
        }
    }
}

}  // namespace extfs
