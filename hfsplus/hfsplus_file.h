#pragma once
// One open file of an HFS+ volume. A plain file or symbolic link owns the
// FileContent of its forks. A hard link owns nothing of the kind: it holds
// the object of its inode in the private directory and hands every
// operation to it, so all links of one inode that are open share one
// content, and what one of them would change the others see.
//
// Two counts keep an object alive: the framework's FileReferences, and the
// hard links that stand on an inode's object (HFSPlusFileReference). The
// framework deletes a file object when its own count falls to 0, so a
// link's hold counts there too: an inode's object that the framework also
// opened by its "iNode" name outlives both kinds of holder, never just one.
//
// Changes go through the FileContent: the data fork's bytes and size, and
// the catalog record's ownership, mode, security block and dates. A
// read-only volume refuses them with FILE_READ_ONLY.
#include <cstdint>
#include <memory>

#include "fsdriver/file_object.h"
#include "fsdriver/reference_count.h"
#include "hfsplus/backup_factory.h"
#include "hfsplus/catalog_record.h"

namespace hfsplus {

class HFSPlusDriver;
class HFSPlusDirectoryObject;
class FileContent;
class HFSPlusFileObject;

// A change of the fields that folder and file records share: the 16-byte
// permissions block, the mode, the owner and group, or the dates.
struct EntryChange {
    enum class What { kSecurity, kPermissions, kOwner, kTimes };
    What what = What::kSecurity;
    const unsigned char* security = nullptr;  // 16 bytes, for kSecurity
    std::uint32_t first = 0;   // mode; owner; contentModDate
    std::uint32_t second = 0;  // group; createDate
    std::uint32_t third = 0;   // accessDate
};
// FILE_CORRUPT for a size other than 16 or no data.
EntryChange SecurityChange(const void* data, std::uint32_t size);
EntryChange TimesChange(std::uint64_t modified, std::uint64_t created, std::uint64_t accessed);
// The change applied to a folder or file record, with attributeModDate now
// and, when `touch_access`, accessDate now too (but for a change of times,
// which brings its own).
void ApplyEntryChange(CatalogRecord& record, const EntryChange& change, bool touch_access);

// A hard link's hold on its inode's object: one more link standing on it.
class HFSPlusFileReference {
public:
    explicit HFSPlusFileReference(HFSPlusFileObject* inode);
    ~HFSPlusFileReference();
    HFSPlusFileReference(const HFSPlusFileReference&) = delete;
    HFSPlusFileReference& operator=(const HFSPlusFileReference&) = delete;

    HFSPlusFileObject& operator*() const { return *inode_; }
    HFSPlusFileObject* get() const { return inode_; }

private:
    HFSPlusFileObject* inode_;
};

class HFSPlusFileObject : public ReferenceCount, public FileSystemDriver::FileObject {
public:
    // The file of `record`, which must be a file record (FILE_OPEN
    // otherwise), in `directory`, whose count it raises while it lives.
    HFSPlusFileObject(HFSPlusDriver* driver, HFSPlusDirectoryObject* directory, const CatalogRecord& record);
    // Flushes, and leaves its directory's open files.
    ~HFSPlusFileObject() override;

    // --- the framework's operations; a hard link's go to its inode ---
    std::uint64_t size() override;
    // FILE_SEEK at or past the end; the sector of the byte otherwise.
    std::uint64_t sector_at(std::uint64_t position) override;
    void read(void* buffer, std::uint64_t position, std::uint64_t size, std::uint64_t& got) override;
    void write(const void* buffer, std::uint64_t position, std::uint64_t size, std::uint64_t& written) override;
    void set_size(std::uint64_t size) override;
    void set_times(std::uint64_t modified, std::uint64_t created, std::uint64_t accessed) override;
    virtual void SetSecurity(const void* data, std::uint32_t size);
    virtual void SetPermissions(std::uint32_t value);
    virtual void SetOwner(std::uint32_t owner, std::uint32_t group);
    void flush_file() override;
    // The heap block of FileContent::GetAreas.
    std::uint64_t allocated_ranges(std::uint64_t position, std::uint64_t length) override;
    // The backup of what the disk holds: the content is flushed first. A
    // hard link's is its inode's.
    FileSystemDriver::BackupObject* new_backup_object(std::uint32_t option) override;

    // The object that holds the content: this one, or a hard link's inode's.
    HFSPlusFileObject& Target();
    // The record's change through the content, on the object that holds it.
    void ChangeRecord(const EntryChange& change);
    // After this plain file became a hard link under `link_record`: the
    // object now stands for the link, its content being the inode's, which
    // its directory's open files know under the new id.
    void BecomeLink(const CatalogRecord& link_record);

    std::uint32_t file_id;
    std::uint8_t hard_link = 0;
    HFSPlusDriver* driver;               // not owned
    HFSPlusDirectoryObject* directory;   // not owned; counted
    std::unique_ptr<FileContent> content;          // when not a hard link
    std::unique_ptr<HFSPlusFileReference> link;    // when a hard link
    HFSPlusBackupObjectFactory backup_factory;
};

}  // namespace hfsplus
