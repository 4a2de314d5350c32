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
// Last, a restore from streams cut out of the input's tail (attributes,
// times, a Win32 backup stream whose first header is given a known id, a
// short name and a size below 64 KiB so that the handlers see it, and plain
// data) goes onto the volume mounted again as a writable one: refused or
// not, it may not fault or hang.
// The seeds in corpus/ntfs_fuzzer are made by tests/images/ntfs_make_seeds.sh.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

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

struct RestorePiece {
    std::uint32_t type;
    std::string data;
};

// Hands out the restore's pieces whole, one input stream each.
class RestorePieces : public BackupStreams {
public:
    explicit RestorePieces(std::vector<RestorePiece> pieces) : pieces_(std::move(pieces)) {}
    class Input : public RestoreInputStream {
    public:
        explicit Input(const RestorePiece& piece) : piece_(piece) {}
        std::uint32_t type() override { return piece_.type; }
        Common::Error read(void* buffer, std::uint64_t size, std::uint64_t& got) override {
            got = std::min<std::uint64_t>(size, piece_.data.size() - at_);
            std::memcpy(buffer, piece_.data.data() + at_, static_cast<std::size_t>(got));
            at_ += static_cast<std::size_t>(got);
            return Common::Error();
        }

    private:
        const RestorePiece& piece_;
        std::size_t at_ = 0;
    };
    Common::Error open_output(std::uint32_t, BackupOutputStream*&) override {
        return Common::Error(1, Common::FILE_UNSUPPORTED);
    }
    RestoreInputStream* next_input() override {
        return next_ == pieces_.size() ? nullptr : new Input(pieces_[next_++]);
    }
    Common::Error error() override { return Common::Error(); }

private:
    std::vector<RestorePiece> pieces_;
    std::size_t next_ = 0;
};

constexpr std::size_t kRestoreTail = 2048;
constexpr std::size_t kRestoreHead = 24;  // attributes 4, times 16, id, name size, size 2

std::string LittleEndian(std::uint64_t value, int bytes) {
    std::string out;
    for (int i = 0; i < bytes; ++i) out.push_back(static_cast<char>((value >> (8 * i)) & 0xFF));
    return out;
}

// One Win32 stream whose data is no longer than its header says, so that
// no header of raw bytes follows: a sparse block's position is kept below
// 1 MiB, since the driver writes a hole as zeros.
std::vector<RestorePiece> RestorePiecesOf(const std::uint8_t* tail, std::size_t size) {
    static const std::uint32_t kIds[] = {1, 3, 4, 7, 8, 9, 0x55};
    const std::uint32_t id = kIds[tail[20] % (sizeof(kIds) / sizeof(kIds[0]))];
    const std::size_t name_bytes = 2u * (tail[21] % 8);
    const std::uint64_t stream_size = tail[22] | (std::uint64_t(tail[23]) << 8);
    const auto* rest = reinterpret_cast<const char*>(tail + kRestoreHead);
    const std::size_t rest_size = size - kRestoreHead;
    const std::size_t name_taken = std::min(name_bytes, rest_size);
    std::string kind2 = LittleEndian(id, 4) + LittleEndian(0, 4) + LittleEndian(stream_size, 8) +
                        LittleEndian(name_bytes, 4) + std::string(rest, name_taken);
    std::size_t used = name_taken;
    std::uint64_t data_left = stream_size;
    if (id == 9 && data_left >= 8) {
        kind2 += LittleEndian(std::uint64_t(tail[20]) << 12, 8);
        data_left -= 8;
    }
    const std::size_t data_taken = static_cast<std::size_t>(std::min<std::uint64_t>(data_left, rest_size - used));
    kind2.append(rest + used, data_taken);
    used += data_taken;
    return {{1, std::string(reinterpret_cast<const char*>(tail), 4)},
            {5, std::string(reinterpret_cast<const char*>(tail + 4), 16)},
            {2, kind2},
            {4, std::string(rest + used, rest_size - used)}};
}

void RestoreOnto(std::unique_ptr<Fdisk::SimpleDisk> disk, const std::uint8_t* data, std::size_t size) {
    const std::size_t tail_size = size < kRestoreTail ? size : kRestoreTail;
    if (tail_size < kRestoreHead) return;
    std::unique_ptr<rio_dir> root(EfiLoader::MountVolume(TryNTFSDriver, disk));
    if (root == nullptr) return;
    RestorePieces streams(RestorePiecesOf(data + size - tail_size, tail_size));
    BackupRequest request{0x52545352, 0, {&streams, nullptr, 0}, {nullptr}};  // "RSTR"
    request.path = u"restored";
    root->control(&request);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < kSectorBytes) return 0;
    volume_fuzzing::MountAndWalk(
        std::make_unique<volume_fuzzing::InputDisk>(data, size, kSectorBytes, DeclaredSectors(data)),
        TryNTFSDriver, kLargestFile);
    volume_fuzzing::MountChangeAndWalk(
        std::make_unique<volume_fuzzing::KeepingDisk>(data, size, kSectorBytes, DeclaredSectors(data)),
        TryNTFSDriver, kLargestFile);
    RestoreOnto(std::make_unique<volume_fuzzing::KeepingDisk>(data, size, kSectorBytes, DeclaredSectors(data)), data,
                size);
    return 0;
}
