#include "fsdriver/dir_reference_base.h"

#include <cstring>
#include <memory>

#include "files/windows_dir.h"
#include "fsdriver/backup_object.h"
#include "fsdriver/dir_reference_backup.h"
#include "fsdriver/directory_object.h"
#include "loader/common/raise.h"
#include "fsdriver/file_object.h"
#include "fsdriver/file_reference.h"
#include "fsdriver/iterator_object.h"
#include "fsdriver/iterator_reference.h"

namespace {

constexpr std::uint32_t kRequestNoCache = 0x5244434E;   // "NCDR"
constexpr std::uint32_t kRequestSecurity = 0x51535253;  // "SRSQ"
constexpr std::uint32_t kRequestBackup = 0x50554B42;    // "BKUP"
constexpr std::uint32_t kRequestRestore = 0x52545352;   // "RSTR"

// The entry of this framework that an iterator stands on; FILE_OPEN for
// any other iterator, or one whose walk has ended.
FileSystemDriver::IteratorObject& EntryOf(i_dir::iterator& entry) {
    auto* reference = dynamic_cast<FileSystemDriver::IteratorReference*>(&entry);
    if (reference == nullptr || reference->entry() == nullptr) Common::Raise(ERROR_TAG, Common::Failures::FILE_OPEN);
    return *reference->entry();
}

}  // namespace

template <typename Directory>
DirReferenceBase<Directory>::DirReferenceBase(FileSystemDriver* driver, const std::u16string& path)
    : driver_(driver), path_(path) {
    ++driver_->references;
}

template <typename Directory>
DirReferenceBase<Directory>::~DirReferenceBase() {
    ::release(driver_);
}

template <typename Directory>
FileSystemDriver::DirectoryObject* DirReferenceBase<Directory>::parent_of(const char16_t* path, const Common::Failure& failure,
                                                                          std::u16string& leaf) {
    std::u16string parent;
    if (!split(compose(path, failure), parent, leaf)) Common::Raise(ERROR_TAG, failure);
    return driver_->get_directory(driver_form(parent));
}

template <typename Directory>
FileSystemDriver::DirectoryObject* DirReferenceBase<Directory>::this_directory() {
    return driver_->get_directory(driver_form(path_));
}

template <typename Directory>
FileSystemDriver::FileReference* DirReferenceBase<Directory>::open_reference(FileSystemDriver::FileObject* object,
                                                                             bool for_write, bool shared) {
    try {
        return new FileSystemDriver::FileReference(driver_, object, for_write, shared);
    } catch (...) {
        // A file object that nobody opened after all goes again.
        if (object->references == 0) delete object;
        throw;
    }
}

template <typename Directory>
FileSystemDriver::FileReference* DirReferenceBase<Directory>::open_by_path(const char16_t* path, bool for_write,
                                                                           bool shared) {
    FileSystemDriver::FileReference* answer = nullptr;
    guarded([&] {
        std::u16string leaf;
        FileSystemDriver::DirectoryObject* parent = parent_of(path, Common::Failures::FILE_OPEN, leaf);
        answer = open_reference(parent->open_file(leaf), for_write, shared);
    });
    return answer;
}

template <typename Directory>
FileSystemDriver::FileReference* DirReferenceBase<Directory>::open_by_entry(i_dir::iterator& entry, bool for_write,
                                                                            bool shared) {
    FileSystemDriver::FileReference* answer = nullptr;
    guarded([&] { answer = open_reference(this_directory()->open_file(EntryOf(entry)), for_write, shared); });
    return answer;
}

template <typename Directory>
FileSystemDriver::FileReference* DirReferenceBase<Directory>::open_by_identifier(const file_identifier& entry,
                                                                                 bool for_write, bool shared) {
    FileSystemDriver::FileReference* answer = nullptr;
    guarded([&] { answer = open_reference(this_directory()->open_file(entry), for_write, shared); });
    return answer;
}

template <typename Directory>
ri_file* DirReferenceBase<Directory>::open_file(const char16_t* path, bool shared) {
    return open_by_path(path, false, shared);
}
template <typename Directory>
ri_file* DirReferenceBase<Directory>::open_file(i_dir::iterator& entry, bool shared) {
    return open_by_entry(entry, false, shared);
}
template <typename Directory>
ri_file* DirReferenceBase<Directory>::open_file(const file_identifier& entry, bool shared) {
    return open_by_identifier(entry, false, shared);
}
template <typename Directory>
ro_file* DirReferenceBase<Directory>::open_for_write(const char16_t* path, bool shared) {
    return open_by_path(path, true, shared);
}
template <typename Directory>
ro_file* DirReferenceBase<Directory>::open_for_write(i_dir::iterator& entry, bool shared) {
    return open_by_entry(entry, true, shared);
}
template <typename Directory>
ro_file* DirReferenceBase<Directory>::open_for_write(const file_identifier& entry, bool shared) {
    return open_by_identifier(entry, true, shared);
}
template <typename Directory>
rio_file* DirReferenceBase<Directory>::open_for_update(const char16_t* path, bool shared) {
    return open_by_path(path, true, shared);
}
template <typename Directory>
rio_file* DirReferenceBase<Directory>::open_for_update(i_dir::iterator& entry, bool shared) {
    return open_by_entry(entry, true, shared);
}
template <typename Directory>
rio_file* DirReferenceBase<Directory>::open_for_update(const file_identifier& entry, bool shared) {
    return open_by_identifier(entry, true, shared);
}

template <typename Directory>
DirReferenceBase<Directory>* DirReferenceBase<Directory>::open_dir(const char16_t* path) {
    DirReferenceBase* answer = nullptr;
    guarded([&] { answer = new_reference(compose_directory(path)); });
    return answer;
}

template <typename Directory>
DirReferenceBase<Directory>* DirReferenceBase<Directory>::open_dir(i_dir::iterator& entry) {
    std::u16string name = entry.name();
    return open_dir(name.c_str());
}

template <typename Directory>
DirReferenceBase<Directory>* DirReferenceBase<Directory>::open_dir(const file_identifier& entry) {
    auto* identifier = dynamic_cast<const the_identifier*>(&entry);
    if (identifier == nullptr) {
        guarded([] { Common::Raise(ERROR_TAG, Common::Failures::FILE_OPEN); });
        return nullptr;
    }
    return open_dir(identifier->name());
}

template <typename Directory>
DirReferenceBase<Directory>* DirReferenceBase<Directory>::open_parent(const char16_t*& path) {
    const char16_t* behind = nullptr;
    if (path != nullptr) {
        for (const char16_t* p = path; *p != 0; ++p) {
            if (ends_parent(*p)) behind = p + 1;
        }
    }
    if (behind == nullptr) return open_dir(u".");
    std::u16string parent(path, behind);
    DirReferenceBase* answer = open_dir(parent.c_str());
    if (answer != nullptr) path = behind;
    return answer;
}

template <typename Directory>
i_dir::iterator* DirReferenceBase<Directory>::walk_from(FileSystemDriver::IteratorObject* object) {
    // A missing entry is a walk in the failed state, not a null answer.
    if (this->failed()) return nullptr;
    return new FileSystemDriver::IteratorReference(driver_, object);
}

template <typename Directory>
i_dir::iterator* DirReferenceBase<Directory>::begin() {
    FileSystemDriver::IteratorObject* first = nullptr;
    guarded([&] { first = this_directory()->begin(); });
    return walk_from(first);
}

template <typename Directory>
i_dir::iterator* DirReferenceBase<Directory>::find(const char16_t* name) {
    FileSystemDriver::IteratorObject* found = nullptr;
    guarded([&] {
        if (name == nullptr || !name_allowed(name)) Common::Raise(ERROR_TAG, Common::Failures::FILE_OPEN);
        found = this_directory()->find(std::u16string(name));
    });
    return walk_from(found);
}

template <typename Directory>
i_dir::iterator* DirReferenceBase<Directory>::find(const file_identifier& entry) {
    FileSystemDriver::IteratorObject* found = nullptr;
    guarded([&] { found = this_directory()->find(entry); });
    return walk_from(found);
}

template <typename Directory>
i_dir::iterator* DirReferenceBase<Directory>::self() {
    if (at_root()) {
        this->set_error(Common::Error());
        return new_root_self();
    }
    FileSystemDriver::IteratorObject* found = nullptr;
    guarded([&] {
        std::u16string parent, leaf;
        if (!split(path_, parent, leaf)) Common::Raise(ERROR_TAG, Common::Failures::FILE_OPEN);
        found = driver_->get_directory(driver_form(parent))->find(leaf);
    });
    return walk_from(found);
}

template <typename Directory>
std::uint32_t DirReferenceBase<Directory>::relation(i_dir& other) {
    auto* reference = dynamic_cast<DirReferenceBase*>(&other);
    if (reference == nullptr || reference->driver_ != driver_) return 2;
    if (reference == this) return 0;
    std::u16string mine = relation_form(path_);
    std::u16string theirs = relation_form(reference->path_);
    if (theirs.compare(0, mine.size(), mine) != 0) return 2;
    if (theirs.size() == mine.size()) return 0;
    char16_t separator = path_separator();
    return mine.empty() || mine.back() == separator || theirs[mine.size()] == separator ? 1 : 2;
}

template <typename Directory>
int DirReferenceBase<Directory>::compare(const file_identifier& a, const file_identifier& b) {
    int answer = 0;
    guarded([&] { answer = driver_->compare_identifiers(a, b); });
    return answer;
}

template <typename Directory>
void DirReferenceBase<Directory>::space(std::uint64_t& total, std::uint64_t& free, std::uint64_t& available) {
    total = free = available = 0;
    guarded([&] { driver_->space(total, free, available); });
}

template <typename Directory>
void DirReferenceBase<Directory>::label(char16_t* buffer, std::uint32_t capacity) {
    if (!at_root()) {
        i_dir::label(buffer, capacity);
        return;
    }
    if (capacity == 0) return;
    guarded([&] { driver_->label(buffer, capacity); });
}

template <typename Directory>
void DirReferenceBase<Directory>::control(void* block) {
    guarded([&] {
        unsigned char* bytes = static_cast<unsigned char*>(block);
        std::uint32_t word = RequestField<std::uint32_t>(bytes, 0);
        switch (word) {
        case kRequestNoCache: {
            nocache_dir* part = this;
            std::memcpy(bytes + 8, &part, sizeof(part));
            return;
        }
        case kRequestSecurity: set_security(bytes); return;
        case kRequestBackup: backup(bytes); return;
        case kRequestRestore: restore(bytes); return;
        default:
            if (!flavour_control(word, bytes)) driver_->control(block);
        }
    });
}

// "SRSQ": offset 8 a path, 16 the data, 24 its u32 size.
template <typename Directory>
void DirReferenceBase<Directory>::set_security(unsigned char* block) {
    std::u16string leaf;
    const char16_t* path = RequestField<const char16_t*>(block, 8);
    FileSystemDriver::DirectoryObject* parent = parent_of(path, Common::Failures::FILE_OPEN, leaf);
    parent->set_security(leaf, RequestField<const void*>(block, 16), RequestField<std::uint32_t>(block, 24));
}

template <typename Directory>
void DirReferenceBase<Directory>::backup(unsigned char* block) {
    BackupRequest request;
    std::memcpy(&request, block, sizeof(request));
    if (!driver_->supports_backup()) Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
    FileSystemDriver::DirectoryObject* directory = this_directory();
    FileSystemDriver::IteratorObject* entry = request.entry == nullptr ? nullptr : &EntryOf(*request.entry);
    std::unique_ptr<FileSystemDriver::FileReference> file;
    std::unique_ptr<FileSystemDriver::BackupObject> source;
    if (entry == nullptr) {
        source.reset(directory->new_backup_object(nullptr, request.record.option));
    } else if (entry->kind() == KIND_FILE) {
        // The file stays open for reading while its data is copied out.
        file.reset(open_reference(directory->open_file(*entry), false, false));
        source.reset(file->file()->new_backup_object(request.record.option));
    } else if (entry->kind() == KIND_DIRECTORY) {
        // A directory is backed up as itself, as when the request is made on it.
        FileSystemDriver::DirectoryObject* own = driver_->get_object(directory->lookup_directory(entry->name()));
        source.reset(own->new_backup_object(nullptr, request.record.option));
    } else {
        // Links, devices, FIFOs and sockets can't be opened as files: the
        // directory that lists them makes their backup from the entry.
        source.reset(directory->new_backup_object(entry, request.record.option));
    }
    if (source == nullptr) Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
    DriveBackup(*driver_, *source, request.record);
}

template <typename Directory>
void DirReferenceBase<Directory>::restore(unsigned char* block) {
    BackupRequest request;
    std::memcpy(&request, block, sizeof(request));
    if (!driver_->supports_restore()) Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
    std::u16string parent_path, leaf;
    if (!split(compose(request.path, Common::Failures::FILE_OPEN), parent_path, leaf)) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_OPEN);
    }
    std::u16string parent_form = driver_form(parent_path);
    FileSystemDriver::DirectoryObject* parent;
    try {
        parent = driver_->get_directory(parent_form);
    } catch (const Common::Error& error) {
        // The restored entry goes into a directory that must exist.
        if (error.Code() != Common::FILE_OPEN) throw;
        Common::Raise(ERROR_TAG, Common::Failures::FILE_NOT_FOUND, error);
    }
    DriveRestore(*driver_, *parent, leaf, request.record);
}

template <typename Directory>
rio_file* DirReferenceBase<Directory>::create_file(const char16_t* path) {
    FileSystemDriver::FileReference* answer = nullptr;
    guarded([&] {
        std::u16string leaf;
        FileSystemDriver::DirectoryObject* parent = parent_of(path, Common::Failures::FILE_CREATE, leaf);
        answer = open_reference(parent->create_file(leaf), true, false);
    });
    return answer;
}

template <typename Directory>
void DirReferenceBase<Directory>::remove_file(const char16_t* path) {
    guarded([&] {
        std::u16string leaf;
        parent_of(path, Common::Failures::FILE_DELETE, leaf)->remove_file(leaf);
    });
}

template <typename Directory>
void DirReferenceBase<Directory>::rename(const char16_t* from, const char16_t* to) {
    guarded([&] {
        std::u16string source = driver_form(compose(from, Common::Failures::FILE_RENAME));
        std::u16string target = driver_form(compose(to, Common::Failures::FILE_RENAME));
        driver_->rename(source, target);
    });
}

template <typename Directory>
void DirReferenceBase<Directory>::link(const char16_t* existing, const char16_t* created) {
    guarded([&] {
        std::u16string source = driver_form(compose(existing, Common::Failures::FILE_CREATE));
        std::u16string target = driver_form(compose(created, Common::Failures::FILE_CREATE));
        driver_->link(source, target);
    });
}

template <typename Directory>
void DirReferenceBase<Directory>::symlink(const char16_t* path, const char16_t* target) {
    guarded([&] {
        std::u16string entry = driver_form(compose(path, Common::Failures::FILE_CREATE));
        driver_->symlink(entry, target == nullptr ? std::u16string() : std::u16string(target));
    });
}

template <typename Directory>
void DirReferenceBase<Directory>::make_dir(const char16_t* path) {
    guarded([&] {
        std::u16string leaf;
        parent_of(path, Common::Failures::FILE_CREATE, leaf)->make_directory(leaf);
    });
}

template <typename Directory>
void DirReferenceBase<Directory>::remove_dir(const char16_t* path) {
    guarded([&] { driver_->remove_dir(driver_form(compose(path, Common::Failures::FILE_DELETE))); });
}

template <typename Directory>
rio_file* DirReferenceBase<Directory>::create_nocache(const char16_t* name) {
    if (name == nullptr || !name_allowed(name)) {
        this->unsupported();
        return nullptr;
    }
    return create_file(name);
}

template <typename Directory>
std::uint32_t DirReferenceBase<Directory>::block_size() {
    return driver_->sector_size;
}

// The two flavours' directory classes.
template class DirReferenceBase<rio_dir>;
template class DirReferenceBase<windows_dir>;
