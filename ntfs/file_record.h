#pragma once
// A file's records as one object: the base record and the extension
// records that its attribute list names, loaded on first need. Every user
// of a file's attributes goes through BaseFileRecord, whatever record an
// attribute lives in. The cache shares one object per file: RecordRef
// holds it, and the object goes when the last holder lets go.
//
// Attributes change inside their records; making room by moving them to
// extension records comes with the rest of the volume's write path.
#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "ntfs/attribute.h"
#include "ntfs/ntfs_records.h"

namespace ntfs {

class NTFSDriver;
struct RecordBuffer;

class BaseFileRecord {
public:
    virtual ~BaseFileRecord() = default;

    // The extent of (type, name) whose lowest VCN is 0, names compared
    // byte for byte; null when the file has none. Use count + 1.
    virtual Attribute* findAttribute(std::uint32_t type, const std::u16string& name) = 0;
    // The extent that follows `header`: same type and name, lowest VCN one
    // above its highest VCN; null when there is none. Use count + 1.
    virtual Attribute* nextExtent(const AttributeRecord* header) = 0;
    // Every attribute in the order of the list or of the records; null
    // `previous` gives the first, null answers the end. Use count + 1.
    virtual Attribute* nextAttribute(Attribute* previous) = 0;
    // The next attribute of the same type as `previous`, any name.
    virtual Attribute* nextOfKind(Attribute* previous) = 0;
    // One use less; the object goes at 0.
    virtual void releaseAttribute(Attribute* attribute) = 0;
    // Record number in bits 0 to 47, sequence number in bits 48 to 63.
    virtual std::uint64_t reference() = 0;
    // The base record, fixups undone.
    virtual RecordBuffer* recordBuffer() = 0;
    // The largest attribute that one record can hold.
    virtual std::uint32_t maxAttributeSize() = 0;
    // Reads every attribute but the unnamed data stream, so that damage
    // anywhere in the file shows now.
    virtual void readThrough() = 0;
    // Writes the base record and every loaded extension record now.
    virtual void flush() = 0;
    // Makes the attribute at `header` `length` bytes long in its record,
    // moving what lies behind it; the objects of moved headers follow.
    // Shrinking always succeeds. Growing answers true when the record had
    // the room; false would mean that room was made by moving attributes
    // out (with `may_move`), and the caller looks at its attribute afresh.
    // FILE_DISK_FULL when the record can't hold the attribute.
    virtual bool resizeInRecord(AttributeRecord* header, std::uint32_t length, bool may_move) = 0;

    // The first attribute of `type` (any name) in the walk of nextAttribute; null when none.
    Attribute* firstOfType(std::uint32_t type);
    std::uint64_t recordNumber() { return RecordNumberOf(reference()); }

protected:
    BaseFileRecord() = default;
};

class BaseFileRecordImpl;

// A held file record of the cache.
class RecordRef {
public:
    RecordRef() = default;
    RecordRef(NTFSDriver* driver, BaseFileRecordImpl* record) : driver_(driver), record_(record) {}
    RecordRef(const RecordRef& other);
    RecordRef(RecordRef&& other) noexcept : driver_(other.driver_), record_(other.record_) { other.record_ = nullptr; }
    RecordRef& operator=(RecordRef other) noexcept;
    ~RecordRef() { reset(); }

    void reset();
    explicit operator bool() const { return record_ != nullptr; }
    BaseFileRecord* get() const;
    BaseFileRecord* operator->() const { return get(); }
    BaseFileRecord& operator*() const { return *get(); }
    // An attribute of this record, held.
    AttributeRef find(std::uint32_t type, const std::u16string& name = std::u16string()) const {
        return AttributeRef(get(), get()->findAttribute(type, name));
    }

private:
    NTFSDriver* driver_ = nullptr;
    BaseFileRecordImpl* record_ = nullptr;
};

// One shared record object per file, by record number.
class FileRecordCache {
public:
    explicit FileRecordCache(NTFSDriver* driver);
    ~FileRecordCache();
    FileRecordCache(const FileRecordCache&) = delete;
    FileRecordCache& operator=(const FileRecordCache&) = delete;

    // The object of record `number`, built on first use: FILE_CORRUPT for a
    // record with no links or no name, FILE_READ when the MFT doesn't reach it.
    RecordRef get(std::uint64_t number);
    // Use count + 1 and − 1; at 0 the object goes. For RecordRef.
    void hold(BaseFileRecordImpl* record);
    void put(BaseFileRecordImpl* record);

private:
    struct Entry {
        std::uint32_t uses = 0;
        std::unique_ptr<BaseFileRecordImpl> record;
    };
    NTFSDriver* driver_;
    std::map<std::uint64_t, Entry> entries_;
};

}  // namespace ntfs
