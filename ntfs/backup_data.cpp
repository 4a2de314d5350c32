#include "ntfs/backup_data.h"

#include <algorithm>
#include <map>

#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>

#include "loader/common/byte_order.h"
#include "loader/common/raise.h"
#include "ntfs/backup_common.h"
#include "ntfs/ntfs_driver.h"

namespace ntfs {

namespace {

// A data attribute with a hold on its record, which must outlive it: the
// producers of one stream share it, and may be the last to go.
struct HeldAttribute {
    RecordRef record;
    AttributeRef attribute;
    Attribute& operator*() const { return *attribute; }
    Attribute* operator->() const { return attribute.get(); }
};
using SharedAttribute = boost::shared_ptr<HeldAttribute>;

// Whether the header starts its stream: extents behind the first belong to it.
bool StartsStream(Attribute& attribute) {
    const AttributeRecord* header = attribute.header();
    return !header->non_resident() || header->lowest_vcn() == 0;
}

// The largest stream NTFS allows; a walk of the ranges of a longer one
// would be damage to wait on.
constexpr std::uint64_t kMostStreamBytes = 1ull << 44;

bool IsSparse(Attribute& attribute) {
    const AttributeRecord* header = attribute.header();
    return header->non_resident() && (header->flags() & kFlagSparse) != 0;
}

class BackupDataHeader : public BackupPiece {
public:
    BackupDataHeader(const std::u16string& name, bool sparse, std::uint64_t size) {
        const std::uint32_t id = name.empty() ? kStreamData : kStreamAlternateData;
        offer(kPieceWin32Stream, Win32StreamHeader(id, sparse ? kStreamSparseAttribute : 0, sparse ? 0 : size, name));
    }
};

// The bytes of [position, position + length) of an attribute, a step at a
// time. Whole sectors come straight from the device into a buffer aligned
// for it; a piece that ends inside a sector goes through the cache.
class BackupDataBlockData : public BackupSubObject {
public:
    BackupDataBlockData(SharedAttribute attribute, std::uint64_t position, std::uint64_t length)
        : attribute_(std::move(attribute)), position_(position), left_(length) {
        alignment = (*attribute_)->driver->sector_size;
        show();
    }

    std::uint64_t read(void* area) override {
        if (left_ == 0) return 0;
        const std::uint64_t count = chunk;
        if (readPart(count, area) != count) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        position_ += count;
        left_ -= count;
        show();
        return count;
    }

private:
    void show() {
        stream_type = left_ == 0 ? 0 : kPieceWin32Stream;
        chunk = std::min(left_, kBackupStep);
    }
    std::uint64_t readPart(std::uint64_t count, void* area) {
        Attribute& attribute = **attribute_;
        const std::uint64_t sector = alignment;
        const bool whole_sectors = position_ % sector == 0 && count % sector == 0;
        if (whole_sectors && attribute.header()->non_resident()) return attribute.readSectors(position_, count, area);
        return attribute.read(position_, count, area);
    }

    SharedAttribute attribute_;
    std::uint64_t position_;
    std::uint64_t left_;
};

// A range's header carries its start position behind the name.
class BackupDataBlockHeader : public BackupPiece {
public:
    BackupDataBlockHeader(const std::u16string& name, std::uint64_t position, std::uint64_t length) {
        std::vector<unsigned char> bytes =
            Win32StreamHeader(kStreamSparseBlock, kStreamSparseAttribute, length + 8, name);
        bytes.resize(bytes.size() + 8);
        Common::StoreLE64(&bytes[bytes.size() - 8], position);
        offer(kPieceWin32Stream, std::move(bytes));
    }
};

class BackupDataBlock : public BackupObject {
public:
    BackupDataBlock(const SharedAttribute& attribute, const std::u16string& name, std::uint64_t position,
                    std::uint64_t length) {
        add(std::make_unique<BackupDataBlockHeader>(name, position, length));
        add(std::make_unique<BackupDataBlockData>(attribute, position, length));
    }
};

class BackupDataStream : public BackupObject {
public:
    BackupDataStream(const RecordRef& record, AttributeRef held) {
        SharedAttribute attribute = boost::make_shared<HeldAttribute>(HeldAttribute{record, std::move(held)});
        Attribute& stream = **attribute;
        const std::u16string name = stream.name();
        const std::uint64_t size = stream.size();
        const bool sparse = IsSparse(stream);
        add(std::make_unique<BackupDataHeader>(name, sparse, size));
        if (!sparse) {
            add(std::make_unique<BackupDataBlockData>(attribute, 0, size));
            return;
        }
        if (size > kMostStreamBytes || size > stream.allocatedSize()) {
            Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        }
        std::map<std::uint64_t, std::uint64_t> ranges;
        stream.usedRanges(0, size, ranges);
        for (const auto& [position, length] : ranges) {
            if (position > size || length > size - position) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
            add(std::make_unique<BackupDataBlock>(attribute, name, position, length));
        }
        // The stream's size travels nowhere else: one that ends in a hole
        // ends with an empty range at its size, or it would come back short.
        const std::uint64_t covered = ranges.empty() ? 0 : ranges.rbegin()->first + ranges.rbegin()->second;
        if (covered < size) add(std::make_unique<BackupDataBlock>(attribute, name, size, 0));
    }
};

}  // namespace

// The record's order ends the types up to 0x80 with the last of them.
std::vector<AttributeRef> DataAttributes(const RecordRef& record, bool with_unnamed) {
    std::vector<AttributeRef> streams;
    AttributeRef at(record.get(), record->nextAttribute(nullptr));
    while (at && at->type() <= kData) {
        AttributeRef next(record.get(), record->nextAttribute(at.get()));
        if (at->type() == kData && StartsStream(*at) && (with_unnamed || at->header()->name_length() != 0)) {
            streams.push_back(std::move(at));
        }
        at = std::move(next);
    }
    return streams;
}

BackupFileData::BackupFileData(const BackupSource& source) {
    if (TakesRawForm(source)) return;
    for (AttributeRef& stream : DataAttributes(source.record, !source.has(kBackupNamedStreamsOnly))) {
        add(std::make_unique<BackupDataStream>(source.record, std::move(stream)));
    }
}

BackupDirectoryData::BackupDirectoryData(const BackupSource& source) {
    for (AttributeRef& stream : DataAttributes(source.record, false)) {
        add(std::make_unique<BackupDataStream>(source.record, std::move(stream)));
    }
}

}  // namespace ntfs
