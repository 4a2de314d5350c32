#pragma once
// The FAT12, FAT16 and FAT32 driver. This first slice holds what the
// allocation table needs: the geometry the handlers read, the cluster
// allocator, the free-cluster bookkeeping with the FSInfo sector and the
// writing of the table copies. The mount, the directories and the files
// grow on it; until then a concrete class sets the fields itself.
#include <cstdint>

#include "fat/cluster_run.h"
#include "fsdriver/file_system_driver_windows.h"

class FATDriver : public FileSystemDriverWindows {
public:
    class FATHandler;
    class FATDirectory;
    class FATIterator;
    class FATFile;
    // Name and time conversions of directory entries, without state of their own.
    class FATText;
    class ShortName;
    class EntryTime;

    // Writes a changed free count to the FSInfo sector, dismounts, and
    // destroys the handler.
    ~FATDriver() override;

    // A cluster number of the volume: 2 to cluster_count + 1. Unsigned
    // arithmetic makes 0 and 1 fail too.
    bool valid_cluster(std::uint32_t cluster) const { return cluster - 2 < cluster_count; }

    // One cluster, marked as an end of chain; the caller links it.
    // FILE_DISK_FULL when none is free.
    std::uint32_t alloc_cluster();
    // Frees every cluster of the chain that starts at `first`, and forgets
    // their cached data so that it is never written over a new owner.
    void free_chain(std::uint32_t first);
    // The number of free clusters, from the FSInfo sector while it is
    // believable, else counted in the table. With `strict` a bad FSInfo
    // sector raises FILE_CORRUPT.
    std::uint32_t free_cluster_count(bool strict);
    // With mirror_fats, the changed part of the active table goes to every copy.
    void flush_blocks() override;

    // --- fields ---
    std::uint32_t cluster_count = 0;
    std::uint32_t root_cluster = 0;  // 0 on FAT12 and FAT16
    std::uint32_t sectors_per_cluster = 1;
    std::uint32_t reserved_sectors = 0;
    std::uint32_t fsinfo_sector = 0;  // 0 for none
    std::uint32_t sectors_per_fat = 0;
    std::uint32_t fat_count = 0;
    std::uint32_t active_fat_first = 0;  // first sector of the table in use
    std::uint32_t root_dir_sectors = 0;  // 0 on FAT32
    std::uint32_t first_data_sector = 0;  // sector of cluster 2
    bool mirror_fats = false;
    FATHandler* handler = nullptr;  // owned
    ClusterRun alloc_run{2, 2, 2};
    std::uint32_t free_baseline = 0;  // the FSInfo count last read
    std::uint32_t free_count = 0;
    bool free_valid = false;

protected:
    using FileSystemDriverWindows::FileSystemDriverWindows;

private:
    void write_free_count();
};
