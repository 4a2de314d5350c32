#include "extfs/extfs_iterator.h"

#include <cstring>

#include "files/utf_conversion.h"
#include "fsdriver/driver_error.h"

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

bool ExtfsBaseIterator::next() { Fail(ERROR_TAG, Common::FILE_UNSUPPORTED); }

file_identifier* ExtfsBaseIterator::identifier() {
    return ExtfsIdentifier::make(name_text, entry_block, name_bytes);
}

std::uint32_t ExtfsBaseIterator::kind() { return KindOfMode(mode); }

ExtfsIterator::ExtfsIterator(ExtfsDriver* driver, std::uint32_t directory_id, const InodeRef& directory,
                             const DirEntryCopy& entry)
    : ExtfsBaseIterator(driver, directory_id, entry, driver->block_size()),
      directory_(directory),
      position_(entry.position),
      block_size_(driver->block_size()) {
    load_block(position_ / block_size_);
}

void ExtfsIterator::load_block(std::uint64_t index) {
    std::uint64_t count = 0;
    BlockHandle block = driver_->get_fs_block(directory_->map_block(index, count), false);
    block_.assign(block.data(), block.data() + block_size_);
    block_index_ = index;
}

bool ExtfsIterator::next() {
    const std::uint32_t directory_index = directory_id == 0 ? 1 : directory_id;
    for (;;) {
        const std::uint32_t offset = static_cast<std::uint32_t>(position_ % block_size_);
        position_ += DirEntryRecord(block_.data() + offset).rec_len();
        if (position_ >= directory_->size()) return false;
        const std::uint64_t index = position_ / block_size_;
        if (index != block_index_) load_block(index);
        const std::uint32_t at = static_cast<std::uint32_t>(position_ % block_size_);
        if (!CheckEntry(*driver_, block_.data() + at, block_size_ - at, position_, directory_index, true)) continue;
        DirEntryRecord record(block_.data() + at);
        DirEntryCopy entry;
        entry.position = position_;
        entry.inode = record.inode();
        entry.file_type = record.file_type();
        entry.name.assign(reinterpret_cast<const char*>(record.name()), record.name_len());
        fill(entry, block_size_);
        return true;
    }
}

}  // namespace extfs
