// An HFS+ or HFSX volume from untrusted bytes. The input is the volume
// from its first byte on, in 512-byte sectors; the volume is as large as
// its header says (totalBlocks x blockSize at byte 1024; never below the
// input, at most kMostSectors), and every byte behind the input reads as
// zero. The seeds are whole small volumes (their alternate header, 1 KiB
// before the end, must be there for a mount), so the fuzzer mutates the
// headers, the journal info block, the B-tree nodes and the file data
// alike. It is mounted the way the loader mounts a partition, and then
// every entry is walked, stated and read, by iterator, by name and at far
// positions. Nothing may fault, hang or read outside the volume, and what
// a file yields without a stored error is exactly as long as its size says.
// The seeds in corpus/hfsplus_fuzzer are made by
// tests/images/hfsplus_make_seeds.sh.
#include <cstddef>
#include <cstdint>
#include <memory>

#include "fuzz/volume_fuzzing.h"

namespace {

using Common::LoadBE32;

constexpr std::uint32_t kSectorBytes = 512;
constexpr std::size_t kHeaderOffset = 1024;
constexpr std::size_t kBlockSizeOffset = kHeaderOffset + 40;
constexpr std::size_t kTotalBlocksOffset = kHeaderOffset + 44;

std::uint64_t VolumeBytes(const std::uint8_t* data) {
    return std::uint64_t(LoadBE32(data + kBlockSizeOffset)) * LoadBE32(data + kTotalBlocksOffset);
}

std::uint64_t DeclaredSectors(const std::uint8_t* data) {
    const std::uint64_t sectors = VolumeBytes(data) / kSectorBytes;
    return sectors > volume_fuzzing::kMostSectors ? volume_fuzzing::kMostSectors : sectors;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < kHeaderOffset + kSectorBytes) return 0;
    // HFS+ has no sparse files: a fork's size is covered by its allocation
    // blocks, so no file of the volume can be larger than the volume.
    const std::uint64_t largest_file = VolumeBytes(data);
    volume_fuzzing::MountAndWalk(
        std::make_unique<volume_fuzzing::InputDisk>(data, size, kSectorBytes, DeclaredSectors(data)),
        TryHFSPlusDriver, largest_file);
    return 0;
}
