#include "fsdriver/directory_object.h"

#include "loader/common/raise.h"

FileSystemDriver::DirectoryObject::DirectoryObject(FileSystemDriver* driver, std::uint32_t id)
    : driver(driver), id(id) {
    driver->directory_lru.push_head(this);
    ++driver->directory_count;
}

FileSystemDriver::DirectoryObject::~DirectoryObject() {
    LRUList<DirectoryObject>::unlink();
    --driver->directory_count;
}

void FileSystemDriver::DirectoryObject::set_security(const std::u16string&, const void*, std::uint32_t) {
    Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
}

void FileSystemDriver::DirectoryObject::set_permissions(const std::u16string&, std::uint32_t) {
    Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
}

void FileSystemDriver::DirectoryObject::set_owner(const std::u16string&, std::uint32_t, std::uint32_t) {
    Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
}

void FileSystemDriver::DirectoryObject::set_times(const std::u16string&, std::uint64_t, std::uint64_t,
                                                  std::uint64_t) {
    Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
}

void FileSystemDriver::DirectoryObject::make_node(const std::u16string&, std::uint32_t, std::uint32_t,
                                                  std::uint32_t, std::uint32_t) {
    Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
}

void FileSystemDriver::DirectoryObject::set_short_name(const std::u16string&, const std::u16string&) {
    Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
}

FileSystemDriver::BackupObject* FileSystemDriver::DirectoryObject::new_backup_object(IteratorObject*,
                                                                                     std::uint32_t) {
    Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
}

FileSystemDriver::RestoreObject* FileSystemDriver::DirectoryObject::new_restore_object(std::uint32_t) {
    Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
}
