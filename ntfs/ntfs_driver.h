#pragma once
// The NTFS driver: one volume under "C:\". Its constructor is the mount:
// it checks the boot sector, bootstraps the MFT from record 0, loads the
// attribute definitions and the upper-case table, reads $Volume and opens
// the system indexes of version 3.0 and later. A volume held read only (by
// a record filter) refuses every change with FILE_READ_ONLY before anything
// reaches the disk; the others take changes.
//
// A directory id is the directory's record number minus 5: the root
// (record 5) is id 0.
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "fsdriver/file_system_driver_windows.h"
#include "ntfs/ntfs_records.h"

namespace ntfs {

class Mft;
class FileRecordCache;
class SecureFile;
class ObjIdFile;
class ReparseFile;
class NTFSFile;

// $AttrDef by attribute type; the first entry of a type counts.
struct AttrDefTable {
    std::map<std::uint32_t, AttrDefEntry> entries;
    // Null for a type that $AttrDef doesn't define.
    const AttrDefEntry* find(std::uint32_t type) const;
};

// $UpCase: a 16-bit character maps to table[c] below the table's size and
// to itself above it.
struct UpCaseTable {
    std::vector<char16_t> table;
    char16_t map(char16_t c) const { return c < table.size() ? table[c] : c; }
};

class NTFSDriver : public FileSystemDriverWindows {
public:
    class ClusterAllocator;

    // The mount. `boot_sector` may hold sector 0 already (only read);
    // `record_filter` (`record_filter_bits` bits, least significant bit
    // first) hides every record whose bit is clear or lies past the end,
    // and holds the volume read only; with 0 bits nothing is hidden.
    NTFSDriver(Fdisk::SimpleDisk* device, std::uint64_t first_sector, std::uint64_t volume_sectors,
               std::uint32_t cache_group, const void* boot_sector, const unsigned char* record_filter,
               std::uint64_t record_filter_bits);
    ~NTFSDriver() override;

    // --- driver operations ---
    void space(std::uint64_t& total, std::uint64_t& free, std::uint64_t& available) override;
    void label(char16_t* buffer, std::uint32_t capacity) override;
    int compare_identifiers(const file_identifier& a, const file_identifier& b) override;
    void normalize_path(std::u16string& path) override;
    // "SYPR": reads or sets whether system records are hidden.
    void control(void* block) override;
    void refuse_if_unchangeable() override;
    DirectoryObject* open_directory(std::uint32_t id) override;
    const char* type_name() override { return "NTFS"; }
    bool supports_backup() override { return true; }
    bool supports_restore() override { return true; }

    // --- helpers of the driver's objects ---
    // How a change that can't be made is refused: FILE_READ_ONLY on a
    // volume held read only, FILE_UNSUPPORTED for what the volume can't do.
    [[noreturn]] void refuse_change(std::uint64_t tag) const;
    // Whether the record filter hides record `number`.
    bool record_hidden(std::uint64_t number) const;
    // What a listing or an open hides: the filter's records and, while
    // system records are hidden, records below 16 and anything whose
    // parent is such a record other than the root.
    bool entry_hidden(std::uint64_t number, std::uint64_t parent) const;
    char16_t upcase(char16_t c) const;
    // The case-insensitive order of names over $UpCase: negative, 0 or positive.
    int compare_names(const char16_t* a, std::size_t a_length, const char16_t* b, std::size_t b_length) const;
    // File times count 100 ns from 1601; the framework's, ms from 1970.
    static std::int64_t FrameworkTime(std::uint64_t ntfs_time);

    static std::uint32_t DirectoryIdOfRecord(std::uint64_t record) { return static_cast<std::uint32_t>(record - kRootRecord); }
    static std::uint64_t RecordOfDirectoryId(std::uint32_t id) { return std::uint64_t(id) + kRootRecord; }

    // --- fields, in the order of the mount ---
    std::uint64_t total_sectors = 0;
    std::uint32_t sectors_per_cluster = 0;
    std::uint32_t cluster_size = 0;
    std::uint32_t sectors_per_record = 0;
    std::uint32_t record_size = 0;
    std::uint32_t sectors_per_index_buffer = 0;
    std::uint32_t index_buffer_size = 0;
    std::uint32_t mft_start = 0;
    std::unique_ptr<Mft> mft;
    std::unique_ptr<FileRecordCache> record_cache;
    std::unique_ptr<AttrDefTable> attr_defs;
    std::unique_ptr<UpCaseTable> upcase_table;
    std::unique_ptr<ClusterAllocator> cluster_allocator;
    std::unique_ptr<SecureFile> secure_file;
    std::unique_ptr<ObjIdFile> objid_file;
    std::unique_ptr<ReparseFile> reparse_file;
    std::uint16_t version = 0;
    unsigned char volume_object_id[16] = {};
    std::map<std::uint64_t, NTFSFile*> open_files;  // record number to the open file
    bool hide_system_records = true;
    bool log_reset_done = false;
    const unsigned char* record_filter = nullptr;  // not owned
    std::uint64_t record_filter_bits = 0;
    bool read_only = false;

private:
    // The mount's steps, in their order; each raises on a refusal.
    void check_boot_sector(const void* given);
    void load_volume();
    void load_attribute_definitions();
    void load_upcase_table();
    void load_volume_information();
    // Releases what the mount built, the last built first.
    void release_objects();
};

}  // namespace ntfs
