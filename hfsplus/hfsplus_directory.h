#pragma once
// One folder of an HFS+ volume. Its entries are the catalog records keyed
// by its id; it keeps no copy of them. What it keeps is the set of its
// files that have a live object, entered in the driver's map of open files
// under its catalog id, so that a folder has one object per file and the
// hard links of one inode, whichever folders they stand in, meet at one
// object in the private directory.
//
// Listings leave out the private directory and, in the root, the journal's
// two files; a lookup by name still reaches them. Changes keep to the rules
// of the volume: no dot names, the journal's files and the private
// directory untouched, no file that is open deleted, emptied or moved away,
// and each change dates the folder's access first. A read-only volume
// refuses them all with FILE_READ_ONLY before anything is touched.
#include <cstdint>
#include <string>

#include "fsdriver/directory_object.h"
#include "hfsplus/backup_factory.h"
#include "hfsplus/catalog_record.h"
#include "hfsplus/opened_files_map.h"

namespace hfsplus {

class HFSPlusDriver;
class HFSPlusFileObject;
struct EntryChange;

class HFSPlusAbstractDirectoryObject : public FileSystemDriver::DirectoryObject {
public:
    // Takes a file that is going away out of the open files.
    virtual void ForgetFile(std::uint32_t file_id) = 0;
    virtual std::uint32_t GetCatalogId() const = 0;

protected:
    HFSPlusAbstractDirectoryObject(FileSystemDriver* driver, std::uint32_t id) : DirectoryObject(driver, id) {}
};

class HFSPlusDirectoryObject : public HFSPlusAbstractDirectoryObject {
public:
    using IteratorObject = FileSystemDriver::IteratorObject;
    using FileObject = FileSystemDriver::FileObject;

    // The folder `catalog_id` (2 for the root): FILE_OPEN when the id isn't
    // a folder, FILE_EXISTS when the folder has an object already.
    HFSPlusDirectoryObject(HFSPlusDriver* driver, std::uint32_t catalog_id);
    ~HFSPlusDirectoryObject() override;

    IteratorObject* begin() override;
    IteratorObject* find(const std::u16string& name) override;
    IteratorObject* find(const file_identifier& entry) override;
    std::uint32_t lookup_directory(const std::u16string& name) override;
    FileObject* open_file(const std::u16string& name) override;
    FileObject* open_file(IteratorObject& entry) override;
    FileObject* open_file(const file_identifier& entry) override;

    // Changes.
    FileObject* create_file(const std::u16string& name) override;
    void remove_file(const std::u16string& name) override;
    void remove_directory_entry(const std::u16string& name) override;
    void make_directory(const std::u16string& name) override;
    void rename_entry(const std::u16string& name, DirectoryObject& target, const std::u16string& new_name) override;
    void link_entry(const std::u16string& name, DirectoryObject& target, const std::u16string& new_name) override;
    void symlink_entry(const std::u16string& name, const std::u16string& target) override;
    void set_security(const std::u16string& name, const void* data, std::uint32_t size) override;
    void set_attributes(const std::u16string& name, std::uint32_t value) override;
    void set_permissions(const std::u16string& name, std::uint32_t value) override;
    void set_owner(const std::u16string& name, std::uint32_t owner, std::uint32_t group) override;
    void set_times(const std::u16string& name, std::uint64_t modified, std::uint64_t created,
                   std::uint64_t accessed) override;
    void make_node(const std::u16string& name, std::uint32_t kind, std::uint32_t permissions, std::uint32_t major,
                   std::uint32_t minor) override;

    void ForgetFile(std::uint32_t file_id) override;
    std::uint32_t GetCatalogId() const override { return catalog_id; }

    // The backup of `entry`, an iterator of this folder, or of the folder
    // itself when there is none. An open file of the entry is flushed first.
    FileSystemDriver::BackupObject* new_backup_object(IteratorObject* entry, std::uint32_t option) override;

    // --- for files and iterators ---
    // The record of the child `name`; FILE_NOT_FOUND when there is none.
    CatalogRecord GetChild(const std::u16string& name) const;
    // The one way to a file object: the live one of the record's id, or a
    // new one entered in the open files.
    HFSPlusFileObject* OpenRecord(const CatalogRecord& record);
    // On the private directory's object: the object of the inode of the
    // hard link `link_id`.
    HFSPlusFileObject* OpenInode(std::uint32_t link_id);
    // The live object of a file of this folder; null when it has none.
    HFSPlusFileObject* FindOpenFile(std::uint32_t file_id) const;

    // Adds the inline attribute `attribute` (1 to 127 characters, not
    // Finder information nor the resource fork: FILE_UNSUPPORTED, as on a
    // volume without an attributes tree) to the entry `name`, a hard link's
    // to its inode, and flags the owner's record as having attributes.
    // FILE_EXISTS when it has one of that name already.
    void AddInlineAttribute(const std::u16string& name, const std::u16string& attribute, const void* data,
                            std::uint32_t size);

    // --- the changes' common steps ---
    // FILE_READ_ONLY on a read-only volume; else the folder's accessDate
    // becomes now. The first change of every changing operation.
    void TouchDirectory();
    // Whether the entry `name` may go: no root, private directory or folder
    // with children, no file open here, no last link of an open inode.
    bool CanDelete(const std::u16string& name);
    // `name` in this folder becomes a link to `existing` in `source`.
    void MakeLink(const std::u16string& name, HFSPlusDirectoryObject& source, const std::u16string& existing);
    // The live object of a file in any folder that has a directory object.
    HFSPlusFileObject* FindOpenFileIn(std::uint32_t folder, std::uint32_t file_id) const;
    // Whether the inode of the hard link `link` is open in its folder.
    bool IsInodeOpen(const CatalogRecord& link);
    // Whether `name` here is a hard link to the inode `inode_number`.
    bool IsLinkTo(const std::u16string& name, std::uint32_t inode_number);
    // A rename's new name here: free, or (`own_id` not 0) the moved entry
    // itself found again; FILE_EXISTS otherwise.
    void CheckRenameTarget(const std::u16string& name, std::uint32_t own_id);
    // A change of ownership, mode, security or dates of the entry `name`.
    void ChangeEntry(const std::u16string& name, const EntryChange& change);

    HFSPlusDriver* hfs;  // not owned
    std::uint32_t catalog_id;
    OpenFilesSet open_files;
    HFSPlusBackupObjectFactory backup_factory;
};

}  // namespace hfsplus
