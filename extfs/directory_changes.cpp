// The changes of an ext directory. Each makes room first, then the inode
// changes, and writes the entry's inode and name length last: a failure
// on the way leaves an unused entry, never a name without its object.
#include <cstring>

#include "extfs/extfs_directory.h"
#include "extfs/extfs_file.h"
#include "extfs/inode_allocator.h"
#include "files/utf_conversion.h"
#include "platform/clib/clib.h"

namespace extfs {

namespace {

constexpr std::uint32_t kLongestName = 255;
constexpr std::uint32_t kUnknownKind = 137;  // an entry whose file_type says nothing
constexpr std::uint8_t kDirectoryType = 2;
constexpr std::uint8_t kSymlinkType = 7;
constexpr std::uint32_t kDotEntrySize = 12;

bool IsDots(const std::string& name) { return name == "." || name == ".."; }

// The kind that an entry's file_type tells.
std::uint32_t KindOfFileType(std::uint8_t type) {
    static constexpr std::uint32_t kKinds[] = {kUnknownKind,  KIND_FILE,   KIND_DIRECTORY, KIND_CHARACTER_DEVICE,
                                               KIND_BLOCK_DEVICE, KIND_FIFO, KIND_SOCKET,    KIND_SYMLINK};
    if (type >= sizeof(kKinds) / sizeof(kKinds[0])) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    return kKinds[type];
}

bool IsKnownKind(std::uint32_t kind) { return kind <= KIND_SYMLINK || kind == KIND_DIRECTORY; }

// Gives back what a new inode got before its name could be written, so
// that a failed creation leaves neither a used inode nor blocks behind.
void Abandon(ExtfsDriver* ext, std::uint32_t index, std::uint32_t kind, InodeRef& made) {
    try {
        if (made) {
            if (made->has_data()) made->set_size(0);
            made->writable().set_i_dtime(static_cast<std::uint32_t>(Clib::Now() / 1000));
        }
        ext->inode_allocator().free(index, kind);
    } catch (const Common::Error&) {
        // The first error is the one to report; e2fsck finds what is left.
    }
}

}  // namespace

std::uint8_t ExtfsDirectory::file_type_of(std::uint32_t kind) const {
    if (!ext->has_incompat(kIncompatFiletype)) return 0;
    switch (kind) {
    case KIND_FILE: return 1;
    case KIND_DIRECTORY: return kDirectoryType;
    case KIND_CHARACTER_DEVICE: return 3;
    case KIND_BLOCK_DEVICE: return 4;
    case KIND_FIFO: return 5;
    case KIND_SOCKET: return 6;
    case KIND_SYMLINK: return kSymlinkType;
    default: return 0;
    }
}

BlockHandle ExtfsDirectory::writable_block(std::uint64_t position) {
    std::uint64_t count = 0;
    BlockHandle block = ext->get_fs_block(inode->map_block(position / ext->block_size(), count), false);
    ext->prepare_block_write(block);
    return block;
}

ExtfsDirectory::Slot ExtfsDirectory::new_slot(const std::string& name, std::uint32_t kind) {
    if (name.empty() || name.size() > kLongestName || IsDots(name)) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CREATE);
    }
    DirEntryCopy found;
    std::uint64_t position = 0;
    std::uint64_t free = 0;
    if (search(name, found, position, size(), &free)) Common::Raise(ERROR_TAG, Common::Failures::FILE_EXISTS);
    // This driver keeps no hash index: once a name is added the index
    // would be wrong, so the directory becomes a plain list.
    inode->clear_flag(ExtfsInode::kIndexFlag);
    const std::uint32_t block_size = ext->block_size();
    Slot slot;
    if (free >= size()) {
        const std::uint64_t grown = size();
        BlockHandle block = ext->get_fs_block(inode->allocate_block(grown / block_size, false), true);
        ext->prepare_block_write(block);
        std::memset(block.data(), 0, block_size);
        slot.block = std::move(block);
        slot.entry = reinterpret_cast<DirEntryRecord*>(slot.block.data());
        slot.entry->set_rec_len(block_size);
        inode->set_size_field(grown + block_size);
    } else {
        slot.block = writable_block(free);
        auto* last = reinterpret_cast<DirEntryRecord*>(slot.block.data() + free % block_size);
        const std::uint32_t kept = static_cast<std::uint32_t>(EntrySpace(last->name_len()));
        const std::uint32_t rest = last->rec_len() - kept;
        last->set_rec_len(kept);
        slot.entry = reinterpret_cast<DirEntryRecord*>(reinterpret_cast<unsigned char*>(last) + kept);
        slot.entry->set_rec_len(rest);
    }
    slot.entry->set_inode(0);
    slot.entry->set_name_len(0);
    slot.entry->set_file_type(file_type_of(kind));
    std::memcpy(slot.entry->name(), name.data(), name.size());
    slot.block.set_dirty();
    const file_time now = Clib::Now();
    inode->set_modified(now);
    inode->set_accessed(now);
    return slot;
}

InodeRef ExtfsDirectory::new_entry(const std::string& name, std::uint32_t kind, const std::string& target,
                                   std::uint32_t permissions, std::uint32_t major, std::uint32_t minor) {
    if (!IsKnownKind(kind)) Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
    if (kind == KIND_SYMLINK && target.empty()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    const bool device = kind == KIND_CHARACTER_DEVICE || kind == KIND_BLOCK_DEVICE;
    if (device && major == 0 && minor == 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    Slot slot = new_slot(name, kind);
    const std::uint64_t index = ext->inode_allocator().allocate(kind);
    if (index >= ext->inodes_count) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    const auto number = static_cast<std::uint32_t>(index);
    InodeRef made;
    try {
        made = ext->inodes().create(number, {kind, inode->record().i_flags(), permissions, major, minor});
        if (kind == KIND_SYMLINK) made->set_symlink_target(target);
        if (kind == KIND_DIRECTORY) {
            make_directory_block(*made);
            inode->add_link();
        }
    } catch (const Common::Error&) {
        Abandon(ext, number, kind, made);
        throw;
    }
    slot.entry->set_inode(number + 1);
    slot.entry->set_name_len(static_cast<std::uint8_t>(name.size()));
    slot.block.set_dirty();
    made->add_link();
    return made;
}

void ExtfsDirectory::make_directory_block(ExtfsInode& made) {
    const std::uint32_t block_size = ext->block_size();
    BlockHandle block = ext->get_fs_block(made.allocate_block(0, false), true);
    ext->prepare_block_write(block);
    std::memset(block.data(), 0, block_size);
    auto* dot = reinterpret_cast<DirEntryRecord*>(block.data());
    dot->set_inode(made.index + 1);
    dot->set_rec_len(kDotEntrySize);
    dot->set_name_len(1);
    dot->set_file_type(file_type_of(KIND_DIRECTORY));
    dot->name()[0] = '.';
    auto* dotdot = reinterpret_cast<DirEntryRecord*>(block.data() + kDotEntrySize);
    dotdot->set_inode(inode->index + 1);
    dotdot->set_rec_len(block_size - kDotEntrySize);
    dotdot->set_name_len(2);
    dotdot->set_file_type(file_type_of(KIND_DIRECTORY));
    std::memcpy(dotdot->name(), "..", 2);
    block.set_dirty();
    made.set_size_field(block_size);
}

void ExtfsDirectory::remove_entry(const std::string& name, bool directory) {
    if (IsDots(name)) Common::Raise(ERROR_TAG, Common::Failures::FILE_DELETE);
    DirEntryCopy entry = lookup(name, 0, Common::Failures::FILE_OPEN);
    if (entry.file_type != 0 && (entry.file_type == kDirectoryType) != directory) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_DELETE);
    }
    {
        InodeRef removed = ext->inodes().open(entry.inode - 1);
        if (removed->references != 1) Common::Raise(ERROR_TAG, Common::Failures::FILE_ACCESS_DENIED);
        if (removed->is_directory() != directory) Common::Raise(ERROR_TAG, Common::Failures::FILE_DELETE);
        removed->unlink();
    }
    BlockHandle block = writable_block(entry.position);
    reinterpret_cast<DirEntryRecord*>(block.data() + entry.position % ext->block_size())->set_inode(0);
    block.set_dirty();
}

InodeRef ExtfsDirectory::entry_inode(const std::u16string& name) {
    return ext->inodes().open(lookup(utf16_to_utf8(name), 0, Common::Failures::FILE_OPEN).inode - 1);
}

FileSystemDriver::FileObject* ExtfsDirectory::create_file(const std::u16string& name) {
    return ext->change([&]() -> FileObject* {
        const std::string bytes = utf16_to_utf8(name);
        DirEntryCopy entry;
        if (!find_entry(bytes, entry, 0)) {
            return new ExtfsFile(ext, new_entry(bytes, KIND_FILE, std::string(), ExtfsInode::kUseDefaultPermissions, 0, 0));
        }
        // An existing file starts again empty, as a new one would be.
        InodeRef existing = ext->inodes().open(entry.inode - 1);
        if (!existing->is_regular()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CREATE);
        existing->set_size(0);
        existing->set_permissions(0644);
        existing->set_owner(0, 0);
        return new ExtfsFile(ext, existing);
    });
}

void ExtfsDirectory::remove_file(const std::u16string& name) {
    ext->change([&] {
        remove_entry(utf16_to_utf8(name), false);
    });
}

void ExtfsDirectory::remove_directory_entry(const std::u16string& name) {
    ext->change([&] {
        remove_entry(utf16_to_utf8(name), true);
        // The removed directory's ".." named this one.
        inode->drop_link();
    });
}

void ExtfsDirectory::make_directory(const std::u16string& name) {
    ext->change([&] {
        new_entry(utf16_to_utf8(name), KIND_DIRECTORY, std::string(), ExtfsInode::kUseDefaultPermissions, 0, 0);
    });
}

void ExtfsDirectory::rename_entry(const std::u16string& name, DirectoryObject& target,
                                  const std::u16string& new_name) {
    ext->change([&] {
        const std::string bytes = utf16_to_utf8(name);
        if (IsDots(bytes)) Common::Raise(ERROR_TAG, Common::Failures::FILE_CREATE);
        auto* destination = dynamic_cast<ExtfsDirectory*>(&target);
        if (destination == nullptr || destination->ext != ext) Common::Raise(ERROR_TAG, Common::Failures::FILE_RENAME);
        const DirEntryCopy entry = lookup(bytes, 0, Common::Failures::FILE_OPEN);
        const std::uint32_t kind = KindOfFileType(entry.file_type);
        const std::string new_bytes = utf16_to_utf8(new_name);
        Slot slot = destination->new_slot(new_bytes, kind);
        if (kind == KIND_DIRECTORY || kind == kUnknownKind) {
            InodeRef moved = ext->inodes().open(entry.inode - 1);
            if (moved->is_directory()) {
                // The moved directory's ".." must name this one before any count changes.
                ExtfsDirectory moving(ext, DirectoryIdOfInode(moved->index));
                const DirEntryCopy parent = moving.lookup("..", 0, Common::Failures::FILE_CORRUPT);
                if (parent.inode != inode->index + 1) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
                if (destination->inode.get() != inode.get()) {
                    destination->inode->add_link();
                    BlockHandle block = moving.writable_block(parent.position);
                    auto* record = reinterpret_cast<DirEntryRecord*>(block.data() + parent.position % ext->block_size());
                    record->set_inode(destination->inode->index + 1);
                    block.set_dirty();
                    inode->drop_link();
                }
            }
        }
        slot.entry->set_inode(entry.inode);
        slot.entry->set_name_len(static_cast<std::uint8_t>(new_bytes.size()));
        if (ext->has_incompat(kIncompatFiletype)) slot.entry->set_file_type(entry.file_type);
        slot.block.set_dirty();
        BlockHandle block = writable_block(entry.position);
        auto* old = reinterpret_cast<DirEntryRecord*>(block.data() + entry.position % ext->block_size());
        old->set_inode(0);
        old->set_name_len(0);
        block.set_dirty();
    });
}

// The framework's link(existing, created) comes here on the directory of
// the existing name: `name` in this directory gets `new_name` in `target`.
void ExtfsDirectory::link_entry(const std::u16string& name, DirectoryObject& target, const std::u16string& new_name) {
    ext->change([&] {
        const std::string new_bytes = utf16_to_utf8(new_name);
        if (IsDots(new_bytes)) Common::Raise(ERROR_TAG, Common::Failures::FILE_CREATE);
        auto* destination = dynamic_cast<ExtfsDirectory*>(&target);
        if (destination == nullptr || destination->ext != ext) Common::Raise(ERROR_TAG, Common::Failures::FILE_CREATE);
        const DirEntryCopy entry = lookup(utf16_to_utf8(name), 0, Common::Failures::FILE_OPEN);
        InodeRef linked = ext->inodes().open(entry.inode - 1);
        if (linked->is_directory()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CREATE);
        Slot slot = destination->new_slot(new_bytes, linked->kind());
        linked->add_link();
        slot.entry->set_inode(entry.inode);
        slot.entry->set_name_len(static_cast<std::uint8_t>(new_bytes.size()));
        slot.block.set_dirty();
    });
}

void ExtfsDirectory::symlink_entry(const std::u16string& name, const std::u16string& target) {
    ext->change([&] {
        const std::string bytes = utf16_to_utf8(name);
        const std::string text = utf16_to_utf8(target);
        if (IsDots(bytes) || text.empty()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CREATE);
        DirEntryCopy entry;
        if (!find_entry(bytes, entry, 0)) {
            new_entry(bytes, KIND_SYMLINK, text, ExtfsInode::kUseDefaultPermissions, 0, 0);
            return;
        }
        if (entry.file_type != 0 && entry.file_type != kSymlinkType) {
            Common::Raise(ERROR_TAG, Common::Failures::FILE_EXISTS);
        }
        InodeRef existing = ext->inodes().open(entry.inode - 1);
        if (!existing->is_symlink()) Common::Raise(ERROR_TAG, Common::Failures::FILE_EXISTS);
        existing->set_symlink_target(text);
    });
}

void ExtfsDirectory::set_attributes(const std::u16string&, std::uint32_t) {
    Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
}

void ExtfsDirectory::set_permissions(const std::u16string& name, std::uint32_t value) {
    ext->change([&] {
        entry_inode(name)->set_permissions(value);
    });
}

void ExtfsDirectory::set_owner(const std::u16string& name, std::uint32_t owner, std::uint32_t group) {
    ext->change([&] {
        entry_inode(name)->set_owner(owner, group);
    });
}

void ExtfsDirectory::set_times(const std::u16string& name, std::uint64_t modified, std::uint64_t created,
                               std::uint64_t accessed) {
    ext->change([&] {
        InodeRef changed = entry_inode(name);
        changed->set_modified(static_cast<file_time>(modified));
        changed->set_created(static_cast<file_time>(created));
        changed->set_accessed(static_cast<file_time>(accessed));
    });
}

void ExtfsDirectory::make_node(const std::u16string& name, std::uint32_t kind, std::uint32_t permissions,
                               std::uint32_t major, std::uint32_t minor) {
    ext->change([&] {
        new_entry(utf16_to_utf8(name), kind, std::string(), permissions, major, minor);
    });
}

}  // namespace extfs
