#pragma once
// One open file of a FAT directory, shared by every reference to its
// entry. It caches one run of consecutive clusters of its chain, so a
// sequential walk reads each table sector once and a stretch of contiguous
// clusters becomes one transfer. The size it holds is the truth for every
// reference; the entry catches up at flush_file().
#include <cstdint>

#include "fat/fat_directory.h"
#include "fsdriver/file_object.h"

class FATDriver::FATFile : public FileSystemDriver::FileObject {
public:
    // FILE_OPEN for a directory, a label or a deleted entry.
    FATFile(FATDirectory* directory, std::uint32_t index);
    ~FATFile() override;
    FATFile(const FATFile&) = delete;
    FATFile& operator=(const FATFile&) = delete;

    std::uint64_t size() override { return byte_size; }
    std::uint64_t sector_at(std::uint64_t position) override;
    void read(void* buffer, std::uint64_t position, std::uint64_t size, std::uint64_t& got) override;
    void write(const void* buffer, std::uint64_t position, std::uint64_t size, std::uint64_t& written) override;
    void set_size(std::uint64_t size) override;
    void set_times(std::uint64_t modified, std::uint64_t created, std::uint64_t accessed) override;
    void flush_file() override;

    // Brings the cached run up to the file's cluster `cluster`: afterwards
    // it lies in the run or is run_next. A chain that ends too early raises
    // FILE_CORRUPT.
    void seek_run(std::uint32_t cluster);
    // The volume's cluster that holds the file's cluster `cluster`. With
    // `grow` a chain that ends is extended; without, it is FILE_CORRUPT.
    std::uint32_t cluster_at(std::uint32_t cluster, bool grow);
    // How many clusters from `cluster` on, up to `last`, lie one behind the
    // other on the volume, beginning with `start`; with `grow` the chain is
    // extended to reach them.
    std::uint32_t contiguous(std::uint32_t cluster, std::uint32_t last, bool grow, std::uint32_t& start);

    std::uint32_t index;
    FATDirectory* directory;
    std::uint32_t byte_size;  // may run ahead of the entry until flush_file()
    std::uint32_t run_index = 0;
    std::uint32_t run_first = 0;
    std::uint32_t run_end = 0;
    std::uint32_t run_next = 0;
    bool changed = false;

private:
    DirEntry& entry() { return directory->entry(index); }
    FATDriver* volume() const { return directory->fat(); }
    std::uint32_t first_cluster() { return directory->entry_cluster(index); }
    // End of the cached run, counted in clusters of the file.
    std::uint32_t run_limit() const { return run_index + (run_end - run_first); }
    void restart_run();
    void fetch_run();
    void append_cluster();
    // Byte transfers through one cached cluster block.
    void read_through_block(unsigned char* out, std::uint64_t position, std::uint32_t length);
    void write_through_block(const unsigned char* in, std::uint64_t position, std::uint32_t length);
    void zero_to_cluster_end(std::uint64_t position);
    void free_behind(std::uint32_t kept);
};
