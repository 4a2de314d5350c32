#include "ntfs/backup_efs.h"

#include <algorithm>

#include "loader/common/byte_order.h"
#include "loader/common/raise.h"
#include "ntfs/backup_common.h"
#include "ntfs/backup_data.h"
#include "ntfs/ntfs_driver.h"

namespace ntfs {

namespace {

// The fixed head of the raw form and of its $EFS stream, whose constants
// go out as the format has them.
constexpr std::size_t kRawHeaderSize = 0x42;
// An $EFS stream holds key entries for a few users and agents; more than
// this is damage, not keys.
constexpr std::uint64_t kMostEfsBytes = 0x40000;
// Each data segment carries one unit of this many stored bytes.
constexpr std::uint64_t kRawUnit = kBackupStep;
constexpr std::uint8_t kRawUnitShift = 16;
// A data segment: its length, "GURE", reserved, then the encryption
// header of one block from 0x10 on.
constexpr std::size_t kSegmentHeaderSize = 0x30;
// The head of a marshaled stream before its name.
constexpr std::uint32_t kMarshaledHeadSize = 0x1C;

void StoreText(unsigned char* at, const char16_t* text) {
    for (std::size_t i = 0; text[i] != 0; ++i) Common::StoreLE16(at + 2 * i, text[i]);
}

std::uint8_t Log2(std::uint64_t value) {
    std::uint8_t shift = 0;
    while ((std::uint64_t(1) << shift) < value) ++shift;
    return shift;
}

// The Win32 name of a data stream: "::$DATA" for the unnamed one.
std::u16string RawStreamName(const std::u16string& name) { return u":" + name + u":$DATA"; }

// Length, "NTFS", flag 0 (the data is encrypted), reserved, the name.
class BackupEFSDataStreamHeader : public BackupPiece {
public:
    explicit BackupEFSDataStreamHeader(const std::u16string& name) {
        const std::u16string raw = RawStreamName(name);
        std::vector<unsigned char> bytes(kMarshaledHeadSize + 2 * raw.size(), 0);
        Common::StoreLE32(&bytes[0], static_cast<std::uint32_t>(bytes.size()));
        StoreText(&bytes[4], u"NTFS");
        Common::StoreLE32(&bytes[0x18], static_cast<std::uint32_t>(2 * raw.size()));
        for (std::size_t i = 0; i < raw.size(); ++i) Common::StoreLE16(&bytes[kMarshaledHeadSize + 2 * i], raw[i]);
        offer(kPieceRawEncrypted, std::move(bytes));
    }
};

// The segment head of one unit: `count` bytes of the stream from
// `position`, stored as `stored` bytes (whole sectors).
class BackupEFSDataHeader : public BackupPiece {
public:
    BackupEFSDataHeader(std::uint64_t position, std::uint32_t count, std::uint32_t stored, std::uint8_t cluster_shift) {
        std::vector<unsigned char> bytes(kSegmentHeaderSize, 0);
        Common::StoreLE32(&bytes[0], static_cast<std::uint32_t>(kSegmentHeaderSize + stored));
        StoreText(&bytes[4], u"GURE");
        Common::StoreLE64(&bytes[0x10], position);
        Common::StoreLE32(&bytes[0x18], static_cast<std::uint32_t>(kSegmentHeaderSize - 0x10));
        Common::StoreLE32(&bytes[0x1C], count);
        Common::StoreLE32(&bytes[0x20], count);
        bytes[0x26] = kRawUnitShift;
        bytes[0x27] = kRawUnitShift;
        bytes[0x28] = cluster_shift;
        bytes[0x29] = 1;
        Common::StoreLE16(&bytes[0x2A], 1);
        Common::StoreLE32(&bytes[0x2C], stored);
        offer(kPieceRawEncrypted, std::move(bytes));
    }
};

// The stored bytes of one unit, the sector that holds the stream's end
// whole, straight from the device.
class BackupEFSDataData : public BackupSubObject {
public:
    BackupEFSDataData(Attribute& attribute, std::uint64_t position, std::uint64_t count, std::uint64_t stored)
        : attribute_(attribute), position_(position), count_(count) {
        stream_type = kPieceRawEncrypted;
        chunk = stored;
        alignment = attribute.driver->sector_size;
    }

    std::uint64_t read(void* area) override {
        if (stream_type == 0) return 0;
        if (attribute_.readWithTail(position_, count_, area, true) != chunk) {
            Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        }
        stream_type = 0;
        return chunk;
    }

private:
    Attribute& attribute_;
    std::uint64_t position_;
    std::uint64_t count_;
};

// One data attribute: its stream head, then a segment per unit. The units
// are made one at a time as the reads reach them, so that a long stream
// costs no more than its current unit.
class BackupEFSDataStream : public BackupSubObject {
public:
    BackupEFSDataStream(const RecordRef& record, AttributeRef held) : record_(record), attribute_(std::move(held)) {
        size_ = attribute_->size();
        current_ = std::make_unique<BackupEFSDataStreamHeader>(attribute_->name());
        show();
    }

    std::uint64_t read(void* area) override {
        if (current_ == nullptr) return 0;
        const std::uint64_t got = current_->read(area);
        if (current_->stream_type == 0) nextPart();
        show();
        return got;
    }

private:
    void show() {
        stream_type = current_ == nullptr ? 0 : current_->stream_type;
        if (current_ == nullptr) return;
        chunk = current_->chunk;
        alignment = current_->alignment;
    }
    // After the stream head and each unit's data, the next unit's head;
    // after a head, its data.
    void nextPart() {
        current_.reset();
        if (pending_ != nullptr) {
            current_ = std::move(pending_);
            return;
        }
        if (position_ >= size_) return;
        const std::uint64_t sector = attribute_->driver->sector_size;
        const std::uint64_t count = std::min(kRawUnit, size_ - position_);
        const std::uint64_t stored = (count + sector - 1) / sector * sector;
        current_ = std::make_unique<BackupEFSDataHeader>(position_, static_cast<std::uint32_t>(count),
                                                         static_cast<std::uint32_t>(stored),
                                                         Log2(attribute_->driver->cluster_size));
        pending_ = std::make_unique<BackupEFSDataData>(*attribute_, position_, count, stored);
        position_ += count;
    }

    RecordRef record_;  // held for as long as the attribute is
    AttributeRef attribute_;
    std::uint64_t size_ = 0;
    std::uint64_t position_ = 0;
    std::unique_ptr<BackupSubObject> current_;
    std::unique_ptr<BackupSubObject> pending_;
};

std::vector<unsigned char> RawHeader(std::uint64_t efs_size) {
    std::vector<unsigned char> bytes(kRawHeaderSize, 0);
    Common::StoreLE32(&bytes[0], 0x100);
    StoreText(&bytes[4], u"ROBS");
    Common::StoreLE32(&bytes[0x14], 0x1E);
    StoreText(&bytes[0x18], u"NTFS");
    Common::StoreLE32(&bytes[0x2C], 2);
    Common::StoreLE16(&bytes[0x30], 0x1910);
    Common::StoreLE32(&bytes[0x32], static_cast<std::uint32_t>(efs_size + 0x10));
    StoreText(&bytes[0x36], u"GURE");
    return bytes;
}

}  // namespace

BackupEFSStream::BackupEFSStream(const BackupSource& source) {
    if (!TakesRawForm(source)) return;
    AttributeRef efs = source.record.find(kLoggedUtilityStream, u"$EFS");
    if (!efs) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    const std::uint64_t size = efs->size();
    if (size > kMostEfsBytes) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    std::vector<unsigned char> bytes = RawHeader(size);
    bytes.resize(kRawHeaderSize + size);
    if (efs->read(0, size, bytes.data() + kRawHeaderSize) != size) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    offer(kPieceRawEncrypted, std::move(bytes));
}

BackupEFSData::BackupEFSData(const BackupSource& source) {
    if (!TakesRawForm(source)) return;
    for (AttributeRef& stream : DataAttributes(source.record, !source.has(kBackupNamedStreamsOnly))) {
        add(std::make_unique<BackupEFSDataStream>(source.record, std::move(stream)));
    }
}

}  // namespace ntfs
