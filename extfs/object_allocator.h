#pragma once
// What the block and the inode allocator share: next-fit over the bitmaps
// of all groups, one bitmap in hand at a time. There is no goal and no
// locality: the search goes on from where the last one stopped, wraps
// around at the volume's end once, and a sweep that finds nothing makes
// every later call fail at once until something is freed. Each mount
// starts low again. The derived classes say where a group's bitmap comes
// from and which descriptor fields a change moves.
#include <cstdint>

#include "fsdriver/block_handle.h"

namespace extfs {

class ExtfsDriver;

class ExtfsObjectAllocator {
public:
    // The object that bit 0 of group 0 stands for is `base`; objects from
    // `lowest` up to `end` may be handed out, `per_group` to a group.
    ExtfsObjectAllocator(ExtfsDriver* driver, std::uint32_t per_group, std::uint64_t base, std::uint64_t lowest,
                         std::uint64_t end);
    virtual ~ExtfsObjectAllocator() = default;
    ExtfsObjectAllocator(const ExtfsObjectAllocator&) = delete;
    ExtfsObjectAllocator& operator=(const ExtfsObjectAllocator&) = delete;

    // The next free object from the cursor on, marked in use. `kind` tells
    // the derived class what the object is for. FILE_DISK_FULL when a whole
    // sweep finds none.
    virtual std::uint64_t allocate(std::uint32_t kind);
    // Gives `object` back. FILE_CORRUPT for one outside the volume or not
    // in use: a double free would hand it out twice.
    virtual void free(std::uint64_t object, std::uint32_t kind);

protected:
    // The bitmap of `group`, read, or made fresh where the group's flags
    // say it was never written.
    virtual BlockHandle load_bitmap(std::uint32_t group) = 0;
    // The free count that the descriptor of `group` records.
    virtual std::uint32_t recorded_free(std::uint32_t group) const = 0;
    // The descriptor of `group` after one bit changed.
    virtual void update_group(std::uint32_t group, bool allocated, std::uint32_t free_count, std::uint32_t bit,
                              std::uint32_t kind) = 0;

    // How many objects `group` has: the last group may be cut short.
    std::uint32_t objects_in(std::uint32_t group) const;
    // The bitmap block `block`, read; or, `fresh`, taken without reading,
    // through the first-write gate and dirty, with its first `count` bits
    // clear and the rest of the block set, as objects that don't exist are.
    // FILE_CORRUPT for a block that can't be a bitmap.
    BlockHandle take_bitmap(std::uint64_t block, bool fresh, std::uint32_t count);

    ExtfsDriver* driver;
    std::uint32_t groups;
    std::uint32_t per_group;

private:
    BlockHandle& group_bitmap(std::uint32_t group);
    void change_bit(std::uint32_t bit, bool set);
    [[noreturn]] void raise_full();

    std::uint64_t end_;
    std::uint64_t base_;
    std::uint64_t lowest_;
    std::uint64_t cursor_;
    std::uint32_t bitmap_group_ = ~std::uint32_t(0);
    std::uint32_t free_in_group_ = 0;
    BlockHandle bitmap_;
    bool full_ = false;
};

// The first clear bit of `bits` from `from` up to `limit`, or `limit`
// when all are set. Whole bytes of set bits are passed over at once.
std::uint32_t FirstClearBit(const unsigned char* bits, std::uint32_t from, std::uint32_t limit);
// How many of the first `count` bits are set.
std::uint32_t CountSetBits(const unsigned char* bits, std::uint32_t count);

}  // namespace extfs
