// The run list's encoder and the changes of a list: append, split, free.
#include <vector>

#include "loader/common/raise.h"
#include "ntfs/cluster_allocator.h"
#include "ntfs/ntfs_driver.h"
#include "ntfs/run_list.h"

namespace ntfs {

namespace {

constexpr std::uint64_t kLargest32 = 0xFFFFFFFFu;

// A number as the decoder wants it: `value` against `base`, both 32-bit,
// in the fewest bytes whose sign reads right; a fifth byte (0x00 or 0xFF)
// carries the sign where four bytes can't. Answers the bytes used; null
// `out` only counts.
std::uint32_t PutNumber(std::uint64_t value, std::uint64_t base, unsigned char* out) {
    if (value > kLargest32 || base > kLargest32) Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
    const auto v = static_cast<std::uint32_t>(value);
    const auto b = static_cast<std::uint32_t>(base);
    const std::uint32_t difference = v - b;
    const bool negative = v < b;
    const std::uint32_t tested = negative ? ~difference : difference;
    std::uint32_t width = 4;
    if (tested <= 0x7F) {
        width = 1;
    } else if (tested <= 0x7FFF) {
        width = 2;
    } else if (tested <= 0x7FFFFF) {
        width = 3;
    } else if ((tested & 0x80000000u) != 0) {
        width = 5;
    }
    if (out != nullptr) {
        for (std::uint32_t i = 0; i < width && i < 4; ++i) out[i] = static_cast<unsigned char>(difference >> (8 * i));
        if (width == 5) out[4] = negative ? 0xFF : 0x00;
    }
    return width;
}

// One run's bytes: header, length, and for a real run the cluster against
// `previous`. Null `out` only counts.
std::uint32_t PutRun(const RunEntry& run, std::uint64_t previous, unsigned char* out) {
    unsigned char* at = out == nullptr ? nullptr : out + 1;
    const std::uint32_t length_width = PutNumber(run.length, 0, at);
    std::uint32_t offset_width = 0;
    if (!run.sparse()) offset_width = PutNumber(run.cluster, previous, at == nullptr ? nullptr : at + length_width);
    if (out != nullptr) out[0] = static_cast<unsigned char>(offset_width << 4 | length_width);
    return 1 + length_width + offset_width;
}

}  // namespace

std::uint32_t RunList::encodedSize() const {
    if (size_known_) return encoded_size_;
    std::uint32_t total = 1;
    std::uint64_t previous = 0;
    for (const RunEntry& run : entries_) {
        total += PutRun(run, previous, nullptr);
        if (!run.sparse()) previous = run.cluster;
    }
    encoded_size_ = total;
    size_known_ = true;
    return total;
}

void RunList::encode(unsigned char* out) const {
    std::uint64_t previous = 0;
    for (const RunEntry& run : entries_) {
        out += PutRun(run, previous, out);
        if (!run.sparse()) previous = run.cluster;
    }
    *out = 0;
}

void RunList::append(const RunEntry& run) {
    size_known_ = false;
    if (!entries_.empty()) {
        RunEntry& last = entries_.back();
        const bool continues = last.sparse() ? run.sparse() : !run.sparse() && last.cluster + last.length == run.cluster;
        if (continues && last.end() == run.vcn && std::uint64_t(last.length) + run.length <= kLargest32) {
            last.length += run.length;
            return;
        }
    }
    entries_.push_back(run);
}

RunList RunList::splitAt(std::uint64_t vcn) {
    RunList tail;
    size_known_ = false;
    std::size_t index = find(vcn);
    if (index == entries_.size()) {
        // Nothing lies at `vcn`: everything from there on lies behind the list, or nothing does.
        if (entries_.empty() || vcn >= entries_.back().end()) return tail;
        index = 0;
    }
    RunEntry& run = entries_[index];
    if (run.vcn < vcn) {
        const auto kept = static_cast<std::uint32_t>(vcn - run.vcn);
        RunEntry cut{run.sparse() ? RunEntry::kSparse : run.cluster + kept, vcn, run.length - kept};
        run.length = kept;
        tail.entries_.push_back(cut);
        ++index;
    }
    tail.entries_.insert(tail.entries_.end(), entries_.begin() + static_cast<std::ptrdiff_t>(index), entries_.end());
    entries_.erase(entries_.begin() + static_cast<std::ptrdiff_t>(index), entries_.end());
    return tail;
}

void RunList::freeAll(NTFSDriver* driver) {
    std::vector<BitRun> freed;
    for (const RunEntry& run : entries_) {
        if (run.sparse() || run.length == 0) continue;
        freed.push_back({run.cluster, run.length});
        // Cached data of the clusters must not land on their next owner.
        for (std::uint64_t i = 0; i < run.length; ++i) {
            driver->discard_block((run.cluster + i) * driver->sectors_per_cluster);
        }
    }
    entries_.clear();
    size_known_ = false;
    if (!freed.empty()) driver->cluster_allocator->freeList(freed);
}

}  // namespace ntfs
