#pragma once
// The base of every file-system driver. It owns the volume's device from the
// mount on, the cache of metadata blocks, the directory objects and the path
// cache; a concrete driver supplies the format's logic through a few virtual
// operations and its object classes. The constructor of a concrete driver
// is the mount: a driver that exists is a mounted volume. It lives as long
// as something refers to it.
//
// Drivers raise Common::Error; the reference classes catch it and store it
// in the no-throw file and directory objects.
#include <cstdint>
#include <map>
#include <string>

#include "files/file_identifier.h"
#include "firmware/simple_disk.h"
#include "fsdriver/block_handle.h"
#include "fsdriver/cached_block.h"
#include "fsdriver/driver_lock.h"
#include "fsdriver/file_system_mount_handler.h"
#include "fsdriver/lru_list.h"

class FileSystemDriver : public FileSystemMountHandler {
public:
    class FileSystemCache;
    class DirectoryObject;
    class FileObject;
    class IteratorObject;
    class BackupObject;
    class RestoreObject;
    class FileReference;
    class IteratorReference;

    // All drivers of one group share one cache and so one budget of memory.
    static constexpr std::uint64_t kCacheBudget = 0x400000;

    ~FileSystemDriver() override;
    FileSystemDriver(const FileSystemDriver&) = delete;
    FileSystemDriver& operator=(const FileSystemDriver&) = delete;

    // Asks every open writer to flush, then writes every dirty block.
    void dismount() override;

    // --- what a concrete driver supplies or may extend ---
    virtual void space(std::uint64_t& total, std::uint64_t& free, std::uint64_t& available) = 0;
    // The volume label, ended by a 0 character, in at most `capacity` characters.
    virtual void label(char16_t* buffer, std::uint32_t capacity) = 0;
    virtual int compare_identifiers(const file_identifier& a, const file_identifier& b) = 0;
    // Puts a path into the form in which equal names compare equal, in place.
    virtual void normalize_path(std::u16string&) {}
    // Driver requests by their u32 word; an unknown word raises FILE_UNSUPPORTED.
    virtual void control(void* block);
    virtual bool supports_backup() { return false; }
    virtual bool supports_restore() { return false; }
    virtual void before_first_write();
    virtual DirectoryObject* open_directory(std::uint32_t id) = 0;
    // "FAT32", "FAT16", "NTFS", "HFS+", "Ext2", "Ext3" or "Ext4".
    virtual const char* type_name() = 0;
    // Writes every dirty cached block, in ascending sector order.
    virtual void flush_blocks();
    // Raises when the volume takes no change at all, held read only or
    // served by a driver without a write path. The framework asks it before
    // it looks at what a change would touch, so that such a volume's refusal
    // is the first a user hears, not "the directory must be empty".
    virtual void refuse_if_unchangeable() {}

    // --- the block cache ---
    // The block at exactly sector `first` (relative to the volume). A block's
    // count is fixed when it is made, so a driver asks for one sector always
    // with the same count and keeps its blocks apart; a cached block asked
    // for with another count is the driver's bug, raised as an internal
    // error on the spot rather than left to show as damage elsewhere.
    // With `no_read` the data isn't fetched: the caller overwrites all of it.
    BlockHandle get_block(std::uint64_t first, std::uint32_t count, bool no_read);
    // Read-ahead for metadata that a driver walks one sector at a time, in
    // order: one transfer brings in sectors first..first+count-1, each as a
    // clean, unheld block of one sector, unless the cache holds `first`
    // already. A sector the cache holds already, or that a block of the cache
    // covers, is left as it is. Nothing is raised:
    // what can't be read ahead is read, and reported, by its own get_block.
    void prefetch_sectors(std::uint64_t first, std::uint32_t count);
    // Copies `size` bytes from byte `offset` of the volume, for a record that
    // doesn't lie on the driver's grid of blocks (a superblock at byte 1024,
    // a 1 KiB record inside a larger cluster). The sectors go through the
    // cache and are let go again, so they never overlap a block of the grid.
    // FILE_CORRUPT when the range leaves the volume.
    void read_volume_bytes(std::uint64_t offset, void* out, std::uint32_t size);
    // One hold less; called by BlockHandle only.
    void release_block(CachedBlock* block);
    // Lets the first write of the volume through its gate; the caller then
    // changes the data and marks the handle dirty.
    void prepare_block_write(BlockHandle& handle);
    // The block now stands for another place; the next flush writes it there.
    void move_block(BlockHandle& handle, std::uint64_t new_first);
    // Forgets an unheld block without writing it, so that stale data of
    // freed clusters never lands on their next owner.
    void discard_block(std::uint64_t first);
    // Bulk transfers that spare the cache but see what it holds. `unit` is a
    // power of two in sectors, aligned from sector `base`: the grid on which
    // a tail that can't go straight to the device is cached.
    void read_sectors(void* buffer, std::uint64_t first, std::uint64_t count, std::uint32_t unit,
                      std::uint64_t base);
    void write_sectors(const void* buffer, std::uint64_t first, std::uint64_t count);
    // Writes every dirty block once; a commit reached from inside a flush does nothing.
    void commit();
    // Asks the volume processing library for a device that shows `driver`'s
    // volume rewritten (a journal replayed) by a processor of a type in
    // `type_mask`; on success it replaces `device`. Raises FILE_CORRUPT with
    // the library's refusal as cause.
    static void install_recovery_device(FileSystemDriver& driver, std::uint32_t type_mask);

    // --- directories ---
    // The directory object of `id`, from `directories` or newly opened.
    DirectoryObject* get_object(std::uint32_t id);
    // The directory object of a path in driver form: "/" first, "/" between
    // components. Raises what lookup_directory raises for a component that
    // is missing or no directory.
    DirectoryObject* get_directory(const std::u16string& path);
    // The parts of these directory operations that need two directories or
    // the caches; paths in driver form.
    void rename(const std::u16string& from, const std::u16string& to);
    void link(const std::u16string& from, const std::u16string& to);
    void symlink(const std::u16string& path, const std::u16string& target);
    void remove_dir(const std::u16string& path);

    // The bounds that keep directory memory small: cleared wholesale above
    // the first, evicted down to the second (unreferenced objects only).
    static constexpr std::size_t kPathCacheLimit = 256;
    static constexpr std::uint32_t kIdleDirectoryLimit = 8;

    // --- fields ---
    std::uint64_t volume_sectors;
    std::uint32_t sector_size;
    std::map<std::uint64_t, CachedBlock*> blocks;
    Fdisk::SimpleDisk* device;
    Fdisk::SimpleDisk* base_device;
    std::uint64_t first_sector;
    bool writable_known = false;
    DriverLock file_lock;
    DriverLock block_lock;
    std::uint32_t directory_count = 0;
    bool flushing = false;
    std::map<std::uint32_t, DirectoryObject*> directories;
    std::map<std::u16string, std::uint32_t> path_cache;  // normalised path to directory id
    LRUList<DirectoryObject> directory_lru;              // most recently used first
    LRUList<FileObject> writer_list;                     // files with a writer
    FileSystemCache* cache = nullptr;

protected:
    FileSystemDriver(Fdisk::SimpleDisk* device, std::uint64_t first_sector, std::uint64_t volume_sectors,
                     std::uint32_t cache_group);

private:
    void first_write_gate(CachedBlock* block, bool ask_driver);
    void forget_block(CachedBlock* block);
    // Whether a block of the cache covers `sector`; block_lock held.
    bool covered(std::uint64_t sector) const;
    // Puts a block read ahead into the cache, unheld, as the newest.
    void admit_unheld(CachedBlock* block);
    void read_cached_run(unsigned char* buffer, std::uint64_t first, std::uint64_t count);
    void evict();
    void check_inside_volume(std::uint64_t first, std::uint64_t count) const;
    std::uint32_t walk_directory_ids(const std::u16string& relative, std::uint32_t refuse_id);
    void trim_directories(DirectoryObject* keep);
};
