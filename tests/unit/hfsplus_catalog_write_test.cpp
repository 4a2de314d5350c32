// Catalog changes on volumes that mkfs.hfsplus makes (plain, journaled,
// case-sensitive): entries made, renamed and removed through CatalogFile,
// hard links through the private directory, then judged after unmount by
// fsck.hfsplus (which checks valences, counts and link counts) and
// sleuthkit, and found again by a new mount; refusals leave the volume as
// it was.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "fsdriver/driver_selection.h"
#include "hfsplus/allocation_file.h"
#include "hfsplus/catalog_file.h"
#include "hfsplus/hfsplus_driver.h"
#include "hfsplus/hfsplus_metadata.h"
#include "hfsplus/volume_header.h"
#include "loader/common/error_codes.h"
#include "tests/support/hfsplus_image.h"
#include "tests/support/raised_code.h"
#include "tests/support/shell.h"
#include "tests/support/volume_fixture.h"

namespace {

using namespace hfsplus;
using TestSupport::RaisedCode;
using TestSupport::HfsplusFsckComplaints;
using Volume = TestSupport::Volume<HFSPlusDriver, TryHFSPlusDriver>;

HFSPlusString N(const std::u16string& name) { return HFSPlusString(name); }

std::string Fls(const std::string& image) { return TestSupport::CaptureOutput("fls -rp " + image + " 2>&1"); }

bool Lists(const std::string& listing, const std::string& line) { return listing.find(line) != std::string::npos; }

CatalogFile& Catalog(Volume& volume) { return volume.driver->metadata().GetCatalogFile(); }
const VolumeHeader& Header(Volume& volume) { return volume.driver->metadata().GetVolumeHeader().header(); }

std::uint32_t IdOf(CatalogFile& catalog, std::uint32_t parent, const std::u16string& name) {
    return catalog.GetRecord(parent, N(name)).id();
}

std::uint32_t Valence(CatalogFile& catalog, std::uint32_t folder) {
    return catalog.GetRecordById(folder).folder().valence();
}

// Names long enough that a few dozen entries split the catalog's nodes, so
// that parents and threads end up in other nodes than their entries.
std::u16string LongName(unsigned i) {
    std::string text = "entry-" + std::to_string(i) + "-";
    text.resize(100, static_cast<char>('a' + i % 26));
    return std::u16string(text.begin(), text.end());
}
constexpr unsigned kMany = 40;

struct VolumeCase {
    const char* what;
    const char* mkfs;
    bool case_sensitive;
};

const VolumeCase kVolumes[] = {
    {"plain", "", false},
    {"journaled", "-J", false},
    {"case-sensitive", "-s", true},
};

void MakeRenameRemove(const VolumeCase& c) {
    TestSupport::ImageFile image;
    ASSERT_TRUE(TestSupport::MakeHfsplusVolume(image.path, "128M", c.mkfs));
    std::uint32_t files = 0, folders = 0, docs = 0, note = 0, symlink = 0, inner = 0;
    {
        Volume volume(image.path);
        ASSERT_NE(volume.driver, nullptr);
        CatalogFile& catalog = Catalog(volume);
        files = Header(volume).fileCount();
        folders = Header(volume).folderCount();
        const std::uint32_t root_valence = Valence(catalog, kRootFolderId);
        const std::uint32_t next = Header(volume).nextCatalogID();
        catalog.CreateDirectory(N(u"docs"), kRootFolderId);
        docs = IdOf(catalog, kRootFolderId, u"docs");
        EXPECT_EQ(docs, next);
        const CatalogRecord made = catalog.CreateFile(N(u"note.txt"), kRootFolderId);
        note = made.id();
        EXPECT_EQ(made.file().permissions().fileMode(), 0100644);
        catalog.CreateFile(N(u"keep"), docs);
        const CatalogRecord link = catalog.CreateSymlink(N(u"shortcut"), docs);
        symlink = link.id();
        EXPECT_EQ(link.file().fdType(), kSymlinkType);
        catalog.CreateDirectory(N(u"sub"), docs);
        inner = IdOf(catalog, docs, u"sub");
        for (unsigned i = 0; i < kMany; ++i) catalog.CreateFile(N(LongName(i)), inner);
        EXPECT_EQ(Header(volume).nextCatalogID(), next + 5 + kMany);
        EXPECT_GE(catalog.depth(), 2);
        // A second name of another case is the same key unless the volume
        // tells case apart.
        EXPECT_EQ(RaisedCode([&] { catalog.CreateFile(N(u"DOCS"), kRootFolderId); }),
                  c.case_sensitive ? 0u : Common::FILE_EXISTS);
        // Across folders, then within one.
        catalog.Rename(N(u"note.txt"), kRootFolderId, N(u"moved.txt"), docs);
        catalog.Rename(N(u"sub"), docs, N(u"inner"), docs);
        EXPECT_EQ(Valence(catalog, kRootFolderId), root_valence + (c.case_sensitive ? 2 : 1));
        EXPECT_EQ(Valence(catalog, docs), 4u);
        EXPECT_EQ(Header(volume).fileCount(), files + 3 + kMany + (c.case_sensitive ? 1 : 0));
        EXPECT_EQ(Header(volume).folderCount(), folders + 2);
    }
    EXPECT_EQ(HfsplusFsckComplaints(image.path), "");
    const std::string listing = Fls(image.path);
    EXPECT_TRUE(Lists(listing, "d/d " + std::to_string(docs) + ":\tdocs")) << listing;
    EXPECT_TRUE(Lists(listing, "r/r " + std::to_string(note) + ":\tdocs/moved.txt")) << listing;
    EXPECT_TRUE(Lists(listing, "l/l " + std::to_string(symlink) + ":\tdocs/shortcut")) << listing;
    EXPECT_TRUE(Lists(listing, "d/d " + std::to_string(inner) + ":\tdocs/inner")) << listing;
    EXPECT_FALSE(Lists(listing, "note.txt")) << listing;
    EXPECT_EQ(Lists(listing, ":\tDOCS"), c.case_sensitive) << listing;
    {
        Volume volume(image.path);
        ASSERT_NE(volume.driver, nullptr);
        CatalogFile& catalog = Catalog(volume);
        const CatalogRecord moved = catalog.GetRecordById(note);
        EXPECT_EQ(moved.parent_id, docs);
        EXPECT_EQ(moved.name.ToHost(), u"moved.txt");
        EXPECT_EQ(catalog.GetRecord(docs, N(u"inner")).folder().valence(), kMany);
        for (unsigned i = 0; i < kMany; ++i) {
            const CatalogRecord file = catalog.GetRecord(inner, N(LongName(i)));
            ASSERT_EQ(catalog.GetRecordById(file.id()).name.ToHost(), LongName(i));
            catalog.DeleteFile(N(LongName(i)), inner);
        }
        EXPECT_EQ(RaisedCode([&] { catalog.DeleteFolder(N(u"docs"), kRootFolderId); }), Common::FILE_DELETE);
        for (const char16_t* name : {u"moved.txt", u"keep", u"shortcut"}) catalog.DeleteFile(N(name), docs);
        catalog.DeleteFolder(N(u"inner"), docs);
        catalog.DeleteFolder(N(u"docs"), kRootFolderId);
        if (c.case_sensitive) catalog.DeleteFile(N(u"DOCS"), kRootFolderId);
        EXPECT_EQ(Header(volume).fileCount(), files);
        EXPECT_EQ(Header(volume).folderCount(), folders);
        EXPECT_EQ(RaisedCode([&] { catalog.FindThread(note); }), Common::FILE_NOT_FOUND);
    }
    EXPECT_EQ(HfsplusFsckComplaints(image.path), "");
    EXPECT_FALSE(Lists(Fls(image.path), "docs"));
}

TEST(HFSPlusCatalogWrite, EntriesMadeRenamedAndRemoved) {
    for (const VolumeCase& c : kVolumes) {
        SCOPED_TRACE(c.what);
        MakeRenameRemove(c);
    }
}

// A file of a few blocks taken straight from the allocation file, so that
// its removal has blocks to give back.
std::uint32_t FileWithBlocks(Volume& volume, const std::u16string& name, std::uint32_t blocks) {
    CatalogFile& catalog = Catalog(volume);
    CatalogRecord record = catalog.CreateFile(N(name), kRootFolderId);
    ExtentsDescriptorArray list;
    EXPECT_TRUE(volume.driver->metadata().GetAllocationFile().ExtendFile(record.id(), blocks, list));
    const ExtentDescriptor& extent = list.GetExtent(0);
    HFSPlusCatalogFile& file = record.file();
    file.dataFork_.extents_[0] = extent;
    file.dataFork_.totalBlocks_.set(blocks);
    file.dataFork_.logicalSize_.set(std::uint64_t(blocks) * volume.driver->block_size());
    catalog.WriteFileRecord(record.id(), record);
    return record.id();
}

TEST(HFSPlusCatalogWrite, HardLinksThroughThePrivateDirectory) {
    TestSupport::ImageFile image;
    ASSERT_TRUE(TestSupport::MakeHfsplusVolume(image.path, "128M", "-J"));
    std::uint32_t inode = 0, free_before = 0, files = 0;
    {
        Volume volume(image.path);
        ASSERT_NE(volume.driver, nullptr);
        CatalogFile& catalog = Catalog(volume);
        free_before = Header(volume).freeBlocks();
        files = Header(volume).fileCount();
        inode = FileWithBlocks(volume, u"first", 3);
        catalog.CreateDirectory(N(u"other"), kRootFolderId);
        const std::uint32_t other = IdOf(catalog, kRootFolderId, u"other");
        catalog.CreateHardLink(N(u"first"), kRootFolderId, N(u"second"), other);
        catalog.CreateHardLink(N(u"second"), other, N(u"third"), kRootFolderId);
        const std::uint32_t private_id = catalog.GetPrivateDirectoryId();
        const CatalogRecord target = catalog.GetRecord(private_id, MakeINodeName(inode));
        EXPECT_EQ(target.id(), inode);
        EXPECT_EQ(target.file().permissions().special(), 3u);  // the link count
        for (const auto& [parent, name] : {std::pair{std::uint32_t(kRootFolderId), u"first"},
                                           std::pair{other, u"second"}, std::pair{std::uint32_t(kRootFolderId), u"third"}}) {
            const CatalogRecord link = catalog.GetRecord(parent, N(name));
            EXPECT_TRUE(CatalogFile::IsHardLink(link));
            EXPECT_NE(link.id(), inode);
            EXPECT_EQ(catalog.ResolveHardLink(link.id()).id(), inode);
        }
        EXPECT_EQ(RaisedCode([&] { catalog.CreateHardLink(N(u"first"), kRootFolderId, N(u"x"), private_id); }),
                  Common::FILE_CREATE);
        EXPECT_EQ(RaisedCode([&] { catalog.CreateHardLink(N(u"other"), kRootFolderId, N(u"x"), other); }),
                  Common::FILE_CREATE);
    }
    EXPECT_EQ(HfsplusFsckComplaints(image.path), "");
    const std::string listing = Fls(image.path);
    for (const char* name : {"\tfirst", "\tother/second", "\tthird"}) EXPECT_TRUE(Lists(listing, name)) << listing;
    EXPECT_TRUE(Lists(TestSupport::CaptureOutput("istat " + image.path + " " + std::to_string(inode)),
                      "Link count:\t3"));
    {
        Volume volume(image.path);
        ASSERT_NE(volume.driver, nullptr);
        CatalogFile& catalog = Catalog(volume);
        const std::uint32_t other = IdOf(catalog, kRootFolderId, u"other");
        catalog.DeleteFile(N(u"first"), kRootFolderId);
        catalog.DeleteFile(N(u"second"), other);
        EXPECT_EQ(catalog.ResolveHardLink(IdOf(catalog, kRootFolderId, u"third")).file().permissions().special(), 1u);
        EXPECT_EQ(Header(volume).freeBlocks(), free_before - 3);
        catalog.DeleteFile(N(u"third"), kRootFolderId);
        EXPECT_EQ(Header(volume).freeBlocks(), free_before);
        EXPECT_EQ(RaisedCode([&] { catalog.FindThread(inode); }), Common::FILE_NOT_FOUND);
        catalog.DeleteFolder(N(u"other"), kRootFolderId);
        EXPECT_EQ(Header(volume).fileCount(), files);
        EXPECT_EQ(Valence(catalog, catalog.GetPrivateDirectoryId()), 0u);
    }
    EXPECT_EQ(HfsplusFsckComplaints(image.path), "");
}

// Every refusal is met before the first change: the image stays
// byte-identical through all of them.
TEST(HFSPlusCatalogWrite, RefusalsChangeNothing) {
    TestSupport::ImageFile image;
    ASSERT_TRUE(TestSupport::MakeHfsplusVolume(image.path, "128M", ""));
    std::uint32_t full = 0;
    {
        Volume volume(image.path);
        ASSERT_NE(volume.driver, nullptr);
        CatalogFile& catalog = Catalog(volume);
        catalog.CreateDirectory(N(u"full"), kRootFolderId);
        full = IdOf(catalog, kRootFolderId, u"full");
        catalog.CreateDirectory(N(u"deep"), full);
        catalog.CreateFile(N(u"a"), kRootFolderId);
    }
    const std::vector<unsigned char> before = image.bytes();
    for (const bool read_only : {false, true}) {
        SCOPED_TRACE(read_only ? "read only" : "writable");
        Volume volume(image.path);
        ASSERT_NE(volume.driver, nullptr);
        CatalogFile& catalog = Catalog(volume);
        const std::uint32_t records = catalog.leaf_records();
        const std::uint32_t file_id = IdOf(catalog, kRootFolderId, u"a");
        const std::uint32_t deep = IdOf(catalog, full, u"deep");
        if (read_only) volume.driver->read_only = 1;
        const struct {
            const char* what;
            std::uint32_t raised;
        } refusals[] = {
            {"existing name", RaisedCode([&] { catalog.CreateFile(N(u"A"), kRootFolderId); })},
            {"existing folder", RaisedCode([&] { catalog.CreateDirectory(N(u"full"), kRootFolderId); })},
            {"missing parent", RaisedCode([&] { catalog.CreateFile(N(u"b"), 9999); })},
            {"parent a file", RaisedCode([&] { catalog.CreateSymlink(N(u"b"), file_id); })},
            {"folder not empty", RaisedCode([&] { catalog.DeleteFolder(N(u"full"), kRootFolderId); })},
            {"folder as file", RaisedCode([&] { catalog.DeleteFile(N(u"full"), kRootFolderId); })},
            {"onto a name", RaisedCode([&] { catalog.Rename(N(u"a"), kRootFolderId, N(u"full"), kRootFolderId); })},
            {"case alone", RaisedCode([&] { catalog.Rename(N(u"a"), kRootFolderId, N(u"A"), kRootFolderId); })},
            {"below itself", RaisedCode([&] { catalog.Rename(N(u"full"), kRootFolderId, N(u"x"), deep); })},
            {"link to a folder", RaisedCode([&] { catalog.CreateHardLink(N(u"full"), kRootFolderId, N(u"x"), 2); })},
        };
        const std::uint32_t writable_codes[] = {Common::FILE_EXISTS, Common::FILE_EXISTS, Common::FILE_NOT_FOUND,
                                                Common::FILE_CREATE, Common::FILE_DELETE, Common::FILE_DELETE,
                                                Common::FILE_RENAME, Common::FILE_RENAME, Common::FILE_RENAME,
                                                Common::FILE_CREATE};
        for (std::size_t i = 0; i < std::size(refusals); ++i) {
            EXPECT_EQ(refusals[i].raised, read_only ? Common::FILE_READ_ONLY : writable_codes[i]) << refusals[i].what;
        }
        // The same name is no rename at all.
        EXPECT_EQ(RaisedCode([&] { catalog.Rename(N(u"a"), kRootFolderId, N(u"a"), kRootFolderId); }),
                  read_only ? Common::FILE_READ_ONLY : 0u);
        EXPECT_EQ(catalog.leaf_records(), records);
        EXPECT_EQ(catalog.dirty, 0);
    }
    EXPECT_TRUE(before == image.bytes());
}

// With ids reused, the next id is the first without a thread; at the end
// of the ids, the search starts again at 16. Without reuse the end is full.
TEST(HFSPlusCatalogWrite, CatalogIds) {
    TestSupport::ImageFile image;
    ASSERT_TRUE(TestSupport::MakeHfsplusVolume(image.path, "128M", "-J"));  // ids 16 and 17 are the journal's files
    Volume volume(image.path);
    ASSERT_NE(volume.driver, nullptr);
    CatalogFile& catalog = Catalog(volume);
    VolumeHeader& header = volume.driver->metadata().GetVolumeHeader().header();
    header.nextCatalogID_.set(0xFFFFFFFFu);
    EXPECT_EQ(RaisedCode([&] { catalog.AllocateCatalogId(); }), Common::FILE_DISK_FULL);
    header.attributes_.set(header.attributes() | kVolumeCatalogIdsReused);
    EXPECT_EQ(catalog.AllocateCatalogId(), 18u);
    EXPECT_EQ(header.nextCatalogID(), 19u);
    header.nextCatalogID_.set(12);
    EXPECT_EQ(RaisedCode([&] { catalog.AllocateCatalogId(); }), Common::FILE_CORRUPT);
    volume.driver->read_only = 1;  // nothing of this reaches the disk
}

// A catalog that runs out of nodes on a volume with no block left: each
// change that would need a node it can't get is refused before it touches
// the tree, a rename included, and every entry made before stays.
TEST(HFSPlusCatalogWrite, FullCatalogOnAFullVolumeRefusesWhole) {
    TestSupport::ImageFile image;
    ASSERT_TRUE(TestSupport::MakeHfsplusVolume(image.path, "16M", ""));
    unsigned made = 0;
    {
        Volume volume(image.path);
        ASSERT_NE(volume.driver, nullptr);
        CatalogFile& catalog = Catalog(volume);
        AllocationFile& allocation = volume.driver->metadata().GetAllocationFile();
        const TestSupport::BlockAreas held = TestSupport::HoldAllFree(allocation);
        std::uint32_t code = 0;
        while (code == 0 && made < 5000) {
            code = RaisedCode([&] { catalog.CreateFile(N(LongName(made)), kRootFolderId); });
            if (code == 0) ++made;
        }
        // The allocation file has no clump for the tree: the code it gives
        // for that.
        EXPECT_EQ(code, Common::FILE_CORRUPT);
        EXPECT_GT(made, 10u);
        EXPECT_EQ(Valence(catalog, kRootFolderId), made);
        const std::u16string longer = LongName(made) + u"-renamed";
        const std::uint32_t renamed =
            RaisedCode([&] { catalog.Rename(N(LongName(0)), kRootFolderId, N(longer), kRootFolderId); });
        EXPECT_TRUE(renamed == 0 || renamed == Common::FILE_CORRUPT) << renamed;
        const std::u16string& kept = renamed == 0 ? longer : LongName(0);
        EXPECT_EQ(RaisedCode([&] { catalog.GetRecord(kRootFolderId, N(kept)); }), 0u);
        EXPECT_EQ(Valence(catalog, kRootFolderId), made);
        TestSupport::GiveBack(allocation, held);
    }
    EXPECT_EQ(HfsplusFsckComplaints(image.path), "");
    Volume volume(image.path);
    ASSERT_NE(volume.driver, nullptr);
    EXPECT_EQ(Valence(Catalog(volume), kRootFolderId), made);
}

}  // namespace
