#include "extfs/extfs_directory.h"

#include <cstring>
#include <memory>
#include <vector>

#include "extfs/extfs_file.h"
#include "extfs/extfs_iterator.h"
#include "files/utf_conversion.h"
#include "fsdriver/driver_error.h"

namespace extfs {

namespace {

constexpr std::uint32_t kRootIndex = 1;       // inode number 2
constexpr std::uint8_t kDirectoryType = 2;    // file_type of a directory
constexpr std::uint8_t kFirstNonFileType = 2;

[[noreturn]] void Corrupt(std::uint64_t tag) { Fail(tag, Common::FILE_CORRUPT); }

bool IsDots(const unsigned char* name, std::uint32_t length) {
    return (length == 1 && name[0] == '.') || (length == 2 && name[0] == '.' && name[1] == '.');
}

}  // namespace

file_identifier* ExtfsIdentifier::make(const std::u16string& name, std::uint32_t entry_block,
                                       const std::string& bytes) {
    std::vector<unsigned char> key(bytes.size() + 8, 0);
    for (int i = 0; i < 4; ++i) key[i] = static_cast<unsigned char>(entry_block >> (8 * i));
    std::memcpy(key.data() + kNameOffset, bytes.data(), bytes.size());
    return new the_identifier(name.c_str(), key.data(), static_cast<std::uint32_t>(key.size()));
}

bool ExtfsIdentifier::parse(const file_identifier& identifier, std::uint32_t& entry_block, std::string& bytes) {
    auto* known = dynamic_cast<const the_identifier*>(&identifier);
    if (known == nullptr || known->key() == nullptr) return false;
    entry_block = Le32(known->key());
    bytes = reinterpret_cast<const char*>(known->key() + kNameOffset);
    return true;
}

bool CheckEntry(const ExtfsDriver& driver, const unsigned char* bytes, std::uint32_t rest, std::uint64_t position,
                std::uint32_t directory_index, bool skip_dots) {
    if (position % 4 != 0 || rest < DirEntryRecord::kHeaderSize) Corrupt(ERROR_TAG);
    DirEntryRecord entry(bytes);
    if (entry.rec_len() % 4 != 0 || entry.inode() > driver.inodes_count) Corrupt(ERROR_TAG);
    if (entry.rec_len() < entry.name_len() + DirEntryRecord::kHeaderSize || entry.rec_len() > rest) Corrupt(ERROR_TAG);
    if (entry.inode() == 0) return false;
    if (entry.name_len() == 0) Corrupt(ERROR_TAG);
    if (std::memchr(entry.name(), '/', entry.name_len()) != nullptr ||
        std::memchr(entry.name(), 0, entry.name_len()) != nullptr) {
        Corrupt(ERROR_TAG);
    }
    const bool hidden = driver.inode_hidden(entry.inode() - 1);
    if (!IsDots(entry.name(), entry.name_len())) return !hidden;
    if (entry.name_len() == 1 && entry.inode() - 1 != directory_index) Corrupt(ERROR_TAG);
    if ((entry.file_type() != kDirectoryType && entry.file_type() != 0) || hidden) Corrupt(ERROR_TAG);
    return !skip_dots;
}

ExtfsDirectory::ExtfsDirectory(ExtfsDriver* driver, std::uint32_t id)
    : DirectoryObject(driver, id), ext(driver), inode(driver->inodes().open(id == 0 ? kRootIndex : id)) {
    if (!inode->is_directory()) Corrupt(ERROR_TAG);
    if (size() == 0 || size() % driver->block_size() != 0) Corrupt(ERROR_TAG);
}

const unsigned char* ExtfsDirectory::entry_block(std::uint64_t position) {
    if (position >= size()) Corrupt(ERROR_TAG);
    const std::uint64_t index = position / ext->block_size();
    if (index != current_index || !current_block) {
        std::uint64_t count = 0;
        // A hole answers kNoBlock, which get_fs_block refuses.
        current_block = ext->get_fs_block(inode->map_block(index, count), false);
        current_index = index;
    }
    return current_block.data();
}

bool ExtfsDirectory::next_entry(DirEntryCopy& entry, std::uint64_t& position, bool skip_dots) {
    const std::uint32_t block_size = ext->block_size();
    const std::uint32_t directory_index = id == 0 ? kRootIndex : id;
    while (position < size()) {
        const std::uint32_t offset = static_cast<std::uint32_t>(position % block_size);
        const unsigned char* bytes = entry_block(position) + offset;
        const bool shown = CheckEntry(*ext, bytes, block_size - offset, position, directory_index, skip_dots);
        DirEntryRecord record(bytes);
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

bool ExtfsDirectory::search(const std::string& name, DirEntryCopy& entry, std::uint64_t& position,
                            std::uint64_t limit) {
    while (position < limit && next_entry(entry, position, false)) {
        if (entry.name == name) {
            position = entry.position;
            return true;
        }
    }
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

DirEntryCopy ExtfsDirectory::entry_named(const std::u16string& name) {
    DirEntryCopy entry;
    if (!find_entry(utf16_to_utf8(name), entry, 0)) Fail(ERROR_TAG, Common::FILE_NOT_FOUND);
    return entry;
}

FileSystemDriver::IteratorObject* ExtfsDirectory::begin() {
    DirEntryCopy entry;
    std::uint64_t position = 0;
    if (!next_entry(entry, position, true)) return nullptr;
    return new ExtfsIterator(ext, id, inode, entry);
}

FileSystemDriver::IteratorObject* ExtfsDirectory::find(const std::u16string& name) {
    return new ExtfsBaseIterator(ext, id, entry_named(name), ext->block_size());
}

FileSystemDriver::IteratorObject* ExtfsDirectory::find(const file_identifier& identifier) {
    std::uint32_t entry_block = 0;
    std::string bytes;
    DirEntryCopy entry;
    if (!ExtfsIdentifier::parse(identifier, entry_block, bytes) ||
        !find_entry(bytes, entry, std::uint64_t(entry_block) * ext->block_size())) {
        Fail(ERROR_TAG, Common::FILE_NOT_FOUND);
    }
    return new ExtfsBaseIterator(ext, id, entry, ext->block_size());
}

std::uint32_t ExtfsDirectory::lookup_directory(const std::u16string& name) {
    DirEntryCopy entry = entry_named(name);
    if (entry.file_type == 0) {
        if (!ext->inodes().open(entry.inode - 1)->is_directory()) Fail(ERROR_TAG, Common::FILE_OPEN);
    } else if (entry.file_type != kDirectoryType) {
        Fail(ERROR_TAG, Common::FILE_OPEN);
    }
    return entry.inode - 1 == kRootIndex ? 0 : entry.inode - 1;
}

FileSystemDriver::FileObject* ExtfsDirectory::open_file(const std::u16string& name) {
    return open_entry(entry_named(name));
}

FileSystemDriver::FileObject* ExtfsDirectory::open_file(IteratorObject& entry) {
    auto* walker = dynamic_cast<ExtfsBaseIterator*>(&entry);
    if (walker == nullptr || walker->directory_id != id) Fail(ERROR_TAG, Common::FILE_OPEN);
    std::unique_ptr<file_identifier> identifier(walker->identifier());
    return open_file(*identifier);
}

FileSystemDriver::FileObject* ExtfsDirectory::open_file(const file_identifier& identifier) {
    std::uint32_t entry_block = 0;
    std::string bytes;
    DirEntryCopy entry;
    if (!ExtfsIdentifier::parse(identifier, entry_block, bytes) ||
        !find_entry(bytes, entry, std::uint64_t(entry_block) * ext->block_size())) {
        Fail(ERROR_TAG, Common::FILE_OPEN);
    }
    return open_entry(entry);
}

FileSystemDriver::FileObject* ExtfsDirectory::open_entry(const DirEntryCopy& entry) {
    if (entry.file_type >= kFirstNonFileType) Fail(ERROR_TAG, Common::FILE_OPEN);
    return new ExtfsFile(ext, ext->inodes().open(entry.inode - 1));
}

FileSystemDriver::FileObject* ExtfsDirectory::create_file(const std::u16string&) { ext->refuse_change(ERROR_TAG); }
void ExtfsDirectory::remove_file(const std::u16string&) { ext->refuse_change(ERROR_TAG); }
void ExtfsDirectory::remove_directory_entry(const std::u16string&) { ext->refuse_change(ERROR_TAG); }
void ExtfsDirectory::make_directory(const std::u16string&) { ext->refuse_change(ERROR_TAG); }
void ExtfsDirectory::rename_entry(const std::u16string&, DirectoryObject&, const std::u16string&) {
    ext->refuse_change(ERROR_TAG);
}
void ExtfsDirectory::link_entry(const std::u16string&, DirectoryObject&, const std::u16string&) {
    ext->refuse_change(ERROR_TAG);
}
void ExtfsDirectory::symlink_entry(const std::u16string&, const std::u16string&) { ext->refuse_change(ERROR_TAG); }
void ExtfsDirectory::set_attributes(const std::u16string&, std::uint32_t) {
    Fail(ERROR_TAG, Common::FILE_UNSUPPORTED);
}
void ExtfsDirectory::set_permissions(const std::u16string&, std::uint32_t) { ext->refuse_change(ERROR_TAG); }
void ExtfsDirectory::set_owner(const std::u16string&, std::uint32_t, std::uint32_t) { ext->refuse_change(ERROR_TAG); }
void ExtfsDirectory::set_times(const std::u16string&, std::uint64_t, std::uint64_t, std::uint64_t) {
    ext->refuse_change(ERROR_TAG);
}
void ExtfsDirectory::make_node(const std::u16string&, std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t) {
    ext->refuse_change(ERROR_TAG);
}

}  // namespace extfs
