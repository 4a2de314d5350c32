#include "extfs/directory_walker.h"

#include <cstring>

#include "extfs/ext_records.h"
#include "loader/common/raise.h"

namespace extfs {

namespace {

constexpr std::uint8_t kDirectoryType = 2;  // file_type of a directory

bool IsDots(const unsigned char* name, std::uint32_t length) {
    return (length == 1 && name[0] == '.') || (length == 2 && name[0] == '.' && name[1] == '.');
}

}  // namespace

DirectoryWalker::DirectoryWalker(ExtfsDriver* driver, InodeRef directory, BlockInHand keep)
    : driver_(driver), directory_(std::move(directory)), keep_(keep), block_size_(driver->block_size()) {}

bool DirectoryWalker::next(DirEntryCopy& entry, std::uint64_t& position, bool skip_dots) {
    while (position < size()) {
        const std::uint32_t offset = static_cast<std::uint32_t>(position % block_size_);
        const unsigned char* bytes = block_at(position) + offset;
        const bool shown = check(bytes, position, skip_dots);
        const auto& record = *reinterpret_cast<const DirEntryRecord*>(bytes);
        const std::uint64_t at = position;
        position += record.rec_len();
        if (!shown) continue;
        entry.position = at;
        entry.inode = record.inode();
        entry.file_type = record.file_type();
        entry.name.assign(reinterpret_cast<const char*>(record.name()), record.name_len());
        return true;
    }
    return false;
}

const unsigned char* DirectoryWalker::block_at(std::uint64_t position) {
    const std::uint64_t index = position / block_size_;
    const bool in_hand = keep_ == BlockInHand::cached ? static_cast<bool>(cached_) : !copy_.empty();
    if (index != block_index_ || !in_hand) {
        std::uint64_t count = 0;
        // A hole answers kNoBlock, which get_fs_block refuses.
        BlockHandle block = driver_->get_fs_block(directory_->map_block(index, count), false);
        if (keep_ == BlockInHand::cached) {
            cached_ = std::move(block);
        } else {
            copy_.assign(block.data(), block.data() + block_size_);
        }
        block_index_ = index;
    }
    return keep_ == BlockInHand::cached ? cached_.data() : copy_.data();
}

bool DirectoryWalker::check(const unsigned char* bytes, std::uint64_t position, bool skip_dots) const {
    // Only the bytes up to the end of the entry's block are the entry's:
    // its fixed part must fit there before it is read, and its rec_len,
    // which also bounds the name, must end there.
    const std::uint32_t rest = block_size_ - static_cast<std::uint32_t>(position % block_size_);
    if (position % 4 != 0 || rest < DirEntryRecord::kHeaderSize) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    const auto& entry = *reinterpret_cast<const DirEntryRecord*>(bytes);
    if (entry.rec_len() % 4 != 0 || entry.inode() > driver_->inodes_count) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    if (entry.rec_len() < entry.name_len() + DirEntryRecord::kHeaderSize || entry.rec_len() > rest) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    if (entry.inode() == 0) return false;
    if (entry.name_len() == 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    if (std::memchr(entry.name(), '/', entry.name_len()) != nullptr ||
        std::memchr(entry.name(), 0, entry.name_len()) != nullptr) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    const bool hidden = driver_->inode_hidden(entry.inode() - 1);
    if (!IsDots(entry.name(), entry.name_len())) return !hidden;
    // "." names this directory; ".." isn't compared with anything.
    if (entry.name_len() == 1 && entry.inode() - 1 != directory_->index) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    if ((entry.file_type() != kDirectoryType && entry.file_type() != 0) || hidden) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    return !skip_dots;
}

}  // namespace extfs
