#pragma once
// The catalog: the B-tree of files and folders over fork 4, with catalog
// keys (parent id, then the folding name order), four record types, lookup
// by id through thread records and by name, hard links and symbolic links.
// Reading only; creation, deletion and renames join with the write path.
#include <cstdint>
#include <memory>
#include <string>

#include "hfsplus/btree.h"
#include "hfsplus/catalog_record.h"
#include "hfsplus/hfsplus_string.h"
#include "hfsplus/record_position.h"

namespace hfsplus {

class ExtentsOverflowFile;

class CatalogFile : public SpecialFileWithBTree {
public:
    CatalogFile(HFSPlusDriver* driver, std::uint16_t node_size, ExtentsOverflowFile& extents);
    ~CatalogFile() override;

    // --- lookups; none changes the tree ---
    // The leaf position of (parent, name); FILE_NOT_FOUND when absent.
    RecordPosition FindByKey(std::uint32_t parent, const HFSPlusString& name);
    RecordPosition FindThread(std::uint32_t id);
    // Through the thread record of `id`; FILE_NOT_FOUND when either is absent.
    RecordPosition FindById(std::uint32_t id);
    // Copies of the record at a position, by key, by id. FILE_CORRUPT for a
    // record whose size doesn't fit its type.
    CatalogRecord GetRecordAt(const RecordPosition& position);
    CatalogRecord GetRecord(std::uint32_t parent, const HFSPlusString& name);
    CatalogRecord GetRecordById(std::uint32_t id);
    std::uint32_t GetParentId(std::uint32_t id);
    // The root's name (thread of id 2, which must be a folder thread).
    HFSPlusString GetVolumeName();
    std::uint32_t GetPrivateDirectoryId();
    // The first child of `parent` behind its thread; FILE_NOT_FOUND for none.
    RecordPosition GetFirstChild(std::uint32_t parent);
    // The next leaf record; the invalid position at the end of the tree.
    RecordPosition GetNextRecord(const RecordPosition& position);

    // --- record classification ---
    static bool IsHardLink(const CatalogRecord& record);
    static bool IsDeviceRecord(const CatalogRecord& record);
    static bool IsRegularOrLink(const CatalogRecord& record);
    static bool IsNonEmptyFolder(const CatalogRecord& record);
    // The inode file record of the hard link `id`.
    CatalogRecord ResolveHardLink(std::uint32_t id);
    // The inode record of link number `number`: by id, else by its name in
    // the private directory.
    CatalogRecord FindInodeRecord(std::uint32_t number);

    // --- the family's key-dependent operations (see btree.h) ---
    int CompareKeys(const unsigned char* a, std::size_t a_size, const unsigned char* b, std::size_t b_size) const override;
    // A key of (parent, name) in its on-disk form; answers its size.
    static std::size_t BuildKey(unsigned char* out, std::uint32_t parent, const HFSPlusString& name);
    // Along the leaves the disk's order is the one its maker used (folded
    // with Apple's table, or binary on HFSX), which may differ from this
    // search order: a key that grows in either order may follow.
    bool FollowsInChain(const KeyAndNodeIndexRecord& previous, const KeyAndNodeIndexRecord& next) const override;

    // The key order of an HFSX catalog whose header says "binary": names
    // by code units, case and all. The folding order would look for them
    // in the wrong places of such a tree (the private folder's leading 0
    // characters alone sort first there and last when folded).
    static constexpr std::uint8_t kBinaryCompare = 0xBC;
    bool binary_names = false;

private:
    // The copy of the record at a leaf position, its size checked by type.
    CatalogRecord CopyRecord(NodeBlock& node, std::uint16_t index) const;
    RecordPosition Find(const unsigned char* key, std::size_t key_size);
    // The thread record of `id`, which must be one; FILE_NOT_FOUND else.
    CatalogRecord GetThread(std::uint32_t id);
    void CheckValid() const;
};

}  // namespace hfsplus
