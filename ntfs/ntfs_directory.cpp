#include "ntfs/ntfs_directory.h"

#include <memory>

#include "files/dir_object.h"
#include "loader/common/raise.h"
#include "ntfs/backup_object.h"
#include "ntfs/ntfs_driver.h"
#include "ntfs/ntfs_file.h"
#include "ntfs/ntfs_identifier.h"
#include "ntfs/ntfs_iterator.h"

namespace ntfs {

namespace {

const char16_t kDirectoryIndexName[] = u"$I30";

bool IsSystemRecord(std::uint64_t number) { return number < kFirstUserRecord && number != kRootRecord; }

const FileNameValue& KeyValue(const IndexEntryHeader* entry) { return *FileNameKey::ValueOf(KeyOf(entry)); }

bool IsDirectoryEntry(const IndexEntryHeader* entry) {
    return (KeyValue(entry).file_attributes() & kAttributeIndexed) != 0;
}

}  // namespace

NTFSDirectory::NTFSDirectory(NTFSDriver* driver, std::uint32_t id) : DirectoryObject(driver, id), ntfs(driver) {
    const std::uint64_t number = NTFSDriver::RecordOfDirectoryId(id);
    if (IsSystemRecord(number)) Common::Raise(ERROR_TAG, Common::Failures::FILE_NOT_FOUND);
    record = driver->record_cache->get(number);
    if (!record.find(kIndexRoot, kDirectoryIndexName)) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
}

NTFSDirectory::~NTFSDirectory() {
    // The framework lets a directory go only when nothing stands on it.
    while (NTFSIterator* iterator = iterators.head()) iterator->unlink();
}

DirectoryIndex& NTFSDirectory::index() {
    if (!index_) index_ = std::make_unique<DirectoryIndex>(ntfs, record);
    return *index_;
}

void NTFSDirectory::lookup(const std::u16string& name, IndexCursor& cursor) {
    if (!index().find(name, cursor)) Common::Raise(ERROR_TAG, Common::Failures::FILE_NOT_FOUND);
}

void NTFSDirectory::lookup(const std::u16string& name, std::uint64_t reference, IndexCursor& cursor) {
    if (index().find(name, cursor) && cursor.position.entry->indexed_file() == reference) return;
    // Names equal but for case are neighbours in key order: walk them for
    // the one that holds the reference.
    bool placed = index().first(cursor);
    while (placed) {
        const std::u16string stored = FileNameKey::NameOf(KeyOf(cursor.position.entry));
        const int order = ntfs->compare_names(stored.data(), stored.size(), name.data(), name.size());
        if (order > 0) break;
        if (order == 0 && cursor.position.entry->indexed_file() == reference) return;
        placed = index().next(cursor);
    }
    Common::Raise(ERROR_TAG, Common::Failures::FILE_NOT_FOUND);
}

bool NTFSDirectory::listing_hides(const IndexEntryHeader* entry) const {
    const std::uint64_t number = RecordNumberOf(entry->indexed_file());
    const std::uint64_t parent = RecordNumberOf(KeyValue(entry).parent_directory());
    return ntfs->record_hidden(number) || number < kFirstUserRecord || IsSystemRecord(parent) ||
           KeyValue(entry).file_name_type() == FileNameValue::kDos;
}

FileSystemDriver::FileObject* NTFSDirectory::open_entry(const IndexEntryHeader* entry) {
    const std::uint64_t number = RecordNumberOf(entry->indexed_file());
    auto open = ntfs->open_files.find(number);
    if (open != ntfs->open_files.end()) return open->second;
    if (IsDirectoryEntry(entry)) Common::Raise(ERROR_TAG, Common::Failures::FILE_NOT_FOUND);
    if (ntfs->entry_hidden(number, RecordNumberOf(KeyValue(entry).parent_directory()))) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_NOT_FOUND);
    }
    return new NTFSFile(ntfs, ntfs->record_cache->get(number));
}

void NTFSDirectory::tell_iterators() {
    for (NTFSIterator* iterator = iterators.head(); iterator != nullptr; iterator = iterators.after(iterator)) {
        iterator->go_stale();
    }
}

FileSystemDriver::IteratorObject* NTFSDirectory::begin() {
    auto iterator = std::make_unique<NTFSIterator>(this, true);
    if (!iterator->first()) return nullptr;
    return iterator.release();
}

FileSystemDriver::IteratorObject* NTFSDirectory::find(const std::u16string& name) {
    IndexCursor cursor;
    lookup(name, cursor);
    if (listing_hides(cursor.position.entry)) Common::Raise(ERROR_TAG, Common::Failures::FILE_NOT_FOUND);
    auto iterator = std::make_unique<NTFSIterator>(this, true);
    iterator->stand(cursor);
    return iterator.release();
}

FileSystemDriver::IteratorObject* NTFSDirectory::find(const file_identifier& entry) {
    std::u16string name;
    std::uint64_t reference = 0;
    if (!NTFSIdentifier::Parse(entry, name, reference)) Common::Raise(ERROR_TAG, Common::Failures::FILE_NOT_FOUND);
    IndexCursor cursor;
    lookup(name, reference, cursor);
    if (listing_hides(cursor.position.entry)) Common::Raise(ERROR_TAG, Common::Failures::FILE_NOT_FOUND);
    auto iterator = std::make_unique<NTFSIterator>(this, true);
    iterator->stand(cursor);
    return iterator.release();
}

std::uint32_t NTFSDirectory::lookup_directory(const std::u16string& name) {
    IndexCursor cursor;
    lookup(name, cursor);
    const std::uint64_t number = RecordNumberOf(cursor.position.entry->indexed_file());
    if (!IsDirectoryEntry(cursor.position.entry) || IsSystemRecord(number)) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_OPEN);
    }
    // Directory ids are 32 bits wide; a record beyond them can't be one.
    if (number - kRootRecord > 0xFFFFFFFFull) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    return NTFSDriver::DirectoryIdOfRecord(number);
}

FileSystemDriver::FileObject* NTFSDirectory::open_file(const std::u16string& name) {
    IndexCursor cursor;
    lookup(name, cursor);
    return open_entry(cursor.position.entry);
}

FileSystemDriver::FileObject* NTFSDirectory::open_file(IteratorObject& entry) {
    auto* standing = dynamic_cast<NTFSIterator*>(&entry);
    if (standing == nullptr || standing->directory != this) Common::Raise(ERROR_TAG, Common::Failures::FILE_OPEN);
    return open_entry(standing->entry());
}

FileSystemDriver::FileObject* NTFSDirectory::open_file(const file_identifier& entry) {
    std::u16string name;
    std::uint64_t reference = 0;
    if (!NTFSIdentifier::Parse(entry, name, reference)) Common::Raise(ERROR_TAG, Common::Failures::FILE_NOT_FOUND);
    IndexCursor cursor;
    lookup(name, reference, cursor);
    return open_entry(cursor.position.entry);
}

// A file opened here only for its backup goes again at once: the backup
// holds the file's record, not the file object.
FileSystemDriver::BackupObject* NTFSDirectory::new_backup_object(IteratorObject* entry, std::uint32_t option) {
    if (entry == nullptr) return NewDirectoryBackup(ntfs, record, option);
    if (entry->kind() != KIND_SYMLINK) Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
    FileObject* file = open_file(*entry);
    std::unique_ptr<FileObject> opened_here(file->references == 0 ? file : nullptr);
    return file->new_backup_object(option);
}

}  // namespace ntfs
