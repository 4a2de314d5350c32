#pragma once
// One node of a B-tree file, seen through the views its kind calls for:
// the descriptor and record offsets of every node, keys and data of leaf
// records, keys and children of index records. A node is bound to a buffer
// of the nodes cache while it is held there; what the tree needs to know of
// it afterwards (links, kind, height, first and last key) stays in its
// description, which outlives the buffer.
//
// A node's layout is checked whole when it is read (CheckLayout): record
// offsets inside the node, ascending, behind the descriptor and in front
// of the offset table, every key inside its record and no longer than the
// tree's largest. The accessors rely on that check and add only the cheap
// ones that the callers' indexes need.
#include <cstddef>
#include <cstdint>
#include <memory>

#include "fsdriver/aligned_buffer.h"
#include "hfsplus/hfsplus_records.h"

namespace hfsplus {

// A key as a node limit: the bytes of the largest key, its length field
// included, and the child of an index record (kNoChild on leaves).
struct KeyAndNodeIndexRecord {
    static constexpr std::size_t kKeyCapacity = 520;
    static constexpr std::uint32_t kNoChild = 0xFFFFFFFFu;

    unsigned char key[kKeyCapacity] = {};
    std::size_t key_size = 0;
    std::uint32_t child = kNoChild;
};

template <typename Record>
struct NodeKeyLimits {
    Record first;
    Record last;
};

// What the tree remembers of a node once read: made from its descriptor,
// the limits filled for leaf and index nodes with records.
struct NodeBlockDescription {
    std::uint32_t node = 0;
    std::uint32_t forward_link = 0;
    std::uint32_t backward_link = 0;
    std::int8_t kind = kLeafNode;
    std::uint8_t height = 0;
    std::uint16_t record_count = 0;
    bool has_limits = false;
    NodeKeyLimits<KeyAndNodeIndexRecord> limits;
};

class NodeBlock {
public:
    static constexpr std::uint16_t kDescriptorSize = sizeof(BTNodeDescriptor);

    NodeBlock(std::uint32_t number, std::uint16_t node_size) : number(number), node_size(node_size) {}
    ~NodeBlock();

    // Binding zeroes the buffer; unbinding zeroes it too and drops the
    // loaded mark. The description stays.
    void Bind(unsigned char* buffer);
    void Unbind();
    bool IsBound() const { return data != nullptr; }

    // FILE_CORRUPT for a kind outside -1..2, a record count or offsets that
    // don't fit the node, a key that leaves its record or passes
    // `max_key_size`, or an index record without room for its child.
    void CheckLayout(std::size_t max_key_size) const;

    // --- the views ---
    // FILE_UNSUPPORTED when unbound or not loaded.
    const BTNodeDescriptor& GetDescriptor() const;
    bool IsDirty() const { return dirty != 0; }
    void SetDirty(bool value) { dirty = value ? 1 : 0; }
    std::uint16_t GetRecordCount() const { return GetDescriptor().numRecords(); }
    std::uint32_t GetForwardLink() const { return GetDescriptor().fLink(); }
    std::uint32_t GetBackwardLink() const { return GetDescriptor().bLink(); }
    // The record's first byte and its size; FILE_NOT_FOUND at or past the count.
    const unsigned char* GetRecord(std::uint16_t index) const;
    std::uint16_t GetRecordSize(std::uint16_t index) const;
    // Node size less the records, the offset table and its free-space entry.
    std::uint16_t GetFreeSize() const;
    // FILE_CORRUPT when none was made yet.
    NodeBlockDescription& GetDescription() const;

    // Leaf and index records: the key (its length field included) and its size.
    const unsigned char* GetKey(std::uint16_t index) const { return GetRecord(index); }
    std::size_t GetKeySize(std::uint16_t index) const;
    const unsigned char* GetFirstKey() const { return GetKey(0); }
    std::size_t GetFirstKeySize() const { return GetKeySize(0); }
    // Leaf records: the data behind the key (and its pad byte) and its size.
    const unsigned char* GetRecordData(std::uint16_t index, std::size_t& size) const;
    // Index records: the child node number behind the key.
    std::uint32_t GetChild(std::uint16_t index) const;

    // --- changes; each keeps the offsets contiguous, the free-space offset
    // behind the last record, and leaves the node dirty ---
    // An empty node of `kind` and `height`, its buffer zeroed, loaded.
    void Initialise(std::int8_t kind, std::uint8_t height, std::uint32_t backward_link);
    // A freed node: its bytes zeroed, dirty so that the zeros reach the disk.
    void Clear();
    void SetForwardLink(std::uint32_t link);
    void SetBackwardLink(std::uint32_t link);
    // Puts `size` bytes in as record `index` (at most the count), moving the
    // later ones up. FILE_CORRUPT when they don't fit or `size` is odd.
    void InsertRecordAt(std::uint16_t index, const unsigned char* bytes, std::uint16_t size);
    // Closes the gap of record `index` and zeroes the bytes freed at the top.
    void RemoveRecordAt(std::uint16_t index);
    // The bytes of a record for the caller to change in place (map records).
    unsigned char* RecordBytes(std::uint16_t index);
    // Whether a record of `size` bytes has room, its offset entry included.
    bool HasRoomFor(std::size_t size) const { return size + 2 <= GetFreeSize(); }

    std::uint32_t number;
    std::uint16_t node_size;
    unsigned char* data = nullptr;  // the buffer while bound
    std::unique_ptr<NodeBlockDescription> description;
    std::uint8_t dirty = 0;
    std::uint8_t loaded = 0;

private:
    std::uint16_t Offset(std::uint16_t slot) const;
    void SetOffset(std::uint16_t slot, std::uint16_t value);
    void SetRecordCount(std::uint16_t count);
    // Where the data of a record starts: behind the key and, for an odd key
    // length, its pad byte. FILE_CORRUPT when that leaves the record.
    std::size_t DataOffset(std::uint16_t index) const;
};

}  // namespace hfsplus
