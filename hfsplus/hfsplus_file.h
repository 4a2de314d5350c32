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
// Every change is refused before anything is touched until the volume's
// write path exists.
#include <cstdint>
#include <memory>

#include "fsdriver/file_object.h"
#include "fsdriver/reference_count.h"
#include "hfsplus/catalog_record.h"

namespace hfsplus {

class HFSPlusDriver;
class HFSPlusDirectoryObject;
class FileContent;
class HFSPlusFileObject;

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

    // The object that holds the content: this one, or a hard link's inode's.
    HFSPlusFileObject& Target();

    std::uint32_t file_id;
    std::uint8_t hard_link = 0;
    HFSPlusDriver* driver;               // not owned
    HFSPlusDirectoryObject* directory;   // not owned; counted
    std::unique_ptr<FileContent> content;          // when not a hard link
    std::unique_ptr<HFSPlusFileReference> link;    // when a hard link
};

}  // namespace hfsplus
