// The data fork of an HFS+ file changed: a list of extents joined, cut and
// merged in memory; a file on a mkfs.hfsplus volume grown in fragmented
// free space until its extents spill into the extents overflow tree,
// moved whole when it can't grow in place, and shrunk back, each state
// judged by fsck.hfsplus and sleuthkit; and the refusals that must leave
// the volume as it was.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "fsdriver/driver_selection.h"
#include "hfsplus/allocation_file.h"
#include "hfsplus/catalog_file.h"
#include "hfsplus/extents_overflow.h"
#include "hfsplus/file_content.h"
#include "hfsplus/hfsplus_driver.h"
#include "hfsplus/hfsplus_metadata.h"
#include "hfsplus/volume_header.h"
#include "loader/common/byte_order.h"
#include "loader/common/error_codes.h"
#include "tests/support/hfsplus_image.h"
#include "tests/support/raised_code.h"
#include "tests/support/shell.h"
#include "tests/support/volume_fixture.h"

namespace {

using namespace hfsplus;
using TestSupport::RaisedCode;
using TestSupport::HfsplusFsckComplaints;
using TestSupport::ListOf;
using TestSupport::AreasOf;
using TestSupport::HoldAllFree;
using TestSupport::GiveBack;
using Volume = TestSupport::Volume<HFSPlusDriver, TryHFSPlusDriver>;
using Areas = TestSupport::BlockAreas;

int Shell(const std::string& command) { return TestSupport::RunQuietly(command); }

struct ListCase {
    const char* what;
    Areas list;
    int operation;  // 0 Merge, 1 MergeLastPairs, 2 TruncateTo(kept)
    std::uint32_t kept;
    Areas after;
    Areas freed;
    std::uint32_t code;
};

TEST(HFSPlusForkWrite, ListsJoinCutAndSort) {
    const ListCase cases[] = {
        {"touching neighbours join", {{10, 11}, {12, 14}, {20, 20}}, 0, 0, {{10, 14}, {20, 20}}, {}, 0},
        {"out of order sorts and joins below", {{30, 31}, {10, 11}, {12, 12}, {5, 5}}, 0, 0, {{5, 5}, {10, 12}, {30, 31}}, {}, 0},
        {"a moved one joins the one below it", {{10, 11}, {30, 30}, {12, 13}}, 0, 0, {{10, 13}, {30, 30}}, {}, 0},
        {"pairs from the top down", {{1, 1}, {2, 2}, {3, 3}, {4, 4}}, 1, 0, {{1, 2}, {3, 4}}, {}, 0},
        {"pairs only join neighbours", {{20, 21}, {10, 19}, {22, 22}}, 1, 0, {{20, 21}, {10, 19}, {22, 22}}, {}, 0},
        {"two at the head end the walk", {{7, 8}, {9, 9}}, 1, 0, {{7, 9}}, {}, 0},
        {"cut inside an extent", {{10, 14}, {40, 44}}, 2, 7, {{10, 14}, {40, 41}}, {{42, 44}}, 0},
        {"cut at a boundary, freed merged", {{10, 14}, {20, 22}, {15, 16}}, 2, 5, {{10, 14}}, {{15, 16}, {20, 22}}, 0},
        {"cut to nothing", {{10, 14}}, 2, 0, {}, {{10, 14}}, 0},
        {"cut past the end", {{10, 14}}, 2, 6, {{10, 14}}, {}, Common::FILE_CORRUPT},
    };
    for (const ListCase& c : cases) {
        SCOPED_TRACE(c.what);
        ExtentsDescriptorArray list = ListOf(c.list);
        ExtentsDescriptorArray freed;
        const std::uint32_t code = RaisedCode([&] {
            if (c.operation == 0) list.Merge();
            if (c.operation == 1) list.MergeLastPairs();
            if (c.operation == 2) list.TruncateTo(c.kept, freed);
        });
        EXPECT_EQ(code, c.code);
        EXPECT_EQ(AreasOf(list), c.after);
        EXPECT_EQ(AreasOf(freed), c.freed);
        std::uint32_t blocks = 0;
        for (const BlockArea& area : c.after) blocks += area.GetCount();
        EXPECT_EQ(list.block_count(), blocks);
        if (c.operation == 2 && code == 0) {
            EXPECT_EQ(list.block_count(), c.kept);
        }
    }
}

// A file record of `id` in the root, its thread, and the counts that go
// with it, made through the B-tree engine as the catalog's own changes
// would; `flags` go into the record.
void MakeFile(HFSPlusDriver& driver, std::uint32_t id, const std::u16string& name, std::uint16_t flags = 0) {
    CatalogFile& catalog = driver.metadata().GetCatalogFile();
    std::vector<unsigned char> key(sizeof(HFSPlusCatalogKey)), thread_key(sizeof(HFSPlusCatalogKey));
    key.resize(CatalogFile::BuildKey(key.data(), kRootFolderId, HFSPlusString(name)));
    thread_key.resize(CatalogFile::BuildKey(thread_key.data(), id, HFSPlusString(u"")));
    std::vector<unsigned char> data(248, 0), thread(10 + 2 * name.size(), 0);
    Common::StoreBE16(&data[0], kFileRecord);
    Common::StoreBE16(&data[2], static_cast<std::uint16_t>(0x0002 | flags));
    Common::StoreBE32(&data[8], id);
    Common::StoreBE16(&data[42], 0100644);
    Common::StoreBE16(&thread[0], kFileThreadRecord);
    Common::StoreBE32(&thread[4], kRootFolderId);
    Common::StoreBE16(&thread[8], static_cast<std::uint16_t>(name.size()));
    for (std::size_t c = 0; c < name.size(); ++c) Common::StoreBE16(&thread[10 + 2 * c], name[c]);
    catalog.InsertRecord(key.data(), key.size(), data.data(), data.size(), 1);
    catalog.InsertRecord(thread_key.data(), thread_key.size(), thread.data(), thread.size(), 1);
    const CatalogRecord root = catalog.GetRecordById(kRootFolderId);
    std::vector<unsigned char> root_key(sizeof(HFSPlusCatalogKey));
    root_key.resize(CatalogFile::BuildKey(root_key.data(), root.parent_id, root.name));
    std::vector<unsigned char> folder(root.bytes, root.bytes + root.size);
    Common::StoreBE32(&folder[4], Common::LoadBE32(&folder[4]) + 1);
    catalog.DeleteRecord(root_key.data(), root_key.size(), catalog.FindByKey(root.parent_id, root.name));
    catalog.InsertRecord(root_key.data(), root_key.size(), folder.data(), folder.size(), 1);
    VolumeHeader& header = driver.metadata().GetVolumeHeader().header();
    header.fileCount_.set(header.fileCount() + 1);
    if (header.nextCatalogID() <= id) header.nextCatalogID_.set(id + 1);
    driver.metadata().GetVolumeHeader().MarkDirty();
}

std::unique_ptr<FileContent> Content(HFSPlusDriver& driver, std::uint32_t id) {
    return std::make_unique<FileContent>(&driver, driver.metadata().GetCatalogFile().GetRecordById(id));
}

std::string ReadAll(FileContent& content) {
    std::string bytes(content.GetSize(), '\0');
    std::uint64_t got = 0;
    content.Read(bytes.data(), 0, bytes.size(), got);
    bytes.resize(got);
    return bytes;
}

std::uint32_t FreeBlocks(HFSPlusDriver& driver) {
    return driver.metadata().GetVolumeHeader().header().freeBlocks();
}

// The block numbers that sleuthkit's istat lists for a file's data fork,
// one by one or as "first-last".
std::vector<std::uint32_t> DataForkBlocks(const std::string& image, std::uint32_t id) {
    const std::string text = TestSupport::CaptureOutput("istat " + image + " " + std::to_string(id));
    std::vector<std::uint32_t> blocks;
    const std::size_t from = text.find("Data Fork Blocks:");
    if (from == std::string::npos) return blocks;
    std::istringstream list(text.substr(from + 17, text.find("\n\n", from) - from - 17));
    for (std::string word; list >> word;) {
        const std::size_t dash = word.find('-');
        const std::uint32_t first = static_cast<std::uint32_t>(std::stoul(word));
        const std::uint32_t last = dash == std::string::npos ? first : static_cast<std::uint32_t>(std::stoul(word.substr(dash + 1)));
        for (std::uint32_t block = first; block <= last; ++block) blocks.push_back(block);
    }
    return blocks;
}

struct VolumeCase {
    const char* what;
    const char* mkfs;
    const char* size;
};

constexpr std::uint32_t kFileId = 100;
constexpr std::uint32_t kPieces = 20;

// A file written block by block into free space of single blocks: twenty
// extents, twelve of them in two overflow records; then cut to six blocks
// (no record left) and to nothing, the free count back where it began.
void GrowIntoOverflowAndBack(const VolumeCase& c) {
    TestSupport::ImageFile image;
    ASSERT_EQ(Shell(std::string("truncate -s ") + c.size + " " + image.path + " && mkfs.hfsplus " + c.mkfs +
                    " -v Fork -n c=4096 " + image.path),
              0);
    Shell("fsck.hfsplus -fy " + image.path);  // sets the root's folder-count flag of a case-sensitive volume
    ASSERT_EQ(HfsplusFsckComplaints(image.path), "");
    std::string data;
    std::uint32_t free_before = 0;
    std::uint64_t shrunk = 0;
    Areas pieces;
    {
        Volume volume(image.path);
        ASSERT_NE(volume.driver, nullptr);
        HFSPlusDriver& driver = *volume.driver;
        const std::uint32_t block = driver.block_size();
        data = TestSupport::Pattern(kPieces * block - 100, 3);
        free_before = FreeBlocks(driver);
        MakeFile(driver, kFileId, u"grown");
        AllocationFile& allocation = driver.metadata().GetAllocationFile();
        Areas held = HoldAllFree(allocation);
        ASSERT_FALSE(held.empty());
        const BlockArea first = held.front();
        ASSERT_GT(first.GetCount(), 2 * kPieces);
        held.erase(held.begin());
        for (std::uint32_t i = 0; i < kPieces; ++i) {
            pieces.push_back(BlockArea::FromCount(first.first + 2 * i, 1));
            held.push_back(BlockArea::FromCount(first.first + 2 * i + 1, 1));
        }
        held.push_back(BlockArea(first.first + 2 * kPieces, first.last));
        for (const BlockArea& piece : pieces) allocation.FreeExtents(ListOf({piece}));
        auto content = Content(driver, kFileId);
        for (std::uint64_t at = 0; at < data.size(); at += block) {
            const std::uint64_t length = std::min<std::uint64_t>(block, data.size() - at);
            std::uint64_t written = 0;
            content->Write(data.data() + at, at, length, written);
            ASSERT_EQ(written, length);
        }
        EXPECT_EQ(content->data_extents.extent_count(), kPieces);
        EXPECT_EQ(content->GetSize(), data.size());
        EXPECT_EQ(ReadAll(*content), data);
        content->Flush();
        GiveBack(allocation, held);
        EXPECT_EQ(FreeBlocks(driver), free_before - kPieces);
    }
    EXPECT_EQ(HfsplusFsckComplaints(image.path), "");
    EXPECT_EQ(TestSupport::CaptureOutput("icat " + image.path + " " + std::to_string(kFileId)), data);
    std::vector<std::uint32_t> starts;
    for (const BlockArea& piece : pieces) starts.push_back(piece.first);
    EXPECT_EQ(DataForkBlocks(image.path, kFileId), starts);
    {
        Volume volume(image.path);
        ASSERT_NE(volume.driver, nullptr);
        HFSPlusDriver& driver = *volume.driver;
        ExtentsOverflowFile& overflow = driver.metadata().GetExtentsOverflowFile();
        ExtentsDescriptorArray records = ListOf(Areas(pieces.begin(), pieces.begin() + 8));
        overflow.LoadExtents(kFileId, kDataFork, records);
        EXPECT_EQ(AreasOf(records), pieces);
        auto content = Content(driver, kFileId);
        EXPECT_EQ(ReadAll(*content), data);
        shrunk = 5 * driver.block_size() + 7;
        content->SetSize(shrunk);
        content->Flush();
        ExtentsDescriptorArray none;
        overflow.LoadExtents(kFileId, kDataFork, none);
        EXPECT_EQ(none.extent_count(), 0u);
        EXPECT_EQ(ReadAll(*content), data.substr(0, shrunk));
        EXPECT_EQ(FreeBlocks(driver), free_before - 6);
    }
    EXPECT_EQ(HfsplusFsckComplaints(image.path), "");
    EXPECT_EQ(TestSupport::CaptureOutput("icat " + image.path + " " + std::to_string(kFileId)),
              data.substr(0, shrunk));
    {
        Volume volume(image.path);
        ASSERT_NE(volume.driver, nullptr);
        auto content = Content(*volume.driver, kFileId);
        EXPECT_EQ(content->data_extents.extent_count(), 6u);
        content->SetSize(0);
        content->Flush();
        EXPECT_EQ(content->data_extents.extent_count(), 0u);
        EXPECT_EQ(FreeBlocks(*volume.driver), free_before);
    }
    EXPECT_EQ(HfsplusFsckComplaints(image.path), "");
    EXPECT_EQ(TestSupport::CaptureOutput("icat " + image.path + " " + std::to_string(kFileId)), "");
}

TEST(HFSPlusForkWrite, FileGrowsIntoTheOverflowTreeAndShrinksBack) {
    const VolumeCase cases[] = {
        {"plain", "", "16M"},
        {"journaled", "-J", "128M"},
        {"case-sensitive", "-s", "16M"},
    };
    for (const VolumeCase& c : cases) {
        SCOPED_TRACE(c.what);
        GrowIntoOverflowAndBack(c);
    }
}

// Two extents with the only free blocks between them: no room behind the
// last or before the first, so the file moves whole into the gap, its
// bytes carried along through the cache.
TEST(HFSPlusForkWrite, FileMovesWholeWhenItCantGrowInPlace) {
    TestSupport::ImageFile image;
    ASSERT_EQ(Shell("truncate -s 16M " + image.path + " && mkfs.hfsplus -v Move " + image.path), 0);
    std::string data;
    BlockArea gap;
    {
        Volume volume(image.path);
        ASSERT_NE(volume.driver, nullptr);
        HFSPlusDriver& driver = *volume.driver;
        const std::uint32_t block = driver.block_size();
        MakeFile(driver, kFileId, u"moved");
        AllocationFile& allocation = driver.metadata().GetAllocationFile();
        Areas held = HoldAllFree(allocation);
        const BlockArea first = held.front();
        held.erase(held.begin());
        held.push_back(BlockArea(first.first + 5, first.last));
        allocation.FreeExtents(ListOf({BlockArea::FromCount(first.first, 1), BlockArea::FromCount(first.first + 4, 1)}));
        auto content = Content(driver, kFileId);
        data = TestSupport::Pattern(2 * block, 5);
        // From a buffer aligned on the sector: whole blocks go straight to the device.
        alignas(512) unsigned char aligned[8192];
        ASSERT_EQ(data.size(), sizeof(aligned));
        std::memcpy(aligned, data.data(), data.size());
        std::uint64_t written = 0;
        content->Write(aligned, 0, data.size(), written);
        ASSERT_EQ(content->data_extents.extent_count(), 2u);
        gap = BlockArea(first.first + 1, first.first + 3);
        allocation.FreeExtents(ListOf({gap}));
        const std::string tail = TestSupport::Pattern(block / 2, 9);
        content->Write(tail.data(), data.size(), tail.size(), written);
        data += tail;
        EXPECT_EQ(AreasOf(content->data_extents), Areas{gap});
        EXPECT_EQ(ReadAll(*content), data);
        content->Flush();
        // The two old blocks went back when the file moved; the holder's go now.
        GiveBack(allocation, held);
    }
    EXPECT_EQ(HfsplusFsckComplaints(image.path), "");
    EXPECT_EQ(TestSupport::CaptureOutput("icat " + image.path + " " + std::to_string(kFileId)), data);
    EXPECT_EQ(DataForkBlocks(image.path, kFileId), (std::vector<std::uint32_t>{gap.first, gap.first + 1, gap.first + 2}));
}

// A write that starts past the end of a file, onto blocks that held other
// bytes: the gap in front of it and the rest of its last block read as
// zero, in the file and on the disk.
TEST(HFSPlusForkWrite, WritePastTheEndLeavesZerosAroundIt) {
    TestSupport::ImageFile image;
    ASSERT_TRUE(TestSupport::MakeHfsplusVolume(image.path, "16M", ""));
    // Every free block filled with 0xEE, as blocks of removed files are.
    const std::string runs = "blkls -f hfs -A -l " + image.path +
                             " | awk -F '|' '$2 == \"f\" { if ($1 != last + 1) { if (n) print first, n; first = $1; n = 0 }"
                             " n++; last = $1 } END { if (n) print first, n }'";
    ASSERT_EQ(Shell(runs + " | while read -r first n; do head -c $((n * 4096)) /dev/zero | tr '\\0' '\\356' | dd of=" +
                    image.path + " bs=4096 seek=$first conv=notrunc status=none; done"),
              0);
    const std::string data = TestSupport::Pattern(100, 3);
    std::uint32_t block = 0;
    {
        Volume volume(image.path);
        ASSERT_NE(volume.driver, nullptr);
        block = volume.driver->block_size();
        MakeFile(*volume.driver, kFileId, u"late");
        auto content = Content(*volume.driver, kFileId);
        std::uint64_t written = 0;
        content->Write(data.data(), 3 * block + 10, data.size(), written);
        EXPECT_EQ(written, data.size());
        EXPECT_EQ(ReadAll(*content), std::string(3 * block + 10, '\0') + data);
        content->Flush();
    }
    EXPECT_EQ(HfsplusFsckComplaints(image.path), "");
    const std::vector<std::uint32_t> blocks = DataForkBlocks(image.path, kFileId);
    ASSERT_EQ(blocks.size(), 4u);
    const std::vector<unsigned char> bytes = image.bytes();
    const auto block_text = [&](std::uint32_t number) {
        return std::string(bytes.begin() + std::uint64_t(number) * block, bytes.begin() + std::uint64_t(number + 1) * block);
    };
    EXPECT_EQ(block_text(blocks[3]).substr(110), std::string(block - 110, '\0'));
    for (int i = 0; i < 3; ++i) EXPECT_EQ(block_text(blocks[i]), std::string(block, '\0'));
}

// Refusals come before any change: a read-only driver, a locked file, a
// file of size 0 that finds no room; a resize to the present size only
// touches the access date.
TEST(HFSPlusForkWrite, RefusalsChangeNothing) {
    TestSupport::ImageFile image;
    ASSERT_EQ(Shell("truncate -s 16M " + image.path + " && mkfs.hfsplus -v Refuse " + image.path), 0);
    {
        Volume volume(image.path);
        ASSERT_NE(volume.driver, nullptr);
        MakeFile(*volume.driver, kFileId, u"plain");
        MakeFile(*volume.driver, kFileId + 1, u"locked", 0x0001);
    }
    ASSERT_EQ(HfsplusFsckComplaints(image.path), "");
    const std::vector<unsigned char> before = image.bytes();
    const std::string bytes(5000, 'x');
    std::uint64_t written = 0;
    {
        Volume volume(image.path);
        ASSERT_NE(volume.driver, nullptr);
        volume.driver->read_only = 1;
        auto content = Content(*volume.driver, kFileId);
        EXPECT_EQ(RaisedCode([&] { content->Write(bytes.data(), 0, bytes.size(), written); }), Common::FILE_READ_ONLY);
        EXPECT_EQ(RaisedCode([&] { content->SetSize(10); }), Common::FILE_READ_ONLY);
        volume.driver->read_only = 0;
        auto locked = Content(*volume.driver, kFileId + 1);
        EXPECT_EQ(RaisedCode([&] { locked->Write(bytes.data(), 0, bytes.size(), written); }), Common::FILE_LOCK);
        EXPECT_EQ(RaisedCode([&] { locked->SetSize(10); }), Common::FILE_LOCK);
        EXPECT_EQ(volume.driver->metadata().GetCatalogFile().dirty, 0);
        volume.driver->read_only = 1;  // the unmount writes nothing
    }
    EXPECT_TRUE(before == image.bytes());
    {
        Volume volume(image.path);
        ASSERT_NE(volume.driver, nullptr);
        HFSPlusDriver& driver = *volume.driver;
        AllocationFile& allocation = driver.metadata().GetAllocationFile();
        const Areas held = HoldAllFree(allocation);
        const std::uint32_t free_blocks = FreeBlocks(driver);
        auto content = Content(driver, kFileId);
        EXPECT_EQ(RaisedCode([&] { content->Write(bytes.data(), 0, bytes.size(), written); }), Common::FILE_WRITE);
        EXPECT_EQ(FreeBlocks(driver), free_blocks);
        EXPECT_EQ(content->data_extents.extent_count(), 0u);
        EXPECT_EQ(content->GetSize(), 0u);
        GiveBack(allocation, held);
        CatalogRecord record = driver.metadata().GetCatalogFile().GetRecordById(kFileId);
        ChangeFile(record).accessDate_.set(1);
        driver.metadata().GetCatalogFile().WriteFileRecord(kFileId, record);
        content->SetSize(0);
        const CatalogRecord after = driver.metadata().GetCatalogFile().GetRecordById(kFileId);
        EXPECT_NE(after.file().accessDate(), 1u);
        EXPECT_EQ(0, std::memcmp(after.bytes, record.bytes, 24));  // all in front of the date
        EXPECT_EQ(0, std::memcmp(after.bytes + 28, record.bytes + 28, 248 - 28));  // and behind it
        EXPECT_EQ(content->record_dirty, 0);
    }
    EXPECT_EQ(HfsplusFsckComplaints(image.path), "");
}

}  // namespace
