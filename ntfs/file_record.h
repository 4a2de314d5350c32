#pragma once
// A file's records as one object: the base record and the extension
// records that its attribute list names, loaded on first need. Every user
// of a file's attributes goes through BaseFileRecord, whatever record an
// attribute lives in. The cache shares one object per file: RecordRef
// holds it, and the object goes when the last holder lets go.
//
// Attributes change inside their records. A full record makes room: a
// long value goes to clusters, a long attribute in clusters to an
// extension record of its own, or the record's tail to a new extension
// record; the attribute list then names where each attribute went.
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>

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

    // A new attribute (type, name) with an empty value, resident, put in
    // the base record in type and name order (room made as needed); with
    // `stay_resident` false a type that can't live in the record goes
    // non-resident. Held: use count + 1.
    virtual Attribute* createAttribute(std::uint32_t type, const std::u16string& name, bool stay_resident) = 0;
    // createAttribute; for a name (0x30) the link count goes up by one.
    virtual Attribute* addAttribute(std::uint32_t type, const std::u16string& name, bool stay_resident) = 0;
    // Releases `attribute`; with `erase` the attribute goes from its record
    // (its clusters freed) once nobody else holds it. FILE_BUSY when erasing
    // an attribute that another holder still uses.
    virtual void dropAttribute(Attribute* attribute, bool erase) = 0;
    // dropAttribute with erase; for a name (0x30) the link count goes down by one.
    virtual void removeAttribute(Attribute* attribute) = 0;
    // A new name (0x30) whose value is the `length` bytes at `value`; the
    // link count goes up. Answers nothing: the name is in the record, flushed.
    virtual void addName(const void* value, std::uint32_t length) = 0;
    // Takes away the name that the 0x30 value at `value` gives (its parent
    // and its name), with its DOS or Win32 twin; answers the names removed,
    // the twin's empty when there was none. FILE_CORRUPT when the file has
    // no such name, FILE_BUSY when one is still held.
    virtual std::pair<std::u16string, std::u16string> removeName(const void* value, std::uint32_t length) = 0;
    // The record becomes the holder of an index of `type`: flag 2 for names
    // (0x30), 8 for any other.
    virtual void markIndexed(std::uint32_t type) = 0;
    // Marks the file to be deleted when its last holder lets go (if its
    // link count is 0 by then) and answers itself.
    virtual BaseFileRecord* owner() = 0;
    // May `attribute` go to an extension record.
    virtual bool mayLeaveRecord(Attribute* attribute) = 0;
    // A new extent of the non-resident (type, name) in a new extension
    // record: `mapping_pairs` bytes of pairs for VCNs `lowest` to `highest`.
    // Held: use count + 1.
    virtual Attribute* addExtent(std::uint32_t type, const std::u16string& name, std::uint64_t lowest,
                                 std::uint64_t highest, const unsigned char* mapping_pairs,
                                 std::uint32_t pairs_length) = 0;

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
    // A record newly allocated and laid out, with no attributes and a link
    // count of 0, held once. FILE_DISK_FULL when the MFT can't grow.
    RecordRef create();
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
