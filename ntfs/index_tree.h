#pragma once
// The B+ tree under every index of the volume: directories ("$I30"),
// object ids ("$O"), reparse points ("$R") and the two security indexes
// ("$SII", "$SDH"). One engine serves them all; an index differs only in
// its key, which names the attribute, the collation rule that the root must
// state and the order of two keys.
//
// A tree reads its root at once and each index buffer at first need, and
// keeps every node it read until it goes. A node is checked whole when it
// is read, entries and keys included, so that a walk over it afterwards
// follows nothing that leaves the node. The walk itself bounds its depth
// and never enters a node twice, so a damaged tree ends in FILE_CORRUPT,
// never in a loop.
//
// Changes are written at once, node by node, the root included: a tree
// keeps no dirty state, and a failure half-way leaves the nodes already
// written as they are.
#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "loader/common/raise.h"
#include "ntfs/attribute.h"
#include "ntfs/file_record.h"
#include "ntfs/ntfs_records.h"

namespace ntfs {

class NTFSDriver;

// Where a cursor stands: a node (the root or the index buffer at `vcn`)
// and one of its entries.
struct IndexPosition {
    static constexpr std::uint64_t kRootVcn = ~0ull;

    std::uint64_t vcn = kRootVcn;
    const IndexHeader* node = nullptr;
    const IndexEntryHeader* entry = nullptr;
};

// A position in a tree and the positions above it whose entries the walk
// went down through, nearest last.
struct IndexCursor {
    IndexPosition position;
    std::vector<IndexPosition> stack;
    std::set<std::uint64_t> entered;  // nodes gone down into: a sound tree is entered once per node

    bool valid() const { return position.entry != nullptr; }
    void clear();
};

// The bytes of a root's value in front of its node header.
constexpr std::uint32_t kIndexRootHeadSize = offsetof(IndexRoot, index_);

// What every entry offers, once its node was checked.
inline bool IsEndEntry(const IndexEntryHeader* entry) { return (entry->flags() & kEntryLast) != 0; }
inline bool HasSubNode(const IndexEntryHeader* entry) { return (entry->flags() & kEntrySubNode) != 0; }
inline const unsigned char* KeyOf(const IndexEntryHeader* entry) {
    return reinterpret_cast<const unsigned char*>(entry) + IndexEntryHeader::kKeyOffset;
}

// The part of the tree that doesn't depend on the key.
class IndexTreeBase {
public:
    // Whether a key of `length` bytes holds all that its comparison reads.
    using KeyCheck = bool (*)(const unsigned char* key, std::size_t length);
    // The order of two sound keys: negative when `a` is smaller.
    using KeyOrder = int (*)(const NTFSDriver& driver, const unsigned char* a, std::size_t a_length,
                             const unsigned char* b, std::size_t b_length);
    // A whole index entry: header, key, data, and the sub-node VCN if any.
    using Entry = std::vector<unsigned char>;

    virtual ~IndexTreeBase();
    IndexTreeBase(const IndexTreeBase&) = delete;
    IndexTreeBase& operator=(const IndexTreeBase&) = delete;

    // The first entry in key order; false for an empty index.
    bool first(IndexCursor& cursor);
    // The entry behind the cursor's; false, and the cursor cleared, at the end.
    bool next(IndexCursor& cursor);
    // The last entry of the rightmost leaf; false when that leaf has none.
    bool last(IndexCursor& cursor);

    // Inserts `entry`, whose key must be sound for this index, and leaves
    // the cursor on it. FILE_EXISTS when the key is there already.
    void insert(const Entry& entry, IndexCursor& cursor);
    // Removes the entry under the cursor and clears the cursor. Nodes left
    // without keys are freed; keys that lose their place on the way go in
    // again through insert.
    void remove(IndexCursor& cursor);
    // Writes `key` over the key of the cursor's entry and writes its node.
    // The key keeps its length and its place in key order: only what the
    // index keeps of the file beside its name changes.
    void rewriteKey(const IndexCursor& cursor, const unsigned char* key, std::uint32_t length);

    NTFSDriver* driver() const { return driver_; }
    const RecordRef& record() const { return record_; }
    const std::u16string& name() const { return name_; }

protected:
    // Builds the empty root of a new index `name` on `holder`, resident in
    // its record, and marks the record as indexing `indexed_type`.
    static void CreateRoot(NTFSDriver* owner, const RecordRef& holder, const std::u16string& name,
                           std::uint32_t collation, std::uint32_t indexed_type);

    // How an entry's key lies to the one looked for: negative when the
    // entry's is smaller.
    class Probe {
    public:
        virtual int compare(const unsigned char* key, std::size_t length) const = 0;

    protected:
        ~Probe() = default;
    };

    // Opens the index `name` of `record`: FILE_CORRUPT without its root,
    // with a root under 48 bytes or of another collation rule than
    // `collation`, or with damage in the root's entries.
    IndexTreeBase(NTFSDriver* driver, RecordRef record, std::u16string name, std::uint32_t collation,
                  KeyCheck key_check, KeyOrder key_order);

    // Places the cursor on the entry whose key the probe calls equal.
    bool lookup(const Probe& probe, IndexCursor& cursor);

public:
    // An entry's place: its node (kRootVcn for the root) and its offset
    // from the node header, which stays right while pointers into a
    // growing root would not.
    struct Place {
        std::uint64_t vcn;
        std::uint32_t offset;
    };
    using Path = std::vector<Place>;

private:
    class EntryProbe;

    const IndexHeader* rootNode() const;
    // The node of the index buffer at `vcn`, read and checked on first need.
    const IndexHeader* node(std::uint64_t vcn);
    // The same without the check, for a buffer that is being laid out.
    const IndexHeader* loadNode(std::uint64_t vcn, bool check);
    // Like lookup, but a miss leaves the cursor on the entry that ended
    // the walk: the place where the key would go in.
    bool walkTo(const Probe& probe, IndexCursor& cursor);

    // --- node layout (index_node_layout.cpp) ---
    IndexRoot* rootHead() { return reinterpret_cast<IndexRoot*>(root_.data()); }
    IndexHeader* mutableNode(std::uint64_t vcn);
    // The entry at `place`, its length checked against the node.
    IndexEntryHeader* entryAt(const Place& place);
    // The offset of the node's end entry, each length on the way checked.
    std::uint32_t endOffset(std::uint64_t vcn);
    // The last real entry before the end entry; false when there is none.
    bool lastRealEntry(std::uint64_t vcn, std::uint32_t& offset);
    void writeBuffer(std::uint64_t vcn);
    void writeRoot();
    // Puts `entry` in at `place`, which must have the room, and counts it.
    void placeEntry(const Place& place, const Entry& entry);
    std::uint64_t allocateBuffer();
    void freeNode(std::uint64_t vcn);
    // Makes the root an empty leaf again, once its last buffer is freed;
    // the buffers' stream keeps its size.
    void resetRoot();
    std::uint32_t clustersPerBuffer();
    Place placeOf(const IndexPosition& position) const;
    Path pathOf(const IndexCursor& cursor) const;
    Entry keyOnlyCopy(const Place& place);
    static Entry WithSubNode(Entry entry, std::uint64_t vcn);
    static Entry EndEntry(bool with_sub_node, std::uint64_t vcn);
    std::uint64_t subNodeAt(const Place& place);
    void setSubNodeAt(const Place& place, std::uint64_t vcn);
    std::uint64_t rootSizeWith(std::uint32_t extra);

    // --- insertion (index_insert.cpp) ---
    void checkNewEntry(const Entry& entry) const;
    // Inserts at `place`; true when a split hands back an entry, which
    // `entry` and `place` then hold, to go in one level up.
    bool insertAt(Place& place, Entry& entry, Path& path);
    bool insertInRoot(Place& place, Entry& entry, Path& path);
    void placeInRoot(const Place& place, const Entry& entry);
    // Moves the root's entries into a new buffer; answers the place in it
    // that corresponds to `place` and leaves `path` on the root's entry.
    Place pushRootDown(const Place& place, Path& path);
    // Makes the allocation and bitmap attributes of a tree without buffers.
    void createAllocation();
    bool splitBuffer(Place& place, Entry& entry, Path& path);
    std::uint32_t middleOf(std::uint64_t vcn);

    // --- removal (index_remove.cpp) ---
    void removeFromNode(const Place& place);
    void replaceWithPredecessor(const Place& target, Path path, std::vector<Entry>& again);
    // Frees `leaf` if it lost its last key and goes up as far as that
    // empties nodes. True when this took out the entry at `watched`.
    bool collapse(std::uint64_t leaf, Path& path, std::vector<Entry>& again, const Place* watched);
    void insertAgain(std::vector<Entry>& again);

    // --- reading ---
    void openAllocation();
    // Moves the cursor from its entry, which has a sub-node, to the
    // sub-node's first entry, keeping the entry on the stack.
    void stepDown(IndexCursor& cursor);
    void descendLeftmost(IndexCursor& cursor);
    bool popToNext(IndexCursor& cursor);
    void checkNode(const IndexHeader* node, std::size_t span) const;

    NTFSDriver* driver_;
    RecordRef record_;
    std::u16string name_;
    std::uint32_t collation_;
    KeyCheck key_check_;
    KeyOrder key_order_;
    AttributeRef root_attribute_;
    std::vector<unsigned char> root_;
    AttributeRef allocation_;
    bool allocation_opened_ = false;
    std::uint32_t buffer_size_ = 0;
    std::uint32_t vcn_unit_ = 0;  // bytes per VCN
    std::map<std::uint64_t, std::vector<unsigned char>> nodes_;
};

// The value of an empty leaf root: one end entry. An existing root (when
// given) keeps its indexed type, buffer size and clusters per buffer; a new
// one takes `indexed_type` and the volume's buffer geometry.
std::vector<unsigned char> EmptyRootValue(const NTFSDriver& driver, const IndexRoot* existing,
                                          std::uint32_t indexed_type, std::uint32_t collation);
// Whether `attribute` is large enough (5/16 of a record) that it should
// leave its record rather than have the others make room for it.
bool MayLeaveRecord(const NTFSDriver& driver, Attribute& attribute);

template <typename Key>
class IndexTree : public IndexTreeBase {
public:
    using Wanted = typename Key::Wanted;

    IndexTree(NTFSDriver* owner, RecordRef holder)
        : IndexTreeBase(owner, std::move(holder), Key::kName, Key::kCollation, &Key::Sound, &Key::Order) {}

    // Gives `holder` a new, empty index of this kind over `indexed_type`.
    static void create(NTFSDriver* owner, const RecordRef& holder, std::uint32_t indexed_type) {
        CreateRoot(owner, holder, Key::kName, Key::kCollation, indexed_type);
    }

    // Places the cursor on the entry of key `wanted`; false when there is none.
    bool find(const Wanted& wanted, IndexCursor& cursor) {
        KeyProbe probe(*driver(), wanted);
        return lookup(probe, cursor);
    }
    // The same for a key that must be there: FILE_NOT_FOUND otherwise.
    void findForRemoval(const Wanted& wanted, IndexCursor& cursor) {
        if (!find(wanted, cursor)) Common::Raise(ERROR_TAG, Common::Failures::FILE_NOT_FOUND);
    }

private:
    class KeyProbe final : public Probe {
    public:
        KeyProbe(const NTFSDriver& owner, const Wanted& wanted) : owner_(owner), wanted_(wanted) {}
        int compare(const unsigned char* key, std::size_t length) const override {
            return Key::Compare(owner_, key, length, wanted_);
        }

    private:
        const NTFSDriver& owner_;
        const Wanted& wanted_;
    };
};

// A directory's key is a $FILE_NAME value; lookups want the name alone and
// compare it without regard to case, through $UpCase.
struct FileNameKey {
    static constexpr const char16_t* kName = u"$I30";
    static constexpr std::uint32_t kCollation = IndexRoot::kCollationFileName;
    using Wanted = std::u16string;

    static bool Sound(const unsigned char* key, std::size_t length);
    static int Compare(const NTFSDriver& driver, const unsigned char* key, std::size_t length, const Wanted& name);
    static int Order(const NTFSDriver& driver, const unsigned char* a, std::size_t a_length, const unsigned char* b,
                     std::size_t b_length);
    // The name of a sound key.
    static std::u16string NameOf(const unsigned char* key);
    static const FileNameValue* ValueOf(const unsigned char* key) {
        return reinterpret_cast<const FileNameValue*>(key);
    }
};

// Keys of `N` u32s, compared in turn as unsigned numbers.
template <std::size_t N>
struct UlongsKey {
    using Wanted = std::array<std::uint32_t, N>;

    static bool Sound(const unsigned char*, std::size_t length) { return length >= 4 * N; }
    static int Compare(const NTFSDriver&, const unsigned char* key, std::size_t, const Wanted& wanted) {
        for (std::size_t i = 0; i < N; ++i) {
            std::uint32_t value = Common::LoadLE32(key + 4 * i);
            if (value != wanted[i]) return value < wanted[i] ? -1 : 1;
        }
        return 0;
    }
    static int Order(const NTFSDriver& driver, const unsigned char* a, std::size_t a_length, const unsigned char* b,
                     std::size_t) {
        Wanted wanted{};
        for (std::size_t i = 0; i < N; ++i) wanted[i] = Common::LoadLE32(b + 4 * i);
        return Compare(driver, a, a_length, wanted);
    }
};

struct ObjectIdKey : UlongsKey<4> {
    static constexpr const char16_t* kName = u"$O";
    static constexpr std::uint32_t kCollation = IndexRoot::kCollationUlongs;
};
struct ReparseKey : UlongsKey<3> {
    static constexpr const char16_t* kName = u"$R";
    static constexpr std::uint32_t kCollation = IndexRoot::kCollationUlongs;
};
struct SecurityIdKey : UlongsKey<1> {
    static constexpr const char16_t* kName = u"$SII";
    static constexpr std::uint32_t kCollation = IndexRoot::kCollationUlong;
};
struct SecurityHashKey : UlongsKey<2> {
    static constexpr const char16_t* kName = u"$SDH";
    static constexpr std::uint32_t kCollation = IndexRoot::kCollationSecurityHash;
};

using DirectoryIndex = IndexTree<FileNameKey>;
using ObjectIdIndex = IndexTree<ObjectIdKey>;
using ReparseIndex = IndexTree<ReparseKey>;
using SecurityIdIndex = IndexTree<SecurityIdKey>;
using SecurityHashIndex = IndexTree<SecurityHashKey>;

}  // namespace ntfs
