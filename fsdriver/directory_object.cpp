#include "fsdriver/directory_object.h"

#include "fsdriver/driver_error.h"

namespace {

[[noreturn]] void Unsupported(std::uint64_t tag) {
    RaiseDriverError(tag, Common::FILE_UNSUPPORTED, Common::Messages::FILE_UNSUPPORTED);
}

}  // namespace

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
    Unsupported(ERROR_TAG);
}

void FileSystemDriver::DirectoryObject::set_permissions(const std::u16string&, std::uint32_t) {
    Unsupported(ERROR_TAG);
}

void FileSystemDriver::DirectoryObject::set_owner(const std::u16string&, std::uint32_t, std::uint32_t) {
    Unsupported(ERROR_TAG);
}

void FileSystemDriver::DirectoryObject::set_times(const std::u16string&, std::uint64_t, std::uint64_t,
                                                  std::uint64_t) {
    Unsupported(ERROR_TAG);
}

void FileSystemDriver::DirectoryObject::make_node(const std::u16string&, std::uint32_t, std::uint32_t,
                                                  std::uint32_t, std::uint32_t) {
    Unsupported(ERROR_TAG);
}

void FileSystemDriver::DirectoryObject::set_short_name(const std::u16string&, const std::u16string&) {
    Unsupported(ERROR_TAG);
}

FileSystemDriver::BackupObject* FileSystemDriver::DirectoryObject::new_backup_object(IteratorObject*,
                                                                                     std::uint32_t) {
    Unsupported(ERROR_TAG);
}

FileSystemDriver::RestoreObject* FileSystemDriver::DirectoryObject::new_restore_object(std::uint32_t) {
    Unsupported(ERROR_TAG);
}
