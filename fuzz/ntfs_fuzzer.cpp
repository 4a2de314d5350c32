// An NTFS volume from untrusted bytes. The input is the start of the
// volume, from its boot sector on, in 512-byte sectors. The volume is as
// large as the boot sector says (the u64 count of sectors at byte 0x28;
// never below the input, at most kMostSectors), and every byte behind the
// input reads as zero. mkntfs puts the MFT 16 KiB into the volume and the
// other system files behind its reserved zone, so a seed holds the boot
// sector, the MFT with the files' records, the root index, $AttrDef, $Bitmap
// and $Secure; $LogFile, $UpCase and the data of large files lie behind it
// and read as zeros, which still mounts. It is mounted the way the loader
// mounts a partition, and then every entry is walked, stated and read, by
// iterator, by name and at far positions: compressed, sparse and resident
// streams, attribute lists and index trees all take the reader's paths.
// Nothing may fault, hang or read outside the volume, and what a file
// yields without a stored error is exactly as long as its size says.
// Then the volume is mounted again over a disk that keeps what is written,
// and changed as the loader and `morvane fs` change volumes: existing files
// appended to, renamed and removed, a directory made, a file created and
// written in pieces, grown past its end, written into the hole and cut
// back, moved and rewritten shorter. This drives the cluster and record
// allocators, the $LogFile reset, index insertion and removal and run
// lists grown and cut, all over whatever the damaged $Bitmap, MFT and
// indexes say; each step may be refused, none may fault or hang. The
// changed volume is walked once more.
// The seeds in corpus/ntfs_fuzzer are made by tests/images/ntfs_make_seeds.sh.
#include <cstddef>
#include <cstdint>
#include <memory>

#include "fuzz/volume_fuzzing.h"

namespace {

using Common::LoadLE64;

constexpr std::uint32_t kSectorBytes = 512;
constexpr std::size_t kTotalSectorsOffset = 0x28;

std::uint64_t DeclaredSectors(const std::uint8_t* boot) {
    std::uint64_t sectors = LoadLE64(boot + kTotalSectorsOffset);
    return sectors > volume_fuzzing::kMostSectors ? volume_fuzzing::kMostSectors : sectors;
}

// A sparse stream is not bounded by the volume (the mounted seed holds one
// of 1 GiB on a 1 MiB volume), and the sizes that a directory entry shows
// are 64-bit copies kept in the index, so the format sets no bound below
// 2^64 - 1 on what an entry or a file may claim. The walk's read is bounded
// all the same, so a believed size can't make it stream without end.
constexpr std::uint64_t kLargestFile = ~std::uint64_t(0);

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < kSectorBytes) return 0;
    volume_fuzzing::MountAndWalk(
        std::make_unique<volume_fuzzing::InputDisk>(data, size, kSectorBytes, DeclaredSectors(data)),
        TryNTFSDriver, kLargestFile);
    volume_fuzzing::MountChangeAndWalk(
        std::make_unique<volume_fuzzing::KeepingDisk>(data, size, kSectorBytes, DeclaredSectors(data)),
        TryNTFSDriver, kLargestFile);
    return 0;
}
