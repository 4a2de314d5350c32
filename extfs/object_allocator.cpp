#include "extfs/object_allocator.h"

#include <algorithm>
#include <cstring>

#include "extfs/extfs_driver.h"

namespace extfs {

namespace {

struct BitCounts {
    std::uint8_t of[256];
    constexpr BitCounts() : of() {
        for (std::uint32_t byte = 0; byte < 256; ++byte) {
            for (std::uint32_t bit = 0; bit < 8; ++bit) {
                of[byte] = static_cast<std::uint8_t>(of[byte] + (byte >> bit & 1));
            }
        }
    }
};
constexpr BitCounts kBitCounts;

bool BitSet(const unsigned char* bits, std::uint32_t bit) { return (bits[bit / 8] >> (bit % 8) & 1) != 0; }

}  // namespace

std::uint32_t FirstClearBit(const unsigned char* bits, std::uint32_t from, std::uint32_t limit) {
    std::uint32_t bit = from;
    while (bit < limit) {
        if (bit % 8 == 0 && kBitCounts.of[bits[bit / 8]] == 8) {
            bit += 8;
        } else if (!BitSet(bits, bit)) {
            return bit;
        } else {
            ++bit;
        }
    }
    return limit;
}

std::uint32_t CountSetBits(const unsigned char* bits, std::uint32_t count) {
    std::uint32_t set = 0;
    for (std::uint32_t byte = 0; byte < count / 8; ++byte) set += kBitCounts.of[bits[byte]];
    for (std::uint32_t bit = count - count % 8; bit < count; ++bit) set += BitSet(bits, bit) ? 1 : 0;
    return set;
}

ExtfsObjectAllocator::ExtfsObjectAllocator(ExtfsDriver* driver, std::uint32_t per_group, std::uint64_t base,
                                           std::uint64_t lowest, std::uint64_t end)
    : driver(driver), groups(driver->groups), per_group(per_group), end_(end), base_(base), lowest_(lowest),
      cursor_(lowest) {}

std::uint32_t ExtfsObjectAllocator::objects_in(std::uint32_t group) const {
    const std::uint64_t first = base_ + std::uint64_t(group) * per_group;
    return static_cast<std::uint32_t>(std::min<std::uint64_t>(per_group, end_ - first));
}

BlockHandle ExtfsObjectAllocator::take_bitmap(std::uint64_t block, bool fresh, std::uint32_t count) {
    // A descriptor that puts a bitmap over the boot block or the superblock
    // is damage: bits set there would be written into them.
    if (block <= driver->first_data_block) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    BlockHandle bitmap = driver->get_fs_block(block, fresh);
    if (!fresh) return bitmap;
    driver->prepare_block_write(bitmap);
    unsigned char* bits = bitmap.data();
    const std::uint32_t size = driver->block_size();
    std::memset(bits, 0, count / 8);
    std::memset(bits + count / 8, 0xFF, size - count / 8);
    if (count % 8 != 0) bits[count / 8] = static_cast<unsigned char>(0xFF << (count % 8));
    bitmap.set_dirty();
    return bitmap;
}

std::uint64_t ExtfsObjectAllocator::allocate(std::uint32_t kind) {
    if (full_) raise_full();
    // A sweep has passed every object from `lowest` to `end` once when the
    // searched spans add up to that many. It ends in the group where it
    // began, whose front part the first search skipped: not a sweep later.
    const std::uint64_t sweep = end_ - lowest_;
    std::uint64_t searched = 0;
    for (;;) {
        if (cursor_ >= end_) cursor_ = lowest_;
        const std::uint32_t group = static_cast<std::uint32_t>((cursor_ - base_) / per_group);
        const std::uint32_t offset = static_cast<std::uint32_t>((cursor_ - base_) % per_group);
        // Bits behind the volume's end never count, whatever the bitmap says.
        const std::uint32_t limit = objects_in(group);
        const std::uint32_t bit = FirstClearBit(group_bitmap(group).data(), offset, limit);
        if (bit < limit) {
            cursor_ += bit - offset;
            change_bit(bit, true);
            --free_in_group_;
            update_group(group, true, free_in_group_, bit, kind);
            return cursor_++;
        }
        searched += limit - offset;
        if (searched >= sweep) {
            full_ = true;
            raise_full();
        }
        cursor_ += limit - offset;
    }
}

void ExtfsObjectAllocator::free(std::uint64_t object, std::uint32_t kind) {
    // Objects below `lowest` are never handed out (the reserved inodes), so
    // a free of one is damage as much as one past the end.
    if (object < lowest_ || object >= end_) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    const std::uint32_t group = static_cast<std::uint32_t>((object - base_) / per_group);
    const std::uint32_t bit = static_cast<std::uint32_t>((object - base_) % per_group);
    if (!BitSet(group_bitmap(group).data(), bit)) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    change_bit(bit, false);
    ++free_in_group_;
    full_ = false;
    // The cursor stays: a freed object is found again by the next sweep.
    update_group(group, false, free_in_group_, bit, kind);
}

BlockHandle& ExtfsObjectAllocator::group_bitmap(std::uint32_t group) {
    if (group == bitmap_group_) return bitmap_;
    // A load that raises leaves no bitmap in hand rather than a wrong one.
    bitmap_group_ = ~std::uint32_t(0);
    bitmap_.reset();
    bitmap_ = load_bitmap(group);
    const std::uint32_t objects = objects_in(group);
    free_in_group_ = objects - CountSetBits(bitmap_.data(), objects);
    // A bitmap that disagrees with its descriptor is damage, and allocating
    // from it could hand out an object in use: nothing is changed on it.
    if (free_in_group_ != recorded_free(group)) {
        bitmap_.reset();
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    bitmap_group_ = group;
    return bitmap_;
}

void ExtfsObjectAllocator::change_bit(std::uint32_t bit, bool set) {
    driver->prepare_block_write(bitmap_);
    unsigned char& byte = bitmap_.data()[bit / 8];
    const unsigned char mask = static_cast<unsigned char>(1u << (bit % 8));
    byte = static_cast<unsigned char>(set ? byte | mask : byte & ~mask);
    bitmap_.set_dirty();
}

void ExtfsObjectAllocator::raise_full() { Common::Raise(ERROR_TAG, Common::Failures::FILE_DISK_FULL); }

}  // namespace extfs
