#include "fsdriver/file_system_driver_posix.h"

#include <cstring>

#include "fsdriver/directory_object.h"
#include "loader/common/raise.h"
#include "fsdriver/posix_path.h"

namespace {

constexpr std::uint32_t kRequestSetTimes = 0x454D5453;  // "STME"
const char16_t* const kRoot = u"/";

}  // namespace

rio_dir* FileSystemDriverPosix::open_root() { return new DirReference(this, kRoot); }

rio_dir* FileSystemDriverPosix::open_path(const char16_t* path) {
    if (path == nullptr) return nullptr;
    return new DirReference(this, path);
}

FileSystemDriverPosix::DirReference::DirReference(FileSystemDriverPosix* driver, const std::u16string& path)
    : DirReferenceBase(driver, path) {}

std::u16string FileSystemDriverPosix::DirReference::path() {
    if (display_path_.empty()) display_path_ = path_ == kRoot ? path_ : path_ + u'/';
    return display_path_;
}

std::u16string FileSystemDriverPosix::DirReference::compose(const char16_t* path, const Common::Failure& failure) const {
    if (path == nullptr || *path == 0) Common::Raise(ERROR_TAG, failure);
    return ComposePosixPath(path_, path);
}

std::u16string FileSystemDriverPosix::DirReference::compose_directory(const char16_t* path) const {
    return compose(path, Common::Failures::FILE_OPEN);
}

bool FileSystemDriverPosix::DirReference::split(const std::u16string& composed, std::u16string& parent,
                                                std::u16string& leaf) const {
    std::size_t slash = composed.rfind(u'/');
    if (slash == std::u16string::npos || slash + 1 == composed.size()) return false;
    parent = slash == 0 ? std::u16string(kRoot) : composed.substr(0, slash);
    leaf = composed.substr(slash + 1);
    return true;
}

bool FileSystemDriverPosix::DirReference::name_allowed(const char16_t* name) const { return PosixNameAllowed(name); }

i_dir::iterator* FileSystemDriverPosix::DirReference::new_root_self() const { return new RootSelfIterator; }

FileSystemDriverPosix::DirReference* FileSystemDriverPosix::DirReference::new_reference(
    const std::u16string& composed) {
    return new DirReference(static_cast<FileSystemDriverPosix*>(driver_), composed);
}

void FileSystemDriverPosix::DirReference::set_permissions(const char16_t* path, std::uint32_t value) {
    guarded([&] {
        std::u16string leaf;
        parent_of(path, Common::Failures::FILE_OPEN, leaf)->set_permissions(leaf, value);
    });
}

void FileSystemDriverPosix::DirReference::set_owner(const char16_t* path, std::uint32_t owner, std::uint32_t group) {
    guarded([&] {
        std::u16string leaf;
        parent_of(path, Common::Failures::FILE_OPEN, leaf)->set_owner(leaf, owner, group);
    });
}

void FileSystemDriverPosix::DirReference::make_node(const char16_t* path, std::uint32_t kind,
                                                    std::uint32_t permissions, std::uint32_t major,
                                                    std::uint32_t minor) {
    guarded([&] {
        std::u16string leaf;
        parent_of(path, Common::Failures::FILE_OPEN, leaf)->make_node(leaf, kind, permissions, major, minor);
    });
}

bool FileSystemDriverPosix::DirReference::flavour_control(std::uint32_t word, unsigned char* block) {
    if (word != kRequestSetTimes) return false;
    // Offset 8: a path; offsets 16, 24, 32: modified, created, accessed.
    std::u16string leaf;
    const char16_t* path = RequestField<const char16_t*>(block, 8);
    FileSystemDriver::DirectoryObject* parent = parent_of(path, Common::Failures::FILE_OPEN, leaf);
    parent->set_times(leaf, RequestField<std::uint64_t>(block, 16), RequestField<std::uint64_t>(block, 24),
                      RequestField<std::uint64_t>(block, 32));
    return true;
}

bool FileSystemDriverPosix::RootSelfIterator::next() {
    unsupported();
    return false;
}

file_identifier* FileSystemDriverPosix::RootSelfIterator::identifier() {
    return new the_identifier(nullptr, nullptr, 0);
}
