// Changes of an inode that aren't its data: a new inode's first bytes, its
// mode, owner, flags and times, its link count, the freeing of an inode
// whose last name goes, and the target of a symbolic link.
#include <algorithm>
#include <cstring>

#include "extfs/extfs_inode.h"
#include "extfs/extfs_inode_cache.h"
#include "extfs/inode_allocator.h"
#include "loader/common/raise.h"
#include "platform/clib/clib.h"

namespace extfs {

namespace {

constexpr std::uint16_t kPermissionBits = 0x0FFF;
constexpr std::uint16_t kTypeBits = 0xF000;
constexpr std::uint32_t kFastSymlinkLimit = 60;
constexpr std::uint16_t kManyLinksCount = 1;  // a directory's count that stands for "too many to hold"
constexpr std::uint32_t kManyLinks = 65535;   // what links() answers for it

// Which inherited flags each kind keeps: a directory passes its index,
// journalling and top-of-tree flags on, a regular file keeps those that
// concern its data, the others only "immutable" and "append only".
constexpr std::uint32_t kDirectoryFlags = 0x1C4FF;
constexpr std::uint32_t kFileFlags = 0xC4FF;
constexpr std::uint32_t kOtherFlags = 0xC0;

std::uint16_t TypeOfKind(std::uint32_t kind) {
    switch (kind) {
    case KIND_FILE: return 0x8000;
    case KIND_DIRECTORY: return 0x4000;
    case KIND_CHARACTER_DEVICE: return 0x2000;
    case KIND_BLOCK_DEVICE: return 0x6000;
    case KIND_FIFO: return 0x1000;
    case KIND_SOCKET: return 0xC000;
    case KIND_SYMLINK: return 0xA000;
    default: Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
    }
}

std::uint16_t DefaultPermissions(std::uint32_t kind) {
    if (kind == KIND_DIRECTORY) return 0755;
    if (kind == KIND_SYMLINK) return 0777;
    return 0644;
}

std::uint32_t FlagsOfKind(std::uint32_t kind, std::uint32_t inherited) {
    if (kind == KIND_DIRECTORY) return inherited & kDirectoryFlags;
    if (kind == KIND_FILE) return inherited & kFileFlags;
    return inherited & kOtherFlags;
}

// A time in milliseconds as its seconds field and its extra field (epoch
// bits below, nanoseconds above). The remainder of a time before 1970 is
// stored by its size, as the reader subtracts it for negative seconds.
struct StoredTime {
    explicit StoredTime(file_time time) {
        const std::int64_t whole = time / 1000;
        seconds = static_cast<std::uint32_t>(whole);
        const std::int64_t rest = time % 1000;
        const auto milliseconds = static_cast<std::uint32_t>(rest < 0 ? -rest : rest);
        extra = static_cast<std::uint32_t>((whole >> 32) & 3) | milliseconds * 4000000u;
    }
    std::uint32_t seconds;
    std::uint32_t extra;
};

}  // namespace

ExtfsInode::ExtfsInode(ExtfsDriver* driver, ExtfsInodeCache* cache, std::uint32_t index, const NewInode& made)
    : index(index), driver(driver), cache(cache) {
    if (index >= driver->inodes_count) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    raw.assign(std::max<std::size_t>(driver->inode_size, sizeof(InodeRecord)), 0);
    InodeRecord& inode = writable();
    const std::uint16_t permissions = made.permissions == kUseDefaultPermissions
                                          ? DefaultPermissions(made.kind)
                                          : static_cast<std::uint16_t>(made.permissions & kPermissionBits);
    inode.set_i_mode(TypeOfKind(made.kind) | permissions);
    std::uint32_t flags = FlagsOfKind(made.kind, made.flags);
    if (driver->has_incompat(kIncompatExtents) && (made.kind == KIND_FILE || made.kind == KIND_DIRECTORY)) {
        flags |= kExtentsFlag;
    }
    inode.set_i_flags(flags);
    if (driver->inode_size > InodeRecord::kBaseSize) inode.set_i_extra_isize(driver->extra_isize());
    processor = &driver->location_processor(flags);
    walk = std::make_unique<ExtfsBlockWalk>(driver, processor->max_depth());
    if (made.kind == KIND_CHARACTER_DEVICE || made.kind == KIND_BLOCK_DEVICE) {
        // The old form holds 8-bit numbers in the first word; the new one
        // spreads 12-bit majors and 20-bit minors over the second.
        if (made.major < 256 && made.minor < 256) {
            inode.set_i_block_word(0, made.major << 8 | made.minor);
        } else {
            inode.set_i_block_word(1, (made.minor & 0xFF) | made.major << 8 | (made.minor & 0xFFF00) << 12);
        }
    } else {
        processor->init(inode.i_block());
    }
}

void ExtfsInode::set_permissions(std::uint32_t bits) {
    InodeRecord& inode = writable();
    inode.set_i_mode(static_cast<std::uint16_t>((inode.i_mode() & kTypeBits) | (bits & kPermissionBits)));
    const file_time now = Clib::Now();
    set_changed(now);
    set_accessed(now);
}

void ExtfsInode::set_owner(std::uint32_t uid, std::uint32_t gid) {
    InodeRecord& inode = writable();
    inode.set_i_uid(uid);
    inode.set_i_gid(gid);
    const file_time now = Clib::Now();
    set_changed(now);
    set_accessed(now);
}

void ExtfsInode::set_flag(std::uint32_t bits) {
    writable().set_i_flags(record().i_flags() | bits);
    const file_time now = Clib::Now();
    set_changed(now);
    set_accessed(now);
}

void ExtfsInode::clear_flag(std::uint32_t bits) {
    writable().set_i_flags(record().i_flags() & ~bits);
    const file_time now = Clib::Now();
    set_changed(now);
    set_accessed(now);
}

void ExtfsInode::set_modified(file_time time) {
    const StoredTime stored(time);
    InodeRecord& inode = writable();
    inode.set_i_mtime(stored.seconds);
    inode.set_i_mtime_extra(stored.extra, driver->inode_size);
}

void ExtfsInode::set_changed(file_time time) {
    const StoredTime stored(time);
    InodeRecord& inode = writable();
    inode.set_i_ctime(stored.seconds);
    inode.set_i_ctime_extra(stored.extra, driver->inode_size);
}

void ExtfsInode::set_accessed(file_time time) {
    const StoredTime stored(time);
    InodeRecord& inode = writable();
    inode.set_i_atime(stored.seconds);
    inode.set_i_atime_extra(stored.extra, driver->inode_size);
}

void ExtfsInode::set_created(file_time time) {
    const StoredTime stored(time);
    InodeRecord& inode = writable();
    inode.set_i_crtime(stored.seconds, driver->inode_size);
    inode.set_i_crtime_extra(stored.extra, driver->inode_size);
}

void ExtfsInode::add_link() {
    const std::uint32_t before = record().i_links_count();
    const std::uint32_t limit = driver->max_links();
    const bool directory = is_directory();
    std::uint32_t count = before;
    // A directory whose next subdirectory would reach the limit stops
    // counting, where the volume may say so; where it may not, that step
    // is refused, so a directory never reaches the limit itself.
    if (directory && count >= limit - 1 && driver->set_ro_feature(kRoCompatDirNlink)) count = kManyLinksCount;
    const bool uncounted = directory && count == kManyLinksCount;
    const std::uint32_t refused_from = directory ? limit - 1 : limit;
    if (!uncounted && count >= refused_from) Common::Raise(ERROR_TAG, Common::Failures::FILE_CREATE);
    if (uncounted && !driver->has_ro_compat(kRoCompatDirNlink)) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    std::uint32_t after = count + 1;
    if (uncounted) after = kManyLinksCount;
    if (directory && count == 0) after = 2;  // its own "." counts too
    InodeRecord& inode = writable();
    inode.set_i_links_count(static_cast<std::uint16_t>(after));
    const file_time now = Clib::Now();
    set_changed(now);
    if (before != 0) return;
    // A new object: it was never deleted, and all its times start now.
    inode.set_i_dtime(0);
    set_modified(now);
    set_created(now);
    set_accessed(now);
}

void ExtfsInode::drop_link() {
    const std::uint32_t count = record().i_links_count();
    if (count == 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    std::uint32_t after = count - 1;
    if (is_directory() && count == 2) after = 0;  // the last name and its "." go together
    if (is_directory() && count == kManyLinksCount) {
        if (!driver->has_ro_compat(kRoCompatDirNlink)) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        after = kManyLinksCount;
    }
    writable().set_i_links_count(static_cast<std::uint16_t>(after));
    set_changed(Clib::Now());
}

void ExtfsInode::unlink() {
    const bool directory = is_directory();
    if (directory) {
        const std::uint32_t count = links();
        if (count != 2 && count != kManyLinks) Common::Raise(ERROR_TAG, Common::Failures::FILE_DELETE);
    }
    drop_link();
    if (directory && record().i_links_count() == kManyLinksCount) writable().set_i_links_count(0);
    if (record().i_links_count() > 0) return;
    set_size(0);
    writable().set_i_dtime(static_cast<std::uint32_t>(accessed() / 1000));
    driver->inode_allocator().free(index, directory ? ExtfsInodeAllocator::kDirectoryKind : KIND_FILE);
}

void ExtfsInode::set_symlink_target(const std::string& text) {
    if (!is_symlink() || text.empty()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    const std::uint32_t block_size = driver->block_size();
    if (text.size() > block_size) Common::Raise(ERROR_TAG, Common::Failures::FILE_CREATE);
    if (text.size() > kFastSymlinkLimit) {
        // A fast target's bytes lie where the map goes: they make way first.
        if (!has_data()) processor->init(writable().i_block());
        BlockHandle block = driver->get_fs_block(allocate_block(0, false), true);
        driver->prepare_block_write(block);
        std::memcpy(block.data(), text.data(), text.size());
        std::memset(block.data() + text.size(), 0, block_size - text.size());
        block.set_dirty();
    } else {
        if (has_data()) set_size(0);
        InodeRecord& inode = writable();
        inode.set_i_flags(inode.i_flags() & ~kExtentsFlag);
        // The map now reads as the legacy kind, which a fast target never uses.
        processor = &driver->location_processor(inode.i_flags());
        walk = std::make_unique<ExtfsBlockWalk>(driver, processor->max_depth());
        std::memset(inode.i_block(), 0, InodeRecord::kMapBytes);
        std::memcpy(inode.i_block(), text.data(), text.size());
    }
    set_size_field(text.size());
    const file_time now = Clib::Now();
    set_modified(now);
    set_accessed(now);
    target = text;
}

}  // namespace extfs
