#include "ntfs/nonres_attribute.h"

#include <algorithm>
#include <cstring>

#include "loader/common/raise.h"
#include "ntfs/file_record.h"
#include "ntfs/ntfs_driver.h"

namespace ntfs {

NonresAttribute::NonresAttribute(NTFSDriver* driver, BaseFileRecord* record, AttributeRecord* header)
    : Attribute(driver, record), header_(header) {
    decodeRuns();
    if (header->lowest_vcn() == 0 &&
        (header->initialized_size() > header->data_size() || header->data_size() > header->allocated_size())) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
}

void NonresAttribute::decodeRuns() {
    // The record's check put the mapping pairs inside the attribute.
    const std::uint32_t offset = header_->mapping_pairs_offset();
    const auto* pairs = reinterpret_cast<const unsigned char*>(header_) + offset;
    const std::uint64_t clusters = driver->total_sectors / driver->sectors_per_cluster;
    runs_ = RunList::Decode(pairs, header_->length() - offset, header_->lowest_vcn(), header_->highest_vcn(), clusters);
}

void NonresAttribute::reloadRuns() {
    decodeRuns();
    if (next_ != nullptr) {
        next_->previous_ = nullptr;
        record->releaseAttribute(next_);
        next_ = nullptr;
    }
    next_loaded_ = false;
}

NonresAttribute::~NonresAttribute() {
    if (next_ != nullptr) record->releaseAttribute(next_);
}

NonresAttribute* NonresAttribute::nextExtent() {
    if (next_loaded_) return next_;
    if (type() == kAttributeList || header_->highest_vcn() == ~std::uint64_t(0)) {
        next_loaded_ = true;
        return nullptr;
    }
    Attribute* found = record->nextExtent(header_);
    if (found == this) record->releaseAttribute(found);
    if (found == nullptr || found == this) {
        next_loaded_ = true;
        return nullptr;
    }
    auto* extent = dynamic_cast<NonresAttribute*>(found);
    // A chain whose VCNs don't move forward would never end.
    if (extent == nullptr || extent->lowestVcn() <= lowestVcn() || extent->previous_ != nullptr) {
        record->releaseAttribute(found);
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    extent->previous_ = this;
    next_ = extent;
    next_loaded_ = true;
    return next_;
}

NonresAttribute* NonresAttribute::extentOf(std::uint64_t vcn) {
    for (NonresAttribute* extent = this; extent != nullptr; extent = extent->nextExtent()) {
        if (vcn < extent->lowestVcn()) return nullptr;
        if (vcn <= extent->header_->highest_vcn()) return extent;
    }
    return nullptr;
}

NonresAttribute* NonresAttribute::first() {
    NonresAttribute* extent = this;
    while (extent->previous_ != nullptr) extent = extent->previous_;
    if (extent->lowestVcn() != 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    return extent;
}

bool NonresAttribute::stretchAt(std::uint64_t vcn, Stretch& stretch) {
    NonresAttribute* extent = extentOf(vcn);
    if (extent == nullptr) return false;
    std::size_t index = extent->runs_.find(vcn);
    if (index == extent->runs_.size()) return false;
    const RunEntry& run = extent->runs_[index];
    stretch.count = run.end() - vcn;
    stretch.cluster = run.sparse() ? RunEntry::kSparse : run.cluster + (vcn - run.vcn);
    return true;
}

void NonresAttribute::copyFromCluster(const Stretch& stretch, std::uint32_t offset, std::uint32_t length,
                                      std::uint64_t position, std::uint64_t initialized, unsigned char* out) {
    std::uint64_t stored = 0;
    if (!stretch.sparse() && position < initialized) stored = std::min<std::uint64_t>(length, initialized - position);
    if (stored != 0) {
        const std::uint32_t sectors = driver->sectors_per_cluster;
        BlockHandle block = driver->get_block(stretch.cluster * sectors, sectors, false);
        std::memcpy(out, block.data() + offset, static_cast<std::size_t>(stored));
    }
    std::memset(out + stored, 0, static_cast<std::size_t>(length - stored));
}

std::uint64_t NonresAttribute::read(std::uint64_t position, std::uint64_t length, void* buffer) {
    return plainRead(position, length, buffer);
}

std::uint64_t NonresAttribute::plainRead(std::uint64_t position, std::uint64_t length, void* buffer) {
    if (buffer == nullptr || length == 0) return 0;
    auto* out = static_cast<unsigned char*>(buffer);
    const std::uint32_t cluster_size = driver->cluster_size;
    const std::uint64_t initialized = initializedSize();
    std::uint64_t got = 0;
    Stretch stretch{};
    while (got < length && stretchAt(position / cluster_size, stretch)) {
        for (std::uint64_t i = 0; i < stretch.count && got < length; ++i) {
            const auto offset = static_cast<std::uint32_t>(position % cluster_size);
            const auto part = static_cast<std::uint32_t>(std::min<std::uint64_t>(cluster_size - offset, length - got));
            copyFromCluster(stretch, offset, part, position, initialized, out + got);
            if (!stretch.sparse()) ++stretch.cluster;
            got += part;
            position += part;
        }
    }
    return got;
}

void NonresAttribute::checkSectorRange(std::uint64_t position, std::uint64_t length, const void* buffer) const {
    const std::uint32_t sector = driver->sector_size;
    if (buffer == nullptr || position % sector != 0 || length % sector != 0) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_READ);
    }
}

std::uint64_t NonresAttribute::readSectors(std::uint64_t position, std::uint64_t length, void* buffer) {
    return plainReadSectors(position, length, buffer);
}

std::uint64_t NonresAttribute::plainReadSectors(std::uint64_t position, std::uint64_t length, void* buffer) {
    if (length == 0) return 0;
    checkSectorRange(position, length, buffer);
    auto* out = static_cast<unsigned char*>(buffer);
    const std::uint32_t cluster_size = driver->cluster_size;
    const std::uint32_t sector = driver->sector_size;
    const std::uint64_t initialized = initializedSize();
    const std::uint64_t stored_end = initialized + (sector - initialized % sector) % sector;
    const std::uint64_t start = position;
    std::uint64_t got = 0;
    Stretch stretch{};
    while (got < length && stretchAt(position / cluster_size, stretch)) {
        // The whole stretch in one transfer: a run's clusters lie together.
        const std::uint64_t in_stretch = stretch.count * cluster_size - position % cluster_size;
        const std::uint64_t take = std::min(length - got, in_stretch);
        std::uint64_t stored = 0;
        if (!stretch.sparse() && position < stored_end) stored = std::min(take, stored_end - position);
        if (stored != 0) {
            const std::uint64_t first_sector =
                stretch.cluster * driver->sectors_per_cluster + (position % cluster_size) / sector;
            driver->read_sectors(out + got, first_sector, stored / sector, driver->sectors_per_cluster, 0);
        }
        std::memset(out + got + stored, 0, static_cast<std::size_t>(take - stored));
        got += take;
        position += take;
    }
    const std::uint64_t size = this->size();
    if (start >= size) return 0;
    return std::min(got, size - start);
}

std::uint64_t NonresAttribute::readWithTail(std::uint64_t position, std::uint64_t length, void* buffer, bool direct) {
    return plainReadWithTail(position, length, buffer, direct);
}

std::uint64_t NonresAttribute::plainReadWithTail(std::uint64_t position, std::uint64_t length, void* buffer,
                                                 bool direct) {
    const std::uint32_t sector = driver->sector_size;
    const std::uint64_t size = this->size();
    const std::uint64_t whole_end = size - size % sector;
    const std::uint64_t end = position + length;
    const std::uint64_t body_end = std::min(end, whole_end);
    std::uint64_t got = 0;
    if (position < body_end) {
        got = direct ? plainReadSectors(position, body_end - position, buffer)
                     : plainRead(position, body_end - position, buffer);
        if (got != body_end - position) return got;
    }
    if (end > whole_end && size % sector != 0 && position <= whole_end) {
        // The sector that holds the stream's end, as the device has it.
        auto* out = static_cast<unsigned char*>(buffer) + (whole_end - position);
        driver->read_sectors(out, physicalPosition(whole_end), 1, driver->sectors_per_cluster, 0);
        got += sector;
    }
    return got;
}

std::uint64_t NonresAttribute::physicalPosition(std::uint64_t position) {
    if (position >= size()) Common::Raise(ERROR_TAG, Common::Failures::FILE_EOF);
    Stretch stretch{};
    if (!stretchAt(position / driver->cluster_size, stretch) || stretch.sparse()) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    return stretch.cluster * driver->sectors_per_cluster + (position % driver->cluster_size) / driver->sector_size;
}

std::uint64_t NonresAttribute::firstPosition() {
    for (NonresAttribute* extent = this; extent != nullptr; extent = extent->nextExtent()) {
        for (const RunEntry& run : extent->runs_.entries()) {
            if (!run.sparse() && run.length != 0) return run.cluster * driver->sectors_per_cluster;
        }
    }
    return 0;
}

std::uint64_t NonresAttribute::usedRanges(std::uint64_t position, std::uint64_t length,
                                          std::map<std::uint64_t, std::uint64_t>& ranges) {
    const std::uint64_t size = this->size();
    if (position >= size) return 0;
    const std::uint64_t end = position + std::min(length, size - position);
    const std::uint32_t cluster_size = driver->cluster_size;
    std::uint64_t at = position;
    std::uint64_t open_start = 0, open_end = 0;
    bool open = false;
    Stretch stretch{};
    while (at < end && stretchAt(at / cluster_size, stretch)) {
        const std::uint64_t stretch_end = std::min(end, (at / cluster_size + stretch.count) * cluster_size);
        if (!stretch.sparse()) {
            if (open && open_end == at) {
                open_end = stretch_end;
            } else {
                if (open) ranges.insert_or_assign(open_start, open_end - open_start);
                open = true;
                open_start = at;
                open_end = stretch_end;
            }
        }
        at = stretch_end;
    }
    if (open) ranges.insert_or_assign(open_start, open_end - open_start);
    return end - position;
}

}  // namespace ntfs
