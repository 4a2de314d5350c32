#pragma once
// The HFS+ and HFSX driver: one tree under "/". Its constructor is the
// mount: it checks the volume header, sees the journal (building the map of
// its newest sectors, writing nothing), checks both volume headers against
// what the journal holds, and opens the extents overflow, catalog and
// attributes trees, and loads the allocation bitmap. Its files and
// directories read and take changes; a volume held read only refuses every
// change with FILE_READ_ONLY. The metadata objects write through the cache;
// a volume that nobody changes stays byte-identical.
//
// A directory id is the folder's catalog node id, except that the root
// folder (id 2) is directory id 0.
#include <cstdint>
#include <memory>
#include <string>
#include <set>
#include <vector>

#include "fsdriver/file_system_driver_posix.h"
#include "hfsplus/area_limits.h"
#include "hfsplus/hfsplus_records.h"

namespace hfsplus {

class HFSPlusMetadata;
class OpenedFilesInDirectoriesMap;
class HFSPlusDirectoryObject;

class HFSPlusDriver : public FileSystemDriverPosix {
public:
    // Bits of `open_status`: set while the disk holds what the file holds.
    static constexpr std::uint8_t kAllocationClean = 0x1;
    static constexpr std::uint8_t kExtentsClean = 0x2;
    static constexpr std::uint8_t kCatalogClean = 0x4;
    static constexpr std::uint8_t kAttributesClean = 0x8;

    // The mount. `bitmap` (`bitmap_length` bytes), when given, stands for the
    // allocation file, and holds the volume read only.
    HFSPlusDriver(Fdisk::SimpleDisk* device, std::uint64_t first_sector, std::uint64_t volume_sectors,
                  std::uint32_t cache_group, const unsigned char* bitmap, std::uint64_t bitmap_length);
    ~HFSPlusDriver() override;

    // --- driver operations ---
    void space(std::uint64_t& total, std::uint64_t& free, std::uint64_t& available) override;
    void label(char16_t* buffer, std::uint32_t capacity) override;
    int compare_identifiers(const file_identifier& a, const file_identifier& b) override;
    void refuse_if_unchangeable() override;
    DirectoryObject* open_directory(std::uint32_t id) override;
    const char* type_name() override { return "HFS+"; }
    // Entries are copied out through the backup objects; nothing restores.
    bool supports_backup() override { return true; }
    bool supports_restore() override { return false; }
    // The flush: the trees and the allocation file (attributes, catalog,
    // extents overflow, allocation), then the primary header, then every
    // dirty block. On a read-only driver, inside the objects' own flush and
    // during a metadata write only the blocks' pass runs.
    void flush_blocks() override;

    // Writes each dirty cached block that meets an area of `areas`, in
    // the areas' order, and empties the set. A device's refusal is dropped
    // here, as at any flush: nobody is left to hear it.
    void FlushAreas(std::set<SectorArea>& areas);

    // --- helpers of the driver's objects ---
    HFSPlusMetadata& metadata() const;
    OpenedFilesInDirectoriesMap& opened_files() const;
    // The folder "HFS+ Private Data" of the root, opened on first use and
    // made there when it doesn't exist; FILE_READ_ONLY for a missing one on
    // a read-only driver.
    HFSPlusDirectoryObject& GetPrivateDirectory();
    std::uint32_t block_size() const { return block_bytes; }
    std::uint32_t sectors_per_block() const { return block_bytes / sector_size; }

    static std::uint32_t CatalogIdOfDirectory(std::uint32_t id) { return id == 0 ? kRootFolderId : id; }
    static std::uint32_t DirectoryIdOfCatalogId(std::uint32_t id) { return id == kRootFolderId ? 0 : id; }

    // --- fields ---
    std::unique_ptr<HFSPlusMetadata> metadata_holder;
    std::unique_ptr<OpenedFilesInDirectoriesMap> opened_files_map;
    HFSPlusDirectoryObject* private_directory = nullptr;  // counted while held here
    std::uint8_t read_only = 0;
    std::uint8_t open_status = 0;
    std::uint32_t block_bytes = 0;                // allocation block size
    std::vector<unsigned char> given_bitmap;      // the mount's bitmap argument, copied
    // Metadata writes under way. A flush that an eviction starts meanwhile
    // writes the blocks alone: the objects are in the middle of a change.
    std::uint32_t metadata_writes = 0;

private:
    // The mount's steps, in their order; each raises on a refusal.
    void probe_header(VolumeHeader& copy);
    void open_journal(const VolumeHeader& copy);
    void open_volume_headers();
    void open_trees();
    void open_allocation_file();
    // The objects' part of the flush.
    void flush_metadata();
    void flush_files();
    // The unmount's part on a volume that takes changes.
    void close_volume();

    bool flushing_metadata = false;  // a flush of the objects is under way
    bool sound_for_changes = false;  // proved by the first change of the mount
};

}  // namespace hfsplus
