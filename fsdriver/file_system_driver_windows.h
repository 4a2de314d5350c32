#pragma once
// The drive-letter flavour of the driver framework: the volume is drive
// "C:", paths use backslashes and refuse what that world refuses. A
// directory reference holds no directory, only its composed path; each
// operation goes back to the driver's get_directory.
#include <cstdint>
#include <string>

#include "files/windows_dir.h"
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

class FileSystemDriverWindows::DirReference : public windows_dir, public nocache_dir {
public:
    // Counts itself on the driver. `path` is composed: "C:\" or C:\a\b\.
    DirReference(FileSystemDriverWindows* driver, const std::u16string& path);
    ~DirReference() override;
    DirReference(const DirReference&) = delete;
    DirReference& operator=(const DirReference&) = delete;

    ri_file* open_file(const char16_t* path, bool shared) override;
    ri_file* open_file(iterator& entry, bool shared) override;
    ri_file* open_file(const file_identifier& entry, bool shared) override;
    DirReference* open_dir(const char16_t* path) override;
    DirReference* open_dir(iterator& entry) override;
    DirReference* open_dir(const file_identifier& entry) override;
    DirReference* open_parent(const char16_t*& path) override;
    iterator* begin() override;
    iterator* find(const char16_t* name) override;
    iterator* find(const file_identifier& entry) override;
    iterator* self() override;
    std::u16string path() override { return path_; }
    std::uint32_t relation(i_dir& other) override;
    int compare(const file_identifier& a, const file_identifier& b) override;
    void space(std::uint64_t& total, std::uint64_t& free, std::uint64_t& available) override;
    void label(char16_t* buffer, std::uint32_t capacity) override;
    void control(void* block) override;

    ro_file* open_for_write(const char16_t* path, bool shared) override;
    ro_file* open_for_write(iterator& entry, bool shared) override;
    ro_file* open_for_write(const file_identifier& entry, bool shared) override;
    rio_file* open_for_update(const char16_t* path, bool shared) override;
    rio_file* open_for_update(iterator& entry, bool shared) override;
    rio_file* open_for_update(const file_identifier& entry, bool shared) override;
    rio_file* create_file(const char16_t* path) override;
    void remove_file(const char16_t* path) override;
    void rename(const char16_t* from, const char16_t* to) override;
    void link(const char16_t* existing, const char16_t* created) override;
    void symlink(const char16_t* path, const char16_t* target) override;
    void make_dir(const char16_t* path) override;
    void remove_dir(const char16_t* path) override;
    void set_attributes(const char16_t* path, std::uint32_t value) override;

    rio_file* create_nocache(const char16_t* name) override;
    std::uint32_t block_size() override;

private:
    // The composed path of `path` on this directory; raises `code` when refused.
    std::u16string compose(const char16_t* path, std::uint32_t code) const;
    // The parent's directory object and the leaf of `path`; raises `code` when refused.
    DirectoryObject* parent_of(const char16_t* path, std::uint32_t code, std::u16string& leaf);
    DirectoryObject* this_directory();
    FileReference* open_reference(FileObject* object, bool for_write, bool shared);
    FileReference* open_by_path(const char16_t* path, bool for_write, bool shared);
    FileReference* open_by_entry(iterator& entry, bool for_write, bool shared);
    FileReference* open_by_identifier(const file_identifier& entry, bool for_write, bool shared);
    template <typename Operation>
    void guarded(Operation&& operation);

    FileSystemDriverWindows* driver_;
    std::u16string path_;
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
