#pragma once
// A stream with the compression or sparse bit: read by compression units.
// A unit whose first run is sparse reads as zeros, a unit whose clusters
// are all real is stored as it is, and a unit of real clusters followed by
// a sparse run holds LZNT1 data. A stream that is sparse but not
// compressed, or has no unit, is read run by run, its sparse runs as
// zeros. Such a stream is changed only by emptying it, which leaves a
// plain stream behind.
#include <vector>

#include "ntfs/nonres_attribute.h"

namespace ntfs {

class CompressedAttribute : public NonresAttribute {
public:
    // FILE_CORRUPT for a unit larger than kMostUnitBytes.
    CompressedAttribute(NTFSDriver* driver, BaseFileRecord* record, AttributeRecord* header);

    // The largest unit taken: 16 clusters of 64 KiB.
    static constexpr std::uint64_t kMostUnitBytes = 1 << 20;

    std::uint64_t physicalPosition(std::uint64_t position) override;
    std::uint64_t read(std::uint64_t position, std::uint64_t length, void* buffer) override;
    std::uint64_t readSectors(std::uint64_t position, std::uint64_t length, void* buffer) override;
    std::uint64_t usedRanges(std::uint64_t position, std::uint64_t length,
                             std::map<std::uint64_t, std::uint64_t>& ranges) override;
    // Units aren't written: FILE_WRITE until the stream is plain.
    std::uint64_t write(std::uint64_t position, std::uint64_t length, const void* buffer) override;
    std::uint64_t writeSectors(std::uint64_t position, std::uint64_t length, const void* buffer) override;
    // Only to 0 (FILE_READ_ONLY else), which makes the stream a plain one:
    // its compression and sparse bits go, and from then on it is written
    // and resized as any other.
    std::uint64_t resize(std::uint64_t size, bool may_move) override;

private:
    // What one unit is made of.
    enum class UnitKind { kSparse, kStored, kCompressed };
    struct Unit {
        UnitKind kind;
        std::vector<Stretch> pieces;  // the real clusters, in order
        std::uint64_t real = 0;
    };
    // Clusters in a unit, from the first extent; 0 for a stream that isn't
    // compressed (sparse only) or has no unit.
    std::uint64_t unitClusters();
    Unit gatherUnit(std::uint64_t vcn);
    // Decodes a compressed unit into `output` of one unit's bytes.
    void decodeUnit(const Unit& unit, unsigned char* output);

    bool plain_ = false;                  // emptied and stripped of its bits: no units any more
    std::vector<unsigned char> scratch_;  // one unit of output
    std::vector<unsigned char> input_;    // the stored clusters of a unit, sector aligned inside
};

}  // namespace ntfs
