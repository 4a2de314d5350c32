#pragma once
// The drive-letter flavour of the driver framework: the volume is drive
// "C:", paths use backslashes and refuse what that world refuses. A
// directory reference holds no directory, only its composed path; each
// operation goes back to the driver's get_directory.
#include <cstdint>
#include <string>

#include "files/windows_dir.h"
#include "fsdriver/dir_reference_base.h"
#include "fsdriver/file_system_driver.h"

class FileSystemDriverWindows : public FileSystemDriver {
public:
    class DirReference;
    class RootSelfIterator;

    rio_dir* open_root() override;
    // Composes `path` on "C:\"; none when it is refused. Touches no disk.
    rio_dir* open_path(const char16_t* path) override;

protected:
    using FileSystemDriver::FileSystemDriver;
};

class FileSystemDriverWindows::DirReference : public DirReferenceBase<windows_dir> {
public:
    // Counts itself on the driver. `path` is composed: "C:\" or C:\a\b\.
    DirReference(FileSystemDriverWindows* driver, const std::u16string& path);

    std::u16string path() override { return path_; }
    void set_attributes(const char16_t* path, std::uint32_t value) override;

protected:
    std::u16string compose(const char16_t* path, const Common::Failure& failure) const override;
    std::u16string compose_directory(const char16_t* path) const override;
    bool split(const std::u16string& composed, std::u16string& parent, std::u16string& leaf) const override;
    std::u16string driver_form(const std::u16string& composed) const override;
    bool name_allowed(const char16_t* name) const override;
    bool ends_parent(char16_t c) const override { return c == u'/' || c == u'\\' || c == u':'; }
    bool at_root() const override { return path_.size() <= 3; }
    i_dir::iterator* new_root_self() const override;
    DirReference* new_reference(const std::u16string& composed) override;
    // Folded names compare equal.
    std::u16string relation_form(const std::u16string& composed) const override;
    char16_t path_separator() const override { return u'\\'; }
    // "SSFN" and "MKFF".
    bool flavour_control(std::uint32_t word, unsigned char* block) override;
};

// The entry of the root directory, which no parent lists.
class FileSystemDriverWindows::RootSelfIterator : public i_dir::iterator {
public:
    bool next() override;
    file_identifier* identifier() override;
    std::u16string name() override { return u"C:"; }
    std::uint64_t size() override { return 0; }
    std::uint32_t kind() override { return KIND_ROOT_SELF; }
};
