#pragma once
// One attribute of a file as a stream of bytes. `ResAttribute` serves a
// value that lies in the record, `NonresAttribute` one that lies in
// clusters, and its two specialisations compressed (or sparse) and
// encrypted streams; the factory picks the class from the header.
//
// Attribute objects are shared: the record that holds the attribute keeps
// one object per header with a use count, hands it out with findAttribute
// and its kin, and takes it back with releaseAttribute. Hold one through an
// AttributeRef, which gives it back on leaving its scope, errors included.
#include <cstdint>
#include <map>
#include <string>

#include "ntfs/ntfs_records.h"

namespace ntfs {

class NTFSDriver;
class BaseFileRecord;

class Attribute {
public:
    virtual ~Attribute() = default;
    Attribute(const Attribute&) = delete;
    Attribute& operator=(const Attribute&) = delete;

    // The sector (relative to the volume) that holds byte `position`.
    // FILE_EOF at or past the size; FILE_CORRUPT in a sparse run;
    // FILE_UNSUPPORTED for a resident value.
    virtual std::uint64_t physicalPosition(std::uint64_t position) = 0;
    // The first sector of the first real run, 0 if none.
    virtual std::uint64_t firstPosition() = 0;
    // Copies up to `length` bytes from `position` through the block cache
    // and answers how many. A resident value raises FILE_EOF at or past its
    // end; a non-resident one answers fewer bytes where its extents end
    // (the caller clips to the size).
    virtual std::uint64_t read(std::uint64_t position, std::uint64_t length, void* buffer) = 0;
    // The same for a sector-aligned range, straight from the device a run
    // at a time; FILE_READ for a position or length off the sector grid.
    virtual std::uint64_t readSectors(std::uint64_t position, std::uint64_t length, void* buffer) = 0;
    // Reads up to the last whole sector (with readSectors when `direct`),
    // then the whole sector that holds the stream's end.
    virtual std::uint64_t readWithTail(std::uint64_t position, std::uint64_t length, void* buffer, bool direct) = 0;
    // Copies `length` bytes (zeros for a null buffer) to `position` through
    // the block cache, growing the stream when the range ends past it;
    // answers the bytes written, fewer when the volume filled up.
    virtual std::uint64_t write(std::uint64_t position, std::uint64_t length, const void* buffer) = 0;
    // The same for a sector-aligned range and buffer, straight to the device
    // a run at a time; FILE_WRITE for anything off the sector grid.
    virtual std::uint64_t writeSectors(std::uint64_t position, std::uint64_t length, const void* buffer) = 0;
    // Makes the stream `size` bytes long and answers the size reached.
    // `may_move`: the record may make room by moving attributes out.
    virtual std::uint64_t resize(std::uint64_t size, bool may_move) = 0;
    virtual std::uint64_t size() = 0;
    virtual std::uint64_t allocatedSize() = 0;
    // Fills `ranges` (position to length) with the ranges of
    // [position, position + length) that hold data; answers the bytes walked.
    virtual std::uint64_t usedRanges(std::uint64_t position, std::uint64_t length,
                                     std::map<std::uint64_t, std::uint64_t>& ranges) = 0;
    // The header in the record's buffer.
    virtual AttributeRecord* header() = 0;
    // Sets the indexed flag of a resident header.
    virtual void setIndexed() {}
    // The record moved the header to `moved`.
    virtual void rebase(AttributeRecord* moved) = 0;

    // The header's type and its name, as stored.
    std::uint32_t type() { return header()->type(); }
    std::u16string name();

    NTFSDriver* driver;
    BaseFileRecord* record;

protected:
    Attribute(NTFSDriver* owner, BaseFileRecord* holder) : driver(owner), record(holder) {}
};

// A held attribute object: released to its record on leaving the scope.
// Empty when the record had no such attribute.
class AttributeRef {
public:
    AttributeRef() = default;
    AttributeRef(BaseFileRecord* record, Attribute* attribute) : record_(record), attribute_(attribute) {}
    AttributeRef(AttributeRef&& other) noexcept : record_(other.record_), attribute_(other.attribute_) {
        other.attribute_ = nullptr;
    }
    AttributeRef& operator=(AttributeRef&& other) noexcept;
    AttributeRef(const AttributeRef&) = delete;
    AttributeRef& operator=(const AttributeRef&) = delete;
    ~AttributeRef() { reset(); }

    void reset();
    explicit operator bool() const { return attribute_ != nullptr; }
    Attribute* get() const { return attribute_; }
    Attribute* operator->() const { return attribute_; }
    Attribute& operator*() const { return *attribute_; }

private:
    BaseFileRecord* record_ = nullptr;
    Attribute* attribute_ = nullptr;
};

}  // namespace ntfs
