#pragma once
// An attribute whose value lies in the record, behind its header. When the
// value outgrows what a record can hold it moves to clusters: the header
// becomes a non-resident one, and a delegate object serves it from then
// on, this object staying behind as a shell that forwards everything.
#include <memory>

#include "ntfs/attribute.h"

namespace ntfs {

class ResAttribute : public Attribute {
public:
    ResAttribute(NTFSDriver* driver, BaseFileRecord* record, AttributeRecord* header)
        : Attribute(driver, record), header_(header) {}

    std::uint64_t physicalPosition(std::uint64_t position) override;
    std::uint64_t firstPosition() override { return delegate_ ? delegate_->firstPosition() : 0; }
    std::uint64_t read(std::uint64_t position, std::uint64_t length, void* buffer) override;
    std::uint64_t readSectors(std::uint64_t position, std::uint64_t length, void* buffer) override;
    std::uint64_t readWithTail(std::uint64_t position, std::uint64_t length, void* buffer, bool direct) override;
    // Grows the value when the range ends past it (which may move it to
    // clusters), then copies what fits and writes the record.
    std::uint64_t write(std::uint64_t position, std::uint64_t length, const void* buffer) override;
    std::uint64_t writeSectors(std::uint64_t position, std::uint64_t length, const void* buffer) override;
    // Within the bounds $AttrDef sets for the type (FILE_UNSUPPORTED for a
    // type it doesn't define); a value too large for a record goes to
    // clusters, unless the type must stay resident (FILE_DISK_FULL).
    std::uint64_t resize(std::uint64_t size, bool may_move) override;
    std::uint64_t size() override;
    std::uint64_t allocatedSize() override;
    std::uint64_t usedRanges(std::uint64_t position, std::uint64_t length,
                             std::map<std::uint64_t, std::uint64_t>& ranges) override;
    AttributeRecord* header() override { return delegate_ ? delegate_->header() : header_; }
    void setIndexed() override;
    void rebase(AttributeRecord* moved) override;

    // The object that serves the value since it went to clusters; null while resident.
    Attribute* delegate() const { return delegate_.get(); }
    // Replaces the header by a non-resident one whose clusters hold the
    // value; its holders go on through the delegate. The record makes room
    // this way in place of a value that is held open.
    void moveToClusters(bool may_move);

private:
    unsigned char* value() { return reinterpret_cast<unsigned char*>(header_) + header_->value_offset(); }
    std::uint64_t shrink(std::uint64_t size, std::uint64_t minimum);
    std::uint64_t grow(std::uint64_t size, std::uint64_t maximum, bool must_stay, bool may_move);

    AttributeRecord* header_;
    std::unique_ptr<Attribute> delegate_;
};

}  // namespace ntfs
