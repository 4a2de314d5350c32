#pragma once
// A driver's position on one entry of one directory. What it answers is the
// entry's; nothing in the class says which directory it walks.
#include <cstdint>
#include <string>

#include "files/dir_object.h"
#include "fsdriver/file_system_driver.h"

class FileSystemDriver::IteratorObject {
public:
    virtual ~IteratorObject() = default;

    // Moves to the following entry; false at the end.
    virtual bool next() = 0;
    virtual file_identifier* identifier() = 0;
    virtual std::u16string name() = 0;
    virtual std::uint64_t size() = 0;
    virtual std::uint64_t allocated_size() = 0;
    virtual std::uint32_t kind() = 0;
    virtual file_time modified() = 0;
    virtual file_time changed() { return modified(); }
    virtual file_time created() = 0;
    virtual file_time accessed() = 0;
    virtual bool hidden() = 0;
    virtual std::uint64_t object_id() = 0;
    // The sector at which the entry's data begins, 0 if it has none.
    virtual std::uint64_t first_sector() = 0;
    // Empty when the entry has no alternative name.
    virtual std::u16string short_name() { return std::u16string(); }
    virtual std::uint32_t attributes() { return 0xFFFFFFFFu; }
    virtual std::uint32_t permissions() { return 0xFFFFFFFFu; }
    // Copies the entry's security descriptor and answers its size.
    virtual std::uint32_t security(void*) { return 0; }
    virtual std::uint32_t links() { return 1; }
    virtual std::uint32_t owner() { return 0xFFFFFFFFu; }
    virtual std::uint32_t group() { return 0xFFFFFFFFu; }
    virtual std::uint32_t device_major() { return 0; }
    virtual std::uint32_t device_minor() { return 0; }
    virtual std::u16string link_target() { return std::u16string(); }

protected:
    IteratorObject() = default;
};
