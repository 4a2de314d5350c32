#pragma once
// What the directory references of both path flavours share. A reference
// holds no directory: only its driver (counted), its path in the flavour's
// composed form and the stored error; each operation goes back to the
// driver's get_directory, with file_lock held and raised errors stored.
// The flavour says how a path composes, splits and turns into the driver's
// "/" form, which names it accepts, and which request words it knows
// beyond the common ones.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "files/dir_object.h"
#include "fsdriver/file_system_driver.h"
#include "fsdriver/reference_guard.h"
#include "loader/common/raise.h"

// A field of a request block, which has no alignment of its own.
template <typename T>
T RequestField(const unsigned char* block, std::size_t offset) {
    T value;
    std::memcpy(&value, block + offset, sizeof(value));
    return value;
}


// `Directory` is the directory class of the flavour: rio_dir or windows_dir.
template <typename Directory>
class DirReferenceBase : public Directory, public nocache_dir {
public:
    ~DirReferenceBase() override;
    DirReferenceBase(const DirReferenceBase&) = delete;
    DirReferenceBase& operator=(const DirReferenceBase&) = delete;

    ri_file* open_file(const char16_t* path, bool shared) override;
    ri_file* open_file(i_dir::iterator& entry, bool shared) override;
    ri_file* open_file(const file_identifier& entry, bool shared) override;
    DirReferenceBase* open_dir(const char16_t* path) override;
    DirReferenceBase* open_dir(i_dir::iterator& entry) override;
    DirReferenceBase* open_dir(const file_identifier& entry) override;
    DirReferenceBase* open_parent(const char16_t*& path) override;
    i_dir::iterator* begin() override;
    i_dir::iterator* find(const char16_t* name) override;
    i_dir::iterator* find(const file_identifier& entry) override;
    i_dir::iterator* self() override;
    std::uint32_t relation(i_dir& other) override;
    int compare(const file_identifier& a, const file_identifier& b) override;
    void space(std::uint64_t& total, std::uint64_t& free, std::uint64_t& available) override;
    void label(char16_t* buffer, std::uint32_t capacity) override;
    // "NCDR", "SRSQ", "BKUP", "RSTR", then the flavour's words; the rest
    // go on to the driver.
    void control(void* block) override;

    ro_file* open_for_write(const char16_t* path, bool shared) override;
    ro_file* open_for_write(i_dir::iterator& entry, bool shared) override;
    ro_file* open_for_write(const file_identifier& entry, bool shared) override;
    rio_file* open_for_update(const char16_t* path, bool shared) override;
    rio_file* open_for_update(i_dir::iterator& entry, bool shared) override;
    rio_file* open_for_update(const file_identifier& entry, bool shared) override;
    rio_file* create_file(const char16_t* path) override;
    void remove_file(const char16_t* path) override;
    void rename(const char16_t* from, const char16_t* to) override;
    void link(const char16_t* existing, const char16_t* created) override;
    void symlink(const char16_t* path, const char16_t* target) override;
    void make_dir(const char16_t* path) override;
    void remove_dir(const char16_t* path) override;

    rio_file* create_nocache(const char16_t* name) override;
    std::uint32_t block_size() override;

protected:
    // Counts itself on the driver. `path` is in the flavour's composed form.
    DirReferenceBase(FileSystemDriver* driver, const std::u16string& path);

    // --- what a flavour supplies ---
    // The composed form of `path` on this directory; raises `failure` when it
    // is refused or comes out empty.
    virtual std::u16string compose(const char16_t* path, const Common::Failure& failure) const = 0;
    // The composed path of a new reference opened by `path`; raises FILE_OPEN.
    virtual std::u16string compose_directory(const char16_t* path) const = 0;
    // Splits a composed path, without a trailing separator, behind its last
    // separator; false when there is no leaf (a root).
    virtual bool split(const std::u16string& composed, std::u16string& parent, std::u16string& leaf) const = 0;
    // The driver's "/" form of a composed path; raises FILE_OPEN when the
    // path is not on this volume.
    virtual std::u16string driver_form(const std::u16string& composed) const = 0;
    // Whether `name` may stand as one entry of this directory.
    virtual bool name_allowed(const char16_t* name) const = 0;
    // Whether open_parent ends the parent's part of a path behind `c`.
    virtual bool ends_parent(char16_t c) const = 0;
    virtual bool at_root() const = 0;
    virtual i_dir::iterator* new_root_self() const = 0;
    virtual DirReferenceBase* new_reference(const std::u16string& composed) = 0;
    // The form in which relation() compares paths, and the character at
    // which a path that is a prefix of another must end.
    virtual std::u16string relation_form(const std::u16string& composed) const { return composed; }
    virtual char16_t path_separator() const = 0;
    // A request word of the flavour, raising as any operation does; false
    // for a word the flavour leaves to the driver.
    virtual bool flavour_control(std::uint32_t word, unsigned char* block) = 0;

    // Runs `operation` with file_lock held; a raised error is stored, and
    // success clears a stale one, for the caller looks right after the call.
    template <typename Operation>
    void guarded(Operation&& operation) {
        if (!GuardedCall(*this, driver_->file_lock, operation)) this->set_error(Common::Error());
    }
    // The parent's directory object and the leaf of `path`; raises `failure`
    // when the path is refused or has no leaf.
    FileSystemDriver::DirectoryObject* parent_of(const char16_t* path, const Common::Failure& failure, std::u16string& leaf);
    FileSystemDriver::DirectoryObject* this_directory();

    FileSystemDriver* driver_;
    std::u16string path_;

private:
    FileSystemDriver::FileReference* open_reference(FileSystemDriver::FileObject* object, bool for_write, bool shared);
    FileSystemDriver::FileReference* open_by_path(const char16_t* path, bool for_write, bool shared);
    FileSystemDriver::FileReference* open_by_entry(i_dir::iterator& entry, bool for_write, bool shared);
    FileSystemDriver::FileReference* open_by_identifier(const file_identifier& entry, bool for_write, bool shared);
    i_dir::iterator* walk_from(FileSystemDriver::IteratorObject* object);
    void set_security(unsigned char* block);
    void backup(unsigned char* block);
    void restore(unsigned char* block);
};
