// Resizing the value of a non-resident attribute: the sizes in the first
// extent, the clusters at the end of the last.
#include <algorithm>
#include <cstring>

#include "loader/common/raise.h"
#include "ntfs/cluster_allocator.h"
#include "ntfs/file_record.h"
#include "ntfs/nonres_attribute.h"
#include "ntfs/ntfs_driver.h"

namespace ntfs {

namespace {

constexpr std::uint64_t kLongestRun = 0xFFFFFFFFu;

std::uint32_t AttributeLength(std::uint32_t pairs_offset, std::uint32_t encoded) {
    return (pairs_offset + encoded + 7) & ~7u;
}

// The runs of `runs` from cluster `skip` on.
std::vector<RunEntry> RunsBehind(const std::vector<RunEntry>& runs, std::uint64_t skip) {
    std::vector<RunEntry> rest;
    for (const RunEntry& run : runs) {
        if (skip >= run.length) {
            skip -= run.length;
            continue;
        }
        rest.push_back({run.cluster + skip, run.vcn + skip, static_cast<std::uint32_t>(run.length - skip)});
        skip = 0;
    }
    return rest;
}

// How many of the first runs of `runs` one extent can name.
std::size_t FittingRuns(const std::vector<RunEntry>& runs, std::uint32_t pairs, std::uint32_t most) {
    RunList piece;
    std::size_t taken = 0;
    for (; taken < runs.size(); ++taken) {
        piece.append(runs[taken]);
        if (AttributeLength(pairs, piece.encodedSize()) > most) break;
    }
    return taken;
}

void FreeRuns(NTFSDriver* driver, const std::vector<RunEntry>& runs) {
    std::vector<BitRun> bits;
    for (const RunEntry& run : runs) bits.push_back({run.cluster, run.length});
    driver->cluster_allocator->freeList(bits);
}

}  // namespace

std::uint64_t NonresAttribute::resize(std::uint64_t size, bool) { return plainResize(size); }

std::uint64_t NonresAttribute::plainResize(std::uint64_t size) {
    NonresAttribute* head = first();
    const std::uint64_t current = head->header_->data_size();
    if (size == current) return size;
    const std::uint64_t cluster_size = driver->cluster_size;
    const std::uint64_t allocated = head->header_->allocated_size();
    if (size < current) {
        head->header_->set_data_size(size);
        head->header_->set_initialized_size(size);
        const std::uint64_t kept = (size + cluster_size - 1) / cluster_size * cluster_size;
        if (allocated >= kept + cluster_size) cutAllocation(allocated - kept);
        record->flush();
        return size;
    }
    if (size > allocated) extendAllocation((size + cluster_size - 1) / cluster_size * cluster_size - allocated);
    size = std::min(size, head->header_->allocated_size());
    head->header_->set_data_size(size);
    head->header_->set_initialized_size(size);
    record->flush();
    return size;
}

NonresAttribute* NonresAttribute::lastExtent() {
    NonresAttribute* extent = first();
    while (NonresAttribute* next = extent->nextExtent()) extent = next;
    return extent;
}

void NonresAttribute::cutAllocation(std::uint64_t bytes) {
    NonresAttribute* head = first();
    NonresAttribute* last = lastExtent();
    const std::uint64_t allocated = head->header_->allocated_size() - bytes;
    const std::uint64_t end_vcn = allocated / driver->cluster_size;
    head->header_->set_allocated_size(allocated);
    // Extents that lie wholly behind the cut go with their clusters; the
    // extent before each one gives up its hold on it.
    while (last != head && end_vcn <= last->lowestVcn()) {
        NonresAttribute* previous = last->previous_;
        previous->next_ = nullptr;
        previous->next_loaded_ = false;
        last->previous_ = nullptr;
        record->dropAttribute(last, true);
        last = previous;
    }
    RunList tail = last->runs_.splitAt(end_vcn);
    last->header_->set_highest_vcn(end_vcn - 1);
    const std::uint32_t pairs = last->header_->mapping_pairs_offset();
    // A shorter list never needs more bytes than the one it was cut from.
    last->runs_.encode(reinterpret_cast<unsigned char*>(last->header_) + pairs);
    record->resizeInRecord(last->header_, AttributeLength(pairs, last->runs_.encodedSize()), false);
    record->flush();
    // Only now that no record names them may the clusters go.
    tail.freeAll(driver);
}

void NonresAttribute::extendAllocation(std::uint64_t bytes) {
    std::vector<BitRun> taken;
    std::uint64_t got = 0;
    driver->cluster_allocator->allocate(taken, bytes / driver->cluster_size, &got, false, true);
    if (got == 0) return;
    NonresAttribute* last = lastExtent();
    std::vector<RunEntry> runs;
    std::uint64_t vcn = last->header_->highest_vcn() + 1;
    for (const BitRun& run : taken) {
        for (std::uint64_t done = 0; done < run.count;) {
            const std::uint64_t part = std::min(run.count - done, kLongestRun);
            runs.push_back({run.first + done, vcn, static_cast<std::uint32_t>(part)});
            vcn += part;
            done += part;
        }
    }
    std::uint64_t placed = 0;
    try {
        placed = last->appendRuns(runs);
    } catch (...) {
        driver->cluster_allocator->freeList(taken);
        throw;
    }
    NonresAttribute* head = first();
    head->header_->set_allocated_size(head->header_->allocated_size() + placed * driver->cluster_size);
    record->flush();
    if (placed == got) return;
    // What the last extent can't take goes to new extents, each in a new
    // extension record; what can't be placed at all goes back.
    std::vector<RunEntry> rest = RunsBehind(runs, placed);
    const std::uint32_t pairs = (AttributeRecord::kNonResidentHeaderSize + 2u * header_->name_length() + 7) & ~7u;
    try {
        while (!rest.empty()) {
            const std::size_t taken = FittingRuns(rest, pairs, record->maxAttributeSize());
            if (taken == 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_DISK_FULL);
            RunList piece;
            for (std::size_t i = 0; i < taken; ++i) piece.append(rest[i]);
            std::vector<unsigned char> bytes(piece.encodedSize());
            piece.encode(bytes.data());
            const std::uint64_t lowest = rest.front().vcn;
            const std::uint64_t highest = rest[taken - 1].end() - 1;
            lastExtent()->next_loaded_ = false;
            record->releaseAttribute(record->addExtent(type(), name(), lowest, highest, bytes.data(),
                                                       static_cast<std::uint32_t>(bytes.size())));
            rest.erase(rest.begin(), rest.begin() + static_cast<std::ptrdiff_t>(taken));
            head = first();
            head->header_->set_allocated_size(head->header_->allocated_size() +
                                              (highest + 1 - lowest) * driver->cluster_size);
            record->flush();
        }
    } catch (...) {
        FreeRuns(driver, rest);
        throw;
    }
}

std::uint64_t NonresAttribute::appendRuns(const std::vector<RunEntry>& runs) {
    const std::uint32_t pairs = header_->mapping_pairs_offset();
    const std::uint32_t most = record->maxAttributeSize();
    RunList grown = runs_;
    std::uint64_t placed = 0;
    for (const RunEntry& run : runs) {
        RunList trial = grown;
        trial.append(run);
        if (AttributeLength(pairs, trial.encodedSize()) > most) break;
        grown = std::move(trial);
        placed += run.length;
    }
    if (placed == 0) return 0;
    const std::uint32_t length = AttributeLength(pairs, grown.encodedSize());
    const std::uint64_t highest = header_->highest_vcn();
    // Making room elsewhere (false) leaves this header where it is: try
    // again. Room made by cutting this very extent's runs (the MFT's own
    // stream) leaves it no longer the last: the new runs go behind it.
    while (!record->resizeInRecord(header_, std::max(length, header_->length()), true)) {
        if (header_->highest_vcn() != highest) return 0;
    }
    runs_ = std::move(grown);
    header_->set_highest_vcn(header_->highest_vcn() + placed);
    storeRuns();
    return placed;
}

void NonresAttribute::storeRuns() {
    const std::uint32_t pairs = header_->mapping_pairs_offset();
    auto* bytes = reinterpret_cast<unsigned char*>(header_) + pairs;
    runs_.encode(bytes);
    const std::uint64_t clusters = driver->total_sectors / driver->sectors_per_cluster;
    runs_ = RunList::Decode(bytes, header_->length() - pairs, header_->lowest_vcn(), header_->highest_vcn(), clusters);
}

}  // namespace ntfs
