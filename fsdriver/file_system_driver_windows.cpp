#include "fsdriver/file_system_driver_windows.h"

#include <cstring>

#include "fsdriver/directory_object.h"
#include "loader/common/raise.h"
#include "fsdriver/windows_path.h"

namespace {

constexpr std::uint32_t kRequestShortName = 0x4E465353;  // "SSFN"
constexpr std::uint32_t kRequestMakeFF = 0x46464B4D;     // "MKFF"
const char16_t* const kRoot = u"C:\\";

}  // namespace

rio_dir* FileSystemDriverWindows::open_root() { return new DirReference(this, kRoot); }

rio_dir* FileSystemDriverWindows::open_path(const char16_t* path) {
    std::u16string composed;
    if (path == nullptr || !ComposeWindowsPath(kRoot, path, composed)) return nullptr;
    if (composed.empty()) composed = kRoot;
    return new DirReference(this, composed);
}

FileSystemDriverWindows::DirReference::DirReference(FileSystemDriverWindows* driver, const std::u16string& path)
    : DirReferenceBase(driver, path) {}

std::u16string FileSystemDriverWindows::DirReference::compose(const char16_t* path, const Common::Failure& failure) const {
    std::u16string composed;
    if (path == nullptr || !ComposeWindowsPath(path_, path, composed) || composed.empty()) {
        Common::Raise(ERROR_TAG, failure);
    }
    return composed;
}

std::u16string FileSystemDriverWindows::DirReference::compose_directory(const char16_t* path) const {
    std::u16string composed;
    if (path == nullptr || !ComposeWindowsPath(path_, path, composed)) Common::Raise(ERROR_TAG, Common::Failures::FILE_OPEN);
    // ".." above the root stays there; another drive is no part of this volume.
    if (composed.empty()) composed = kRoot;
    if (composed[0] != u'C') Common::Raise(ERROR_TAG, Common::Failures::FILE_OPEN);
    return composed;
}

bool FileSystemDriverWindows::DirReference::split(const std::u16string& composed, std::u16string& parent,
                                                  std::u16string& leaf) const {
    if (composed.size() < 2) return false;
    std::u16string trimmed = composed.substr(0, composed.size() - 1);
    std::size_t slash = trimmed.rfind(u'\\');
    if (slash == std::u16string::npos || slash + 1 == trimmed.size()) return false;
    parent = trimmed.substr(0, slash + 1);
    leaf = trimmed.substr(slash + 1);
    return true;
}

std::u16string FileSystemDriverWindows::DirReference::driver_form(const std::u16string& composed) const {
    // Only drive C is this volume.
    if (composed.empty() || composed[0] != u'C') Common::Raise(ERROR_TAG, Common::Failures::FILE_OPEN);
    return WindowsPathToDriverForm(composed);
}

bool FileSystemDriverWindows::DirReference::name_allowed(const char16_t* name) const {
    return WindowsNameAllowed(path_, name);
}

i_dir::iterator* FileSystemDriverWindows::DirReference::new_root_self() const { return new RootSelfIterator; }

FileSystemDriverWindows::DirReference* FileSystemDriverWindows::DirReference::new_reference(
    const std::u16string& composed) {
    return new DirReference(static_cast<FileSystemDriverWindows*>(driver_), composed);
}

std::u16string FileSystemDriverWindows::DirReference::relation_form(const std::u16string& composed) const {
    std::u16string form = composed;
    driver_->normalize_path(form);
    return form;
}

void FileSystemDriverWindows::DirReference::set_attributes(const char16_t* path, std::uint32_t value) {
    guarded([&] {
        std::u16string leaf;
        parent_of(path, Common::Failures::FILE_OPEN, leaf)->set_attributes(leaf, value);
    });
}

bool FileSystemDriverWindows::DirReference::flavour_control(std::uint32_t word, unsigned char* block) {
    if (word == kRequestShortName) {
        // Offset 8: the entry's name; offset 16: its new short name.
        const char16_t* name = RequestField<const char16_t*>(block, 8);
        const char16_t* short_name = RequestField<const char16_t*>(block, 16);
        if (name == nullptr || short_name == nullptr || !name_allowed(name) || !name_allowed(short_name)) {
            Common::Raise(ERROR_TAG, Common::Failures::FILE_RENAME);
        }
        this_directory()->set_short_name(name, short_name);
        // Cached paths may have been reached through the old short name.
        driver_->path_cache.clear();
        return true;
    }
    if (word == kRequestMakeFF && !at_root()) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
    }
    // "MKFF" at the root, like any other word, is the driver's.
    return false;
}

bool FileSystemDriverWindows::RootSelfIterator::next() {
    unsupported();
    return false;
}

file_identifier* FileSystemDriverWindows::RootSelfIterator::identifier() {
    return new the_identifier(nullptr, nullptr, 0);
}
