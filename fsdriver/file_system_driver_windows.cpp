#include "fsdriver/file_system_driver_windows.h"

#include <cstring>
#include <memory>

#include "fsdriver/directory_object.h"
#include "fsdriver/driver_error.h"
#include "fsdriver/file_object.h"
#include "fsdriver/file_reference.h"
#include "fsdriver/iterator_object.h"
#include "fsdriver/iterator_reference.h"
#include "fsdriver/reference_guard.h"
#include "fsdriver/windows_path.h"

namespace {

constexpr std::uint32_t kRequestNoCache = 0x5244434E;  // "NCDR"
const char16_t* const kRoot = u"C:\\";

[[noreturn]] void Raise(std::uint64_t tag, std::uint32_t code) {
    const char16_t* text = Common::Messages::FILE_OPEN;
    switch (code) {
    case Common::FILE_CREATE: text = Common::Messages::FILE_CREATE; break;
    case Common::FILE_DELETE: text = Common::Messages::FILE_DELETE; break;
    case Common::FILE_RENAME: text = Common::Messages::FILE_RENAME; break;
    default: break;
    }
    RaiseDriverError(tag, code, text);
}

// A composed path, without its trailing backslash, split behind its last one.
bool SplitComposed(const std::u16string& composed, std::u16string& parent, std::u16string& leaf) {
    if (composed.size() < 2) return false;
    std::u16string trimmed = composed.substr(0, composed.size() - 1);
    std::size_t slash = trimmed.rfind(u'\\');
    if (slash == std::u16string::npos || slash + 1 == trimmed.size()) return false;
    parent = trimmed.substr(0, slash + 1);
    leaf = trimmed.substr(slash + 1);
    return true;
}

// The driver form of a composed path; only drive C is this volume.
std::u16string DriverForm(const std::u16string& composed) {
    if (composed.empty() || composed[0] != u'C') Raise(ERROR_TAG, Common::FILE_OPEN);
    return WindowsPathToDriverForm(composed);
}

}  // namespace

rio_dir* FileSystemDriverWindows::open_root() { return new DirReference(this, kRoot); }

rio_dir* FileSystemDriverWindows::open_path(const char16_t* path) {
    std::u16string composed;
    if (path == nullptr || !ComposeWindowsPath(kRoot, path, composed)) return nullptr;
    if (composed.empty()) composed = kRoot;
    return new DirReference(this, composed);
}

FileSystemDriverWindows::DirReference::DirReference(FileSystemDriverWindows* driver, const std::u16string& path)
    : driver_(driver), path_(path) {
    ++driver_->references;
}

FileSystemDriverWindows::DirReference::~DirReference() { ::release(driver_); }

template <typename Operation>
void FileSystemDriverWindows::DirReference::guarded(Operation&& operation) {
    // Success clears a stale error: the caller looks right after the call.
    if (!GuardedCall(*this, driver_->file_lock, operation)) set_error(Common::Error());
}

std::u16string FileSystemDriverWindows::DirReference::compose(const char16_t* path, std::uint32_t code) const {
    std::u16string composed;
    if (path == nullptr || !ComposeWindowsPath(path_, path, composed) || composed.empty()) Raise(ERROR_TAG, code);
    return composed;
}

FileSystemDriver::DirectoryObject* FileSystemDriverWindows::DirReference::parent_of(const char16_t* path,
                                                                                   std::uint32_t code,
                                                                                   std::u16string& leaf) {
    std::u16string parent;
    if (!SplitComposed(compose(path, code), parent, leaf)) Raise(ERROR_TAG, code);
    return driver_->get_directory(DriverForm(parent));
}

FileSystemDriver::DirectoryObject* FileSystemDriverWindows::DirReference::this_directory() {
    return driver_->get_directory(DriverForm(path_));
}

FileSystemDriver::FileReference* FileSystemDriverWindows::DirReference::open_reference(FileObject* object,
                                                                                       bool for_write,
                                                                                       bool shared) {
    try {
        return new FileReference(driver_, object, for_write, shared);
    } catch (...) {
        // A file object that nobody opened after all goes again.
        if (object->references == 0) delete object;
        throw;
    }
}

FileSystemDriver::FileReference* FileSystemDriverWindows::DirReference::open_by_path(const char16_t* path,
                                                                                     bool for_write, bool shared) {
    FileReference* answer = nullptr;
    guarded([&] {
        std::u16string leaf;
        DirectoryObject* parent = parent_of(path, Common::FILE_OPEN, leaf);
        answer = open_reference(parent->open_file(leaf), for_write, shared);
    });
    return answer;
}

FileSystemDriver::FileReference* FileSystemDriverWindows::DirReference::open_by_entry(iterator& entry, bool for_write,
                                                                                      bool shared) {
    FileReference* answer = nullptr;
    guarded([&] {
        auto* reference = dynamic_cast<IteratorReference*>(&entry);
        if (reference == nullptr || reference->entry() == nullptr) Raise(ERROR_TAG, Common::FILE_OPEN);
        answer = open_reference(this_directory()->open_file(*reference->entry()), for_write, shared);
    });
    return answer;
}

FileSystemDriver::FileReference* FileSystemDriverWindows::DirReference::open_by_identifier(
    const file_identifier& entry, bool for_write, bool shared) {
    FileReference* answer = nullptr;
    guarded([&] { answer = open_reference(this_directory()->open_file(entry), for_write, shared); });
    return answer;
}

ri_file* FileSystemDriverWindows::DirReference::open_file(const char16_t* path, bool shared) {
    return open_by_path(path, false, shared);
}
ri_file* FileSystemDriverWindows::DirReference::open_file(iterator& entry, bool shared) {
    return open_by_entry(entry, false, shared);
}
ri_file* FileSystemDriverWindows::DirReference::open_file(const file_identifier& entry, bool shared) {
    return open_by_identifier(entry, false, shared);
}
ro_file* FileSystemDriverWindows::DirReference::open_for_write(const char16_t* path, bool shared) {
    return open_by_path(path, true, shared);
}
ro_file* FileSystemDriverWindows::DirReference::open_for_write(iterator& entry, bool shared) {
    return open_by_entry(entry, true, shared);
}
ro_file* FileSystemDriverWindows::DirReference::open_for_write(const file_identifier& entry, bool shared) {
    return open_by_identifier(entry, true, shared);
}
rio_file* FileSystemDriverWindows::DirReference::open_for_update(const char16_t* path, bool shared) {
    return open_by_path(path, true, shared);
}
rio_file* FileSystemDriverWindows::DirReference::open_for_update(iterator& entry, bool shared) {
    return open_by_entry(entry, true, shared);
}
rio_file* FileSystemDriverWindows::DirReference::open_for_update(const file_identifier& entry, bool shared) {
    return open_by_identifier(entry, true, shared);
}

FileSystemDriverWindows::DirReference* FileSystemDriverWindows::DirReference::open_dir(const char16_t* path) {
    DirReference* answer = nullptr;
    guarded([&] {
        std::u16string composed;
        if (path == nullptr || !ComposeWindowsPath(path_, path, composed)) Raise(ERROR_TAG, Common::FILE_OPEN);
        if (composed.empty()) composed = kRoot;
        if (composed[0] != u'C') Raise(ERROR_TAG, Common::FILE_OPEN);
        answer = new DirReference(driver_, composed);
    });
    return answer;
}

FileSystemDriverWindows::DirReference* FileSystemDriverWindows::DirReference::open_dir(iterator& entry) {
    std::u16string name = entry.name();
    return open_dir(name.c_str());
}

FileSystemDriverWindows::DirReference* FileSystemDriverWindows::DirReference::open_dir(const file_identifier& entry) {
    auto* identifier = dynamic_cast<const the_identifier*>(&entry);
    if (identifier == nullptr) {
        guarded([] { Raise(ERROR_TAG, Common::FILE_OPEN); });
        return nullptr;
    }
    return open_dir(identifier->name());
}

FileSystemDriverWindows::DirReference* FileSystemDriverWindows::DirReference::open_parent(const char16_t*& path) {
    const char16_t* behind = nullptr;
    if (path != nullptr) {
        for (const char16_t* p = path; *p != 0; ++p) {
            if (*p == u'/' || *p == u'\\' || *p == u':') behind = p + 1;
        }
    }
    if (behind == nullptr) return open_dir(u".");
    std::u16string parent(path, behind);
    DirReference* answer = open_dir(parent.c_str());
    if (answer != nullptr) path = behind;
    return answer;
}

i_dir::iterator* FileSystemDriverWindows::DirReference::begin() {
    IteratorObject* first = nullptr;
    guarded([&] { first = this_directory()->begin(); });
    if (failed()) return nullptr;
    return new IteratorReference(driver_, first);
}

i_dir::iterator* FileSystemDriverWindows::DirReference::find(const char16_t* name) {
    IteratorObject* found = nullptr;
    guarded([&] {
        if (name == nullptr || !WindowsNameAllowed(path_, name)) Raise(ERROR_TAG, Common::FILE_OPEN);
        found = this_directory()->find(std::u16string(name));
    });
    if (failed()) return nullptr;
    return new IteratorReference(driver_, found);
}

i_dir::iterator* FileSystemDriverWindows::DirReference::find(const file_identifier& entry) {
    IteratorObject* found = nullptr;
    guarded([&] { found = this_directory()->find(entry); });
    if (failed()) return nullptr;
    return new IteratorReference(driver_, found);
}

i_dir::iterator* FileSystemDriverWindows::DirReference::self() {
    if (path_.size() <= 3) {
        set_error(Common::Error());
        return new RootSelfIterator;
    }
    IteratorObject* found = nullptr;
    guarded([&] {
        std::u16string parent, leaf;
        if (!SplitComposed(path_, parent, leaf)) Raise(ERROR_TAG, Common::FILE_OPEN);
        found = driver_->get_directory(DriverForm(parent))->find(leaf);
    });
    if (failed()) return nullptr;
    return new IteratorReference(driver_, found);
}

std::uint32_t FileSystemDriverWindows::DirReference::relation(i_dir& other) {
    auto* reference = dynamic_cast<DirReference*>(&other);
    if (reference == nullptr || reference->driver_ != driver_) return 2;
    if (reference == this) return 0;
    std::u16string mine = path_, theirs = reference->path_;
    driver_->normalize_path(mine);
    driver_->normalize_path(theirs);
    if (theirs.compare(0, mine.size(), mine) != 0) return 2;
    if (theirs.size() == mine.size()) return 0;
    // Composed paths end in a backslash, so a prefix always ends at one.
    return mine.empty() || mine.back() == u'\\' || theirs[mine.size()] == u'\\' ? 1 : 2;
}

int FileSystemDriverWindows::DirReference::compare(const file_identifier& a, const file_identifier& b) {
    int answer = 0;
    guarded([&] { answer = driver_->compare_identifiers(a, b); });
    return answer;
}

void FileSystemDriverWindows::DirReference::space(std::uint64_t& total, std::uint64_t& free, std::uint64_t& available) {
    total = free = available = 0;
    guarded([&] { driver_->space(total, free, available); });
}

void FileSystemDriverWindows::DirReference::label(char16_t* buffer, std::uint32_t capacity) {
    if (path_.size() > 3) {
        i_dir::label(buffer, capacity);
        return;
    }
    if (capacity == 0) return;
    guarded([&] { driver_->label(buffer, capacity); });
}

void FileSystemDriverWindows::DirReference::control(void* block) {
    guarded([&] {
        unsigned char* bytes = static_cast<unsigned char*>(block);
        std::uint32_t word;
        std::memcpy(&word, bytes, sizeof(word));
        if (word == kRequestNoCache) {
            nocache_dir* part = this;
            std::memcpy(bytes + 8, &part, sizeof(part));
            return;
        }
        driver_->control(block);
    });
}

rio_file* FileSystemDriverWindows::DirReference::create_file(const char16_t* path) {
    FileReference* answer = nullptr;
    guarded([&] {
        std::u16string leaf;
        DirectoryObject* parent = parent_of(path, Common::FILE_CREATE, leaf);
        answer = open_reference(parent->create_file(leaf), true, false);
    });
    return answer;
}

void FileSystemDriverWindows::DirReference::remove_file(const char16_t* path) {
    guarded([&] {
        std::u16string leaf;
        parent_of(path, Common::FILE_DELETE, leaf)->remove_file(leaf);
    });
}

void FileSystemDriverWindows::DirReference::rename(const char16_t* from, const char16_t* to) {
    guarded([&] {
        std::u16string source = DriverForm(compose(from, Common::FILE_RENAME));
        std::u16string target = DriverForm(compose(to, Common::FILE_RENAME));
        driver_->rename(source, target);
    });
}

void FileSystemDriverWindows::DirReference::link(const char16_t* existing, const char16_t* created) {
    guarded([&] {
        std::u16string source = DriverForm(compose(existing, Common::FILE_CREATE));
        std::u16string target = DriverForm(compose(created, Common::FILE_CREATE));
        driver_->link(source, target);
    });
}

void FileSystemDriverWindows::DirReference::symlink(const char16_t* path, const char16_t* target) {
    guarded([&] {
        std::u16string entry = DriverForm(compose(path, Common::FILE_CREATE));
        driver_->symlink(entry, target == nullptr ? std::u16string() : std::u16string(target));
    });
}

void FileSystemDriverWindows::DirReference::make_dir(const char16_t* path) {
    guarded([&] {
        std::u16string leaf;
        parent_of(path, Common::FILE_CREATE, leaf)->make_directory(leaf);
    });
}

void FileSystemDriverWindows::DirReference::remove_dir(const char16_t* path) {
    guarded([&] { driver_->remove_dir(DriverForm(compose(path, Common::FILE_DELETE))); });
}

void FileSystemDriverWindows::DirReference::set_attributes(const char16_t* path, std::uint32_t value) {
    guarded([&] {
        std::u16string leaf;
        parent_of(path, Common::FILE_OPEN, leaf)->set_attributes(leaf, value);
    });
}

rio_file* FileSystemDriverWindows::DirReference::create_nocache(const char16_t* name) {
    if (name == nullptr || !WindowsNameAllowed(path_, name)) {
        unsupported();
        return nullptr;
    }
    return create_file(name);
}

std::uint32_t FileSystemDriverWindows::DirReference::block_size() { return driver_->sector_size; }

bool FileSystemDriverWindows::RootSelfIterator::next() {
    unsupported();
    return false;
}

file_identifier* FileSystemDriverWindows::RootSelfIterator::identifier() {
    return new the_identifier(nullptr, nullptr, 0);
}
