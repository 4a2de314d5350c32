#pragma once
// The catalog: the B-tree of files and folders over fork 4, with catalog
// keys (parent id, then the folding name order), four record types, lookup
// by id through thread records and by name, hard links and symbolic links.
// Entries are made, removed and renamed here with their threads, the
// parent's valence and the volume header's counts; hard links go through
// the inode files of the private directory.
#include <cstdint>
#include <memory>
#include <string>

#include "hfsplus/btree.h"
#include "hfsplus/catalog_record.h"
#include "hfsplus/hfsplus_string.h"
#include "hfsplus/record_position.h"
#include "loader/common/raise.h"

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
    // Through the thread record of `id`; FILE_NOT_FOUND without a thread,
    // FILE_CORRUPT when the thread names a record that isn't there.
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
    // Whether (parent, name) has an entry; other failures of the lookup go on.
    bool IsTaken(std::uint32_t parent, const HFSPlusString& name);

    // --- changes; each raises FILE_READ_ONLY on a read-only driver before
    // it touches anything ---
    // An entry of a new id: the record and its thread, the parent's valence
    // and the header's counts. A parent that isn't a folder is FILE_CREATE.
    // The made record is given back.
    CatalogRecord CreateFileEntry(std::uint32_t id, const HFSPlusString& name, std::uint32_t parent);
    CatalogRecord CreateFolderEntry(std::uint32_t id, const HFSPlusString& name, std::uint32_t parent);
    // FILE_UNSUPPORTED for a type other than "slnk", or "hlnk" for a link.
    CatalogRecord CreateSymlinkEntry(std::uint32_t id, const HFSPlusString& name, std::uint32_t parent,
                                     std::uint32_t type = kSymlinkType);
    CatalogRecord CreateHardLinkEntry(std::uint32_t id, const HFSPlusString& name, std::uint32_t parent,
                                      std::uint32_t inode, std::uint32_t type = kHardLinkType);
    // A file or folder record put in as it is, its own id and all.
    CatalogRecord CreateEntryFromRecord(const CatalogRecord& record, const HFSPlusString& name, std::uint32_t parent);
    // The next free catalog id; FILE_DISK_FULL when none is left.
    std::uint32_t AllocateCatalogId();

    // FILE_EXISTS for a name that is there; the new record is given back.
    CatalogRecord CreateFile(const HFSPlusString& name, std::uint32_t parent);
    void CreateDirectory(const HFSPlusString& name, std::uint32_t parent);
    CatalogRecord CreateSymlink(const HFSPlusString& name, std::uint32_t parent);
    // A second name for a file: the first link moves the file into the
    // private directory as its inode and leaves links at both names.
    void CreateHardLink(const HFSPlusString& source_name, std::uint32_t source_parent, const HFSPlusString& new_name,
                        std::uint32_t new_parent);

    // The record and thread of `id` at (parent, name) taken out, the
    // parent's valence lowered; the two below lower the header's count too.
    void DeleteEntry(std::uint32_t id, const HFSPlusString& name, std::uint32_t parent);
    void DeleteFileEntry(std::uint32_t id, const HFSPlusString& name, std::uint32_t parent);
    void DeleteFolderEntry(std::uint32_t id, const HFSPlusString& name, std::uint32_t parent);
    // A file with its blocks, or a hard link (the inode goes with its last
    // link); an empty folder. FILE_DELETE for what may not go.
    void DeleteFile(const HFSPlusString& name, std::uint32_t parent);
    void DeleteFolder(const HFSPlusString& name, std::uint32_t parent);
    // A new name, a new parent or both; an existing entry at the new place
    // is FILE_RENAME, unless it is the very same name.
    void Rename(const HFSPlusString& old_name, std::uint32_t old_parent, const HFSPlusString& new_name,
                std::uint32_t new_parent);
    // The record copied over the one of `id` in its node; FILE_CORRUPT for
    // a record of another type or id.
    void WriteFileRecord(std::uint32_t id, const CatalogRecord& record);
    void WriteFolderRecord(std::uint32_t id, const CatalogRecord& record);

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

    // --- the changes' steps ---
    void CheckChange() const;
    // The folder record of `parent`; `failure` when it is no folder.
    CatalogRecord ParentFolder(std::uint32_t parent, const Common::Failure& failure);
    // A zeroed file or folder record of `id`, dated now, with the parent's
    // text encoding.
    CatalogRecord NewRecord(std::uint16_t type, std::uint32_t id, const CatalogRecord& parent);
    // Puts in the record and its thread, counts the child in.
    CatalogRecord AddEntry(const CatalogRecord& record, const HFSPlusString& name, CatalogRecord parent);
    // Adds `delta` to the parent's valence (and its folder count, where it
    // keeps one) and stores it.
    void CountChild(CatalogRecord parent, bool folder, int delta);
    void CountInHeader(bool folder, int delta);
    void WriteRecord(std::uint32_t id, const CatalogRecord& record, std::uint16_t type);
    // Finds the leaf record with this exact key and takes it out;
    // FILE_CORRUPT when it isn't there.
    void RemoveKey(std::uint32_t parent, const HFSPlusString& name);
    // The private directory's id, 0 when the volume has none.
    std::uint32_t PrivateDirectoryIdOrZero();
    std::uint32_t EnsurePrivateDirectory();
    // FILE_RENAME when `folder` is `parent` or one of its ancestors.
    void CheckNotInside(std::uint32_t folder, std::uint32_t parent);
    // A file's forks: both lists of extents, then the blocks freed and the
    // overflow records taken out.
    void LoadForks(const CatalogRecord& record, ExtentsDescriptorArray& data, ExtentsDescriptorArray& resource);
    void FreeForks(std::uint32_t id, const ExtentsDescriptorArray& data, const ExtentsDescriptorArray& resource);
    void DeleteLinkTarget(const CatalogRecord& link);
};

}  // namespace hfsplus
