#pragma once
// An attribute whose value lies in clusters. Each object is one extent:
// one header and its runs. The extents of a stream form a chain that the
// first one loads forward on demand and holds until it goes; the sizes of
// the stream live in the first extent's header.
#include <cstdint>
#include <vector>

#include "ntfs/attribute.h"
#include "ntfs/run_list.h"

namespace ntfs {

class NonresAttribute : public Attribute {
public:
    // Decodes the header's runs; FILE_CORRUPT for any disagreement.
    NonresAttribute(NTFSDriver* driver, BaseFileRecord* record, AttributeRecord* header);
    ~NonresAttribute() override;

    std::uint64_t physicalPosition(std::uint64_t position) override;
    std::uint64_t firstPosition() override;
    std::uint64_t read(std::uint64_t position, std::uint64_t length, void* buffer) override;
    std::uint64_t readSectors(std::uint64_t position, std::uint64_t length, void* buffer) override;
    std::uint64_t readWithTail(std::uint64_t position, std::uint64_t length, void* buffer, bool direct) override;
    std::uint64_t write(std::uint64_t position, std::uint64_t length, const void* buffer) override;
    std::uint64_t writeSectors(std::uint64_t position, std::uint64_t length, const void* buffer) override;
    std::uint64_t resize(std::uint64_t size, bool may_move) override;
    std::uint64_t size() override { return first()->header_->data_size(); }
    std::uint64_t allocatedSize() override { return first()->header_->allocated_size(); }
    std::uint64_t initializedSize() { return first()->header_->initialized_size(); }
    std::uint64_t usedRanges(std::uint64_t position, std::uint64_t length,
                             std::map<std::uint64_t, std::uint64_t>& ranges) override;
    AttributeRecord* header() override { return header_; }
    void rebase(AttributeRecord* moved) override { header_ = moved; }

    // The extent behind this one, loaded on first use; null at the end.
    NonresAttribute* nextExtent();
    // The extent of the chain, from this one on, whose VCNs hold `vcn`;
    // null when the chain ends first.
    NonresAttribute* extentOf(std::uint64_t vcn);
    // The first extent of the chain; FILE_CORRUPT unless it starts at VCN 0.
    NonresAttribute* first();
    const RunList& runs() const { return runs_; }
    std::uint64_t lowestVcn() const { return header_->lowest_vcn(); }
    // Decodes the runs again after the record rewrote this extent's header
    // (a cut run list); the extents behind are found afresh on next use.
    void reloadRuns();

    // Clusters from `vcn` on that lie together: the first cluster (or
    // RunEntry::kSparse) and how many follow it in the same run. False when
    // no extent of the chain from this one on holds `vcn`.
    struct Stretch {
        std::uint64_t cluster;
        std::uint64_t count;
        bool sparse() const { return cluster == RunEntry::kSparse; }
    };
    bool stretchAt(std::uint64_t vcn, Stretch& stretch);

protected:
    // Reads without regard to compression: real runs from the disk, sparse
    // runs as zeros, bytes past the initialized size as zeros.
    std::uint64_t plainRead(std::uint64_t position, std::uint64_t length, void* buffer);
    std::uint64_t plainReadSectors(std::uint64_t position, std::uint64_t length, void* buffer);
    std::uint64_t plainReadWithTail(std::uint64_t position, std::uint64_t length, void* buffer, bool direct);
    // FILE_READ for a null buffer or a range off the sector grid.
    void checkSectorRange(std::uint64_t position, std::uint64_t length, const void* buffer) const;
    // Writes and resizes without regard to compression.
    std::uint64_t plainWrite(std::uint64_t position, std::uint64_t length, const void* buffer);
    std::uint64_t plainWriteSectors(std::uint64_t position, std::uint64_t length, const void* buffer);
    std::uint64_t plainResize(std::uint64_t size);

    AttributeRecord* header_;
    RunList runs_;

private:
    // The runs named by the header's mapping pairs.
    void decodeRuns();
    // Copies `length` bytes at byte `offset` of cluster `vcn` of a stretch.
    void copyFromCluster(const Stretch& stretch, std::uint32_t offset, std::uint32_t length, std::uint64_t position,
                         std::uint64_t initialized, unsigned char* out);

    // The write's steps: zeros from the initialized size up to `position`
    // (false when the volume filled up first), the length that fits once
    // the stream reaches past `position` + `length`, the clusters' bytes
    // (zeros for a null `data`), and the initialized size raised to `end`.
    bool fillGap(std::uint64_t position);
    std::uint64_t fitLength(std::uint64_t position, std::uint64_t length);
    std::uint64_t writeClusters(std::uint64_t position, std::uint64_t length, const unsigned char* data,
                                std::uint64_t old_size);
    void writeCluster(std::uint64_t cluster, std::uint32_t offset, std::uint32_t length, bool fresh,
                      const unsigned char* data);
    std::uint64_t writeRuns(std::uint64_t position, std::uint64_t length, const unsigned char* data);
    void raiseInitialized(std::uint64_t end);
    // The clusters of `vcn` to write into; FILE_CORRUPT where the stream
    // has no clusters (a sparse run).
    bool writableStretch(std::uint64_t vcn, Stretch& stretch);
    // The resize's steps: the allocation cut by `bytes` from the end, or
    // grown by up to `bytes` with clusters of the volume.
    void cutAllocation(std::uint64_t bytes);
    void extendAllocation(std::uint64_t bytes);
    // The last extent of the chain.
    NonresAttribute* lastExtent();
    // Puts as many of `runs` behind this extent's runs as its record takes;
    // answers how many clusters went in.
    std::uint64_t appendRuns(const std::vector<RunEntry>& runs);
    // Writes this extent's runs into its header, which the record has
    // already made long enough, and reads them back.
    void storeRuns();

    NonresAttribute* next_ = nullptr;
    bool next_loaded_ = false;
    NonresAttribute* previous_ = nullptr;
};

}  // namespace ntfs
