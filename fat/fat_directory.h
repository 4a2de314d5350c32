#pragma once
// One FAT directory, held whole in the block cache from construction to
// destruction: one held block per cluster of its chain, or one block for
// the fixed root of FAT12 and FAT16. Every entry operation is array work on
// those blocks, and the cache writes the result back. The id is the first
// cluster, 0 for the root of any width.
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "fat/dir_entry.h"
#include "fat/fat_driver.h"
#include "fat/fat_errors.h"
#include "fsdriver/directory_object.h"

class FATDriver::FATDirectory : public FileSystemDriver::DirectoryObject {
public:
    static constexpr std::uint32_t kNone = 0xFFFFFFFF;
    // A long name has at most this many entries; more is damage.
    static constexpr std::uint32_t kMaxLongEntries = 20;

    // Reads the whole directory; a subdirectory without its two dot
    // entries, or a chain longer than the volume, raises FILE_CORRUPT.
    FATDirectory(FATDriver* driver, std::uint32_t id);
    ~FATDirectory() override;

    IteratorObject* begin() override;
    IteratorObject* find(const std::u16string& name) override;
    IteratorObject* find(const file_identifier& entry) override;
    std::uint32_t lookup_directory(const std::u16string& name) override;
    FileObject* open_file(const std::u16string& name) override;
    FileObject* open_file(IteratorObject& entry) override;
    FileObject* open_file(const file_identifier& entry) override;
    FileObject* create_file(const std::u16string& name) override;
    void remove_file(const std::u16string& name) override;
    void remove_directory_entry(const std::u16string& name) override;
    void make_directory(const std::u16string& name) override;
    void rename_entry(const std::u16string& name, DirectoryObject& target, const std::u16string& new_name) override;
    void link_entry(const std::u16string& name, DirectoryObject& target, const std::u16string& new_name) override;
    void symlink_entry(const std::u16string& name, const std::u16string& target) override;
    void set_attributes(const std::u16string& name, std::uint32_t value) override;
    void set_short_name(const std::u16string& name, const std::u16string& short_name) override;

    // --- entries ---
    DirEntry& entry(std::uint32_t index) {
        return reinterpret_cast<DirEntry*>(clusters[index / entries_per_block].data())[index % entries_per_block];
    }
    BlockHandle& block_of(std::uint32_t index) { return clusters[index / entries_per_block]; }
    // Shown in listings and found by searches: not a dot entry, not deleted,
    // not a long entry or label, and inside the cluster filter.
    bool valid_entry(std::uint32_t index);
    // The number of long entries in front of `index` that form its long
    // name, 0 for none; the name goes to `text` when it is given.
    std::uint32_t long_entries(std::uint32_t index, std::u16string* text);
    // The display text of the short name, from the 11 bytes and the case flags.
    std::u16string short_text(std::uint32_t index);
    // The index of `name`, or kNone.
    std::uint32_t search_entry(const std::u16string& name);
    // As search_entry, but a miss raises FileNotFound.
    std::uint32_t find_entry(const std::u16string& name);
    // The first valid entry with these 11 name bytes, or kNone.
    std::uint32_t search_short(const unsigned char* name11, std::uint32_t skip);
    // The entry of an identifier's key; FILE_OPEN without a key, FileNotFound on a miss.
    std::uint32_t entry_of(const file_identifier& identifier);
    // The cluster an entry names, with the width of this volume.
    std::uint32_t entry_cluster(std::uint32_t index) { return entry(index).cluster(fat()->root_cluster != 0); }
    FATDriver* fat() const { return static_cast<FATDriver*>(driver); }

    // --- changes ---
    // Whether a new entry needs long entries; the short name goes to `out`.
    bool make_short_name(const std::u16string& name, std::uint32_t skip, unsigned char out[11]);
    bool try_digit(unsigned char name[11], std::uint32_t place, std::uint32_t skip);
    // The index of the new short entry.
    std::uint32_t add_entry(const std::u16string& name, std::uint32_t skip);
    std::uint32_t add_entries(const DirEntry* entries, std::uint32_t count);
    void remove_entry(std::uint32_t index);
    FATFile* open_entry(std::uint32_t index);
    // The first-write gate of the volume, run on the directory's first block.
    void open_gate();
    void set_dirty(std::uint32_t index) { block_of(index).set_dirty(); }

    // --- fields ---
    std::map<std::uint32_t, FATFile*> open_files;
    std::vector<BlockHandle> clusters;
    std::uint32_t entry_count = 0;
    std::uint32_t entries_per_block = 0;
    std::uint32_t last_cluster = 0;

private:
    void read_fixed_root();
    void read_chain(std::uint32_t first);
    void check_dot_entries();
    // Room for `count` entries; the index of the first, and whether the end mark was used.
    std::uint32_t find_place(std::uint32_t count, bool& at_end_mark);
    void grow();
    std::uint32_t search_long(const std::u16string& name);
    // The long entries of `index` take the checksum of its present short name.
    void rewrite_checksums(std::uint32_t index, std::uint32_t longs);
};
