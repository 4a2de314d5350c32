// The HFS+ metadata write path: writes and moves of metadata sectors
// through the cache, the replay of a journal with pending transactions at
// the first write, the volume header's stamp and its return at unmount, and
// the allocation file's flush. Volumes come from mkfs.hfsplus, transactions
// from tests/images/hfs_journal_writer; what the driver wrote is judged by
// fsck.hfsplus -fn and sleuthkit.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "fsdriver/driver_selection.h"
#include "hfsplus/allocation_file.h"
#include "hfsplus/catalog_file.h"
#include "hfsplus/hfsplus_driver.h"
#include "hfsplus/hfsplus_metadata.h"
#include "hfsplus/journal.h"
#include "hfsplus/volume_header.h"
#include "loader/common/error_codes.h"
#include "tests/support/hfsplus_image.h"
#include "tests/support/raised_code.h"
#include "tests/support/shell.h"
#include "tests/support/volume_fixture.h"

namespace {

using namespace hfsplus;
using TestSupport::RaisedCode;
using Volume = TestSupport::Volume<HFSPlusDriver, TryHFSPlusDriver>;
using Bytes = std::vector<unsigned char>;

constexpr std::uint32_t kSector = 512;
constexpr std::uint64_t kHeaderByte = 1024;

int Shell(const std::string& command) { return TestSupport::RunQuietly(command); }

std::string Output(const std::string& command) {
    std::string text;
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return text;
    char chunk[4096];
    while (std::size_t n = fread(chunk, 1, sizeof(chunk), pipe)) text.append(chunk, n);
    pclose(pipe);
    return text;
}

::testing::AssertionResult FsckClean(const std::string& path) {
    if (Shell("fsck.hfsplus -fn " + path) == 0) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << Output("fsck.hfsplus -fn " + path + " 2>&1");
}

std::uint32_t GetBE32(const Bytes& bytes, std::uint64_t at) {
    return std::uint32_t(bytes[at]) << 24 | std::uint32_t(bytes[at + 1]) << 16 | std::uint32_t(bytes[at + 2]) << 8 |
           bytes[at + 3];
}

void PutBE32(Bytes& bytes, std::uint64_t at, std::uint32_t value) {
    for (int i = 0; i < 4; ++i) bytes[at + i] = static_cast<unsigned char>(value >> (24 - 8 * i));
}

std::uint64_t GetLE64(const Bytes& bytes, std::uint64_t at) {
    std::uint64_t value = 0;
    for (int i = 7; i >= 0; --i) value = value << 8 | bytes[at + i];
    return value;
}

// Header fields by their byte offsets in the volume header.
constexpr std::uint64_t kAttributes = 4, kLastMounted = 8, kWriteCount = 68, kFreeBlocks = 48;

struct Image {
    explicit Image(const std::string& options, const std::string& size = "64M") {
        made = Shell("truncate -s " + size + " " + file.path + " && mkfs.hfsplus -v Jtest " + options + " " +
                     file.path) == 0;
    }
    Bytes bytes() const { return file.bytes(); }
    std::uint32_t header32(std::uint64_t field) const { return GetBE32(bytes(), kHeaderByte + field); }

    TestSupport::ImageFile file;
    bool made = false;
};

// Sector `sector` of a volume image file and the next ones.
Bytes Sectors(const Bytes& image, std::uint64_t sector, std::uint64_t count) {
    return Bytes(image.begin() + sector * kSector, image.begin() + (sector + count) * kSector);
}

// The journal of a journaled image: its header's place, and whether it is empty.
struct JournalPlace {
    explicit JournalPlace(const Bytes& image) {
        const std::uint64_t block = GetBE32(image, kHeaderByte + 40);
        const std::uint64_t info = std::uint64_t(GetBE32(image, kHeaderByte + 12)) * block;
        std::uint64_t offset = 0;
        for (int i = 0; i < 8; ++i) offset = offset << 8 | image[info + 36 + i];
        header = offset;
    }
    static bool Empty(const Bytes& image, std::uint64_t at) { return GetLE64(image, at + 8) == GetLE64(image, at + 16); }
    std::uint64_t header = 0;
};

// Transactions of a journaled volume: a newer header with a write count of
// 1000, and the catalog leaf that holds the volume's name, renamed
// "Jtest" to "Jxest".
std::string PendingTransactions(Image& image, const std::string& extra) {
    Bytes volume = image.bytes();
    const std::uint32_t block = GetBE32(volume, kHeaderByte + 40);
    const std::uint64_t catalog = std::uint64_t(GetBE32(volume, kHeaderByte + 272 + 16)) * block;
    const std::uint32_t node_size = std::uint32_t(volume[catalog + 32]) << 8 | volume[catalog + 33];
    const std::string old_name("\0J\0t\0e\0s\0t", 10), new_name("\0J\0x\0e\0s\0t", 10);
    std::uint64_t leaf = 0;
    Bytes node;
    for (std::uint64_t at = catalog + node_size; leaf == 0 && at < catalog + 16 * node_size; at += node_size) {
        node.assign(volume.begin() + at, volume.begin() + at + node_size);
        std::string text(node.begin(), node.end());
        if (static_cast<std::int8_t>(node[8]) != -1 || text.find(old_name) == std::string::npos) continue;
        for (std::size_t i = text.find(old_name); i != std::string::npos; i = text.find(old_name, i + 1)) {
            std::memcpy(node.data() + i, new_name.data(), new_name.size());
        }
        leaf = at;
    }
    if (leaf == 0) return "";
    Bytes header = Sectors(volume, 2, 1);
    PutBE32(header, kWriteCount, 1000);
    TestSupport::StoreFile(image.file.folder.Path() + "/vh", header);
    TestSupport::StoreFile(image.file.folder.Path() + "/node", node);
    const std::string dir = image.file.folder.Path();
    return TestSupport::HfsJournalWriter() + " " + extra + " " + image.file.path + " 2:" + dir + "/vh " +
           std::to_string(leaf / kSector) + ":" + dir + "/node";
}

// A metadata object's bytes rewritten as they are: a change that changes
// nothing, which still is the first write of the mount.
std::uint32_t RewriteSame(JournaledFileSystemObject& object, std::uint64_t position, std::uint64_t count) {
    return RaisedCode([&] {
        std::vector<unsigned char> bytes(count);
        std::uint64_t done = 0;
        object.Read(bytes.data(), position, count, done);
        object.Write(bytes.data(), position, count, done);
        if (done != count) Common::Raise(ERROR_TAG, Common::Failures::FILE_WRITE);
    });
}

std::size_t LastWriteOf(const TestSupport::MemoryDisk& disk, std::uint64_t sector) {
    std::size_t last = 0;
    for (std::size_t i = 0; i < disk.log.size(); ++i) {
        const auto& entry = disk.log[i];
        if (entry.operation == Fdisk::kTransferWrite && entry.sector <= sector && sector < entry.sector + entry.count) {
            last = i + 1;
        }
    }
    return last;
}

TEST(HfsPlusWritePath, FirstWriteReplaysThePendingJournal) {
    struct Case {
        const char* what;
        std::string options;
    };
    const Case cases[] = {
        {"one transaction", ""},
        {"the node wraps at the ring's end", "--wrap"},
        {"without block checksums", "--no-checksums"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Image image("-J", "128M");
        ASSERT_TRUE(image.made);
        const std::string write = PendingTransactions(image, c.options);
        ASSERT_FALSE(write.empty());
        ASSERT_EQ(Shell(write), 0);
        const JournalPlace journal(image.bytes());
        ASSERT_FALSE(JournalPlace::Empty(image.bytes(), journal.header));
        {
            Volume volume(image.file.path);
            ASSERT_NE(volume.driver, nullptr);
            HFSPlusMetadata& held = volume.driver->metadata();
            ASSERT_FALSE(held.GetJournal().IsClean());
            const std::size_t reads_only = volume.disk->count_of(Fdisk::kTransferWrite);
            EXPECT_EQ(reads_only, 0u);
            ASSERT_EQ(RewriteSame(held.GetCatalogFile(), 0, 512), 0u);
            EXPECT_TRUE(held.GetJournal().IsClean());
            // The replay went to the disk before the write went on, the
            // journal's header behind every sector it put in place.
            const Bytes& disk = volume.disk->bytes;
            EXPECT_TRUE(JournalPlace::Empty(disk, journal.header));
            EXPECT_EQ(GetBE32(disk, kHeaderByte + kWriteCount), 1000u);
            const std::size_t header_write = LastWriteOf(*volume.disk, journal.header / kSector);
            EXPECT_GT(header_write, LastWriteOf(*volume.disk, 2));
            // A second write finds the journal empty: the header isn't written again.
            ASSERT_EQ(RewriteSame(held.GetCatalogFile(), 0, 512), 0u);
            EXPECT_EQ(LastWriteOf(*volume.disk, journal.header / kSector), header_write);
        }
        const Bytes after = image.bytes();
        EXPECT_EQ(GetBE32(after, kHeaderByte + kWriteCount), 1001u);  // the journal's header, stamped once
        EXPECT_TRUE(FsckClean(image.file.path));
        EXPECT_NE(Output("fsstat " + image.file.path).find("Jxest"), std::string::npos);
    }
}

// A replay cut before the journal's header reached the disk leaves the
// journal full; the next mount replays it again to the same result.
TEST(HfsPlusWritePath, ReplayCutBeforeTheJournalHeaderIsReplayedAgain) {
    Image image("-J", "128M");
    ASSERT_TRUE(image.made);
    ASSERT_EQ(Shell(PendingTransactions(image, "")), 0);
    const Bytes before = image.bytes();
    const std::uint64_t journal_header = JournalPlace(before).header;
    Bytes replayed;
    {
        Volume volume(TestSupport::DiskOf(before));
        ASSERT_NE(volume.driver, nullptr);
        ASSERT_EQ(RewriteSame(volume.driver->metadata().GetCatalogFile(), 0, 512), 0u);
        replayed = volume.disk->bytes;
    }
    // Everything of the replay but the journal's header.
    Bytes cut = replayed;
    std::copy_n(before.begin() + journal_header, kSector, cut.begin() + journal_header);
    ASSERT_NE(cut, before);
    ASSERT_FALSE(JournalPlace::Empty(cut, journal_header));
    {
        Volume volume(TestSupport::DiskOf(cut));
        ASSERT_NE(volume.driver, nullptr);
        EXPECT_FALSE(volume.driver->metadata().GetJournal().IsClean());
        ASSERT_EQ(RewriteSame(volume.driver->metadata().GetCatalogFile(), 0, 512), 0u);
        EXPECT_TRUE(volume.disk->bytes == replayed);
        volume.unmount();
        image.file.store(volume.disk->bytes);
    }
    EXPECT_TRUE(FsckClean(image.file.path));
    EXPECT_NE(Output("fsstat " + image.file.path).find("Jxest"), std::string::npos);
}

// A journal whose info block asks for initialisation is made by the first
// write, not by the mount.
TEST(HfsPlusWritePath, FirstWriteInitialisesAJournalThatAsksForIt) {
    Image image("-J", "128M");
    ASSERT_TRUE(image.made);
    Bytes patched = image.bytes();
    const std::uint64_t block = GetBE32(patched, kHeaderByte + 40);
    const std::uint64_t info = std::uint64_t(GetBE32(patched, kHeaderByte + 12)) * block;
    const std::uint64_t journal_header = JournalPlace(patched).header;
    PutBE32(patched, info, GetBE32(patched, info) | JournalInfoBlock::kNeedInit);
    std::fill_n(patched.begin() + journal_header, kSector, 0xEE);
    Volume volume(TestSupport::DiskOf(patched));
    ASSERT_NE(volume.driver, nullptr);
    HFSPlusJournal& journal = volume.driver->metadata().GetJournal();
    EXPECT_TRUE(journal.NeedsInitialisation());
    EXPECT_EQ(volume.disk->count_of(Fdisk::kTransferWrite), 0u);
    ASSERT_EQ(RewriteSame(volume.driver->metadata().GetCatalogFile(), 0, 512), 0u);
    EXPECT_FALSE(journal.NeedsInitialisation());
    const Bytes& disk = volume.disk->bytes;
    EXPECT_EQ(GetBE32(disk, info) & JournalInfoBlock::kNeedInit, 0u);
    JournalHeader written{};
    std::memcpy(&written, disk.data() + journal_header, sizeof(written));
    EXPECT_EQ(written.magic(), JournalHeader::kMagic);
    EXPECT_EQ(written.start(), kSector);
    EXPECT_EQ(written.end(), kSector);
    EXPECT_EQ(written.jhdr_size(), kSector);
    const std::uint32_t sum = written.checksum();
    written.checksum_.set(0);
    EXPECT_EQ(JournalChecksum(&written, sizeof(written)), sum);
    EXPECT_TRUE(std::all_of(disk.begin() + journal_header + sizeof(written), disk.begin() + journal_header + kSector,
                            [](unsigned char byte) { return byte == 0; }));
    volume.unmount();
    image.file.store(volume.disk->bytes);
    EXPECT_TRUE(FsckClean(image.file.path));
}

// A read-only mount (a bitmap handed in, or a device that refuses writes)
// writes nothing, journal included, and its refusals come first.
TEST(HfsPlusWritePath, ReadOnlyMountsWriteNothing) {
    Image image("-J", "128M");
    ASSERT_TRUE(image.made);
    ASSERT_EQ(Shell(PendingTransactions(image, "")), 0);
    const Bytes original = image.bytes();
    {
        auto disk = TestSupport::DiskOf(original);
        const Bytes bits((GetBE32(original, kHeaderByte + 44) + 7) / 8, 0xFF);
        HFSPlusDriver* driver = nullptr;
        ASSERT_EQ(RaisedCode([&] {
                      driver = new HFSPlusDriver(disk.get(), 0, disk->GetLastSector() + 1, 0, bits.data(), bits.size());
                  }),
                  0u);
        ++driver->references;
        HFSPlusMetadata& held = driver->metadata();
        EXPECT_EQ(driver->read_only, 1);
        EXPECT_EQ(RewriteSame(held.GetCatalogFile(), 0, 512), Common::FILE_UNSUPPORTED);
        EXPECT_EQ(RaisedCode([&] {
                      held.GetCatalogFile().MoveSectors(SectorArea::FromCount(100, 8), SectorArea::FromCount(200, 8));
                  }),
                  Common::FILE_UNSUPPORTED);
        EXPECT_FALSE(held.GetJournal().IsClean());
        driver->commit();
        release(driver);
        EXPECT_EQ(disk->count_of(Fdisk::kTransferWrite), 0u);
        EXPECT_TRUE(disk->bytes == original);
    }
    {
        // The device's refusal of the first write: nothing copied, the
        // journal still to be replayed.
        Volume volume(TestSupport::DiskOf(original));
        ASSERT_NE(volume.driver, nullptr);
        volume.disk->read_only = true;
        EXPECT_EQ(RewriteSame(volume.driver->metadata().GetCatalogFile(), 0, 512), Common::FILE_READ_ONLY);
        EXPECT_FALSE(volume.driver->metadata().GetJournal().IsClean());
        volume.unmount();
        EXPECT_TRUE(volume.disk->bytes == original);
    }
}

// The header's bits: untouched by a mount that changes nothing; in use
// cleared and inconsistent set by the first change's flush, once; both
// back at unmount, with the alternate brought up to date.
// On 4096-byte sectors the primary header sits inside sector 0.
TEST(HfsPlusWritePath, HeaderIsStampedByTheFirstChangeAndCleanAfterUnmount) {
    for (const std::uint32_t sector : {512u, 4096u}) {
        SCOPED_TRACE(sector);
        Image image("-b 4096");
        ASSERT_TRUE(image.made);
        const Bytes original = image.bytes();
        const std::uint32_t attributes = GetBE32(original, kHeaderByte + kAttributes);
        const std::uint32_t writes = GetBE32(original, kHeaderByte + kWriteCount);
        ASSERT_NE(attributes & kVolumeUnmounted, 0u);
        {
            Volume volume(image.file.path, sector);
            ASSERT_NE(volume.driver, nullptr);
            volume.driver->commit();
            EXPECT_EQ(volume.disk->count_of(Fdisk::kTransferWrite), 0u);

            HFSPlusMetadata& held = volume.driver->metadata();
            AllocationFile& allocation = held.GetAllocationFile();
            ExtentsDescriptorArray file;
            ASSERT_TRUE(allocation.ExtendFile(16, 10, file));
            volume.driver->commit();
            const Bytes& disk = volume.disk->bytes;
            const std::uint32_t stamped = GetBE32(disk, kHeaderByte + kAttributes);
            EXPECT_EQ(stamped & (kVolumeUnmounted | kVolumeInconsistent), kVolumeInconsistent);
            EXPECT_EQ(std::string(disk.begin() + kHeaderByte + kLastMounted, disk.begin() + kHeaderByte + kLastMounted + 4),
                      "MORV");
            EXPECT_EQ(GetBE32(disk, kHeaderByte + kWriteCount), writes + 1);
            EXPECT_EQ(GetBE32(disk, kHeaderByte + kFreeBlocks), allocation.bitmap().clear_count());
            // The bits on the disk are the bits in memory.
            const std::uint64_t bitmap_at = std::uint64_t(allocation.extents.GetExtent(0).startBlock()) *
                                            volume.driver->block_size();
            const Bitmap& bits = allocation.bitmap();
            EXPECT_TRUE(std::equal(bits.data(), bits.data() + bits.byte_count(), disk.begin() + bitmap_at));
            EXPECT_FALSE(std::equal(bits.data(), bits.data() + bits.byte_count(), original.begin() + bitmap_at));
            // Nothing changed since: the next flush writes nothing.
            const std::size_t written = volume.disk->count_of(Fdisk::kTransferWrite);
            volume.driver->commit();
            EXPECT_EQ(volume.disk->count_of(Fdisk::kTransferWrite), written);
            allocation.FreeExtents(file);
        }
        const Bytes after = image.bytes();
        const std::uint64_t alternate = after.size() - kHeaderByte;
        EXPECT_EQ(GetBE32(after, kHeaderByte + kAttributes), attributes);
        EXPECT_EQ(GetBE32(after, kHeaderByte + kWriteCount), writes + 1);
        EXPECT_EQ(GetBE32(after, alternate + kWriteCount), writes + 1);
        EXPECT_EQ(GetBE32(after, alternate + kFreeBlocks), GetBE32(original, kHeaderByte + kFreeBlocks));
        EXPECT_TRUE(FsckClean(image.file.path));
    }
}

// Writes and moves of metadata sectors, and their refusals.
TEST(HfsPlusWritePath, WritesAndMovesThroughTheCache) {
    Image image("-b 4096");
    ASSERT_TRUE(image.made);
    const Bytes original = image.bytes();
    Volume volume(image.file.path);
    ASSERT_NE(volume.driver, nullptr);
    HFSPlusMetadata& held = volume.driver->metadata();
    CatalogFile& catalog = held.GetCatalogFile();
    const std::uint64_t size = catalog.size();
    Bytes bytes(64);
    std::uint64_t done = 0;
    struct Refusal {
        const char* what;
        std::function<void()> action;
        std::uint32_t code;
    };
    const Refusal refusals[] = {
        {"read at the size", [&] { catalog.Read(bytes.data(), size, 1, done); }, Common::FILE_UNSUPPORTED},
        {"write at the size", [&] { catalog.Write(bytes.data(), size, 1, done); }, Common::FILE_UNSUPPORTED},
        {"write past the size", [&] { catalog.Write(bytes.data(), size - 10, 11, done); }, Common::FILE_UNSUPPORTED},
        {"write of no buffer", [&] { catalog.Write(nullptr, 0, 1, done); }, Common::FILE_UNSUPPORTED},
        {"move to itself", [&] { catalog.MoveSectors(SectorArea(80, 87), SectorArea(80, 87)); }, Common::FILE_UNSUPPORTED},
        {"move of other lengths", [&] { catalog.MoveSectors(SectorArea(80, 87), SectorArea(96, 97)); },
         Common::FILE_UNSUPPORTED},
        {"move onto itself in part", [&] { catalog.MoveSectors(SectorArea(80, 87), SectorArea(84, 91)); },
         Common::FILE_UNSUPPORTED},
        {"move of nothing", [&] { catalog.MoveSectors(SectorArea(), SectorArea(84, 91)); }, Common::FILE_UNSUPPORTED},
    };
    for (const Refusal& refusal : refusals) EXPECT_EQ(RaisedCode(refusal.action), refusal.code) << refusal.what;
    catalog.Write(bytes.data(), 10, 0, done);
    EXPECT_EQ(done, 0u);
    catalog.Flush();
    EXPECT_EQ(catalog.dirty, 0);
    EXPECT_EQ(volume.disk->count_of(Fdisk::kTransferWrite), 0u);

    // Bytes across a block's end, off the sectors' grid: read back from the
    // cache, and on the disk after the object's flush.
    const std::uint64_t block = volume.driver->block_size();
    const std::uint64_t catalog_at = std::uint64_t(catalog.extents.GetExtent(0).startBlock()) * block;
    const std::uint64_t position = block - 100;
    const std::string pattern = TestSupport::Pattern(300, 3);
    ASSERT_EQ(RaisedCode([&] { catalog.Write(pattern.data(), position, pattern.size(), done); }), 0u);
    EXPECT_EQ(done, pattern.size());
    std::string back(pattern.size(), '\0');
    catalog.Read(back.data(), position, back.size(), done);
    EXPECT_EQ(back, pattern);
    EXPECT_EQ(catalog.dirty, 1);
    EXPECT_FALSE(catalog.dirty_areas.empty());
    catalog.Flush();
    EXPECT_TRUE(catalog.dirty_areas.empty());
    const Bytes& disk = volume.disk->bytes;
    EXPECT_EQ(std::string(disk.begin() + catalog_at + position, disk.begin() + catalog_at + position + 300), pattern);
    EXPECT_TRUE(std::equal(disk.begin() + catalog_at + position + 300, disk.begin() + catalog_at + 2 * block,
                           original.begin() + catalog_at + position + 300));
    // Back as it was, before its blocks move away.
    ASSERT_EQ(RaisedCode([&] { catalog.Write(original.data() + catalog_at + position, position, 300, done); }), 0u);
    catalog.Flush();

    // Moves into blocks taken for the purpose: whole blocks change their
    // place, three sectors from inside a block are copied.
    AllocationFile& allocation = held.GetAllocationFile();
    ExtentsDescriptorArray taken;
    ASSERT_TRUE(allocation.ExtendFile(16, 3, taken));
    const std::uint64_t per_block = block / kSector;
    const std::uint64_t target = std::uint64_t(taken.GetExtent(0).startBlock()) * per_block;
    const std::uint64_t source = catalog_at / kSector;
    catalog.MoveSectors(SectorArea::FromCount(source, 2 * per_block), SectorArea::FromCount(target, 2 * per_block));
    catalog.MoveSectors(SectorArea::FromCount(source + 2 * per_block + 1, 3),
                        SectorArea::FromCount(target + 2 * per_block + 4, 3));
    catalog.Flush();
    EXPECT_EQ(Sectors(disk, target, 2 * per_block), Sectors(original, source, 2 * per_block));
    EXPECT_EQ(Sectors(disk, target + 2 * per_block + 4, 3), Sectors(original, source + 2 * per_block + 1, 3));
    allocation.FreeExtents(taken);
    volume.unmount();
    EXPECT_TRUE(FsckClean(image.file.path));
}

}  // namespace
