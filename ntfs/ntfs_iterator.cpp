#include "ntfs/ntfs_iterator.h"

#include <cstring>
#include <vector>

#include "files/dir_object.h"
#include "loader/common/raise.h"
#include "ntfs/file_security.h"
#include "ntfs/link_target.h"
#include "ntfs/ntfs_directory.h"
#include "ntfs/ntfs_driver.h"
#include "ntfs/ntfs_identifier.h"

namespace ntfs {

namespace {

// Kinds beyond the framework's own.
constexpr std::uint32_t kKindNameSurrogateDirectory = 150;  // a junction, or another tag with the surrogate bit
constexpr std::uint32_t kKindDirectorySymlink = 151;
constexpr std::uint32_t kKindDeduplicated = 154;
constexpr std::uint32_t kTagNameSurrogate = 1u << 29;

}  // namespace

std::uint32_t KindOfEntry(std::uint32_t attributes, std::uint32_t reparse_tag) {
    const bool directory = (attributes & kAttributeIndexed) != 0;
    if ((attributes & kAttributeReparse) != 0) {
        if (reparse_tag == kTagSymlink) return directory ? kKindDirectorySymlink : KIND_SYMLINK;
        if (reparse_tag == kTagDedup) return kKindDeduplicated;
    } else {
        // A tag left in the name without the reparse bit means nothing.
        reparse_tag = 0;
    }
    if (!directory) return KIND_FILE;
    return (reparse_tag & kTagNameSurrogate) != 0 ? kKindNameSurrogateDirectory : KIND_DIRECTORY;
}

NTFSIterator::NTFSIterator(NTFSDirectory* owner, bool filtering) : directory(owner), filtering_(filtering) {
    ++directory->references;
    directory->iterators.push_head(this);
}

NTFSIterator::~NTFSIterator() {
    unlink();
    --directory->references;
}

bool NTFSIterator::first() {
    stale_ = false;
    name_.clear();
    DirectoryIndex& index = directory->index();
    bool placed = index.first(cursor_);
    while (placed && filtering_ && directory->listing_hides(cursor_.position.entry)) placed = index.next(cursor_);
    return placed;
}

void NTFSIterator::stand(const IndexCursor& placed) {
    cursor_ = placed;
    stale_ = false;
    name_.clear();
}

bool NTFSIterator::next() {
    entry();
    name_.clear();
    DirectoryIndex& index = directory->index();
    bool placed = index.next(cursor_);
    while (placed && filtering_ && directory->listing_hides(cursor_.position.entry)) placed = index.next(cursor_);
    return placed;
}

const IndexEntryHeader* NTFSIterator::entry() {
    if (stale_) {
        if (!directory->index().find(name_, cursor_)) Common::Raise(ERROR_TAG, Common::Failures::FILE_NOT_FOUND);
        if (filtering_ && directory->listing_hides(cursor_.position.entry)) {
            cursor_.clear();
            Common::Raise(ERROR_TAG, Common::Failures::FILE_NOT_FOUND);
        }
        stale_ = false;
    }
    // A walk that has ended stands on nothing.
    if (!cursor_.valid()) Common::Raise(ERROR_TAG, Common::Failures::FILE_NOT_FOUND);
    return cursor_.position.entry;
}

const FileNameValue& NTFSIterator::key() { return *FileNameKey::ValueOf(KeyOf(entry())); }

void NTFSIterator::go_stale() {
    if (stale_ || !cursor_.valid()) return;
    name_ = name();
    stale_ = true;
    cursor_.clear();
}

std::uint64_t NTFSIterator::reference() { return entry()->indexed_file(); }

RecordRef NTFSIterator::entry_record() { return directory->ntfs->record_cache->get(RecordNumberOf(reference())); }

file_identifier* NTFSIterator::identifier() { return NTFSIdentifier::Make(name(), reference()); }

std::u16string NTFSIterator::name() {
    if (stale_ || name_.empty()) name_ = FileNameKey::NameOf(KeyOf(entry()));
    return name_;
}

std::uint32_t NTFSIterator::kind() { return KindOfEntry(key().file_attributes(), key().reparse_tag()); }

file_time NTFSIterator::modified() { return NTFSDriver::FrameworkTime(key().last_data_change_time()); }
file_time NTFSIterator::created() { return NTFSDriver::FrameworkTime(key().creation_time()); }
file_time NTFSIterator::accessed() { return NTFSDriver::FrameworkTime(key().last_access_time()); }

std::uint32_t NTFSIterator::attributes() {
    std::uint32_t value = key().file_attributes();
    if ((value & kAttributeIndexed) != 0) value = (value & ~kAttributeIndexed) | kAttributeDirectoryBit;
    return value;
}

std::uint64_t NTFSIterator::first_sector() {
    RecordRef record = entry_record();
    AttributeRef data = record.find(kData);
    return data ? data->firstPosition() : 0;
}

// A long name's short twin is the DOS name of the same record under the
// same parent; a DOS name is its own short name; other names have none.
std::u16string NTFSIterator::short_name() {
    const FileNameValue& value = key();
    if (value.file_name_type() == FileNameValue::kDos) return name();
    if (value.file_name_type() != FileNameValue::kWin32) return std::u16string();
    const std::uint64_t parent = RecordNumberOf(value.parent_directory());
    std::u16string found;
    ForEachFileName(entry_record(), [&](const FileNameValue& other, const std::u16string& other_name) {
        if (found.empty() && other.file_name_type() == FileNameValue::kDos &&
            RecordNumberOf(other.parent_directory()) == parent) {
            found = other_name;
        }
    });
    if (found.empty()) return found;
    IndexCursor check;
    if (!directory->index().find(found, check)) Common::Raise(ERROR_TAG, Common::Failures::FILE_NOT_FOUND);
    return found;
}

// Each POSIX name is a link of its own; the Win32 and DOS names of one
// link count once together.
std::uint32_t NTFSIterator::links() {
    std::uint32_t posix = 0;
    bool paired = false;
    ForEachFileName(entry_record(), [&](const FileNameValue& value, const std::u16string&) {
        if (value.file_name_type() == FileNameValue::kPosix) {
            ++posix;
        } else {
            paired = true;
        }
    });
    return posix + (paired ? 1 : 0);
}

std::uint32_t NTFSIterator::security(void* buffer) {
    const std::vector<unsigned char> descriptor = ReadSecurity(directory->ntfs, entry_record());
    if (buffer != nullptr && !descriptor.empty()) std::memcpy(buffer, descriptor.data(), descriptor.size());
    return static_cast<std::uint32_t>(descriptor.size());
}

std::u16string NTFSIterator::link_target() { return ReadLinkTarget(entry_record()); }

}  // namespace ntfs
