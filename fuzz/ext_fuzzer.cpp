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
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

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

// The volume over the input, as volume_fuzzing::InputDisk, but keeping
// what is written, so that a change reads back what the steps before it
// left, as on a real disk.
class KeepingDisk : public Fdisk::SimpleDisk {
public:
    KeepingDisk(const std::uint8_t* data, std::size_t size, std::uint64_t declared_sectors)
        : reads_(data, size, kSectorBytes, declared_sectors) {
        sector_size = kSectorBytes;
        last_sector = reads_.GetLastSector();
    }

    Common::Error Transfer(std::uint32_t operation, std::uint64_t sector, void* buffer,
                           std::uint64_t count) override {
        if (sector > last_sector || count > last_sector + 1 - sector) return Common::Error(1, Common::FILE_READ);
        auto* bytes = static_cast<std::uint8_t*>(buffer);
        for (std::uint64_t i = 0; i < count; ++i, bytes += sector_size) {
            if (operation == Fdisk::kTransferRead) read_sector(sector + i, bytes);
            else written_.insert_or_assign(sector + i, std::vector<std::uint8_t>(bytes, bytes + sector_size));
        }
        return Common::Error();
    }

private:
    void read_sector(std::uint64_t sector, std::uint8_t* bytes) {
        auto kept = written_.find(sector);
        if (kept != written_.end()) std::copy(kept->second.begin(), kept->second.end(), bytes);
        else reads_.Transfer(Fdisk::kTransferRead, sector, bytes, 1);
    }

    volume_fuzzing::InputDisk reads_;
    std::map<std::uint64_t, std::vector<std::uint8_t>> written_;
};

constexpr std::size_t kPiece = 3000;

// Clears what a refused step stored, so that the next step is tried.
void Forget(file_object& object) { object.set_error(Common::Error()); }

void WriteInPieces(rio_file& file, std::size_t total, std::uint8_t seed) {
    std::vector<std::uint8_t> piece(kPiece);
    for (std::size_t i = 0; i < piece.size(); ++i) piece[i] = static_cast<std::uint8_t>(seed + i * 7);
    for (std::size_t done = 0; done < total && !file.failed(); done += kPiece) {
        std::uint64_t written = 0;
        std::uint64_t asked = std::min(kPiece, total - done);
        file.write(piece.data(), asked, written);
        volume_fuzzing::Require(written <= asked);
        if (written < asked) break;
    }
}

// The first `most` entries of the root that are neither directories nor
// "." and "..".
std::vector<std::u16string> FileNames(rio_dir& root, std::size_t most) {
    std::vector<std::u16string> names;
    std::unique_ptr<i_dir::iterator> entry(root.begin());
    if (entry == nullptr || entry->failed()) return names;
    int budget = volume_fuzzing::kMostEntries;
    do {
        std::u16string name = entry->name();
        if (entry->kind() != KIND_DIRECTORY && name != u"." && name != u"..") names.push_back(name);
    } while (names.size() < most && --budget > 0 && entry->next());
    Forget(root);
    return names;
}

// Appended to, then removed: the seeds are tiny volumes with no inode to
// spare, so the changes that follow need what this frees.
void ChangeOldFiles(rio_dir& root) {
    std::vector<std::u16string> names = FileNames(root, 3);
    if (names.empty()) return;
    std::unique_ptr<rio_file> file(root.open_for_update(names[0].c_str(), false));
    Forget(root);
    if (file != nullptr) {
        file->seek_end(0);
        WriteInPieces(*file, 5000, 3);
        file->flush();
    }
    file.reset();
    if (names.size() > 1) {
        root.rename(names[1].c_str(), u"renamed");
        Forget(root);
        root.remove_file(u"renamed");
        Forget(root);
    }
    for (std::size_t i = 0; i < names.size(); i += 2) {
        root.remove_file(names[i].c_str());
        Forget(root);
    }
}

// A file written in pieces, grown by a hole behind its end, written into
// the hole, cut back into a block, moved to the root and rewritten shorter.
void ChangeNewFile(rio_dir& root) {
    std::unique_ptr<rio_file> file(root.create_file(u"fz/new.bin"));
    Forget(root);
    if (file != nullptr) {
        WriteInPieces(*file, 9000, 1);
        Forget(*file);
        file->set_size(70000);
        Forget(*file);
        file->seek(40000);
        WriteInPieces(*file, 5000, 2);
        Forget(*file);
        file->set_size(4500);
        file->flush();
    }
    file.reset();
    root.rename(u"fz/new.bin", u"moved.bin");
    Forget(root);
    std::unique_ptr<rio_file> again(root.create_file(u"moved.bin"));
    Forget(root);
    if (again != nullptr) WriteInPieces(*again, 100, 4);
}

void ChangeVolume(rio_dir& root) {
    ChangeOldFiles(root);
    root.make_dir(u"fz");
    Forget(root);
    ChangeNewFile(root);
    std::unique_ptr<rio_file> kept(root.create_file(u"fz/kept"));
    Forget(root);
    if (kept != nullptr) WriteInPieces(*kept, 10, 5);
    kept.reset();
    // Refused while it holds an entry.
    root.remove_dir(u"fz");
    Forget(root);
}

void MountChangeAndWalk(const std::uint8_t* data, std::size_t size) {
    std::unique_ptr<Fdisk::SimpleDisk> disk = std::make_unique<KeepingDisk>(data, size, DeclaredSectors(data));
    std::unique_ptr<rio_dir> root(EfiLoader::MountVolume(TryExtDriver, disk));
    if (root == nullptr) return;
    ChangeVolume(*root);
    volume_fuzzing::WalkBudget budget;
    budget.largest_file = LargestFile(data);
    volume_fuzzing::WalkDirectory(*root, 0, budget);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < kSuperblockOffset + 1024) return 0;
    volume_fuzzing::MountAndWalk(
        std::make_unique<volume_fuzzing::InputDisk>(data, size, kSectorBytes, DeclaredSectors(data)), TryExtDriver,
        LargestFile(data));
    MountChangeAndWalk(data, size);
    return 0;
}
