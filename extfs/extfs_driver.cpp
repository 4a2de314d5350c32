#include "extfs/extfs_driver.h"

#include <algorithm>
#include <cstring>

#include "extfs/extfs_directory.h"
#include "extfs/extfs_inode_cache.h"
#include "extfs/location_processor.h"

namespace extfs {

namespace {

// The name bytes of an identifier made by this driver: behind the entry
// block, up to the ending 0. Null for a foreign identifier.
const unsigned char* NameBytes(const file_identifier& identifier) {
    auto* known = dynamic_cast<const the_identifier*>(&identifier);
    if (known == nullptr || known->key() == nullptr) return nullptr;
    return known->key() + ExtfsIdentifier::kNameOffset;
}

}  // namespace

void ExtfsDriver::space(std::uint64_t& total, std::uint64_t& free, std::uint64_t& available) {
    total = blocks_count * block_size();
    free = free_blocks * block_size();
    available = free;
}

void ExtfsDriver::label(char16_t* buffer, std::uint32_t capacity) {
    if (capacity == 0) return;
    std::size_t length = std::min<std::size_t>(volume_label.size(), capacity - 1);
    std::copy(volume_label.begin(), volume_label.begin() + static_cast<std::ptrdiff_t>(length), buffer);
    buffer[length] = 0;
}

int ExtfsDriver::compare_identifiers(const file_identifier& a, const file_identifier& b) {
    const unsigned char* left = NameBytes(a);
    const unsigned char* right = NameBytes(b);
    if (left == nullptr || right == nullptr) return left == right ? 0 : left == nullptr ? -1 : 1;
    std::size_t left_length = std::strlen(reinterpret_cast<const char*>(left));
    std::size_t right_length = std::strlen(reinterpret_cast<const char*>(right));
    int order = std::memcmp(left, right, std::min(left_length, right_length));
    if (order != 0) return order < 0 ? -1 : 1;
    return left_length == right_length ? 0 : left_length < right_length ? -1 : 1;
}

void ExtfsDriver::before_first_write() {
    if (read_only) Common::Raise(ERROR_TAG, Common::Failures::FILE_READ_ONLY);
    FileSystemDriverPosix::before_first_write();
}

FileSystemDriver::DirectoryObject* ExtfsDriver::open_directory(std::uint32_t id) {
    return new ExtfsDirectory(this, id);
}

const char* ExtfsDriver::type_name() {
    switch (volume_type) {
    case kExt2: return "Ext2";
    case kExt3: return "Ext3";
    case kExt4: return "Ext4";
    default: Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
}

BlockHandle ExtfsDriver::get_fs_block(std::uint64_t block, bool no_read) {
    if (block >= blocks_count) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    return get_block(block * sectors_per_block, sectors_per_block, no_read);
}

void ExtfsDriver::read_blocks(void* buffer, std::uint64_t block, std::uint64_t count) {
    if (block >= blocks_count || count > blocks_count - block) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    read_sectors(buffer, block * sectors_per_block, count * sectors_per_block, sectors_per_block, 0);
}

GroupDescriptor ExtfsDriver::descriptor(std::uint32_t group) const {
    if (group >= groups) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    GroupDescriptor copy{};
    std::memcpy(&copy, descriptors.data() + std::size_t(group) * descriptor_size,
                std::min<std::size_t>(descriptor_size, sizeof(copy)));
    return copy;
}

bool ExtfsDriver::inode_hidden(std::uint32_t index) const {
    if (inode_filter == nullptr) return false;
    if (index >= inode_filter_size) return true;
    return (inode_filter[index / 8] & (1u << (index % 8))) == 0;
}

InodeLocationProcessor& ExtfsDriver::location_processor(std::uint32_t flags) {
    if ((flags & ExtfsInode::kExtentsFlag) != 0) {
        if (!has_incompat(kIncompatExtents)) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        if (!extents_processor) extents_processor = std::make_unique<ExtentsLocationProcessor>(this);
        return *extents_processor;
    }
    if (!legacy_processor) legacy_processor = std::make_unique<LegacyLocationProcessor>(this);
    return *legacy_processor;
}

void ExtfsDriver::refuse_if_unchangeable() {
    if (read_only) refuse_change(ERROR_TAG);
}

void ExtfsDriver::refuse_change(std::uint64_t tag) const {
    Common::Raise(tag, read_only ? Common::Failures::FILE_READ_ONLY : Common::Failures::FILE_UNSUPPORTED);
}

}  // namespace extfs
