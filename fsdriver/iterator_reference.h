#pragma once
// What a caller holds of a walk over a directory: an IteratorObject of the
// driver, owned here, and the driver kept alive. An empty directory and a
// finished walk look alike: no object, and FILE_EOF stored.
#include <cstdint>
#include <string>

#include "files/dir_object.h"
#include "fsdriver/file_system_driver.h"

class FileSystemDriver::IteratorReference : public i_dir::iterator {
public:
    // Takes over `object`, which may be null.
    IteratorReference(FileSystemDriver* driver, IteratorObject* object);
    ~IteratorReference() override;
    IteratorReference(const IteratorReference&) = delete;
    IteratorReference& operator=(const IteratorReference&) = delete;

    bool next() override;
    file_identifier* identifier() override;
    std::u16string name() override;
    std::u16string short_name() override;
    std::uint64_t size() override;
    std::uint64_t allocated_size() override;
    std::uint32_t kind() override;
    file_time modified() override;
    file_time changed() override;
    file_time created() override;
    file_time accessed() override;
    std::uint32_t attributes() override;
    std::uint32_t permissions() override;
    bool hidden() override;
    std::uint32_t owner() override;
    std::uint32_t group() override;
    std::uint32_t links() override;
    std::uint32_t device_major() override;
    std::uint32_t device_minor() override;
    std::uint64_t object_id() override;
    std::u16string link_target() override;
    // Copies the entry's security descriptor and answers its size.
    virtual std::uint32_t security(void* buffer);

    // The entry the walk stands on, or null once it has ended.
    IteratorObject* entry() const { return object_; }

private:
    template <typename Result, typename Query>
    Result ask(Result fallback, Query query);
    void store_end();

    FileSystemDriver* driver_;
    IteratorObject* object_;
};
