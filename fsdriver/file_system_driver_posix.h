#pragma once
// The single-tree flavour of the driver framework: one tree under "/",
// where "/" is the only separator and the only reserved character. A
// directory reference holds no directory, only its path ("/" or /a/b);
// each operation goes back to the driver's get_directory.
#include <cstdint>
#include <string>

#include "files/dir_object.h"
#include "fsdriver/dir_reference_base.h"
#include "fsdriver/file_system_driver.h"

class FileSystemDriverPosix : public FileSystemDriver {
public:
    class DirReference;
    class RootSelfIterator;

    rio_dir* open_root() override;
    // A reference with the given text, unchecked. Touches no disk.
    rio_dir* open_path(const char16_t* path) override;

protected:
    using FileSystemDriver::FileSystemDriver;
};

class FileSystemDriverPosix::DirReference : public DirReferenceBase<rio_dir> {
public:
    // Counts itself on the driver. `path` is "/" or /a/b, no "/" at the end.
    DirReference(FileSystemDriverPosix* driver, const std::u16string& path);

    // The path with "/" behind it; "/" for the root.
    std::u16string path() override;
    bool is_separator(char16_t character) override { return character == u'/'; }
    char16_t separator() override { return u'/'; }
    void set_permissions(const char16_t* path, std::uint32_t value) override;
    void set_owner(const char16_t* path, std::uint32_t owner, std::uint32_t group) override;
    void make_node(const char16_t* path, std::uint32_t kind, std::uint32_t permissions, std::uint32_t major,
                   std::uint32_t minor) override;

protected:
    std::u16string compose(const char16_t* path, const Common::Failure& failure) const override;
    std::u16string compose_directory(const char16_t* path) const override;
    bool split(const std::u16string& composed, std::u16string& parent, std::u16string& leaf) const override;
    std::u16string driver_form(const std::u16string& composed) const override { return composed; }
    bool name_allowed(const char16_t* name) const override;
    bool ends_parent(char16_t c) const override { return c == u'/'; }
    bool at_root() const override { return path_ == u"/"; }
    i_dir::iterator* new_root_self() const override;
    DirReference* new_reference(const std::u16string& composed) override;
    char16_t path_separator() const override { return u'/'; }
    // "STME".
    bool flavour_control(std::uint32_t word, unsigned char* block) override;

private:
    std::u16string display_path_;  // made when first asked
};

// The entry of the root directory, which no parent lists.
class FileSystemDriverPosix::RootSelfIterator : public i_dir::iterator {
public:
    bool next() override;
    file_identifier* identifier() override;
    std::u16string name() override { return u"/"; }
    std::uint64_t size() override { return 0; }
    std::uint32_t kind() override { return KIND_ROOT_SELF; }
};
