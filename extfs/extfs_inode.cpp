#include "extfs/extfs_inode.h"

#include <algorithm>
#include <cstring>

#include "extfs/extfs_inode_cache.h"
#include "loader/common/raise.h"

namespace extfs {

namespace {

constexpr std::uint16_t kTypeMask = 0xF000;
constexpr std::uint16_t kRegular = 0x8000;
constexpr std::uint16_t kDirectory = 0x4000;
constexpr std::uint16_t kCharacterDevice = 0x2000;
constexpr std::uint16_t kBlockDevice = 0x6000;
constexpr std::uint16_t kFifo = 0x1000;
constexpr std::uint16_t kSocket = 0xC000;
constexpr std::uint16_t kSymlink = 0xA000;
constexpr std::uint32_t kManyLinks = 65535;  // a directory whose count no longer fits
constexpr std::uint32_t kFastSymlinkLimit = 60;

// A time field and its extra field (epoch bits and nanoseconds) in milliseconds.
file_time TimeOf(std::uint32_t field, std::uint32_t extra) {
    std::int64_t seconds = static_cast<std::int32_t>(field);
    if (extra == 0) return seconds * 1000;
    seconds |= std::int64_t(extra & 3) << 32;
    std::int64_t milliseconds = (extra >> 2) / 1000000;
    return seconds * 1000 + (seconds < 0 ? -milliseconds : milliseconds);
}

}  // namespace

ExtfsInode::ExtfsInode(ExtfsDriver* driver, ExtfsInodeCache* cache, std::uint32_t index)
    : index(index), driver(driver), cache(cache) {
    if (index >= driver->inodes_count || driver->inode_hidden(index)) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    BlockHandle table = driver->get_fs_block(table_block(), false);
    raw.assign(std::max<std::size_t>(driver->inode_size, sizeof(InodeRecord)), 0);
    std::memcpy(raw.data(), table.data() + table_offset(), driver->inode_size);
    if (record().i_links_count() == 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_OPEN);
    processor = &driver->location_processor(record().i_flags());
    walk = std::make_unique<ExtfsBlockWalk>(driver, processor->max_depth());
    // Checked once here, so that a listing, an open and a read all meet the
    // same refusal, and none of them trusts a size that no map could fill.
    if (size() > largest_size()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
}

ExtfsInode::~ExtfsInode() {
    // The flush of blocks writes every inode first; this one catches an
    // inode evicted between two flushes. A destructor can't raise, and a
    // block that can't be fetched now couldn't be written either.
    try {
        flush();
    } catch (const Common::Error&) {
    }
    cache->forget(this);
}

InodeRecord& ExtfsInode::writable() {
    // Every change of an inode passes here, so a volume held read only
    // refuses it before the copy in memory differs from the disk.
    if (driver->read_only) driver->refuse_change(ERROR_TAG);
    dirty = true;
    return *reinterpret_cast<InodeRecord*>(raw.data());
}

void ExtfsInode::flush() {
    // A volume held read only after damage keeps the inode as the disk has it.
    if (!dirty || driver->read_only) return;
    BlockHandle table = driver->get_fs_block(table_block(), false);
    driver->prepare_block_write(table);
    std::memcpy(table.data() + table_offset(), raw.data(), driver->inode_size);
    table.set_dirty();
    dirty = false;
}

std::uint64_t ExtfsInode::table_block() const {
    const std::uint32_t in_group = index % driver->inodes_per_group;
    return driver->inode_table(index / driver->inodes_per_group) + in_group / driver->inodes_per_block;
}

std::uint32_t ExtfsInode::table_offset() const { return (index % driver->inodes_per_block) * driver->inode_size; }

std::uint32_t KindOfMode(std::uint16_t mode) {
    switch (mode & kTypeMask) {
    case kRegular: return KIND_FILE;
    case kDirectory: return KIND_DIRECTORY;
    case kCharacterDevice: return KIND_CHARACTER_DEVICE;
    case kBlockDevice: return KIND_BLOCK_DEVICE;
    case kFifo: return KIND_FIFO;
    case kSocket: return KIND_SOCKET;
    case kSymlink: return KIND_SYMLINK;
    default: Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
}

std::uint32_t ExtfsInode::kind() const { return KindOfMode(mode()); }

bool ExtfsInode::is_directory() const { return (mode() & kTypeMask) == kDirectory; }
bool ExtfsInode::is_regular() const { return (mode() & kTypeMask) == kRegular; }
bool ExtfsInode::is_symlink() const { return (mode() & kTypeMask) == kSymlink; }

std::uint64_t ExtfsInode::size() const {
    std::uint64_t low = record().i_size_lo();
    return is_regular() ? low | std::uint64_t(record().i_size_high()) << 32 : low;
}

std::uint64_t ExtfsInode::largest_size() const {
    const std::uint64_t block_size = driver->block_size();
    // A symbolic link's target lies in one block at most.
    if (is_symlink()) return block_size;
    // A directory has no holes: each of its blocks is one of the volume's.
    if (is_directory()) return std::min(processor->max_blocks(), driver->blocks_count) * block_size;
    // A regular file may be sparse, but not beyond what its map addresses.
    if (is_regular()) return processor->max_blocks() * block_size;
    // Devices, FIFOs and sockets have no data; their size is never used.
    return ~std::uint64_t(0);
}

std::uint32_t ExtfsInode::links() const {
    std::uint32_t count = record().i_links_count();
    if (count != 1 || !is_directory()) return count;
    if (!driver->has_ro_compat(kRoCompatDirNlink)) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    return kManyLinks;
}

std::uint32_t ExtfsInode::device_major() const {
    std::uint32_t old_form = record().i_block_word(0);
    if (old_form != 0) return (old_form >> 8) & 0xFF;
    return (record().i_block_word(1) & 0xFFF00) >> 8;
}

std::uint32_t ExtfsInode::device_minor() const {
    std::uint32_t old_form = record().i_block_word(0);
    if (old_form != 0) return old_form & 0xFF;
    std::uint32_t word = record().i_block_word(1);
    return (word & 0xFF) | ((word >> 12) & 0xFFF00);
}

file_time ExtfsInode::modified() const {
    return TimeOf(record().i_mtime(), record().i_mtime_extra(driver->inode_size));
}
file_time ExtfsInode::changed() const {
    return TimeOf(record().i_ctime(), record().i_ctime_extra(driver->inode_size));
}
file_time ExtfsInode::accessed() const {
    return TimeOf(record().i_atime(), record().i_atime_extra(driver->inode_size));
}
file_time ExtfsInode::created() const {
    return TimeOf(record().i_crtime(driver->inode_size), record().i_crtime_extra(driver->inode_size));
}

std::uint64_t ExtfsInode::blocks() const {
    const InodeRecord& inode = record();
    std::uint64_t value = inode.i_blocks_lo();
    if (driver->has_ro_compat(kRoCompatHugeFile)) value |= std::uint64_t(inode.i_blocks_high()) << 32;
    if ((inode.i_flags() & kHugeFileFlag) != 0) {
        // Counted in file-system blocks already.
        if (!driver->has_ro_compat(kRoCompatHugeFile)) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    } else {
        const std::uint64_t units_per_block = std::uint64_t(1) << driver->block_shift;
        if (value % units_per_block != 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        value >>= driver->block_shift;
    }
    if (value >= driver->blocks_count) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    return value;
}

bool ExtfsInode::has_data() const { return blocks() > (record().i_file_acl() != 0 ? 1u : 0u); }

std::uint64_t ExtfsInode::first_block() {
    if (!has_data()) return 0;
    return processor->first_block(record().i_block());
}

std::uint64_t ExtfsInode::map_block(std::uint64_t block, std::uint64_t& count) {
    count = 0;
    if (block >= processor->max_blocks()) Common::Raise(ERROR_TAG, Common::Failures::FILE_SEEK);
    bool unwritten = false;
    std::uint64_t physical = processor->locate(record().i_block(), block, count, unwritten, *walk);
    return unwritten ? ExtfsDriver::kNoBlock : physical;
}

const std::string& ExtfsInode::symlink_target() {
    if (!target.empty() || !is_symlink()) return target;
    const std::uint32_t length = record().i_size_lo();
    if (length == 0 || length > driver->block_size()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    if (has_data()) {
        std::uint64_t count = 0;
        BlockHandle block = driver->get_fs_block(map_block(0, count), false);
        target.assign(reinterpret_cast<const char*>(block.data()), length);
    } else {
        if (length > kFastSymlinkLimit) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        target.assign(reinterpret_cast<const char*>(record().i_block()), length);
    }
    return target;
}

}  // namespace extfs
