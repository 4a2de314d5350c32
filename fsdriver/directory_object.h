#pragma once
// One directory of a volume as the driver keeps it: shared, possibly holding
// the whole directory in memory, and kept in the driver's `directories` by
// id until it is evicted, removed or the driver goes. Names in its
// operations are single components. Operations raise Common::Error.
#include <cstdint>
#include <string>

#include "files/file_identifier.h"
#include "fsdriver/file_system_driver.h"
#include "fsdriver/lru_list.h"
#include "fsdriver/reference_count.h"

class FileSystemDriver::DirectoryObject : public ReferenceCount,
                                          public LRUList<FileSystemDriver::DirectoryObject> {
public:
    // Unlinks the object from the driver's list of directories.
    ~DirectoryObject() override;

    // New iterators that the caller deletes; none when there is no entry.
    virtual IteratorObject* begin() = 0;
    virtual IteratorObject* find(const std::u16string& name) = 0;
    virtual IteratorObject* find(const file_identifier& entry) = 0;
    // The id of the subdirectory `name`; raises FILE_OPEN when there is none.
    virtual std::uint32_t lookup_directory(const std::u16string& name) = 0;
    // The open file of that entry: the same object for an entry already open.
    virtual FileObject* open_file(const std::u16string& name) = 0;
    virtual FileObject* open_file(IteratorObject& entry) = 0;
    virtual FileObject* open_file(const file_identifier& entry) = 0;
    virtual FileObject* create_file(const std::u16string& name) = 0;
    virtual void remove_file(const std::u16string& name) = 0;
    // The directory `name` is empty already.
    virtual void remove_directory_entry(const std::u16string& name) = 0;
    virtual void make_directory(const std::u16string& name) = 0;
    virtual void rename_entry(const std::u16string& name, DirectoryObject& target, const std::u16string& new_name) = 0;
    virtual void link_entry(const std::u16string& name, DirectoryObject& target, const std::u16string& new_name) = 0;
    virtual void symlink_entry(const std::u16string& name, const std::u16string& target) = 0;
    virtual void set_security(const std::u16string& name, const void* data, std::uint32_t size);
    virtual void set_attributes(const std::u16string& name, std::uint32_t value) = 0;
    virtual void set_permissions(const std::u16string& name, std::uint32_t value);
    virtual void set_owner(const std::u16string& name, std::uint32_t owner, std::uint32_t group);
    virtual void set_times(const std::u16string& name, std::uint64_t modified, std::uint64_t created,
                           std::uint64_t accessed);
    virtual void make_node(const std::u16string& name, std::uint32_t kind, std::uint32_t permissions,
                           std::uint32_t major, std::uint32_t minor);
    virtual void set_short_name(const std::u16string& name, const std::u16string& short_name);
    virtual BackupObject* new_backup_object(IteratorObject* entry, std::uint32_t option);
    virtual RestoreObject* new_restore_object(std::uint32_t option);

    FileSystemDriver* driver;  // not counted: the driver outlives its objects
    std::uint32_t id;          // 0 is the root

protected:
    // Links the new object as the most recently used of the driver's directories.
    DirectoryObject(FileSystemDriver* driver, std::uint32_t id);
};
