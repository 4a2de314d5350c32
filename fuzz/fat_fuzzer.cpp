// A FAT volume from untrusted bytes: a stick, a card or a partition can hold
// anything. The input is the start of the volume, from its boot sector on.
// The volume is as large as the boot sector says (the 16-bit count at byte
// 19, else the 32-bit one at byte 32; never below the input, at most
// kMostSectors), its sectors are as large as byte 11 says (512 unless that
// is 1024, 2048 or 4096), and every byte behind the input reads as zero. So
// a seed of a few KiB stands for a whole FAT12 or FAT16 volume. It is
// mounted the way the loader mounts a partition, and then every entry is
// walked, stated and read, by iterator, by name and at far positions.
// Nothing may fault, hang or read outside the volume, and what a file yields
// without a stored error is exactly as long as its size says.
// The seeds in corpus/fat_fuzzer are made by tests/images/make_fat_seeds.sh.
#include <cstddef>
#include <cstdint>
#include <memory>

#include "fuzz/volume_fuzzing.h"

namespace {

using Common::LoadLE16;
using Common::LoadLE32;

constexpr std::uint32_t kDefaultSectorBytes = 512;

std::uint32_t DeclaredSectorBytes(const std::uint8_t* boot) {
    std::uint32_t declared = LoadLE16(boot + 11);
    return declared == 1024 || declared == 2048 || declared == 4096 ? declared : kDefaultSectorBytes;
}

std::uint64_t DeclaredSectors(const std::uint8_t* boot) {
    std::uint64_t small = LoadLE16(boot + 19);
    return small != 0 ? small : LoadLE32(boot + 32);
}

// A FAT entry holds a 32-bit size: nothing a FAT volume shows may be larger.
constexpr std::uint64_t kLargestFile = 0xFFFFFFFFu;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < kDefaultSectorBytes) return 0;
    volume_fuzzing::MountAndWalk(
        std::make_unique<volume_fuzzing::InputDisk>(data, size, DeclaredSectorBytes(data), DeclaredSectors(data)),
        TryFATDriver, kLargestFile);
    return 0;
}
