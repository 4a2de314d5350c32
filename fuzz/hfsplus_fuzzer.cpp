// An HFS+ or HFSX volume from untrusted bytes. The input is the volume
// from its first byte on, in 512-byte sectors; the volume is as large as
// its header says (totalBlocks x blockSize at byte 1024; never below the
// input, at most kMostSectors), and every byte behind the input reads as
// zero. The seeds are whole small volumes (their alternate header, 1 KiB
// before the end, must be there for a mount), so the fuzzer mutates the
// headers, the journal info block, the journal, the B-tree nodes and the
// file data alike. A journal is mounted from 8 MiB on, which mkfs.hfsplus
// gives volumes of 128 MiB and more, so a journaled volume comes packed:
// "HFSPACK1", then runs of sectors, each its first sector (u32,
// big-endian), its count (u16) and its bytes; what no run names reads as
// zero, and the header found in the runs sizes the volume.
// It is mounted the way the loader mounts a partition, and then every
// entry is walked, stated and read, by iterator, by name and at far
// positions. Nothing may fault, hang or read outside the volume, and what
// a file yields without a stored error is exactly as long as its size
// says.
// Then the volume is mounted again over a disk that keeps what is written
// and changed as the loader and `morvane fs` change volumes: the first
// change replays what the journal holds, then existing files are appended
// to, renamed and removed, a folder is made, a file created and written in
// pieces, grown, written into and cut back, moved and rewritten shorter; on
// top of those shared steps, a hard link and a symbolic link are made, an
// owner and a mode set, and a run of long names is added and removed again,
// which splits the catalog's nodes and merges them back. Each step may be
// refused, none may fault or hang. The changed volume is walked, unmounted
// (the alternate header and the bitmap go out), mounted once more from
// what the disk kept and walked again.
// The seeds in corpus/hfsplus_fuzzer are made by
// tests/images/hfsplus_make_seeds.sh.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <utility>

#include "fuzz/volume_fuzzing.h"

namespace {

using Common::LoadBE16;
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

constexpr char kPackMagic[] = "HFSPACK1";
constexpr std::size_t kPackMagicBytes = sizeof(kPackMagic) - 1;
constexpr std::size_t kRunHeader = 6;
constexpr std::uint64_t kHeaderSector = kHeaderOffset / kSectorBytes;

bool IsPacked(const std::uint8_t* data, std::size_t size) {
    return size >= kPackMagicBytes && std::memcmp(data, kPackMagic, kPackMagicBytes) == 0;
}

// The packed volume's sector that holds the header, or null when no run
// holds it whole.
const std::uint8_t* PackedHeaderSector(const std::uint8_t* data, std::size_t size) {
    for (std::size_t at = kPackMagicBytes; size - at >= kRunHeader;) {
        const std::uint64_t first = LoadBE32(data + at);
        const std::uint64_t count = LoadBE16(data + at + 4);
        at += kRunHeader;
        const std::uint64_t present = std::min<std::uint64_t>(count, (size - at) / kSectorBytes);
        if (first <= kHeaderSector && kHeaderSector < first + present) {
            return data + at + (kHeaderSector - first) * kSectorBytes;
        }
        if (present < count) return nullptr;
        at += count * kSectorBytes;
    }
    return nullptr;
}

// A disk of the packed volume: its runs written onto a disk of zeros;
// sectors outside the volume are left out, as a short last run's tail.
std::shared_ptr<volume_fuzzing::KeepingDisk> Unpack(const std::uint8_t* data, std::size_t size) {
    const std::uint8_t* header = PackedHeaderSector(data, size);
    if (header == nullptr) return nullptr;
    // The header sector as the plain form has it: the volume from byte 0.
    std::uint8_t head[kHeaderOffset + kSectorBytes] = {};
    std::memcpy(head + kHeaderOffset, header, kSectorBytes);
    const std::uint64_t sectors = DeclaredSectors(head);
    if (sectors <= kHeaderSector) return nullptr;
    auto disk = std::make_shared<volume_fuzzing::KeepingDisk>(data, 0, kSectorBytes, sectors);
    for (std::size_t at = kPackMagicBytes; size - at >= kRunHeader;) {
        const std::uint64_t first = LoadBE32(data + at);
        const std::uint64_t present = (size - at - kRunHeader) / kSectorBytes;
        const std::uint64_t count = std::min<std::uint64_t>(LoadBE16(data + at + 4), present);
        at += kRunHeader;
        for (std::uint64_t i = 0; i < count; ++i, at += kSectorBytes) {
            disk->Transfer(Fdisk::kTransferWrite, first + i, const_cast<std::uint8_t*>(data + at), 1);
        }
    }
    return disk;
}

std::shared_ptr<volume_fuzzing::KeepingDisk> MakeDisk(const std::uint8_t* data, std::size_t size) {
    if (IsPacked(data, size)) return Unpack(data, size);
    return std::make_shared<volume_fuzzing::KeepingDisk>(data, size, kSectorBytes, DeclaredSectors(data));
}

// A disk that hands its transfers to a KeepingDisk held apart, so that
// what one mount wrote is there for the next: the driver owns the disk it
// mounts and deletes it at the unmount.
class SharedDisk : public Fdisk::SimpleDisk {
public:
    explicit SharedDisk(std::shared_ptr<volume_fuzzing::KeepingDisk> kept) : kept_(std::move(kept)) {
        sector_size = kept_->GetSectorSize();
        last_sector = kept_->GetLastSector();
    }

    Common::Error Transfer(std::uint32_t operation, std::uint64_t sector, void* buffer,
                           std::uint64_t count) override {
        return kept_->Transfer(operation, sector, buffer, count);
    }

private:
    std::shared_ptr<volume_fuzzing::KeepingDisk> kept_;
};

// Enough names of 38 characters to fill several 4 KiB catalog nodes with
// their records and threads, on the seeds that have room for them.
constexpr int kManyNames = 48;

std::u16string LongName(int i) {
    std::u16string name = u"fz-a-rather-long-name-to-fill-nodes-";
    name += static_cast<char16_t>(u'a' + i / 26);
    name += static_cast<char16_t>(u'a' + i % 26);
    return name;
}

// Leaves split the catalog as they are added, and merge as they go; every
// other one goes first, so the merges meet half-empty neighbours.
void ChurnCatalog(rio_dir& root) {
    int made = 0;
    for (; made < kManyNames; ++made) {
        std::unique_ptr<rio_file> file(root.create_file(LongName(made).c_str()));
        volume_fuzzing::Forget(root);
        if (file == nullptr) break;
    }
    for (int step = 0; step < 2; ++step) {
        for (int i = step; i < made; i += 2) {
            root.remove_file(LongName(i).c_str());
            volume_fuzzing::Forget(root);
        }
    }
}

// The changes that HFS+ has beyond those every writing driver takes.
void ChangeHFSPlus(rio_dir& root) {
    std::unique_ptr<rio_file> target(root.create_file(u"fz-target"));
    volume_fuzzing::Forget(root);
    if (target != nullptr) volume_fuzzing::WriteInPieces(*target, 600, 6);
    target.reset();
    root.link(u"fz-target", u"fz-link");
    volume_fuzzing::Forget(root);
    root.symlink(u"fz-symlink", u"fz-target");
    volume_fuzzing::Forget(root);
    root.set_permissions(u"fz-link", 0100640);
    volume_fuzzing::Forget(root);
    root.set_owner(u"fz-symlink", 501, 20);
    volume_fuzzing::Forget(root);
    ChurnCatalog(root);
    // The inode goes with its last link.
    root.remove_file(u"fz-target");
    volume_fuzzing::Forget(root);
    root.remove_file(u"fz-link");
    volume_fuzzing::Forget(root);
}

void Walk(rio_dir& root, std::uint64_t largest_file) {
    volume_fuzzing::WalkBudget budget;
    budget.largest_file = largest_file;
    volume_fuzzing::WalkDirectory(root, 0, budget);
}

// The changes, the walk, the unmount, and the walk of the volume mounted
// again from what was written.
void ChangeRemountAndWalk(const std::uint8_t* data, std::size_t size, std::uint64_t largest_file) {
    std::shared_ptr<volume_fuzzing::KeepingDisk> kept = MakeDisk(data, size);
    if (kept == nullptr) return;
    std::unique_ptr<Fdisk::SimpleDisk> disk = std::make_unique<SharedDisk>(kept);
    std::unique_ptr<rio_dir> root(EfiLoader::MountVolume(TryHFSPlusDriver, disk));
    if (root == nullptr) return;
    volume_fuzzing::ChangeVolume(*root);
    ChangeHFSPlus(*root);
    Walk(*root, largest_file);
    root.reset();
    disk = std::make_unique<SharedDisk>(kept);
    root.reset(EfiLoader::MountVolume(TryHFSPlusDriver, disk));
    if (root != nullptr) Walk(*root, largest_file);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::uint8_t head[kHeaderOffset + kSectorBytes] = {};
    if (IsPacked(data, size)) {
        const std::uint8_t* header = PackedHeaderSector(data, size);
        if (header == nullptr) return 0;
        std::memcpy(head + kHeaderOffset, header, kSectorBytes);
    } else {
        if (size < sizeof(head)) return 0;
        std::memcpy(head, data, sizeof(head));
    }
    // HFS+ has no sparse files: a fork's size is covered by its allocation
    // blocks, so no file of the volume can be larger than the volume.
    const std::uint64_t largest_file = VolumeBytes(head);
    if (IsPacked(data, size)) {
        std::shared_ptr<volume_fuzzing::KeepingDisk> kept = Unpack(data, size);
        if (kept == nullptr) return 0;
        volume_fuzzing::MountAndWalk(std::make_unique<SharedDisk>(kept), TryHFSPlusDriver, largest_file);
    } else {
        volume_fuzzing::MountAndWalk(
            std::make_unique<volume_fuzzing::InputDisk>(data, size, kSectorBytes, DeclaredSectors(data)),
            TryHFSPlusDriver, largest_file);
    }
    ChangeRemountAndWalk(data, size, largest_file);
    return 0;
}
