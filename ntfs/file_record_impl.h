#pragma once
// A file's records: the base record, the extension records that its
// attribute list names, and one shared object per attribute header.
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "ntfs/file_record.h"

namespace ntfs {

struct RecordBuffer;
class Mft;

// Checks what the attribute walk of a record believes: the header's
// offsets and each attribute's length, name, value or mapping pairs inside
// the bytes in use, and the end marker. FILE_CORRUPT otherwise.
void CheckRecordLayout(RecordBuffer& buffer, std::uint32_t record_size);

// A name of a file as its directory knows it: parent reference, namespace, name.
struct NameKey {
    std::uint64_t parent;
    std::uint8_t space;
    std::u16string name;
};

// The name of an attribute, as stored.
std::u16string AttributeName(const AttributeRecord* header);

class BaseFileRecordImpl : public BaseFileRecord {
public:
    // The object of record `number`: FILE_CORRUPT for a record with no
    // links or no name. `mft` is the driver's unless given (record 0's
    // object is made while the driver's MFT is being built).
    BaseFileRecordImpl(NTFSDriver* driver, std::uint64_t number, Mft* mft = nullptr);
    // The object of a record that was just allocated and laid out: empty,
    // with no links yet, so none of the checks of a file on disk apply.
    struct Fresh {};
    BaseFileRecordImpl(NTFSDriver* driver, std::uint64_t number, Fresh);
    ~BaseFileRecordImpl() override;
    BaseFileRecordImpl(const BaseFileRecordImpl&) = delete;
    BaseFileRecordImpl& operator=(const BaseFileRecordImpl&) = delete;

    Attribute* findAttribute(std::uint32_t type, const std::u16string& name) override;
    Attribute* nextExtent(const AttributeRecord* header) override;
    Attribute* nextAttribute(Attribute* previous) override;
    Attribute* nextOfKind(Attribute* previous) override;
    void releaseAttribute(Attribute* attribute) override;
    std::uint64_t reference() override;
    RecordBuffer* recordBuffer() override { return base_; }
    std::uint32_t maxAttributeSize() override;
    void readThrough() override;
    void flush() override;
    bool resizeInRecord(AttributeRecord* header, std::uint32_t length, bool may_move) override;
    Attribute* createAttribute(std::uint32_t type, const std::u16string& name, bool stay_resident) override;
    Attribute* addAttribute(std::uint32_t type, const std::u16string& name, bool stay_resident) override;
    void dropAttribute(Attribute* attribute, bool erase) override;
    void removeAttribute(Attribute* attribute) override;
    void addName(const void* value, std::uint32_t length) override;
    std::pair<std::u16string, std::u16string> removeName(const void* value, std::uint32_t length) override;
    void markIndexed(std::uint32_t type) override;
    BaseFileRecord* owner() override;
    bool mayLeaveRecord(Attribute* attribute) override;
    Attribute* addExtent(std::uint32_t type, const std::u16string& name, std::uint64_t lowest, std::uint64_t highest,
                         const unsigned char* mapping_pairs, std::uint32_t pairs_length) override;

protected:
    // Record 0 differs in these; see MftBaseFileRecordImpl.
    virtual void moveToExtension(AttributeRecord* header);
    virtual void splitRecord(RecordBuffer* buffer, const AttributeRecord* asking, std::uint32_t asked);
    virtual bool qualifies(RecordBuffer* buffer, const AttributeRecord* header);
    virtual RecordBuffer* allocateExtension();
    virtual void freeExtension(RecordBuffer* buffer);

    // Puts the attribute `bytes` into `buffer` at its place by type and
    // name, making room as needed, with the record's next instance number;
    // flushed. Answers its header.
    AttributeRecord* insertInRecord(RecordBuffer* buffer, const std::vector<unsigned char>& bytes);
    // Takes the attribute at `header` out of its record, moving the tail
    // down; the record isn't flushed.
    void cutFromRecord(RecordBuffer* buffer, AttributeRecord* header);
    // Moves attributes of `buffer` elsewhere until `asked` more bytes fit
    // for `asking`.
    void makeRoom(RecordBuffer* buffer, const AttributeRecord* asking, std::uint32_t asked);
    // The attribute list: built from the records when there is none yet,
    // written as the unnamed 0x20 of the base record.
    void ensureList();
    void writeList();
    // The list entry of `header` (in `record`) made anew or replaced.
    void enterInList(std::uint64_t record, const AttributeRecord* header);
    void dropFromList(std::uint64_t record, const AttributeRecord* header);
    // The object of `old_header` now serves the attribute at `moved`.
    void repoint(const AttributeRecord* old_header, AttributeRecord* moved);
    // The extension record `buffer` joins this file's loaded records.
    void adoptExtension(RecordBuffer* buffer);
    // Makes the resident attribute at `header` non-resident where it is.
    void convertInPlace(RecordBuffer* buffer, AttributeRecord* header);
    // Copies `bytes` to offset `at` of `buffer` with the record's next
    // instance number; flushed.
    AttributeRecord* placeAt(RecordBuffer* buffer, std::uint32_t at, const std::vector<unsigned char>& bytes);
    // The list's bytes in the order the format wants; sorts list_ alike.
    std::vector<unsigned char> serialiseList();
    // Stores `bytes` as the value of the list attribute at `header`.
    void storeList(AttributeRecord* header, const std::vector<unsigned char>& bytes);
    // The three longest attributes of `buffer`, longest first.
    std::vector<AttributeRecord*> longestAttributes(RecordBuffer* buffer);
    // Moves the attributes of `buffer` from offset `split` on to a new extension record.
    void moveTail(RecordBuffer* buffer, std::uint32_t split);
    bool heldObject(const AttributeRecord* header) const { return attributes_.count(header) != 0; }
    // The object serving `header` while somebody holds it; null otherwise.
    Attribute* heldAt(const AttributeRecord* header) const;
    // Frees the clusters and records of a file whose last link went, after
    // taking its object id out of the volume's index of them.
    void deleteFile();
    void forgetObjectId();
    std::uint64_t referenceOf(RecordBuffer* buffer);
    // The loaded record whose bytes hold `header`; FILE_CORRUPT when none.
    RecordBuffer* holderOf(const AttributeRecord* header);
    // Whether the file has no list, or a list that names one record only.
    bool listNamesOneRecord();

    NTFSDriver* driver_;
    Mft* mft_;

private:
    struct Slot {
        std::uint32_t uses = 0;
        std::unique_ptr<Attribute> object;
    };
    // One attribute list entry, copied out of the list.
    struct ListEntry {
        std::uint32_t type;
        std::u16string name;
        std::uint64_t lowest_vcn;
        std::uint64_t record;
        std::uint16_t instance;
    };

    // The header of (type, name, vcn) in one record, with `instance` when it
    // isn't negative; null when none.
    static AttributeRecord* findInRecord(RecordBuffer* buffer, std::uint32_t type, const std::u16string& name,
                                         std::uint64_t vcn, int instance);
    // The header of (type, name, vcn) wherever the file keeps it.
    AttributeRecord* locate(std::uint32_t type, const std::u16string& name, std::uint64_t vcn);
    AttributeRecord* locateEntry(const ListEntry& entry);
    RecordBuffer* recordOf(std::uint64_t number);
    void loadList();
    // The object of a header, shared; use count + 1.
    Attribute* hold(AttributeRecord* header);
    const std::vector<AttributeRecord*>& order();
    // Moves the bytes of `buffer` from `from` up to its bytes in use by
    // `delta` and tells the objects of the moved headers.
    void shiftTail(RecordBuffer* buffer, std::uint32_t from, std::int64_t delta);
    // Destroys every attribute object and gives the buffers back.
    void releaseEverything();

    // Frees the clusters of a non-resident attribute's extent.
    void freeClusters(AttributeRecord* header);
    // Takes the extents of (type, name) from VCN `from` on out of the
    // file's records, or only the one at `from` with `just_one`.
    void eraseExtents(std::uint32_t type, const std::u16string& name, std::uint64_t from, bool just_one);
    // Takes one resident attribute out of its record (and the list).
    void eraseResident(AttributeRecord* header);
    // An extension record left with no attribute goes back to the MFT.
    void dropEmptyExtension(RecordBuffer* buffer);
    void changeLinkCount(int delta);
    std::uint32_t usesOf(Attribute* attribute);
    // Holds the name equal to `wanted` in found[0] and its twin in found[1].
    void findNames(const NameKey& wanted, Attribute* found[2], std::pair<std::u16string, std::u16string>& names);

    std::uint64_t number_;
    RecordBuffer* base_ = nullptr;
    std::map<std::uint64_t, RecordBuffer*> extensions_;
    std::map<const AttributeRecord*, Slot> attributes_;
    bool list_loaded_ = false;
    bool has_list_ = false;
    std::vector<ListEntry> list_;
    bool order_known_ = false;
    std::vector<AttributeRecord*> order_;
    bool writing_list_ = false;
    std::uint64_t list_version_ = 0;
    bool delete_on_destruction_ = false;
};

// Record 0, the MFT's own. It can't be split; its first extension record
// is record 15, kept for it; its data stream is cut rather than moved, so
// that record 0 alone always reaches records 1 to 15.
class MftBaseFileRecordImpl : public BaseFileRecordImpl {
public:
    using BaseFileRecordImpl::BaseFileRecordImpl;

protected:
    void moveToExtension(AttributeRecord* header) override;
    void splitRecord(RecordBuffer* buffer, const AttributeRecord* asking, std::uint32_t asked) override;
    bool qualifies(RecordBuffer* buffer, const AttributeRecord* header) override;
    RecordBuffer* allocateExtension() override;
    void freeExtension(RecordBuffer* buffer) override;

private:
    // Cuts the MFT's own run list behind the clusters of records 0 to 15;
    // the rest becomes an extent of its own in an extension record.
    void cutDataRuns(AttributeRecord* header);
    // Puts the stream's header as it was before a cut that failed half way.
    void restoreWhole(AttributeRecord* header, const std::vector<unsigned char>& whole);
};

}  // namespace ntfs
