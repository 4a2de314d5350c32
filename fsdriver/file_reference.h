#pragma once
// What a caller holds of an open file of a volume: a position and a mode on
// the shared FileObject. It keeps the driver alive, and it is where the
// driver's raised errors become the stored error of the stream family.
#include <cstdint>

#include "files/file_object.h"
#include "fsdriver/file_system_driver.h"

class FileSystemDriver::FileReference : public rio_file {
public:
    // Counts itself on `object` and on the driver; raises FILE_OPEN when
    // the readers and writers already on the object exclude this opening.
    FileReference(FileSystemDriver* driver, FileObject* object, bool for_write, bool shared);
    ~FileReference() override;
    FileReference(const FileReference&) = delete;
    FileReference& operator=(const FileReference&) = delete;

    void read(void* buffer, std::uint64_t size, std::uint64_t& got) override;
    void write(const void* buffer, std::uint64_t size, std::uint64_t& written) override;
    void set_size(std::uint64_t size) override;
    // Flushes the whole volume: every writer and every dirty block.
    void flush() override;
    std::uint64_t size() override;
    std::int64_t seek(std::int64_t position) override;
    std::int64_t seek_relative(std::int64_t delta) override;
    std::int64_t seek_end(std::int64_t delta) override;
    void control(void* block) override;

    FileObject* file() const { return object_; }

private:
    FileSystemDriver* driver_;
    FileObject* object_;
    bool for_write_;
    bool shared_;
    std::int64_t position_ = 0;
};
