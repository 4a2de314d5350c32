#pragma once
// The directory family. A mounted volume is seen through these classes only:
// a directory opens, creates, renames and lists what it holds, and an
// iterator walks its entries. Like the stream family they don't throw; a
// failure is stored in the file_object base and the operation answers
// nothing.
//
// Ownership: every pointer answered by an open_..., find, begin, clone or
// identifier operation is new and belongs to the caller, who deletes it
// (wrapping it in a std::unique_ptr is the usual way). The operations answer
// plain pointers so that rio_dir can answer one object for the same-named
// operation of both its read and its write half.
//
// Paths are zero-ended 16-bit strings; null counts as an absent path. How a
// path is read is the business of the concrete directory.
#include <cstdint>
#include <string>

#include "files/file_identifier.h"
#include "files/file_object.h"

// What iterator::kind() answers.
enum entry_kind : std::uint32_t {
    KIND_FILE = 0,
    KIND_CHARACTER_DEVICE = 1,
    KIND_BLOCK_DEVICE = 2,
    KIND_FIFO = 3,
    KIND_SOCKET = 4,
    KIND_SYMLINK = 5,
    KIND_DIRECTORY = 128,
    KIND_ROOT_SELF = 131,
    KIND_PSEUDO_ROOT_ENTRY = 138,
};

// What dir_kind() answers for every directory of the system.
constexpr std::uint32_t DIR_KIND = 137;

// Times are milliseconds since 1970-01-01 00:00:00; 0 is not known.
using file_time = std::int64_t;

class i_dir : public virtual file_object {
public:
    // One walk over the entries of a directory. Strings that may be absent
    // (short_name, link_target) answer empty when there is none.
    class iterator : public virtual file_object {
    public:
        // Moves to the following entry; false at the end.
        virtual bool next() = 0;
        virtual file_identifier* identifier() = 0;
        virtual std::u16string name() = 0;
        virtual std::u16string short_name() { return std::u16string(); }
        virtual std::u16string display_name() { return name(); }
        virtual std::uint32_t reserved_iterator_1() { return 0; }
        virtual std::uint64_t size() = 0;
        virtual std::uint64_t allocated_size() { return size(); }
        virtual std::uint32_t kind() = 0;
        virtual file_time modified() { return 0; }
        virtual file_time changed() { return 0; }
        virtual file_time created() { return 0; }
        virtual file_time accessed() { return 0; }
        // The file system's own attribute bits.
        virtual std::uint32_t attributes() { return 0xFFFFFFFFu; }
        virtual std::uint32_t permissions() { return 0xFFFFFFFFu; }
        virtual bool hidden() { return false; }
        virtual std::uint32_t owner() { return 0xFFFFFFFFu; }
        virtual std::uint32_t group() { return 0xFFFFFFFFu; }
        virtual std::uint32_t reserved_iterator_2() { return 0; }
        virtual std::uint32_t links() { return 1; }
        virtual std::uint32_t device_major() { return 0; }
        virtual std::uint32_t device_minor() { return 0; }
        virtual std::uint32_t reserved_iterator_3() { return 0; }
        virtual std::uint64_t object_id() { return 0; }
        virtual std::u16string link_target() { return std::u16string(); }
    };

    virtual ri_file* open_file(const char16_t* path, bool shared) = 0;
    virtual ri_file* open_file(iterator& entry, bool shared) = 0;
    virtual ri_file* open_file(const file_identifier& entry, bool shared) = 0;
    virtual i_dir* open_dir(const char16_t* path) = 0;
    virtual i_dir* open_dir(iterator& entry) = 0;
    virtual i_dir* open_dir(const file_identifier& entry) = 0;
    // Opens the directory that holds the last component of `path` and moves
    // `path` on to that component.
    virtual i_dir* open_parent(const char16_t*& path) = 0;
    virtual i_dir* clone() { return nullptr; }
    virtual void reserved_i_dir_1() { unsupported(); }
    virtual iterator* begin() = 0;
    virtual iterator* find(const char16_t* name) = 0;
    virtual iterator* find(const file_identifier& entry) = 0;
    // This directory's own entry in its parent.
    virtual iterator* self() = 0;
    // The directory's path as text; empty when it can't tell.
    virtual std::u16string path() { return std::u16string(); }
    // 0: the same directory; 1: `other` lies below this one; 2: unrelated.
    virtual std::uint32_t relation(i_dir& other) = 0;
    virtual int compare(const file_identifier& a, const file_identifier& b) = 0;
    virtual std::uint32_t dir_kind() { return DIR_KIND; }
    // Bytes of the volume in all, free, and free to this caller.
    virtual void space(std::uint64_t& total, std::uint64_t& free, std::uint64_t& available);
    // The volume label, zero-ended, at the root only.
    virtual void label(char16_t* buffer, std::uint32_t capacity);
    virtual bool is_separator(char16_t character) { return character == u'\\' || character == u'/'; }
    virtual char16_t separator() { return u'\\'; }
    virtual std::uint32_t reserved_i_dir_2() { return 0; }
};

class o_dir : public virtual file_object {
public:
    virtual ro_file* open_for_write(const char16_t* path, bool shared) = 0;
    virtual void remove_file(const char16_t* path) = 0;
    virtual void rename(const char16_t* from, const char16_t* to) = 0;
    virtual void link(const char16_t* existing, const char16_t* created);
    virtual void symlink(const char16_t* path, const char16_t* target);
    virtual void make_dir(const char16_t* path) = 0;
    virtual void remove_dir(const char16_t* path) = 0;
    virtual void reserved_o_dir() { unsupported(); }
    virtual void set_attributes(const char16_t* path, std::uint32_t value);
    virtual void set_permissions(const char16_t* path, std::uint32_t value);
    virtual void set_owner(const char16_t* path, std::uint32_t owner, std::uint32_t group);
    virtual void make_node(const char16_t* path, std::uint32_t kind, std::uint32_t permissions,
                           std::uint32_t major, std::uint32_t minor);
    // The write half of what the read half's operations of these names answer.
    virtual o_dir* open_dir(const char16_t* path) = 0;
    virtual o_dir* clone() = 0;
    virtual o_dir* open_parent(const char16_t*& path) = 0;
};

class si_dir : public i_dir {};

class ri_dir : public si_dir {};

class ro_dir : public o_dir {};

// Both halves of one directory. The same-named operations of the two halves
// are one operation here, answering a directory that has both halves too.
class rio_dir : public ri_dir, public ro_dir {
public:
    rio_dir* open_dir(const char16_t* path) override = 0;
    rio_dir* open_dir(iterator& entry) override = 0;
    rio_dir* open_dir(const file_identifier& entry) override = 0;
    rio_dir* open_parent(const char16_t*& path) override = 0;
    // A new reference to this same directory.
    rio_dir* clone() override { return open_dir(u"."); }

    // The write half, opened for writing only and for reading and writing.
    ro_file* open_for_write(const char16_t* path, bool shared) override = 0;
    virtual ro_file* open_for_write(iterator& entry, bool shared) = 0;
    virtual ro_file* open_for_write(const file_identifier& entry, bool shared) = 0;
    virtual rio_file* open_for_update(const char16_t* path, bool shared) = 0;
    virtual rio_file* open_for_update(iterator& entry, bool shared) = 0;
    virtual rio_file* open_for_update(const file_identifier& entry, bool shared) = 0;
    virtual rio_file* create_file(const char16_t* path) = 0;
};

// Opening without the driver's caches; reached through the "NCDR" request.
class nocache_dir : public virtual file_object {
public:
    // create_file for a name that the directory accepts; FILE_UNSUPPORTED otherwise.
    virtual rio_file* create_nocache(const char16_t* name) = 0;
    // The sector size of the volume.
    virtual std::uint32_t block_size() = 0;
};
