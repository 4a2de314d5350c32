// Attributes of HFS+ files and folders written into the attributes tree of
// mkfs.hfsplus volumes: inline ones, and a fork attribute whose extents
// spill into an extents record; read back after a remount, removed with
// their blocks, and judged by fsck.hfsplus at each step.
#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "fsdriver/driver_selection.h"
#include "hfsplus/allocation_file.h"
#include "hfsplus/attributes_file.h"
#include "hfsplus/catalog_file.h"
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
using Volume = TestSupport::Volume<HFSPlusDriver, TryHFSPlusDriver>;

int Shell(const std::string& command) { return TestSupport::RunQuietly(command); }

std::vector<unsigned char> Bytes(const std::string& text) { return {text.begin(), text.end()}; }

std::uint32_t FreeBlocks(HFSPlusDriver& driver) { return driver.metadata().GetVolumeHeader().header().freeBlocks(); }

constexpr std::uint32_t kFork = 10;  // blocks of the fork attribute, one each

// A fork of single blocks with a used block between each two: ten extents,
// eight in the fork record and two in an extents record at block 8.
ForkData TakeScatteredFork(HFSPlusDriver& driver, ExtentsDescriptorArray& blocks, ExtentsDescriptorArray& spacers) {
    ExtentsDescriptorArray all;
    EXPECT_TRUE(driver.metadata().GetAllocationFile().ExtendFile(kRootFolderId, 2 * kFork, all));
    EXPECT_EQ(all.extent_count(), 1u);
    const std::uint32_t first = all.GetExtent(0).startBlock();
    for (std::uint32_t i = 0; i < 2 * kFork; ++i) {
        (i % 2 == 0 ? blocks : spacers).AddArea(BlockArea::FromCount(first + i, 1));
    }
    ForkData fork{};
    fork.logicalSize_.set(std::uint64_t(kFork) * driver.block_size());
    fork.totalBlocks_.set(kFork);
    blocks.GetGroup(0, fork.extents_);
    return fork;
}

// The folder record of the root with its flags changed, through the
// B-tree engine: a record with attributes carries the flag 0x0004, which
// the checker compares with what the attributes tree holds.
void SetRootFlags(HFSPlusDriver& driver, std::uint16_t set, std::uint16_t clear) {
    CatalogFile& catalog = driver.metadata().GetCatalogFile();
    const CatalogRecord root = catalog.GetRecordById(kRootFolderId);
    std::vector<unsigned char> key(sizeof(HFSPlusCatalogKey));
    key.resize(CatalogFile::BuildKey(key.data(), root.parent_id, root.name));
    std::vector<unsigned char> folder(root.bytes, root.bytes + root.size);
    Common::StoreBE16(&folder[2], static_cast<std::uint16_t>((Common::LoadBE16(&folder[2]) | set) & ~clear));
    catalog.DeleteRecord(key.data(), key.size(), catalog.FindByKey(root.parent_id, root.name));
    catalog.InsertRecord(key.data(), key.size(), folder.data(), folder.size(), 1);
}

constexpr std::uint16_t kHasAttributes = 0x0004;

struct VolumeCase {
    const char* what;
    const char* mkfs;
};

void SetReadRemove(const VolumeCase& c) {
    TestSupport::ImageFile image;
    ASSERT_EQ(Shell(std::string("truncate -s 16M ") + image.path + " && mkfs.hfsplus " + c.mkfs + " -v Attr " +
                    image.path),
              0);
    Shell("fsck.hfsplus -fy " + image.path);
    ASSERT_EQ(HfsplusFsckComplaints(image.path), "");
    const std::vector<unsigned char> upper = Bytes("first value"), lower = Bytes("second, longer value");
    std::uint32_t free_before = 0;
    ExtentsDescriptorArray blocks;
    {
        Volume volume(image.path);
        ASSERT_NE(volume.driver, nullptr);
        ASSERT_TRUE(volume.driver->metadata().HasComponent(5));
        HFSPlusDriver& driver = *volume.driver;
        AttributesFile& attributes = driver.metadata().GetAttributesFile();
        free_before = FreeBlocks(driver);
        attributes.AddInlineAttribute(kRootFolderId, HFSPlusString(u"user.abc"), lower.data(), lower.size());
        attributes.AddInlineAttribute(kRootFolderId, HFSPlusString(u"user.Abc"), upper.data(), upper.size());
        ExtentsDescriptorArray spacers;
        const ForkData fork = TakeScatteredFork(driver, blocks, spacers);
        ExtentDescriptor group[kExtentsPerRecord];
        blocks.GetGroup(1, group);
        attributes.AddForkAttribute(kRootFolderId, HFSPlusString(u"user.big"), fork);
        attributes.AddExtentsAttribute(kRootFolderId, blocks.GetBlocksBefore(1), HFSPlusString(u"user.big"), group);
        driver.metadata().GetAllocationFile().FreeExtents(spacers);
        SetRootFlags(driver, kHasAttributes, 0);
        EXPECT_EQ(FreeBlocks(driver), free_before - kFork);
        EXPECT_EQ(RaisedCode([&] {
                      attributes.AddInlineAttribute(kRootFolderId, HFSPlusString(u"user.abc"), upper.data(), upper.size());
                  }),
                  Common::FILE_EXISTS);
    }
    EXPECT_EQ(HfsplusFsckComplaints(image.path), "");
    {
        Volume volume(image.path);
        ASSERT_NE(volume.driver, nullptr);
        HFSPlusDriver& driver = *volume.driver;
        AttributesFile& attributes = driver.metadata().GetAttributesFile();
        std::vector<AttributeNameAndTypePair> list;
        attributes.ListAttributes(kRootFolderId, list);
        ASSERT_EQ(list.size(), 3u);  // the fork's two records list once
        EXPECT_EQ(list[0].name, u"user.Abc");  // raw 16-bit order: upper case first
        EXPECT_EQ(list[1].name, u"user.abc");
        EXPECT_EQ(list[2].name, u"user.big");
        EXPECT_EQ(list[2].type, kAttrForkData);
        EXPECT_EQ(attributes.GetInlineData(kRootFolderId, HFSPlusString(u"user.Abc")), upper);
        EXPECT_EQ(attributes.GetInlineData(kRootFolderId, HFSPlusString(u"user.abc")), lower);
        ExtentsDescriptorArray extents;
        extents.Append(&attributes.GetForkData(kRootFolderId, HFSPlusString(u"user.big")).extent(0), kExtentsPerRecord);
        attributes.GetForkExtents(kRootFolderId, HFSPlusString(u"user.big"), extents);
        ASSERT_EQ(extents.extent_count(), kFork);
        for (std::uint32_t i = 0; i < kFork; ++i) EXPECT_EQ(extents.GetExtent(i).startBlock(), blocks.GetExtent(i).startBlock());
        attributes.DeleteAttributes(kRootFolderId);
        SetRootFlags(driver, 0, kHasAttributes);
        attributes.ListAttributes(kRootFolderId, list);
        EXPECT_TRUE(list.empty());
        EXPECT_EQ(RaisedCode([&] { attributes.GetInlineData(kRootFolderId, HFSPlusString(u"user.abc")); }),
                  Common::FILE_NOT_FOUND);
        EXPECT_EQ(FreeBlocks(driver), free_before);
        EXPECT_EQ(attributes.leaf_records(), 0u);
    }
    EXPECT_EQ(HfsplusFsckComplaints(image.path), "");
}

TEST(HFSPlusAttributesWrite, SetReadBackAndRemoved) {
    for (const VolumeCase& c : {VolumeCase{"plain", ""}, VolumeCase{"case-sensitive", "-s"}}) {
        SCOPED_TRACE(c.what);
        SetReadRemove(c);
    }
}

// Refusals leave the tree as it was: a name past 127 characters, no data,
// data past the inline limit or past what the tree's record slots take, a
// read-only driver; and removing the attributes of a file that has none
// marks nothing.
TEST(HFSPlusAttributesWrite, RefusalsChangeNothing) {
    TestSupport::ImageFile image;
    ASSERT_EQ(Shell("truncate -s 16M " + image.path + " && mkfs.hfsplus -v Refuse " + image.path), 0);
    const std::vector<unsigned char> before = image.bytes();
    {
        Volume volume(image.path);
        ASSERT_NE(volume.driver, nullptr);
        AttributesFile& attributes = volume.driver->metadata().GetAttributesFile();
        const std::vector<unsigned char> big(0x8001, 1);
        const HFSPlusString name(u"user.x");
        struct Refusal {
            const char* what;
            std::uint32_t code;
            std::function<void()> action;
        };
        const Refusal refusals[] = {
            {"long name", Common::FILE_UNSUPPORTED,
             [&] { attributes.AddInlineAttribute(16, HFSPlusString(std::u16string(128, u'n')), big.data(), 4); }},
            {"no data", Common::FILE_UNSUPPORTED, [&] { attributes.AddInlineAttribute(16, name, big.data(), 0); }},
            {"null data", Common::FILE_UNSUPPORTED, [&] { attributes.AddInlineAttribute(16, name, nullptr, 4); }},
            {"past the limit", Common::FILE_UNSUPPORTED, [&] { attributes.AddInlineAttribute(16, name, big.data(), 0x8001); }},
            {"past a record slot", Common::FILE_NO_MEMORY, [&] { attributes.AddInlineAttribute(16, name, big.data(), 400); }},
            {"nothing to remove", 0, [&] { attributes.DeleteAttributes(16); }},
        };
        for (const Refusal& refusal : refusals) {
            SCOPED_TRACE(refusal.what);
            EXPECT_EQ(RaisedCode(refusal.action), refusal.code);
            EXPECT_EQ(attributes.leaf_records(), 0u);
            EXPECT_EQ(attributes.dirty, 0);
        }
        volume.driver->read_only = 1;
        EXPECT_EQ(RaisedCode([&] { attributes.AddInlineAttribute(16, name, big.data(), 4); }), Common::FILE_READ_ONLY);
        EXPECT_EQ(RaisedCode([&] { attributes.DeleteAttributes(16); }), Common::FILE_READ_ONLY);
    }
    EXPECT_TRUE(before == image.bytes());
}

}  // namespace
