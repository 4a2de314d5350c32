#include "ntfs/compressed_attribute.h"

#include <algorithm>
#include <cstring>

#include "loader/common/raise.h"
#include "ntfs/file_record.h"
#include "ntfs/lznt1.h"
#include "ntfs/ntfs_driver.h"

namespace ntfs {

namespace {

constexpr std::uint32_t kMostUnitShift = 16;
constexpr std::size_t kInputAlignment = 4096;
// The header flags that a stream keeps when it stops being compressed or sparse.
constexpr std::uint16_t kPlainFlags = 0x7F00;

}  // namespace

CompressedAttribute::CompressedAttribute(NTFSDriver* driver, BaseFileRecord* record, AttributeRecord* header)
    : NonresAttribute(driver, record, header) {
    const std::uint32_t shift = header->compression_unit();
    if (shift > kMostUnitShift || (std::uint64_t(driver->cluster_size) << shift) > kMostUnitBytes) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
}

std::uint64_t CompressedAttribute::unitClusters() {
    if (plain_) return 0;
    const AttributeRecord* header = first()->header();
    // A sparse stream that isn't compressed may name a unit too; its
    // clusters are stored as they are all the same.
    if ((header->flags() & kCompressionMask) == 0) return 0;
    const std::uint32_t shift = header->compression_unit();
    if (shift > kMostUnitShift || (std::uint64_t(driver->cluster_size) << shift) > kMostUnitBytes) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    return shift == 0 ? 0 : std::uint64_t(1) << shift;
}

std::uint64_t CompressedAttribute::physicalPosition(std::uint64_t position) {
    // Only a stream without units has bytes at one place each.
    if (unitClusters() != 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
    return NonresAttribute::physicalPosition(position);
}

CompressedAttribute::Unit CompressedAttribute::gatherUnit(std::uint64_t vcn) {
    const std::uint64_t clusters = unitClusters();
    Unit unit;
    std::uint64_t at = vcn;
    Stretch stretch{};
    while (at - vcn < clusters) {
        if (!stretchAt(at, stretch)) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        if (stretch.sparse()) break;
        stretch.count = std::min(stretch.count, clusters - (at - vcn));
        unit.pieces.push_back(stretch);
        unit.real += stretch.count;
        at += stretch.count;
    }
    if (unit.pieces.empty()) {
        unit.kind = UnitKind::kSparse;
    } else {
        unit.kind = unit.real >= clusters ? UnitKind::kStored : UnitKind::kCompressed;
    }
    return unit;
}

void CompressedAttribute::decodeUnit(const Unit& unit, unsigned char* output) {
    const std::uint32_t cluster_size = driver->cluster_size;
    const std::size_t stored = static_cast<std::size_t>(unit.real * cluster_size);
    if (input_.size() < stored + kInputAlignment) input_.resize(stored + kInputAlignment);
    unsigned char* input =
        input_.data() +
        (kInputAlignment - reinterpret_cast<std::uintptr_t>(input_.data()) % kInputAlignment) % kInputAlignment;
    std::size_t filled = 0;
    for (const Stretch& piece : unit.pieces) {
        driver->read_sectors(input + filled, piece.cluster * driver->sectors_per_cluster,
                             piece.count * driver->sectors_per_cluster, driver->sectors_per_cluster, 0);
        filled += static_cast<std::size_t>(piece.count * cluster_size);
    }
    Lznt1Decode(input, filled, output, static_cast<std::size_t>(unitClusters() * cluster_size));
}

std::uint64_t CompressedAttribute::read(std::uint64_t position, std::uint64_t length, void* buffer) {
    const std::uint64_t clusters = unitClusters();
    if (clusters == 0) return plainRead(position, length, buffer);
    const std::uint32_t cluster_size = driver->cluster_size;
    const std::uint64_t unit_bytes = clusters * cluster_size;
    if ((position / cluster_size) / clusters * clusters < lowestVcn()) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_READ);
    }
    if (buffer == nullptr || length == 0) return 0;
    auto* out = static_cast<unsigned char*>(buffer);
    const std::uint64_t size = this->size();
    std::uint64_t got = 0;
    while (got < length && position < size) {
        const std::uint64_t unit_start = position / unit_bytes * unit_bytes;
        const std::uint64_t offset = position - unit_start;
        const std::uint64_t chunk = std::min({length - got, size - position, unit_bytes - offset});
        const Unit unit = gatherUnit(unit_start / cluster_size);
        if (unit.kind == UnitKind::kSparse) {
            std::memset(out + got, 0, static_cast<std::size_t>(chunk));
        } else if (unit.kind == UnitKind::kStored) {
            if (plainRead(position, chunk, out + got) != chunk) return got;
        } else if (chunk == unit_bytes) {
            decodeUnit(unit, out + got);
        } else {
            if (scratch_.size() < unit_bytes) scratch_.resize(static_cast<std::size_t>(unit_bytes));
            decodeUnit(unit, scratch_.data());
            std::memcpy(out + got, scratch_.data() + offset, static_cast<std::size_t>(chunk));
        }
        got += chunk;
        position += chunk;
    }
    return got;
}

std::uint64_t CompressedAttribute::readSectors(std::uint64_t position, std::uint64_t length, void* buffer) {
    if (length == 0) return 0;
    checkSectorRange(position, length, buffer);
    return read(position, length, buffer);
}

std::uint64_t CompressedAttribute::usedRanges(std::uint64_t position, std::uint64_t length,
                                              std::map<std::uint64_t, std::uint64_t>& ranges) {
    const std::uint64_t clusters = unitClusters();
    if (clusters == 0) return NonresAttribute::usedRanges(position, length, ranges);
    const std::uint64_t size = this->size();
    if (position >= size) return 0;
    const std::uint64_t end = position + std::min(length, size - position);
    const std::uint64_t unit_bytes = clusters * driver->cluster_size;
    std::uint64_t at = position;
    std::uint64_t open_start = 0;
    bool open = false;
    while (at < end) {
        const std::uint64_t unit_start = at / unit_bytes * unit_bytes;
        const std::uint64_t unit_end = std::min(end, unit_start + unit_bytes);
        const bool data = gatherUnit(unit_start / driver->cluster_size).kind != UnitKind::kSparse;
        if (data && !open) {
            open = true;
            open_start = at;
        } else if (!data && open) {
            ranges.insert_or_assign(open_start, at - open_start);
            open = false;
        }
        at = unit_end;
    }
    if (open) ranges.insert_or_assign(open_start, end - open_start);
    return end - position;
}

std::uint64_t CompressedAttribute::write(std::uint64_t position, std::uint64_t length, const void* buffer) {
    if (!plain_) Common::Raise(ERROR_TAG, Common::Failures::FILE_WRITE);
    return plainWrite(position, length, buffer);
}

std::uint64_t CompressedAttribute::writeSectors(std::uint64_t position, std::uint64_t length, const void* buffer) {
    if (!plain_) Common::Raise(ERROR_TAG, Common::Failures::FILE_WRITE);
    return plainWriteSectors(position, length, buffer);
}

std::uint64_t CompressedAttribute::resize(std::uint64_t size, bool) {
    if (plain_) return plainResize(size);
    if (size != 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_READ_ONLY);
    // Emptied first: a stream that can't be emptied keeps its bits.
    plainResize(0);
    AttributeRecord* header = first()->header();
    header->set_flags(static_cast<std::uint16_t>(header->flags() & kPlainFlags));
    plain_ = true;
    record->flush();
    return 0;
}

}  // namespace ntfs
