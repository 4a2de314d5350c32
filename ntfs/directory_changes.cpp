// The changes of a directory: names added, taken away and moved, new files
// and directories, and the index keys kept in step with the records.
#include <cstring>

#include "loader/common/byte_order.h"
#include "loader/common/raise.h"
#include "ntfs/ntfs_directory.h"
#include "ntfs/ntfs_driver.h"
#include "ntfs/ntfs_file.h"
#include "ntfs/ntfs_iterator.h"

namespace ntfs {

namespace {

constexpr std::size_t kTimesOffset = 8;       // the four times, the sizes, the attributes and the tag
constexpr std::size_t kTimesToTagLength = 56;  // ... up to the name's length
constexpr std::size_t kAttributesOffset = 56;
constexpr std::size_t kReparseTagOffset = 60;
constexpr std::size_t kNameLengthOffset = 64;

IndexTreeBase::Entry EntryFor(const unsigned char* value, std::uint32_t length, std::uint64_t reference) {
    const std::uint32_t size = (IndexEntryHeader::kKeyOffset + length + 7) & ~7u;
    IndexTreeBase::Entry entry(size, 0);
    Common::StoreLE64(entry.data(), reference);
    Common::StoreLE16(entry.data() + 8, static_cast<std::uint16_t>(size));
    Common::StoreLE16(entry.data() + 10, static_cast<std::uint16_t>(length));
    std::memcpy(entry.data() + IndexEntryHeader::kKeyOffset, value, length);
    return entry;
}

// Each POSIX name is a link; of the other names each parent counts once.
std::uint32_t DirectoryLinkCount(const RecordRef& directory) {
    std::uint32_t links = 0;
    std::vector<std::uint64_t> parents;
    ForEachFileName(directory, [&](const FileNameValue& value, const std::u16string&) {
        if (value.file_name_type() == FileNameValue::kPosix) {
            ++links;
            return;
        }
        for (std::uint64_t parent : parents) {
            if (parent == value.parent_directory()) return;
        }
        parents.push_back(value.parent_directory());
    });
    return links + static_cast<std::uint32_t>(parents.size());
}

NTFSDirectory& SameVolume(NTFSDriver* ntfs, FileSystemDriver::DirectoryObject& target, const Common::Failure& failure) {
    auto* directory = dynamic_cast<NTFSDirectory*>(&target);
    if (directory == nullptr || directory->ntfs != ntfs) Common::Raise(ERROR_TAG, failure);
    return *directory;
}

}  // namespace

NameValue::NameValue(const std::u16string& name) {
    if (name.empty() || name.size() > kLongestFileName) Common::Raise(ERROR_TAG, Common::Failures::FILE_CREATE);
    bytes_.assign(FileNameValue::SizeFor(static_cast<std::uint32_t>(name.size())), 0);
    bytes_[kNameLengthOffset] = static_cast<unsigned char>(name.size());
    for (std::size_t i = 0; i < name.size(); ++i) {
        Common::StoreLE16(bytes_.data() + FileNameValue::kNameOffset + 2 * i, name[i]);
    }
}

NameValue::NameValue(const FileNameValue& key, std::uint64_t parent, std::uint8_t name_space,
                     const std::u16string& name)
    : NameValue(name) {
    std::memcpy(bytes_.data() + kTimesOffset, reinterpret_cast<const unsigned char*>(&key) + kTimesOffset,
                kTimesToTagLength);
    Common::StoreLE64(bytes_.data(), parent);
    set_name_space(name_space);
}

NameValue NameValue::Fresh(std::uint64_t parent, std::uint64_t now, std::uint32_t attributes,
                           const std::u16string& name) {
    NameValue made(name);
    Common::StoreLE64(made.bytes_.data(), parent);
    for (std::size_t i = 0; i < 4; ++i) Common::StoreLE64(made.bytes_.data() + kTimesOffset + 8 * i, now);
    made.set_attributes(attributes);
    return made;
}

void NameValue::set_reparse_tag(std::uint32_t tag) { Common::StoreLE32(bytes_.data() + kReparseTagOffset, tag); }
void NameValue::set_attributes(std::uint32_t attributes) {
    Common::StoreLE32(bytes_.data() + kAttributesOffset, attributes);
}

void NTFSDirectory::add_link(const NameValue& value, std::uint64_t reference) {
    DirectoryIndex& tree = index();
    tell_iterators();
    IndexCursor cursor;
    tree.insert(EntryFor(value.data(), value.length(), reference), cursor);
}

void NTFSDirectory::remove_link(const std::u16string& name, std::uint64_t reference) {
    IndexCursor cursor;
    lookup(name, reference, cursor);
    const unsigned char* key = KeyOf(cursor.position.entry);
    const std::vector<unsigned char> value(key, key + cursor.position.entry->key_length());
    tell_iterators();
    std::pair<std::u16string, std::u16string> names;
    {
        RecordRef file = record_of(reference);
        file->owner();
        names = file->removeName(value.data(), static_cast<std::uint32_t>(value.size()));
    }
    for (const std::u16string& removed : {names.first, names.second}) {
        if (removed.empty()) continue;
        lookup(removed, reference, cursor);
        tell_iterators();
        index().remove(cursor);
    }
}

// What a listing hides can't be changed either; the system files, when
// shown, are there to be looked at only.
NTFSDirectory::FoundEntry NTFSDirectory::found_entry(const std::u16string& name) {
    IndexCursor cursor;
    lookup(name, cursor);
    FoundEntry found;
    found.reference = cursor.position.entry->indexed_file();
    const unsigned char* key = KeyOf(cursor.position.entry);
    found.key.assign(key, key + cursor.position.entry->key_length());
    const std::uint64_t number = RecordNumberOf(found.reference);
    if (ntfs->entry_hidden(number, found.value().parent_directory())) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_NOT_FOUND);
    }
    if (number < kFirstUserRecord) Common::Raise(ERROR_TAG, Common::Failures::FILE_READ_ONLY);
    return found;
}

RecordRef NTFSDirectory::record_of(std::uint64_t reference) {
    RecordRef file = ntfs->record_cache->get(RecordNumberOf(reference));
    if (file->reference() != reference) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    return file;
}

std::uint32_t NTFSDirectory::security_id() {
    AttributeRef standard = record.find(kStandardInformation);
    if (!standard || standard->size() < StandardInformation::kLongSize) return 0;
    StandardInformation value{};
    if (standard->read(0, sizeof(value), &value) != sizeof(value)) Common::Raise(ERROR_TAG, Common::Failures::FILE_READ);
    return value.security_id();
}

void NTFSDirectory::write_standard_information(BaseFileRecord& file, std::uint64_t now, std::uint32_t attributes) {
    const std::uint32_t size =
        ntfs->version >= 0x0300 ? StandardInformation::kLongSize : StandardInformation::kShortSize;
    std::vector<unsigned char> value(size, 0);
    for (std::size_t i = 0; i < 4; ++i) Common::StoreLE64(value.data() + 8 * i, now);
    Common::StoreLE32(value.data() + offsetof(StandardInformation, file_attributes_), attributes);
    if (size == StandardInformation::kLongSize) {
        Common::StoreLE32(value.data() + offsetof(StandardInformation, security_id_), security_id());
    }
    AttributeRef standard(&file, file.createAttribute(kStandardInformation, std::u16string(), true));
    if (standard->resize(size, true) != size) Common::Raise(ERROR_TAG, Common::Failures::FILE_DISK_FULL);
    if (standard->write(0, size, value.data()) != size) Common::Raise(ERROR_TAG, Common::Failures::FILE_WRITE);
}

RecordRef NTFSDirectory::create_record(const std::u16string& name, std::uint32_t attributes) {
    const std::uint64_t now = NTFSFileObject::Now();
    const NameValue value = NameValue::Fresh(record->reference(), now, attributes, name);
    // A name that is there already costs no record.
    IndexCursor existing;
    if (index().find(name, existing)) Common::Raise(ERROR_TAG, Common::Failures::FILE_EXISTS);
    RecordRef file = ntfs->record_cache->create();
    // Until a name holds it, the new record goes with its last holder.
    file->owner();
    write_standard_information(*file, now, attributes);
    add_link(value, file->reference());
    file->addName(value.data(), value.length());
    return file;
}

FileSystemDriver::FileObject* NTFSDirectory::create_file(const std::u16string& name) {
    ntfs->refuse_if_unchangeable();
    try {
        FileObject* existing = open_file(name);
        existing->set_size(0);
        return existing;
    } catch (const Common::Error& error) {
        if (error.Code() != Common::FILE_NOT_FOUND) throw;
    }
    RecordRef file = create_record(name, 0);
    AttributeRef data(file.get(), file->createAttribute(kData, std::u16string(), true));
    return new NTFSFile(ntfs, file);
}

void NTFSDirectory::make_directory(const std::u16string& name) {
    ntfs->refuse_if_unchangeable();
    RecordRef directory = create_record(name, kAttributeIndexed);
    DirectoryIndex::create(ntfs, directory, kFileName);
}

void NTFSDirectory::remove_file(const std::u16string& name) {
    ntfs->refuse_if_unchangeable();
    const FoundEntry entry = found_entry(name);
    if (entry.is_directory()) Common::Raise(ERROR_TAG, Common::Failures::FILE_DELETE);
    remove_link(FileNameKey::NameOf(entry.key.data()), entry.reference);
}

void NTFSDirectory::remove_directory_entry(const std::u16string& name) {
    ntfs->refuse_if_unchangeable();
    const FoundEntry entry = found_entry(name);
    if (!entry.is_directory()) Common::Raise(ERROR_TAG, Common::Failures::FILE_DELETE);
    remove_directory_link(FileNameKey::NameOf(entry.key.data()), entry.reference);
}

void NTFSDirectory::remove_directory_link(const std::u16string& name, std::uint64_t reference) {
    {
        RecordRef directory = record_of(reference);
        if (DirectoryLinkCount(directory) <= 1) {
            DirectoryIndex contents(ntfs, directory);
            IndexCursor cursor;
            if (contents.first(cursor)) Common::Raise(ERROR_TAG, Common::Failures::FILE_DELETE);
        }
    }
    remove_link(name, reference);
}

// New index entry, new name in the record, old name in the record, old
// index entry: a failure on the way leaves the file with both names. The
// new name is POSIX, so that a short name of the old one goes with it.
void NTFSDirectory::rename_entry(const std::u16string& name, DirectoryObject& target,
                                 const std::u16string& new_name) {
    ntfs->refuse_if_unchangeable();
    NTFSDirectory& destination = SameVolume(ntfs, target, Common::Failures::FILE_RENAME);
    const FoundEntry entry = found_entry(name);
    const NameValue value(entry.value(), destination.record->reference(), FileNameValue::kPosix, new_name);
    destination.add_link(value, entry.reference);
    record_of(entry.reference)->addName(value.data(), value.length());
    const std::u16string old_name = FileNameKey::NameOf(entry.key.data());
    // Two names now: a directory isn't tested for being empty, and the
    // record stays.
    if (entry.is_directory()) {
        remove_directory_link(old_name, entry.reference);
    } else {
        remove_link(old_name, entry.reference);
    }
}

void NTFSDirectory::link_entry(const std::u16string& name, DirectoryObject& target, const std::u16string& new_name) {
    ntfs->refuse_if_unchangeable();
    NTFSDirectory& destination = SameVolume(ntfs, target, Common::Failures::FILE_CREATE);
    const FoundEntry entry = found_entry(name);
    if (entry.is_directory()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CREATE);
    const NameValue value(entry.value(), destination.record->reference(), FileNameValue::kPosix, new_name);
    RecordRef file = record_of(entry.reference);
    destination.add_link(value, entry.reference);
    file->addName(value.data(), value.length());
}

// The key keeps its name and so its length and place: only the copies of
// the file's times, sizes and attributes change, written over the old ones.
void NTFSDirectory::update_index_key(std::uint64_t reference, const FileNameValue& value, std::uint32_t length) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(&value);
    if (!FileNameKey::Sound(bytes, length)) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    IndexCursor cursor;
    lookup(FileNameKey::NameOf(bytes), reference, cursor);
    if (cursor.position.entry->key_length() != length) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    tell_iterators();
    index().rewriteKey(cursor, bytes, length);
}

void NTFSDirectory::UpdateKeyInParent(NTFSDriver* driver, std::uint64_t reference, const FileNameValue& value,
                                      std::uint32_t length) {
    const std::uint64_t parent = RecordNumberOf(value.parent_directory());
    if (parent < kRootRecord || parent - kRootRecord > 0xFFFFFFFFull) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    FileSystemDriver::DirectoryObject* object = driver->get_object(NTFSDriver::DirectoryIdOfRecord(parent));
    auto* directory = dynamic_cast<NTFSDirectory*>(object);
    if (directory == nullptr) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    ++directory->references;
    try {
        directory->update_index_key(reference, value, length);
    } catch (...) {
        --directory->references;
        throw;
    }
    --directory->references;
}

void NTFSDirectory::set_security(const std::u16string& name, const void* data, std::uint32_t size) {
    ntfs->refuse_if_unchangeable();
    NTFSFileObject(ntfs, record_of(found_entry(name).reference)).setSecurity(data, size);
}

void NTFSDirectory::set_attributes(const std::u16string& name, std::uint32_t value) {
    ntfs->refuse_if_unchangeable();
    NTFSFileObject(ntfs, record_of(found_entry(name).reference)).setAttributes(value);
}

}  // namespace ntfs
