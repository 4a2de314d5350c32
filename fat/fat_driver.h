#pragma once
// The FAT12, FAT16 and FAT32 driver, seen as drive "C:". Its constructor is
// the mount and refuses anything that isn't a believable FAT volume. It
// keeps the geometry the table handlers read, the cluster allocator, the
// free-cluster bookkeeping with the FSInfo sector and the writing of the
// table copies; directories and files are its nested classes.
#include <cstdint>
#include <string>

#include "fat/cluster_run.h"
#include "fsdriver/file_system_driver_windows.h"

struct FATBootSector;

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
    // The miss of a name lookup, which some callers expect, and the want
    // of a free cluster: the failures raised as their own class.
    class FileNotFound;
    class FileDiskFull;

    // The mount. `boot_sector` is sector 0 of the volume or null; with
    // `filter_bits` only entries whose clusters have their bit set are
    // shown (`filter_size` bits). Every refusal raises FILE_CORRUPT.
    FATDriver(Fdisk::SimpleDisk* device, std::uint64_t first_sector, std::uint64_t volume_sectors,
              std::uint32_t cache_group, const void* boot_sector, const unsigned char* filter_bits,
              std::uint64_t filter_size);

    // Writes a changed free count to the FSInfo sector, dismounts, and
    // destroys the handler.
    ~FATDriver() override;

    // A cluster number of the volume: 2 to cluster_count + 1. Unsigned
    // arithmetic makes 0 and 1 fail too.
    bool valid_cluster(std::uint32_t cluster) const { return cluster - 2 < cluster_count; }

    // One cluster, marked as an end of chain; the caller links it.
    // FileDiskFull when none is free.
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

    void space(std::uint64_t& total, std::uint64_t& free, std::uint64_t& available) override;
    void label(char16_t* buffer, std::uint32_t capacity) override;
    int compare_identifiers(const file_identifier& a, const file_identifier& b) override;
    void normalize_path(std::u16string& path) override;
    DirectoryObject* open_directory(std::uint32_t id) override;
    const char* type_name() override { return root_cluster != 0 ? "FAT32" : "FAT16"; }

    // The first sector of a valid cluster.
    std::uint64_t cluster_sector(std::uint32_t cluster) const {
        return std::uint64_t(cluster - 2) * sectors_per_cluster + first_data_sector;
    }
    std::uint32_t cluster_bytes() const { return sectors_per_cluster * sector_size; }
    // Whether an entry with this cluster, size and kind passes the cluster filter.
    bool passes_filter(std::uint32_t cluster, std::uint32_t size, bool directory) const;

    // --- fields ---
    std::uint32_t cluster_count = 0;
    std::uint32_t root_cluster = 0;  // 0 on FAT12 and FAT16
    const unsigned char* filter_bits = nullptr;  // not owned
    std::uint64_t filter_size = 0;              // in bits; 0 for no filter
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
    unsigned char boot_label[11] = {};  // the label field of the boot sector

protected:
    // Without a mount: the caller sets the geometry itself. The tests of the
    // allocation table lay their tables out this way.
    using FileSystemDriverWindows::FileSystemDriverWindows;

private:
    void write_free_count();
    // The mount's steps; each raises FILE_CORRUPT on a refusal.
    void read_geometry(const FATBootSector& boot);
    void read_fat32_geometry(const FATBootSector& boot, std::uint64_t total);
    void read_fat16_geometry(const FATBootSector& boot, std::uint64_t total);
    void check_device_size() const;
};
