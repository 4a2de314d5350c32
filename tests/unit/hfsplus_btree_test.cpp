// The HFS+ B-tree files: the catalog name orders and names, the node
// cache's transposition list, and the trees of volumes that mkfs.hfsplus
// and xorriso make: lookups by name and by id, the leaf walk, the node
// map, and damaged nodes patched into such volumes, which must end in
// FILE_CORRUPT, never in a crash or a loop.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "fsdriver/driver_selection.h"
#include "hfsplus/btree_map.h"
#include "hfsplus/catalog_file.h"
#include "hfsplus/extents_overflow.h"
#include "hfsplus/attributes_file.h"
#include "hfsplus/hfsplus_driver.h"
#include "hfsplus/hfsplus_metadata.h"
#include "hfsplus/hfsplus_string.h"
#include "hfsplus/nodes_cache.h"
#include "loader/common/byte_order.h"
#include "loader/common/error_codes.h"
#include "tests/support/raised_code.h"
#include "tests/support/shell.h"
#include "tests/support/volume_fixture.h"

namespace {

using namespace hfsplus;
using TestSupport::RaisedCode;
using Volume = TestSupport::Volume<HFSPlusDriver, TryHFSPlusDriver>;

int Shell(const std::string& command) { return TestSupport::RunQuietly(command); }

std::vector<unsigned char> Stored(const std::u16string& name) {
    std::vector<unsigned char> bytes(2 * name.size() + 1);
    for (std::size_t i = 0; i < name.size(); ++i) Common::StoreBE16(&bytes[2 * i], name[i]);
    return bytes;
}

TEST(HFSPlusNames, FoldingAndBinaryOrders) {
    EXPECT_EQ(FoldCharacter(u'A'), u'a');
    EXPECT_EQ(FoldCharacter(0), 0xFFFF);
    EXPECT_EQ(FoldCharacter(0xFE01), 0);
    EXPECT_EQ(FoldCharacter(0x0141), 0x0241);
    EXPECT_EQ(FoldCharacter(0x200D), 0x2000);
    EXPECT_EQ(FoldCharacter(0x2010), 0x2010);
    EXPECT_EQ(FoldCharacter(0x00C9), 0x00C9);
    struct Case {
        std::u16string a, b;
        int folded, binary;
    };
    const Case cases[] = {
        {u"ABC", u"abc", 0, -1},                 // one key in a folder
        {u"\u00E9", u"\u00C9", 1, 1},            // letters beyond ASCII don't fold
        {u"a\uFE00b", u"ab", 0, 1},              // U+FExx is skipped
        {u"\u0100", u"\u0200", 0, -1},           // U+01xx folds onto U+02xx
        {std::u16string(1, u'\0'), u"\uFFFE", 1, -1},  // 0 sorts above all
        {u"Z", u"a", 1, -1},
        {u"ab", u"abc", -1, -1},
        {u"", u"", 0, 0},
        {u"x\u200Cy", u"x\u2000y", 0, 1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.a.begin(), c.a.end()) + " / " + std::string(c.b.begin(), c.b.end()));
        EXPECT_EQ(CompareFolded(c.a.data(), c.a.size(), c.b.data(), c.b.size()), c.folded);
        EXPECT_EQ(CompareFolded(c.b.data(), c.b.size(), c.a.data(), c.a.size()), -c.folded);
        EXPECT_EQ(CompareBinary(c.a.data(), c.a.size(), c.b.data(), c.b.size()), c.binary);
        const auto a = Stored(c.a);
        const auto b = Stored(c.b);
        EXPECT_EQ(CompareFoldedStored(a.data(), c.a.size(), b.data(), c.b.size()), c.folded);
        EXPECT_EQ(CompareBinaryStored(a.data(), c.a.size(), b.data(), c.b.size()), c.binary);
    }
}

TEST(HFSPlusNames, StringFormsAndFilters) {
    const HFSPlusString plain(u"Caf\u00E9");
    unsigned char disk[512] = {};
    ASSERT_EQ(plain.ToDisk(disk), 10u);
    EXPECT_EQ(Common::LoadBE16(disk), 4);
    EXPECT_EQ(Common::LoadBE16(disk + 8), 0x00E9);
    const HFSPlusString back = HFSPlusString::FromDisk(*reinterpret_cast<const HFSUniStr255*>(disk), 10);
    EXPECT_EQ(back.ToHost(), u"Caf\u00E9");
    EXPECT_EQ(RaisedCode([&] { HFSPlusString::FromDisk(*reinterpret_cast<const HFSUniStr255*>(disk), 9); }),
              Common::FILE_CORRUPT);
    Common::StoreBE16(disk, 256);
    EXPECT_EQ(RaisedCode([&] { HFSPlusString::FromDisk(*reinterpret_cast<const HFSUniStr255*>(disk), 512); }),
              Common::FILE_CORRUPT);

    const HFSPlusString hidden(u"HFS+ Private Data");
    ASSERT_EQ(hidden.length(), 21u);
    EXPECT_EQ(hidden.characters.substr(0, 4), std::u16string(4, u'\0'));
    EXPECT_EQ(hidden.ToHost(), u"HFS+ Private Data");
    EXPECT_EQ(HFSPlusString(std::u16string(255, u'x')).length(), 255u);
    EXPECT_EQ(RaisedCode([] { HFSPlusString(std::u16string(256, u'x')); }), Common::FILE_UNSUPPORTED);

    EXPECT_EQ(MakeINodeName(0).ToHost(), u"iNode0");
    EXPECT_EQ(MakeINodeName(1234).ToHost(), u"iNode1234");
    EXPECT_EQ(MakeINodeName(4294967295u).ToHost(), u"iNode4294967295");

    EXPECT_TRUE(IsJournalName(u".journal", 2));
    EXPECT_TRUE(IsJournalName(u".journal_info_block", 2));
    EXPECT_FALSE(IsJournalName(u".journal", 16));
    EXPECT_TRUE(IsHiddenName(u"HFS+ Private Data", 40));
    EXPECT_FALSE(IsHiddenName(u"HFS+ Private", 2));
    EXPECT_TRUE(IsDotName(u".."));
    EXPECT_FALSE(IsDotName(u"..."));
}

TEST(HFSPlusNodesCache, TranspositionList) {
    NodesCache cache(8, 512, 100);
    std::vector<std::uint32_t> expected;
    auto places = [&] {
        std::vector<std::uint32_t> list;
        for (std::uint8_t i = 0; i < cache.capacity(); ++i) list.push_back(cache.entry_node(i));
        return list;
    };
    cache.Acquire(1);
    cache.Acquire(2);
    cache.Acquire(3);
    cache.Acquire(3);  // filling: a hit moves one place towards position 0
    cache.Acquire(1);  // at position 0 already
    const std::uint32_t free = NodesCache::kFreeEntry;
    EXPECT_EQ(places(), (std::vector<std::uint32_t>{1, 3, 2, free, free, free, free, free}));
    for (std::uint32_t n = 4; n <= 8; ++n) cache.Acquire(n);
    EXPECT_TRUE(cache.full());
    EXPECT_EQ(places(), (std::vector<std::uint32_t>{1, 3, 2, 4, 5, 6, 7, 8}));
    cache.Acquire(5);  // full: a hit moves one place away from eviction
    cache.Acquire(8);  // the last place stays
    EXPECT_EQ(places(), (std::vector<std::uint32_t>{1, 3, 2, 4, 6, 5, 7, 8}));
    unsigned char* buffer = cache.Find(1)->data;  // looked at, not acquired: nothing moves
    NodeBlock& ninth = cache.Acquire(9);  // the victim is position 0, the newcomer takes its place
    EXPECT_EQ(places(), (std::vector<std::uint32_t>{9, 3, 2, 4, 6, 5, 7, 8}));
    EXPECT_EQ(ninth.data, buffer);
    EXPECT_FALSE(cache.Find(1)->IsBound());
    EXPECT_TRUE(cache.Holds(9));
    ninth.SetDirty(true);
    EXPECT_EQ(RaisedCode([&] { cache.Acquire(10); }), Common::FILE_CORRUPT);
    EXPECT_EQ(RaisedCode([&] { cache.Acquire(0); }), Common::FILE_UNSUPPORTED);
    EXPECT_EQ(RaisedCode([&] { cache.Acquire(100); }), Common::FILE_UNSUPPORTED);
}

// The volume header's fork of a special file in an image: node `n` of a
// tree held in its first extent lies at the returned byte offset.
struct TreeLayout {
    std::uint64_t start = 0;
    std::uint32_t node_size = 0;
    std::uint64_t node(std::uint32_t n) const { return start + std::uint64_t(n) * node_size; }
};

TreeLayout LayoutOf(const std::vector<unsigned char>& image, unsigned fork_offset) {
    const unsigned char* header = image.data() + 1024;
    const std::uint32_t block = Common::LoadBE32(header + 40);
    TreeLayout layout;
    layout.start = std::uint64_t(Common::LoadBE32(header + fork_offset + 16)) * block;
    layout.node_size = Common::LoadBE16(image.data() + layout.start + 14 + 18);
    return layout;
}

constexpr unsigned kCatalogFork = 272;

// Every leaf record from the first on, through the forward links; a walk
// that doesn't end stops at a count no test expects.
std::uint32_t CountLeafRecords(CatalogFile& catalog) {
    std::uint32_t count = 0;
    for (RecordPosition position = catalog.GetFirstChild(kRootParentId); position.IsValid();
         position = catalog.GetNextRecord(position)) {
        if (++count > 1000000) break;
    }
    return count;
}

// One mkfs.hfsplus volume: its trees, empty but for the root and, on a
// journaled volume, the journal's two files.
void CheckMkfsVolume(std::uint32_t node_size, bool journaled) {
    TestSupport::ImageFile image;
    const std::string sizes = std::to_string(node_size);
    // A journal takes at least 8 MiB, which mkfs gives from 128 MiB on.
    ASSERT_EQ(Shell(std::string("truncate -s ") + (journaled ? "128M " : "16M ") + image.path + " && mkfs.hfsplus " +
                    (journaled ? "-J " : "") +
                    "-v Trees -n c=" + sizes + ",e=" + sizes + ",a=" + sizes + " " + image.path),
              0);
    Volume volume(image.path);
    ASSERT_NE(volume.driver, nullptr);
    CatalogFile& catalog = volume.driver->metadata().GetCatalogFile();
    EXPECT_EQ(catalog.node_size(), node_size);
    EXPECT_EQ(volume.driver->metadata().GetExtentsOverflowFile().node_size(), node_size);
    EXPECT_EQ(catalog.GetVolumeName().ToHost(), u"Trees");
    EXPECT_EQ(catalog.GetParentId(kRootFolderId), kRootParentId);
    const CatalogRecord root = catalog.GetRecordById(kRootFolderId);
    EXPECT_TRUE(root.is_folder());
    EXPECT_EQ(root.id(), kRootFolderId);
    EXPECT_EQ(root.name.ToHost(), u"Trees");
    EXPECT_EQ(RaisedCode([&] { catalog.FindThread(9999); }), Common::FILE_NOT_FOUND);
    EXPECT_EQ(RaisedCode([&] { catalog.GetRecord(kRootFolderId, HFSPlusString(u"absent")); }),
              Common::FILE_NOT_FOUND);
    // The root thread, the root folder and, on a journaled volume,
    // the two journal files with their threads.
    EXPECT_EQ(CountLeafRecords(catalog), journaled ? 6u : 2u);
    EXPECT_EQ(catalog.leaf_records(), journaled ? 6u : 2u);
    if (journaled) {
        const RecordPosition first = catalog.GetFirstChild(kRootFolderId);
        const CatalogRecord journal = catalog.GetRecordAt(first);
        EXPECT_EQ(journal.name.ToHost(), u".journal");
        EXPECT_EQ(catalog.GetRecordAt(catalog.GetNextRecord(first)).name.ToHost(), u".journal_info_block");
        EXPECT_EQ(catalog.GetRecord(kRootFolderId, HFSPlusString(u".JOURNAL")).id(), journal.id());
    } else {
        EXPECT_EQ(RaisedCode([&] { catalog.GetFirstChild(kRootFolderId); }), Common::FILE_NOT_FOUND);
    }
    const BTreeMap& map = catalog.GetMap();
    EXPECT_TRUE(map.IsAllocated(0));
    EXPECT_TRUE(map.IsAllocated(catalog.root()));
    EXPECT_GE(map.bit_count(), catalog.total_nodes());
    EXPECT_FALSE(map.IsAllocated(map.FindFirstFree()));
    ExtentsDescriptorArray none;
    volume.driver->metadata().GetExtentsOverflowFile().LoadExtents(16, kDataFork, none);
    EXPECT_EQ(none.extent_count(), 0u);
    ASSERT_TRUE(volume.driver->metadata().HasComponent(5));
    AttributesFile& attributes = volume.driver->metadata().GetAttributesFile();
    std::vector<AttributeNameAndTypePair> list{{1, u"stale"}};
    attributes.ListAttributes(kRootFolderId, list);
    EXPECT_TRUE(list.empty());
    EXPECT_EQ(RaisedCode([&] { attributes.GetForkData(kRootFolderId, HFSPlusString(u"x")); }),
              Common::FILE_NOT_FOUND);
}

TEST(HFSPlusTrees, MkfsVolumesOfEveryNodeSize) {
    for (const std::uint32_t node_size : {4096u, 8192u, 16384u, 32768u}) {
        for (const bool journaled : {false, true}) {
            SCOPED_TRACE(std::to_string(node_size) + (journaled ? " journaled" : ""));
            CheckMkfsVolume(node_size, journaled);
        }
    }
}

// A folder of 2000 files put by xorriso's HFS+ writer, cut out of its
// Apple partition map and made clean by fsck.hfsplus: a catalog of
// several levels.
class ManyFiles : public ::testing::Test {
protected:
    static constexpr std::uint32_t kFiles = 2000;

    static std::string Name(std::uint32_t i) {
        char name[32];
        std::snprintf(name, sizeof(name), "f%05u.txt", i);
        return name;
    }
    static std::u16string Host(const std::string& text) { return std::u16string(text.begin(), text.end()); }

    static void SetUpTestSuite() {
        image = new TestSupport::ImageFile();
        const std::string dir = image->folder.Path();
        for (std::uint32_t i = 1; i <= kFiles; ++i) image->folder.Write("src/many/" + Name(i), "file " + std::to_string(i) + "\n");
        image->folder.Write("src/top.txt", "top\n");
        if (Shell("xorriso -outdev " + dir + "/x.iso -hfsplus on -boot_image any hfsplus_block_size=2048 -map " +
                  dir + "/src /") != 0) {
            return;
        }
        const auto iso = TestSupport::LoadFile(dir + "/x.iso");
        const std::uint32_t block = Common::LoadBE16(iso.data() + 2);
        for (std::uint64_t entry = block; entry + block <= iso.size(); entry += block) {
            if (iso[entry] != 'P' || iso[entry + 1] != 'M') break;
            if (std::string(reinterpret_cast<const char*>(&iso[entry + 48])) != "Apple_HFS") continue;
            const std::uint64_t start = std::uint64_t(Common::LoadBE32(&iso[entry + 8])) * block;
            const std::uint64_t count = std::uint64_t(Common::LoadBE32(&iso[entry + 12])) * block;
            image->store(std::vector<unsigned char>(iso.begin() + start, iso.begin() + start + count));
        }
        Shell("fsck.hfsplus -fy " + image->path + "; fsck.hfsplus -fy " + image->path);
        clean = Shell("fsck.hfsplus -fn " + image->path) == 0;
    }
    static void TearDownTestSuite() { delete image; }

    static TestSupport::ImageFile* image;
    static bool clean;
};
TestSupport::ImageFile* ManyFiles::image = nullptr;
bool ManyFiles::clean = false;

TEST_F(ManyFiles, LookupsAndWalksOfADeepCatalog) {
    ASSERT_TRUE(clean);
    Volume volume(image->path);
    ASSERT_NE(volume.driver, nullptr);
    CatalogFile& catalog = volume.driver->metadata().GetCatalogFile();
    EXPECT_GE(catalog.depth(), 2);
    // Every file and folder has a record and a thread: the files, "top.txt",
    // the root and "many".
    EXPECT_EQ(catalog.leaf_records(), 2 * (kFiles + 1 + 2));
    EXPECT_EQ(CountLeafRecords(catalog), catalog.leaf_records());

    const CatalogRecord many = catalog.GetRecord(kRootFolderId, HFSPlusString(u"MANY"));
    ASSERT_TRUE(many.is_folder());
    EXPECT_EQ(many.folder().valence(), kFiles);
    for (std::uint32_t i = 1; i <= kFiles; ++i) {
        const std::string name = Name(i);
        const CatalogRecord file = catalog.GetRecord(many.id(), HFSPlusString(Host(name)));
        ASSERT_TRUE(file.is_file()) << name;
        EXPECT_EQ(file.file().dataFork().logicalSize(), ("file " + std::to_string(i) + "\n").size());
        if (i % 97 == 1) {
            const CatalogRecord by_id = catalog.GetRecordById(file.id());
            EXPECT_EQ(by_id.name.ToHost(), Host(name));
            EXPECT_EQ(by_id.parent_id, many.id());
            EXPECT_EQ(catalog.GetParentId(file.id()), many.id());
        }
    }
    std::set<std::u16string> seen;
    std::u16string previous;
    for (RecordPosition at = catalog.GetFirstChild(many.id()); at.IsValid(); at = catalog.GetNextRecord(at)) {
        const CatalogRecord record = catalog.GetRecordAt(at);
        if (record.parent_id != many.id()) break;
        EXPECT_LT(previous, record.name.ToHost());
        previous = record.name.ToHost();
        seen.insert(previous);
    }
    EXPECT_EQ(seen.size(), kFiles);
    EXPECT_EQ(*seen.begin(), Host(Name(1)));
    EXPECT_EQ(RaisedCode([&] { catalog.GetRecord(many.id(), HFSPlusString(u"f02001.txt")); }), Common::FILE_NOT_FOUND);
}

// What a volume with damaged catalog nodes answers to a mount, every
// lookup and a walk of all leaves: the first code raised.
std::uint32_t DamagedOutcome(const std::vector<unsigned char>& bytes) {
    auto disk = TestSupport::DiskOf(bytes);
    HFSPlusDriver* driver = nullptr;
    std::uint32_t code = RaisedCode([&] {
        driver = new HFSPlusDriver(disk.get(), 0, disk->GetLastSector() + 1, 0, nullptr, 0);
    });
    if (code != 0) return code;
    ++driver->references;
    code = RaisedCode([&] {
        CatalogFile& catalog = driver->metadata().GetCatalogFile();
        const CatalogRecord many = catalog.GetRecord(kRootFolderId, HFSPlusString(u"many"));
        for (std::uint32_t i = 1; i <= 2000; i += 7) {
            char name[32];
            std::snprintf(name, sizeof(name), "f%05u.txt", i);
            catalog.GetRecord(many.id(), HFSPlusString(std::u16string(name, name + std::strlen(name))));
        }
        CountLeafRecords(catalog);
    });
    release(driver);
    return code;
}

TEST_F(ManyFiles, DamagedNodesAreCorruptNotHangs) {
    ASSERT_TRUE(clean);
    const std::vector<unsigned char> sound = image->bytes();
    const TreeLayout tree = LayoutOf(sound, kCatalogFork);
    const unsigned char* header = sound.data() + tree.node(0) + 14;
    const std::uint32_t root = Common::LoadBE32(header + 2);
    const std::uint32_t first_leaf = Common::LoadBE32(header + 10);
    const std::uint32_t last_leaf = Common::LoadBE32(header + 14);
    ASSERT_NE(first_leaf, last_leaf);
    auto offset_slot = [&](std::uint32_t node, unsigned record) {
        return tree.node(node) + tree.node_size - 2 * (record + 1);
    };
    auto record_at = [&](const std::vector<unsigned char>& bytes, std::uint32_t node, unsigned record) {
        return tree.node(node) + Common::LoadBE16(&bytes[offset_slot(node, record)]);
    };
    struct Case {
        const char* what;
        std::function<void(std::vector<unsigned char>&)> patch;
    };
    const Case cases[] = {
        {"child past the total nodes",
         [&](std::vector<unsigned char>& b) {
             const std::uint64_t record = record_at(b, root, 0);
             const std::uint32_t key = Common::LoadBE16(&b[record]) + 2;
             Common::StoreBE32(&b[record + key + (key & 1)], 0x00FFFFFF);
         }},
        {"child naming the header node",
         [&](std::vector<unsigned char>& b) {
             const std::uint64_t record = record_at(b, root, 0);
             const std::uint32_t key = Common::LoadBE16(&b[record]) + 2;
             Common::StoreBE32(&b[record + key + (key & 1)], 0);
         }},
        {"record count past the offsets", [&](std::vector<unsigned char>& b) { Common::StoreBE16(&b[tree.node(first_leaf) + 10], 0x7FFF); }},
        {"offsets descending",
         [&](std::vector<unsigned char>& b) {
             const std::uint16_t one = Common::LoadBE16(&b[offset_slot(first_leaf, 1)]);
             Common::StoreBE16(&b[offset_slot(first_leaf, 1)], Common::LoadBE16(&b[offset_slot(first_leaf, 2)]));
             Common::StoreBE16(&b[offset_slot(first_leaf, 2)], one);
         }},
        {"key longer than its record",
         [&](std::vector<unsigned char>& b) { Common::StoreBE16(&b[record_at(b, first_leaf, 0)], 0x01F0); }},
        {"leaf chain back to the first leaf",
         [&](std::vector<unsigned char>& b) { Common::StoreBE32(&b[tree.node(last_leaf)], first_leaf); }},
        {"leaf chain back with its back link",
         [&](std::vector<unsigned char>& b) {
             Common::StoreBE32(&b[tree.node(last_leaf)], first_leaf);
             Common::StoreBE32(&b[tree.node(first_leaf) + 4], last_leaf);
         }},
        {"leaf linked to itself", [&](std::vector<unsigned char>& b) { Common::StoreBE32(&b[tree.node(first_leaf)], first_leaf); }},
        {"depth that lies", [&](std::vector<unsigned char>& b) { Common::StoreBE16(&b[tree.node(0) + 14], 5); }},
        {"total nodes past the fork",
         [&](std::vector<unsigned char>& b) { Common::StoreBE32(&b[tree.node(0) + 14 + 22], 0x7FFFFFFF); }},
        {"root of leaf kind", [&](std::vector<unsigned char>& b) { b[tree.node(root) + 8] = 0xFF; }},
        {"header linked to a leaf as its map node",
         [&](std::vector<unsigned char>& b) { Common::StoreBE32(&b[tree.node(0)], first_leaf); }},
        {"header linked past the total nodes",
         [&](std::vector<unsigned char>& b) { Common::StoreBE32(&b[tree.node(0)], 0x00FFFFFF); }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        std::vector<unsigned char> damaged = sound;
        c.patch(damaged);
        EXPECT_EQ(DamagedOutcome(damaged), Common::FILE_CORRUPT);
    }
    EXPECT_EQ(DamagedOutcome(sound), 0u);
}

}  // namespace
