// The writing half of the HFS+ B-tree engine on volumes that mkfs.hfsplus
// makes: catalog records put in until the tree has grown levels and its
// file, then taken out again until it is back to one leaf, each state
// written through the metadata object and judged by fsck.hfsplus and
// sleuthkit; the growth of a tree past its map record; node edits; and
// the refusals that must leave the tree as it was.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "fsdriver/driver_selection.h"
#include "hfsplus/allocation_file.h"
#include "hfsplus/btree_map.h"
#include "hfsplus/catalog_file.h"
#include "hfsplus/extents_overflow.h"
#include "hfsplus/hfsplus_driver.h"
#include "hfsplus/hfsplus_metadata.h"
#include "hfsplus/node_block.h"
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
using Volume = TestSupport::Volume<HFSPlusDriver, TryHFSPlusDriver>;

int Shell(const std::string& command) { return TestSupport::RunQuietly(command); }

// Names long enough that a few fill a node: the tree grows levels after
// some dozens of files.
std::u16string FileName(std::uint32_t i) {
    std::string text = "file-" + std::to_string(i) + "-";
    text.resize(90, static_cast<char>('a' + i % 26));
    return std::u16string(text.begin(), text.end());
}

// An empty file's record and its thread, as the format lays them out.
struct FileRecords {
    std::vector<unsigned char> key, data, thread_key, thread;

    FileRecords(std::uint32_t parent, std::uint32_t id, const std::u16string& name) {
        key.resize(sizeof(HFSPlusCatalogKey));
        key.resize(CatalogFile::BuildKey(key.data(), parent, HFSPlusString(name)));
        thread_key.resize(sizeof(HFSPlusCatalogKey));
        thread_key.resize(CatalogFile::BuildKey(thread_key.data(), id, HFSPlusString(u"")));
        data.assign(248, 0);
        Common::StoreBE16(&data[0], kFileRecord);
        Common::StoreBE16(&data[2], 0x0002);  // has a thread
        Common::StoreBE32(&data[8], id);
        Common::StoreBE16(&data[42], 0100644);
        thread.assign(10 + 2 * name.size(), 0);
        Common::StoreBE16(&thread[0], kFileThreadRecord);
        Common::StoreBE32(&thread[4], parent);
        Common::StoreBE16(&thread[8], static_cast<std::uint16_t>(name.size()));
        for (std::size_t c = 0; c < name.size(); ++c) Common::StoreBE16(&thread[10 + 2 * c], name[c]);
    }
};

// The order in which the files go in and come out: spread over the key
// range, so that records land in front of, inside and behind the nodes.
std::vector<std::uint32_t> Shuffled(std::uint32_t count, std::uint32_t step) {
    std::vector<std::uint32_t> order;
    for (std::uint32_t i = 0; i < count; ++i) order.push_back((i * step) % count);
    return order;
}

// The root folder's valence and the header's file count and next id move
// with the files, so that the checkers see a whole volume.
void CountFiles(HFSPlusDriver& driver, int delta, std::uint32_t next_id) {
    CatalogFile& catalog = driver.metadata().GetCatalogFile();
    const CatalogRecord root = catalog.GetRecordById(kRootFolderId);
    std::vector<unsigned char> key(sizeof(HFSPlusCatalogKey));
    key.resize(CatalogFile::BuildKey(key.data(), root.parent_id, root.name));
    std::vector<unsigned char> data(root.bytes, root.bytes + root.size);
    Common::StoreBE32(&data[4], Common::LoadBE32(&data[4]) + delta);
    catalog.DeleteRecord(key.data(), key.size(), catalog.FindByKey(root.parent_id, root.name));
    catalog.InsertRecord(key.data(), key.size(), data.data(), data.size(), 1);
    HFSPlusVolumeHeader& header = driver.metadata().GetVolumeHeader();
    header.header().fileCount_.set(header.header().fileCount() + delta);
    if (next_id > header.header().nextCatalogID()) header.header().nextCatalogID_.set(next_id);
    header.MarkDirty();
}

struct CatalogCase {
    const char* what;
    const char* mkfs;
    const char* size;
    std::uint32_t files;
    bool grows;  // the catalog mkfs makes is too small for the files
};

void GrowAndShrink(const CatalogCase& c) {
    TestSupport::ImageFile image;
    ASSERT_TRUE(TestSupport::MakeHfsplusVolume(image.path, c.size, std::string(c.mkfs) + " -n c=4096"));
    constexpr std::uint32_t kFirstId = 100;
    std::uint32_t records_before = 0;
    std::uint32_t nodes_before = 0;
    {
        Volume volume(image.path);
        ASSERT_NE(volume.driver, nullptr);
        CatalogFile& catalog = volume.driver->metadata().GetCatalogFile();
        ASSERT_EQ(catalog.depth(), 1);
        records_before = catalog.leaf_records();
        nodes_before = catalog.total_nodes();
        for (std::uint32_t i : Shuffled(c.files, 37)) {
            const FileRecords file(kRootFolderId, kFirstId + i, FileName(i));
            catalog.InsertRecord(file.key.data(), file.key.size(), file.data.data(), file.data.size(), 1);
            catalog.InsertRecord(file.thread_key.data(), file.thread_key.size(), file.thread.data(),
                                 file.thread.size(), 1);
        }
        CountFiles(*volume.driver, static_cast<int>(c.files), kFirstId + c.files);
        EXPECT_GE(catalog.depth(), 3);
        if (c.grows) EXPECT_GT(catalog.total_nodes(), nodes_before);  // the file grew by its clump
        EXPECT_EQ(catalog.leaf_records(), records_before + 2 * c.files);
        const FileRecords again(kRootFolderId, kFirstId, FileName(0));
        EXPECT_EQ(RaisedCode([&] {
                      catalog.InsertRecord(again.key.data(), again.key.size(), again.data.data(), again.data.size(), 1);
                  }),
                  Common::FILE_EXISTS);
        EXPECT_EQ(catalog.leaf_records(), records_before + 2 * c.files);
    }
    EXPECT_EQ(HfsplusFsckComplaints(image.path), "");
    const std::u16string seventh = FileName(7);
    EXPECT_NE(TestSupport::CaptureOutput("fls " + image.path).find(std::string(seventh.begin(), seventh.end())),
              std::string::npos);
    {
        Volume volume(image.path);
        ASSERT_NE(volume.driver, nullptr);
        CatalogFile& catalog = volume.driver->metadata().GetCatalogFile();
        for (std::uint32_t i = 0; i < c.files; ++i) {
            const CatalogRecord record = catalog.GetRecord(kRootFolderId, HFSPlusString(FileName(i)));
            ASSERT_TRUE(record.is_file()) << i;
            ASSERT_EQ(record.id(), kFirstId + i);
            ASSERT_EQ(catalog.GetRecordById(kFirstId + i).name.ToHost(), FileName(i));
        }
        for (std::uint32_t i : Shuffled(c.files, 53)) {
            const FileRecords file(kRootFolderId, kFirstId + i, FileName(i));
            catalog.DeleteRecord(file.thread_key.data(), file.thread_key.size(), catalog.FindThread(kFirstId + i));
            catalog.DeleteRecord(file.key.data(), file.key.size(),
                                 catalog.FindByKey(kRootFolderId, HFSPlusString(FileName(i))));
        }
        CountFiles(*volume.driver, -static_cast<int>(c.files), 0);
        // Nodes merged as they emptied, the root gave way to its only
        // child down to one leaf; the last insertion (the root folder's new
        // valence) into that leaf root gave it an index root at once.
        EXPECT_EQ(catalog.depth(), 2);
        EXPECT_EQ(catalog.leaf_records(), records_before);
        EXPECT_EQ(catalog.free_nodes(), catalog.total_nodes() - 3);  // the header node, the root and one leaf
        EXPECT_EQ(RaisedCode([&] { catalog.GetRecord(kRootFolderId, HFSPlusString(FileName(3))); }),
                  Common::FILE_NOT_FOUND);
    }
    EXPECT_EQ(HfsplusFsckComplaints(image.path), "");
    EXPECT_EQ(TestSupport::CaptureOutput("fls " + image.path).find("file-"), std::string::npos);
}

TEST(HFSPlusBTreeWrite, CatalogGrowsLevelsAndShrinksBack) {
    const CatalogCase cases[] = {
        {"plain", "", "16M", 160, true},
        {"journaled", "-J", "128M", 160, false},
        {"case-sensitive", "-s", "16M", 160, true},
    };
    for (const CatalogCase& c : cases) {
        SCOPED_TRACE(c.what);
        GrowAndShrink(c);
    }
}

// An extents tree of small nodes grows past what its header's map record
// covers: a map node joins behind the header node before the next node is
// taken, and stays when the tree is empty again.
TEST(HFSPlusBTreeWrite, TreeGrowsPastItsMapRecord) {
    TestSupport::ImageFile image;
    ASSERT_EQ(Shell("truncate -s 16M " + image.path + " && mkfs.hfsplus -v Map -n c=4096,e=1024 " + image.path), 0);
    std::uint32_t map_node = 0;
    {
        Volume volume(image.path);
        ASSERT_NE(volume.driver, nullptr);
        ExtentsOverflowFile& extents = volume.driver->metadata().GetExtentsOverflowFile();
        const std::uint64_t covered = extents.GetMap().bit_count();
        while (extents.total_nodes() <= covered) {
            const std::uint32_t clump_nodes = extents.fork().clumpSize() / extents.node_size();
            const std::uint32_t total = extents.total_nodes();
            const std::uint32_t free = extents.free_nodes();
            extents.ExtendTree();
            ASSERT_EQ(extents.total_nodes(), total + clump_nodes);
            ASSERT_EQ(extents.free_nodes(), free + clump_nodes);
        }
        EXPECT_EQ(extents.fork().logicalSize(), std::uint64_t(extents.total_nodes()) * extents.node_size());
        unsigned char key[12];
        const std::size_t key_size = ExtentsOverflowFile::BuildKey(key, kDataFork, 1000, 0);
        const unsigned char record[64] = {};
        const std::uint32_t code = RaisedCode([&] { extents.InsertRecord(key, key_size, record, sizeof(record), 1); });
        ASSERT_EQ(code, 0u);
        ASSERT_EQ(extents.GetMap().map_nodes().size(), 2u);
        map_node = extents.GetMap().map_nodes()[1];
        EXPECT_EQ(extents.GetNode(0).GetForwardLink(), map_node);
        EXPECT_EQ(extents.GetNode(map_node).GetDescriptor().kind(), kMapNode);
        EXPECT_TRUE(extents.GetMap().IsAllocated(map_node));
        EXPECT_EQ(extents.depth(), 1);
        extents.DeleteRecord(key, key_size, extents.FindPosition(key, key_size, 1));
        EXPECT_EQ(extents.depth(), 0);
        EXPECT_EQ(extents.root(), 0u);
        EXPECT_EQ(extents.free_nodes(), extents.total_nodes() - 2);
    }
    EXPECT_EQ(HfsplusFsckComplaints(image.path), "");
    Volume volume(image.path);
    ASSERT_NE(volume.driver, nullptr);
    ExtentsOverflowFile& extents = volume.driver->metadata().GetExtentsOverflowFile();
    EXPECT_EQ(extents.GetMap().map_nodes(), (std::vector<std::uint32_t>{0, map_node}));
    EXPECT_TRUE(extents.GetMap().IsAllocated(map_node));
    EXPECT_FALSE(extents.GetMap().IsAllocated(map_node + 1));
}

// The largest free run cut up (on these small volumes, the one behind the
// catalog and the extents tree): first `large` clumps, held until the test
// frees them, then `pieces` runs of one clump, each with a held block in
// front. A tree that grows in place searches only behind its last extent,
// so the pieces are what it finds there, and the large area only a move
// takes. `kept` is what the test gives back before the unmount.
struct CutFreeSpace {
    TestSupport::BlockAreas kept;
    BlockArea large;

    CutFreeSpace(AllocationFile& allocation, std::uint32_t clump, std::uint32_t pieces, std::uint32_t large_clumps) {
        kept = TestSupport::HoldAllFree(allocation);
        const auto largest = std::max_element(kept.begin(), kept.end(), [](const BlockArea& a, const BlockArea& b) {
            return a.GetCount() < b.GetCount();
        });
        const BlockArea all = *largest;
        kept.erase(largest);
        EXPECT_GT(all.GetCount(), (pieces + large_clumps) * (clump + 1));
        large = BlockArea::FromCount(all.first, large_clumps * clump);
        std::uint32_t at = large.last + 1;
        for (std::uint32_t piece = 0; piece < pieces; ++piece, at += clump + 1) {
            kept.emplace_back(at, at);
            allocation.FreeExtents(ListOf({BlockArea::FromCount(at + 1, clump)}));
        }
        kept.emplace_back(at, all.last);
    }
};

// The extents tree takes one piece per growth until it holds the eight
// extents it may have; then, with the large area freed, its next growth
// moves it whole there.
TEST(HFSPlusBTreeWrite, TreeMovesWhenItCantGrowInPlace) {
    TestSupport::ImageFile image;
    ASSERT_EQ(Shell("truncate -s 32M " + image.path + " && mkfs.hfsplus -v Move -c e=16 -n c=4096,e=4096 " + image.path), 0);
    {
        Volume volume(image.path);
        ASSERT_NE(volume.driver, nullptr);
        ExtentsOverflowFile& extents = volume.driver->metadata().GetExtentsOverflowFile();
        AllocationFile& allocation = volume.driver->metadata().GetAllocationFile();
        const CutFreeSpace space(allocation, extents.fork().clumpSize() / volume.driver->block_size(), 7, 11);
        // All behind the last piece is held: an eighth growth finds no room.
        for (int growth = 0; growth < 7; ++growth) extents.ExtendTree();
        ASSERT_EQ(extents.extents.extent_count(), 8u);
        const std::uint32_t total = extents.total_nodes();
        EXPECT_EQ(RaisedCode([&] { extents.ExtendTree(); }), Common::FILE_DISK_FULL);
        EXPECT_EQ(extents.total_nodes(), total);
        allocation.FreeExtents(ListOf({space.large}));
        extents.ExtendTree();
        EXPECT_EQ(extents.extents.extent_count(), 1u);
        EXPECT_GE(extents.extents.GetExtent(0).startBlock(), space.large.first);
        EXPECT_GT(extents.total_nodes(), total);
        EXPECT_EQ(extents.fork().totalBlocks(), extents.extents.block_count());
        // A record put in and found again where the moved tree now lies.
        unsigned char key[12];
        const std::size_t key_size = ExtentsOverflowFile::BuildKey(key, kDataFork, 1000, 0);
        const unsigned char record[64] = {};
        extents.InsertRecord(key, key_size, record, sizeof(record), 1);
        extents.FlushTree();
        const RecordPosition found = extents.FindPosition(key, key_size, 1);
        EXPECT_EQ(extents.GetLeafAt(found).GetKeySize(found.index), key_size);
        extents.DeleteRecord(key, key_size, found);
        TestSupport::GiveBack(allocation, space.kept);
    }
    EXPECT_EQ(HfsplusFsckComplaints(image.path), "");
}

// The catalog grown piece by piece past the eight extents of its fork: the
// rest go into the extents overflow tree, where fsck and a fresh mount find
// them; moved whole into one extent, it leaves no record there.
TEST(HFSPlusBTreeWrite, CatalogGrowsIntoOverflowRecords) {
    TestSupport::ImageFile image;
    ASSERT_EQ(Shell("truncate -s 32M " + image.path + " && mkfs.hfsplus -v Spill -c c=16 -n c=4096 " + image.path), 0);
    constexpr std::uint32_t kGrowths = 11;
    std::uint32_t total = 0;
    {
        Volume volume(image.path);
        ASSERT_NE(volume.driver, nullptr);
        CatalogFile& catalog = volume.driver->metadata().GetCatalogFile();
        AllocationFile& allocation = volume.driver->metadata().GetAllocationFile();
        const CutFreeSpace space(allocation, catalog.fork().clumpSize() / volume.driver->block_size(), kGrowths, 20);
        ASSERT_LT(catalog.extents.GetExtent(0).startBlock(), space.large.first);
        for (std::uint32_t growth = 0; growth < kGrowths; ++growth) catalog.ExtendTree();
        ASSERT_GT(catalog.extents.extent_count(), 8u);
        total = catalog.total_nodes();
        TestSupport::GiveBack(allocation, space.kept);
        allocation.FreeExtents(ListOf({space.large}));
    }
    EXPECT_EQ(HfsplusFsckComplaints(image.path), "");
    {
        Volume volume(image.path);
        ASSERT_NE(volume.driver, nullptr);
        CatalogFile& catalog = volume.driver->metadata().GetCatalogFile();
        EXPECT_EQ(catalog.total_nodes(), total);
        EXPECT_EQ(catalog.extents.block_count(), catalog.fork().totalBlocks());
        // The volume had no overflow record before: the catalog's are all.
        EXPECT_GT(catalog.extents.extent_count(), 8u);
        EXPECT_EQ(volume.driver->metadata().GetExtentsOverflowFile().leaf_records(),
                  (catalog.extents.extent_count() + 7) / 8 - 1);
        // Nothing free in front of the first extent or behind the last: the
        // next growth moves the file, into the large area between them.
        const std::uint32_t first = catalog.extents.GetExtent(0).startBlock();
        const ExtentDescriptor& last = catalog.extents.GetExtent(catalog.extents.extent_count() - 1);
        const std::uint32_t behind = last.startBlock() + last.blockCount();
        Bitmap& bitmap = volume.driver->metadata().GetAllocationFile().bitmap();
        TestSupport::BlockAreas held;
        for (const Bitmap::Key& key : bitmap.runs_by_length()) {
            if (key.run.first >= behind || key.run.first < first) held.push_back(key.run);
        }
        for (const BlockArea& area : held) bitmap.SetRange(area, true);
        catalog.ExtendTree();
        EXPECT_EQ(catalog.extents.extent_count(), 1u);
        for (const BlockArea& area : held) bitmap.SetRange(area, false);
    }
    EXPECT_EQ(HfsplusFsckComplaints(image.path), "");
    Volume volume(image.path);
    ASSERT_NE(volume.driver, nullptr);
    EXPECT_EQ(volume.driver->metadata().GetExtentsOverflowFile().leaf_records(), 0u);
}

// Records put into and taken out of one node buffer: offsets, free size
// and the layout check follow every edit.
TEST(HFSPlusBTreeWrite, NodeEdits) {
    std::vector<unsigned char> buffer(512);
    NodeBlock node(5, 512);
    node.Bind(buffer.data());
    node.Initialise(kLeafNode, 1, 4);
    EXPECT_EQ(node.GetFreeSize(), 512 - 16);
    auto record = [](unsigned char fill, std::size_t size) {
        std::vector<unsigned char> bytes(size, fill);
        Common::StoreBE16(bytes.data(), 2);  // a key of two bytes
        return bytes;
    };
    const auto a = record(0xAA, 10), b = record(0xBB, 20), c = record(0xCC, 6);
    node.InsertRecordAt(0, b.data(), 20);
    node.InsertRecordAt(0, a.data(), 10);
    node.InsertRecordAt(2, c.data(), 6);
    ASSERT_EQ(node.GetRecordCount(), 3);
    EXPECT_EQ(node.GetRecordSize(0), 10);
    EXPECT_EQ(node.GetRecordSize(1), 20);
    EXPECT_EQ(node.GetRecord(1)[5], 0xBB);
    EXPECT_EQ(node.GetRecord(2)[5], 0xCC);
    EXPECT_EQ(node.GetFreeSize(), 512 - 16 - 36 - 6);
    node.CheckLayout(10);
    node.RemoveRecordAt(1);
    EXPECT_EQ(node.GetRecordCount(), 2);
    EXPECT_EQ(node.GetRecord(1)[5], 0xCC);
    EXPECT_EQ(node.GetFreeSize(), 512 - 16 - 16 - 4);
    node.CheckLayout(10);
    EXPECT_EQ(buffer[14 + 16], 0);  // the freed bytes are zero
    EXPECT_EQ(node.GetBackwardLink(), 4u);
    const auto big = record(0xDD, node.GetFreeSize());
    EXPECT_EQ(RaisedCode([&] { node.InsertRecordAt(0, big.data(), static_cast<std::uint16_t>(big.size())); }),
              Common::FILE_CORRUPT);
    EXPECT_EQ(RaisedCode([&] { node.InsertRecordAt(3, a.data(), 10); }), Common::FILE_CORRUPT);
    EXPECT_EQ(node.GetRecordCount(), 2);
}

// Refusals leave the volume as it was: a record past the largest the
// catalog holds, level 0, a key that isn't the one at the position to
// delete, and any change on a read-only mount.
TEST(HFSPlusBTreeWrite, RefusalsChangeNothing) {
    TestSupport::ImageFile image;
    ASSERT_EQ(Shell("truncate -s 16M " + image.path + " && mkfs.hfsplus -v Refuse -n c=4096 " + image.path), 0);
    const std::vector<unsigned char> before = image.bytes();
    const FileRecords file(kRootFolderId, 100, FileName(1));
    for (const bool read_only : {false, true}) {
        SCOPED_TRACE(read_only ? "read only" : "writable");
        Volume volume(image.path);
        ASSERT_NE(volume.driver, nullptr);
        CatalogFile& catalog = volume.driver->metadata().GetCatalogFile();
        const std::uint32_t records = catalog.leaf_records();
        if (read_only) {
            volume.driver->read_only = 1;
            EXPECT_EQ(RaisedCode([&] {
                          catalog.InsertRecord(file.key.data(), file.key.size(), file.data.data(), file.data.size(), 1);
                      }),
                      Common::FILE_READ_ONLY);
            EXPECT_EQ(RaisedCode([&] { catalog.ExtendTree(); }), Common::FILE_READ_ONLY);
        } else {
            const std::vector<unsigned char> huge(600, 0);
            EXPECT_EQ(RaisedCode([&] {
                          catalog.InsertRecord(file.key.data(), file.key.size(), huge.data(), huge.size(), 1);
                      }),
                      Common::FILE_NO_MEMORY);
            EXPECT_EQ(RaisedCode([&] {
                          catalog.InsertRecord(file.key.data(), file.key.size(), file.data.data(), 248, 0);
                      }),
                      Common::FILE_UNSUPPORTED);
            const RecordPosition root_thread = catalog.FindThread(kRootFolderId);
            EXPECT_EQ(RaisedCode([&] { catalog.DeleteRecord(file.key.data(), file.key.size(), root_thread); }),
                      Common::FILE_NOT_FOUND);
        }
        EXPECT_EQ(catalog.leaf_records(), records);
        EXPECT_EQ(catalog.dirty, 0);
    }
    EXPECT_TRUE(before == image.bytes());
}

}  // namespace
