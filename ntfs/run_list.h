#pragma once
// The runs of one attribute extent: where each stretch of virtual clusters
// lies on the volume. The mapping pairs codec is this driver's own: a
// number is at most five bytes, clusters and lengths are 32-bit values, and
// the decoder steps over each run by the size its own encoder would give it,
// so that only lists in the minimal form are read as written.
#include <cstdint>
#include <vector>

namespace ntfs {

class NTFSDriver;

struct RunEntry {
    static constexpr std::uint64_t kSparse = ~std::uint64_t(0);

    std::uint64_t cluster;  // kSparse for a run without clusters
    std::uint64_t vcn;
    std::uint32_t length;

    bool sparse() const { return cluster == kSparse; }
    std::uint64_t end() const { return vcn + length; }
};

class RunList {
public:
    // Decodes the `available` bytes of mapping pairs of an extent whose
    // VCNs go from `lowest` to `highest`; every real run must end inside
    // the volume's `clusters`. FILE_CORRUPT for any disagreement.
    static RunList Decode(const unsigned char* bytes, std::uint32_t available, std::uint64_t lowest,
                          std::uint64_t highest, std::uint64_t clusters);

    // The index of the run that holds `vcn`, or size() when none does.
    std::size_t find(std::uint64_t vcn) const;
    // The bytes of the mapping pairs, the ending 0 byte included.
    std::uint32_t encodedSize() const;
    // Writes the mapping pairs to `out`, which holds encodedSize() bytes.
    // FILE_UNSUPPORTED for a cluster or length past 32 bits, which the
    // codec can't hold.
    void encode(unsigned char* out) const;
    // Adds `run` behind the last one; it becomes part of the last when both
    // are sparse or its clusters go on where the last's end.
    void append(const RunEntry& run);
    // The runs from `vcn` on, taken out; a run across `vcn` is cut in two.
    RunList splitAt(std::uint64_t vcn);
    // Gives every real run back to the volume's cluster allocator and
    // empties the list.
    void freeAll(NTFSDriver* driver);
    const std::vector<RunEntry>& entries() const { return entries_; }
    std::size_t size() const { return entries_.size(); }
    const RunEntry& operator[](std::size_t i) const { return entries_[i]; }

private:
    std::vector<RunEntry> entries_;
    mutable std::uint32_t encoded_size_ = 0;
    mutable bool size_known_ = false;
};

}  // namespace ntfs
