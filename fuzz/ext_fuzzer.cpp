// An ext2/3/4 volume from untrusted bytes. The input is the start of the
// volume, with the superblock at byte 1024. The volume is as large as the
// superblock says (s_blocks_count blocks of 1024 << s_log_block_size bytes;
// never below the input, at most kMostSectors sectors of 512 bytes), and
// every byte behind the input reads as zero: a seed of a few KiB holds the
// superblock, the group descriptors, an inode table and some directories,
// and stands for a whole small volume. It is mounted the way the loader
// mounts a partition, and then every entry is walked, stated and read, by
// iterator, by name and at far positions. Nothing may fault, hang or read
// outside the volume, what a file yields without a stored error is exactly
// as long as its size says, and no file is larger than its map could
// address on a volume of that block size.
// Then the volume is mounted again over a disk that keeps what is written,
// and changed as the loader and `morvane fs` change volumes: existing files
// appended to, renamed and removed, a directory made, a file created and
// written in pieces, grown past its end, written into the hole and cut
// back, moved and rewritten shorter; each step may be refused, none may
// fault or hang. The changed volume is walked once more.
// The seeds in corpus/ext_fuzzer are made by tests/images/ext_make_seeds.sh.
#include <cstddef>
#include <cstdint>
#include <memory>

#include "fuzz/volume_fuzzing.h"

namespace {

using Common::LoadLE16;
using Common::LoadLE32;

constexpr std::uint32_t kSectorBytes = 512;
constexpr std::size_t kSuperblockOffset = 1024;
constexpr std::uint32_t kLargestLogBlock = 6;  // 64 KiB blocks
constexpr std::uint32_t kIncompatExtents = 0x40;

// The sectors the superblock claims.
std::uint64_t DeclaredSectors(const std::uint8_t* data) {
    const std::uint8_t* super = data + kSuperblockOffset;
    std::uint64_t blocks = LoadLE32(super + 4);
    std::uint32_t log_block = LoadLE32(super + 24);
    if (log_block > kLargestLogBlock) return 0;
    std::uint64_t sectors_per_block = (1024ull << log_block) / kSectorBytes;
    return blocks > volume_fuzzing::kMostSectors ? volume_fuzzing::kMostSectors : blocks * sectors_per_block;
}

// The largest file the volume's maps can address, worked out from the
// format alone: 12 direct blocks and a single, double and triple indirect
// block of a classic map, or 2^32 blocks of an extent tree.
std::uint64_t LargestFile(const std::uint8_t* data) {
    const std::uint8_t* super = data + kSuperblockOffset;
    std::uint32_t log_block = LoadLE32(super + 24);
    if (log_block > kLargestLogBlock) return 0;  // no such volume is mounted
    std::uint64_t block = 1024ull << log_block;
    std::uint64_t p = block / 4;
    std::uint64_t largest = (12 + p + p * p + p * p * p) * block;
    if ((LoadLE32(super + 0x60) & kIncompatExtents) != 0 && (block << 32) > largest) largest = block << 32;
    return largest;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < kSuperblockOffset + 1024) return 0;
    volume_fuzzing::MountAndWalk(
        std::make_unique<volume_fuzzing::InputDisk>(data, size, kSectorBytes, DeclaredSectors(data)), TryExtDriver,
        LargestFile(data));
    volume_fuzzing::MountChangeAndWalk(
        std::make_unique<volume_fuzzing::KeepingDisk>(data, size, kSectorBytes, DeclaredSectors(data)),
        TryExtDriver, LargestFile(data));
    return 0;
}
