// An ext2/3/4 volume from untrusted bytes. The input is the start of the
// volume, with the superblock at byte 1024. The volume is as large as the
// superblock says (s_blocks_count blocks of 1024 << s_log_block_size bytes;
// never below the input, at most kMostSectors sectors of 512 bytes), and
// every byte behind the input reads as zero: a seed of a few KiB holds the
// superblock, the group descriptors, an inode table and some directories,
// and stands for a whole small volume. It is mounted the way the loader
// mounts a partition, and then every entry is walked, stated and read, by
// iterator, by name and at far positions. Nothing may fault, hang or read
// outside the volume, and what a file yields without a stored error is
// exactly as long as its size says.
// The seeds in corpus/ext_fuzzer are made by tests/images/ext_make_seeds.sh.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "files/dir_object.h"
#include "firmware/simple_disk.h"
#include "fsdriver/driver_selection.h"
#include "loader/common/error_codes.h"
#include "loader/mount_volume.h"

namespace {

constexpr std::uint32_t kSectorBytes = 512;
constexpr std::uint64_t kMostSectors = 1ull << 24;
constexpr std::size_t kSuperblockOffset = 1024;
// Bounds for what a damaged volume can make a walk do: directories that
// hold their own ancestors, and huge sparse files.
constexpr int kDeepest = 12;
constexpr int kMostEntries = 2048;
constexpr std::uint64_t kMostBytesPerFile = 1 << 20;

void Require(bool condition) {
    if (!condition) std::abort();
}

std::uint32_t LittleEndian(const std::uint8_t* bytes, int count) {
    std::uint32_t value = 0;
    for (int i = count - 1; i >= 0; --i) value = value << 8 | bytes[i];
    return value;
}

// The sectors the superblock claims, or 0 when the input holds no superblock.
std::uint64_t DeclaredSectors(const std::uint8_t* data, std::size_t size) {
    if (size < kSuperblockOffset + 1024) return 0;
    const std::uint8_t* super = data + kSuperblockOffset;
    std::uint64_t blocks = LittleEndian(super + 4, 4);
    std::uint32_t log_block = LittleEndian(super + 24, 4);
    if (log_block > 6) return 0;
    std::uint64_t sectors_per_block = (1024ull << log_block) / kSectorBytes;
    return blocks > kMostSectors ? kMostSectors : blocks * sectors_per_block;
}

// The volume over the input, as a block device would show it: transfers
// outside it are refused, and the part behind the input reads as zeros.
class InputDisk : public Fdisk::SimpleDisk {
public:
    InputDisk(const std::uint8_t* data, std::size_t size) : input_(data, data + size) {
        sector_size = kSectorBytes;
        std::uint64_t input_sectors = (size + kSectorBytes - 1) / kSectorBytes;
        std::uint64_t sectors = DeclaredSectors(data, size);
        if (sectors < input_sectors) sectors = input_sectors;
        if (sectors > kMostSectors) sectors = kMostSectors;
        last_sector = sectors - 1;
    }

    Common::Error Transfer(std::uint32_t operation, std::uint64_t sector, void* buffer,
                           std::uint64_t count) override {
        if (sector > last_sector || count > last_sector + 1 - sector) return Common::Error(1, Common::FILE_READ);
        if (operation != Fdisk::kTransferRead) return Common::Error();
        std::uint64_t offset = sector * sector_size;
        std::uint64_t length = count * sector_size;
        std::memset(buffer, 0, length);
        if (offset < input_.size()) {
            std::uint64_t present = input_.size() - offset < length ? input_.size() - offset : length;
            std::memcpy(buffer, input_.data() + offset, present);
        }
        return Common::Error();
    }

private:
    std::vector<std::uint8_t> input_;
};

struct WalkBudget {
    int entries = kMostEntries;
};

void ReadWhole(ri_file& file) {
    std::uint64_t size = file.size();
    std::vector<std::uint8_t> buffer(4096);
    std::uint64_t total = 0;
    while (total < kMostBytesPerFile) {
        std::uint64_t got = 0;
        file.read(buffer.data(), buffer.size(), got);
        Require(got <= buffer.size());
        if (file.failed() || got == 0) break;
        total += got;
    }
    if (!file.failed() && total < kMostBytesPerFile) Require(total == size);
    // Random access: the last byte, and a read from far behind the end.
    if (size == 0 || file.failed()) return;
    std::uint64_t got = 0;
    file.seek(static_cast<std::int64_t>(size - 1));
    file.read(buffer.data(), buffer.size(), got);
    Require(got <= 1);
    file.seek(static_cast<std::int64_t>(size + 4096));
    file.read(buffer.data(), buffer.size(), got);
    Require(got == 0);
}

void StatEntry(i_dir::iterator& entry) {
    static_cast<void>(entry.short_name());
    static_cast<void>(entry.display_name());
    static_cast<void>(entry.size());
    static_cast<void>(entry.allocated_size());
    static_cast<void>(entry.modified());
    static_cast<void>(entry.created());
    static_cast<void>(entry.accessed());
    static_cast<void>(entry.attributes());
    static_cast<void>(entry.hidden());
    std::unique_ptr<file_identifier> identifier(entry.identifier());
    if (identifier != nullptr) std::unique_ptr<file_identifier> copy(identifier->clone());
}

void WalkDirectory(i_dir& dir, int depth, WalkBudget& budget);

void VisitEntry(i_dir& dir, i_dir::iterator& entry, int depth, WalkBudget& budget) {
    std::u16string name = entry.name();
    StatEntry(entry);
    if (name == u"." || name == u"..") return;
    // The same entry found again by its name: through the hash index where
    // the directory has one.
    std::unique_ptr<i_dir::iterator> found(dir.find(name.c_str()));
    if (entry.kind() == KIND_DIRECTORY) {
        std::unique_ptr<i_dir> below(dir.open_dir(entry));
        if (below != nullptr && depth < kDeepest) WalkDirectory(*below, depth + 1, budget);
        return;
    }
    // Symbolic links and device nodes open as files too, or refuse.
    std::unique_ptr<ri_file> file(dir.open_file(entry, true));
    if (file != nullptr) ReadWhole(*file);
}

void WalkDirectory(i_dir& dir, int depth, WalkBudget& budget) {
    std::unique_ptr<i_dir::iterator> entry(dir.begin());
    if (entry == nullptr || entry->failed()) return;
    do {
        if (--budget.entries < 0) return;
        VisitEntry(dir, *entry, depth, budget);
    } while (entry->next());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < kSuperblockOffset + 1024) return 0;
    std::unique_ptr<Fdisk::SimpleDisk> disk(new InputDisk(data, size));
    std::unique_ptr<rio_dir> root(EfiLoader::MountVolume(TryExtDriver, disk));
    if (root == nullptr) return 0;
    char16_t label[64];
    root->label(label, 64);
    std::uint64_t total = 0, free = 0, available = 0;
    root->space(total, free, available);
    WalkBudget budget;
    WalkDirectory(*root, 0, budget);
    std::unique_ptr<i_dir::iterator> self(root->self());
    return 0;
}
