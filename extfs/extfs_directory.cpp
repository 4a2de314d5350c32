#include "extfs/extfs_directory.h"

#include <cstring>
#include <memory>
#include <vector>

#include "extfs/extfs_backup.h"
#include "extfs/extfs_file.h"
#include "extfs/extfs_iterator.h"
#include "files/utf_conversion.h"
#include "loader/common/byte_order.h"

namespace extfs {

namespace {

constexpr std::uint8_t kDirectoryType = 2;  // file_type of a directory
constexpr std::uint8_t kFirstNonFileType = 2;

// False for an entry whose inode has no links left (FILE_OPEN).
bool InodeOpens(ExtfsDriver& ext, const DirEntryCopy& entry) {
    try {
        ext.inodes().open(entry.inode - 1);
        return true;
    } catch (const Common::Error& error) {
        if (error.Code() != Common::FILE_OPEN) throw;
        return false;
    }
}

}  // namespace

file_identifier* ExtfsIdentifier::make(const std::u16string& name, std::uint32_t entry_block,
                                       const std::string& bytes) {
    std::vector<unsigned char> key(bytes.size() + 8, 0);
    Common::StoreLE32(key.data(), entry_block);
    std::memcpy(key.data() + kNameOffset, bytes.data(), bytes.size());
    return new the_identifier(name.c_str(), key.data(), static_cast<std::uint32_t>(key.size()));
}

bool ExtfsIdentifier::parse(const file_identifier& identifier, std::uint32_t& entry_block, std::string& bytes) {
    auto* known = dynamic_cast<const the_identifier*>(&identifier);
    if (known == nullptr || known->key() == nullptr) return false;
    entry_block = Common::LoadLE32(known->key());
    bytes = reinterpret_cast<const char*>(known->key() + kNameOffset);
    return true;
}

ExtfsDirectory::ExtfsDirectory(ExtfsDriver* driver, std::uint32_t id)
    : DirectoryObject(driver, id),
      ext(driver),
      inode(driver->inodes().open(InodeIndexOfDirectory(id))),
      walker(driver, inode, DirectoryWalker::BlockInHand::cached) {
    if (!inode->is_directory()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    if (size() == 0 || size() % driver->block_size() != 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
}

bool ExtfsDirectory::search(const std::string& name, DirEntryCopy& entry, std::uint64_t& position,
                            std::uint64_t limit, std::uint64_t* free) {
    const std::uint32_t block_size = ext->block_size();
    const std::uint64_t need = EntrySpace(name.size());
    bool room = false;
    if (free != nullptr) *free = position;
    while (position < limit && walker.next(entry, position, false)) {
        if (entry.name == name) {
            position = entry.position;
            return true;
        }
        // Only the slack behind the last live entry of a block is taken:
        // the room of removed entries stays unused.
        const std::uint64_t length = position - entry.position;
        if (free != nullptr && !room && position % block_size == 0 &&
            length >= EntrySpace(entry.name.size()) + need) {
            *free = entry.position;
            room = true;
        }
    }
    if (free != nullptr && !room) *free = limit;
    position = 0;
    return false;
}

bool ExtfsDirectory::find_entry(const std::string& name, DirEntryCopy& entry, std::uint64_t hint) {
    const std::uint32_t block_size = ext->block_size();
    if (hint > 0 && hint < size() && hint % block_size != 0) {
        std::uint64_t position = hint;
        if (search(name, entry, position, (hint / block_size + 1) * block_size)) return true;
    }
    std::uint64_t position = 0;
    return search(name, entry, position, size());
}

DirEntryCopy ExtfsDirectory::lookup(const std::string& name, std::uint64_t hint, const Common::Failure& miss) {
    DirEntryCopy entry;
    if (!find_entry(name, entry, hint)) Common::Raise(ERROR_TAG, miss);
    return entry;
}

DirEntryCopy ExtfsDirectory::lookup(const file_identifier& identifier, const Common::Failure& miss) {
    std::uint32_t entry_block = 0;
    std::string bytes;
    if (!ExtfsIdentifier::parse(identifier, entry_block, bytes)) Common::Raise(ERROR_TAG, miss);
    return lookup(bytes, std::uint64_t(entry_block) * ext->block_size(), miss);
}

FileSystemDriver::IteratorObject* ExtfsDirectory::begin() {
    // The iterator walks on with a walker of its own, which reads copies.
    DirectoryWalker own(ext, inode, DirectoryWalker::BlockInHand::copied);
    DirEntryCopy entry;
    std::uint64_t position = 0;
    // A dangling entry is an error on that entry only (its inode has no
    // links): next() raises it and the caller walks on, but begin() has no
    // iterator to hand back yet, so it passes over such entries rather than
    // hide the whole directory behind the first one.
    while (own.next(entry, position, true)) {
        if (InodeOpens(*ext, entry)) return new ExtfsIterator(ext, id, std::move(own), entry, position);
    }
    return nullptr;
}

FileSystemDriver::IteratorObject* ExtfsDirectory::find(const std::u16string& name) {
    return new ExtfsBaseIterator(ext, id, lookup(utf16_to_utf8(name), 0, Common::Failures::FILE_NOT_FOUND),
                                 ext->block_size());
}

FileSystemDriver::IteratorObject* ExtfsDirectory::find(const file_identifier& identifier) {
    return new ExtfsBaseIterator(ext, id, lookup(identifier, Common::Failures::FILE_NOT_FOUND), ext->block_size());
}

std::uint32_t ExtfsDirectory::lookup_directory(const std::u16string& name) {
    DirEntryCopy entry = lookup(utf16_to_utf8(name), 0, Common::Failures::FILE_NOT_FOUND);
    if (entry.file_type == 0) {
        if (!ext->inodes().open(entry.inode - 1)->is_directory()) Common::Raise(ERROR_TAG, Common::Failures::FILE_OPEN);
    } else if (entry.file_type != kDirectoryType) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_OPEN);
    }
    return DirectoryIdOfInode(entry.inode - 1);
}

FileSystemDriver::FileObject* ExtfsDirectory::open_file(const std::u16string& name) {
    return open_entry(lookup(utf16_to_utf8(name), 0, Common::Failures::FILE_NOT_FOUND));
}

FileSystemDriver::FileObject* ExtfsDirectory::open_file(IteratorObject& entry) {
    auto* standing = dynamic_cast<ExtfsBaseIterator*>(&entry);
    if (standing == nullptr || standing->directory_id != id) Common::Raise(ERROR_TAG, Common::Failures::FILE_OPEN);
    std::unique_ptr<file_identifier> identifier(standing->identifier());
    return open_file(*identifier);
}

FileSystemDriver::FileObject* ExtfsDirectory::open_file(const file_identifier& identifier) {
    return open_entry(lookup(identifier, Common::Failures::FILE_OPEN));
}

FileSystemDriver::BackupObject* ExtfsDirectory::new_backup_object(IteratorObject* entry, std::uint32_t option) {
    if (entry == nullptr) return new ExtfsBackupObject(ext, inode, option);
    auto* standing = dynamic_cast<ExtfsBaseIterator*>(entry);
    if (standing == nullptr || standing->directory_id != id) Common::Raise(ERROR_TAG, Common::Failures::FILE_OPEN);
    // The entry may have gone since the iterator stood on it.
    const std::uint64_t hint = std::uint64_t(standing->entry_block) * ext->block_size();
    DirEntryCopy found = lookup(standing->name_bytes, hint, Common::Failures::FILE_OPEN);
    return new ExtfsBackupObject(ext, ext->inodes().open(found.inode - 1), option);
}

FileSystemDriver::FileObject* ExtfsDirectory::open_entry(const DirEntryCopy& entry) {
    if (entry.file_type >= kFirstNonFileType) Common::Raise(ERROR_TAG, Common::Failures::FILE_OPEN);
    return new ExtfsFile(ext, ext->inodes().open(entry.inode - 1));
}

}  // namespace extfs
