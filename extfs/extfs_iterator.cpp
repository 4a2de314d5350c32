#include "extfs/extfs_iterator.h"

#include "files/utf_conversion.h"
#include "loader/common/raise.h"

namespace extfs {

ExtfsBaseIterator::ExtfsBaseIterator(ExtfsDriver* driver, std::uint32_t directory_id, const DirEntryCopy& entry,
                                     std::uint32_t block_size)
    : directory_id(directory_id), driver_(driver) {
    fill(entry, block_size);
}

void ExtfsBaseIterator::fill(const DirEntryCopy& entry, std::uint32_t block_size) {
    inode_index = entry.inode - 1;
    entry_block = static_cast<std::uint32_t>(entry.position / block_size);
    name_bytes = entry.name;
    name_text = utf8_to_utf16(name_bytes);
    InodeRef inode = driver_->inodes().open(inode_index);
    mode = inode->mode();
    target = utf8_to_utf16(inode->symlink_target());
    byte_size = inode->size();
    allocated = inode->blocks() * driver_->block_size();
    modified_time = inode->modified();
    changed_time = inode->changed();
    created_time = inode->created();
    accessed_time = inode->accessed();
    link_count = inode->links();
    owner_id = inode->uid();
    group_id = inode->gid();
    std::uint32_t kind = inode->kind();
    const bool device = kind == KIND_CHARACTER_DEVICE || kind == KIND_BLOCK_DEVICE;
    major = device ? inode->device_major() : 0;
    minor = device ? inode->device_minor() : 0;
    first = device ? 0 : inode->first_block() * driver_->sectors_per_block;
}

bool ExtfsBaseIterator::next() { Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED); }

file_identifier* ExtfsBaseIterator::identifier() {
    return ExtfsIdentifier::make(name_text, entry_block, name_bytes);
}

std::uint32_t ExtfsBaseIterator::kind() { return KindOfMode(mode); }

ExtfsIterator::ExtfsIterator(ExtfsDriver* driver, std::uint32_t directory_id, DirectoryWalker walker,
                             const DirEntryCopy& entry, std::uint64_t position)
    : ExtfsBaseIterator(driver, directory_id, entry, driver->block_size()),
      walker_(std::move(walker)),
      position_(position) {}

bool ExtfsIterator::next() {
    DirEntryCopy entry;
    if (!walker_.next(entry, position_, true)) return false;
    fill(entry, driver_->block_size());
    return true;
}

}  // namespace extfs
