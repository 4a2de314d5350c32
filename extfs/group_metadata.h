#pragma once
// The blocks that a group's own metadata occupies, for a block bitmap that
// a group with BLOCK_UNINIT never had written: the superblock copy, the
// descriptor copies and the blocks reserved for their growth, and every
// bitmap and inode table that lies inside the group, whichever group they
// belong to (FLEX_BG packs those of many groups into one).
#include <cstdint>

namespace extfs {

class ExtfsDriver;

// Sets, in `bits`, the bit of each block of group `group` that metadata
// occupies; `count` is the number of blocks of the group. Values from the
// descriptors mark nothing when they lie outside the group.
void MarkGroupMetadata(const ExtfsDriver& driver, std::uint32_t group, unsigned char* bits, std::uint32_t count);

}  // namespace extfs
