// The HFS+ allocation bitmap: its runs of free blocks as the bits change,
// the search for free space on bit arrays written here, and the allocation
// file of volumes that mkfs.hfsplus makes, whose free count must match
// the header's and fsck.hfsplus's verdict.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "fsdriver/driver_selection.h"
#include "hfsplus/allocation_file.h"
#include "hfsplus/catalog_file.h"
#include "hfsplus/extents_overflow.h"
#include "hfsplus/free_space_search.h"
#include "hfsplus/hfsplus_driver.h"
#include "hfsplus/hfsplus_metadata.h"
#include "hfsplus/volume_header.h"
#include "loader/common/error_codes.h"
#include "tests/support/raised_code.h"
#include "tests/support/shell.h"
#include "tests/support/volume_fixture.h"

namespace {

using namespace hfsplus;
using TestSupport::RaisedCode;
using Runs = std::vector<std::pair<std::uint32_t, std::uint32_t>>;

// "0110..." as bytes: character i is block i, '1' in use.
std::vector<unsigned char> Bits(const std::string& pattern) {
    std::vector<unsigned char> bytes((pattern.size() + 7) / 8, 0);
    for (std::size_t i = 0; i < pattern.size(); ++i) {
        if (pattern[i] == '1') bytes[i / 8] = static_cast<unsigned char>(bytes[i / 8] | (0x80u >> (i % 8)));
    }
    return bytes;
}

Bitmap Make(const std::string& pattern) {
    const auto bytes = Bits(pattern);
    return Bitmap(bytes.data(), bytes.size(), static_cast<std::uint32_t>(pattern.size()));
}

// The runs in the order of their blocks, from the index by position.
Runs RunsOf(const Bitmap& bitmap) {
    Runs runs;
    for (const auto& bound : bitmap.run_bounds()) {
        const BlockArea& run = bound.second->run;
        if (runs.empty() || runs.back().first != run.first) runs.emplace_back(run.first, run.last);
    }
    return runs;
}

// Both indexes against the runs of clear bits that a walk of the bits
// finds (block 0 never in a run): each run once, under its length, and
// under its first and last block.
void ExpectIndexesMatchBits(const Bitmap& bitmap) {
    Runs expected;
    std::uint32_t set = 0;
    for (std::uint32_t block = 0; block < bitmap.bit_count(); ++block) {
        if (bitmap.GetBit(block)) {
            ++set;
        } else if (block != 0) {
            if (!expected.empty() && expected.back().second + 1 == block) {
                expected.back().second = block;
            } else {
                expected.emplace_back(block, block);
            }
        }
    }
    EXPECT_EQ(bitmap.set_count(), set);
    EXPECT_EQ(RunsOf(bitmap), expected);
    std::size_t bounds = 0;
    for (const auto& run : expected) bounds += run.first == run.second ? 1 : 2;
    EXPECT_EQ(bitmap.run_bounds().size(), bounds);
    ASSERT_EQ(bitmap.runs_by_length().size(), expected.size());
    for (const Bitmap::Key& key : bitmap.runs_by_length()) EXPECT_EQ(key.length, key.run.GetCount());
}

TEST(HFSPlusBitmap, BuildFindsTheMaximalRuns) {
    struct Case {
        std::string pattern;
        std::uint32_t bits;  // fewer than the pattern: the rest is past the volume
        Runs runs;
    };
    const Case cases[] = {
        {"1000000000000000000000011", 25, {{1, 22}}},              // whole 0 bytes, a run over three
        {"1101100111111111" "01", 18, {{2, 2}, {5, 6}, {16, 16}}},  // runs of one, a 0xFF byte
        {"1111111100000000", 16, {{8, 15}}},
        {"10000000" "11100000", 11, {{1, 7}}},           // clear bits past the volume aren't free
        {"11111111" "00011111", 11, {{8, 10}}},          // set ones don't count either
        {"0000000000000000", 16, {{1, 15}}},             // block 0 stays out of every run
        {"0111111111111111", 16, {}},
        {"1", 1, {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.pattern);
        const auto bytes = Bits(c.pattern);
        Bitmap bitmap(bytes.data(), bytes.size(), c.bits);
        EXPECT_EQ(RunsOf(bitmap), c.runs);
        ExpectIndexesMatchBits(bitmap);
    }
    Bitmap empty(nullptr, 0, 100);
    EXPECT_EQ(RunsOf(empty), (Runs{{1, 99}}));
    EXPECT_EQ(empty.set_count(), 0u);
    const auto short_bytes = Bits("00000000");
    EXPECT_EQ(RaisedCode([&] { Bitmap(short_bytes.data(), 1, 9); }), Common::FILE_UNSUPPORTED);
    EXPECT_EQ(RaisedCode([] { Bitmap(nullptr, 0, 0); }), Common::FILE_UNSUPPORTED);
}

TEST(HFSPlusBitmap, SetRangeKeepsTheRunsMaximal) {
    Bitmap bitmap = Make("1000000000111000000000000");
    struct Step {
        BlockArea area;
        bool used;
        Runs runs;
    };
    const Step steps[] = {
        {{1, 9}, true, {{13, 24}}},                  // a whole run, both of its bounds go
        {{15, 15}, true, {{13, 14}, {16, 24}}},
        {{14, 14}, true, {{13, 13}, {16, 24}}},      // a run of one block
        {{20, 24}, true, {{13, 13}, {16, 19}}},
        {{3, 4}, false, {{3, 4}, {13, 13}, {16, 19}}},
        {{5, 6}, false, {{3, 6}, {13, 13}, {16, 19}}},
        {{14, 15}, false, {{3, 6}, {13, 19}}},       // between two runs: one run
        {{12, 21}, false, {{3, 6}, {12, 21}}},       // freeing free blocks is no error
        {{1, 24}, false, {{1, 24}}},
    };
    for (const Step& step : steps) {
        SCOPED_TRACE(std::to_string(step.area.first) + "-" + std::to_string(step.area.last));
        bitmap.SetRange(step.area, step.used);
        EXPECT_EQ(RunsOf(bitmap), step.runs);
        ExpectIndexesMatchBits(bitmap);
    }
    bitmap.SetRange(BlockArea(5, 8), true);
    EXPECT_EQ(RaisedCode([&] { bitmap.SetRange(BlockArea(8, 9), true); }), Common::FILE_CORRUPT);
    EXPECT_EQ(RaisedCode([&] { bitmap.SetRange(BlockArea(20, 25), true); }), Common::FILE_CORRUPT);
    EXPECT_EQ(RaisedCode([&] { bitmap.SetRange(BlockArea(20, 25), false); }), Common::FILE_CORRUPT);
    // A refused range changes nothing.
    EXPECT_EQ(RunsOf(bitmap), (Runs{{1, 4}, {9, 24}}));
    ExpectIndexesMatchBits(bitmap);
}

TEST(HFSPlusBitmap, FindFreeByPositionAndByLength) {
    struct Case {
        const char* what;
        std::string pattern;
        std::uint32_t needed;
        BlockArea area;
        BlockArea expected;
    };
    //                     0123456789012345678901234567890
    const std::string mixed = "1000001110001111100000000111000";  // runs 1-5, 9-11, 17-24, 28-30
    const Case cases[] = {
        {"first fit long enough", mixed, 3, {0, 30}, {1, 5}},
        {"a run that ends in the area, cut", mixed, 2, {4, 30}, {4, 5}},
        {"a run that holds the area", mixed, 4, {19, 22}, {19, 22}},
        {"longer runs further on", mixed, 6, {0, 30}, {17, 24}},
        {"none long enough: the longest", mixed, 9, {0, 30}, {17, 24}},
        {"none long enough in the area", mixed, 9, {6, 16}, {9, 11}},
        {"no free block in the area", mixed, 1, {12, 16}, {}},
        {"equal length behind the area's start", mixed, 3, {6, 30}, {9, 11}},
        {"full", "11111111", 1, {0, 7}, {}},
        {"nothing needed", mixed, 0, {0, 30}, {}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Bitmap bitmap = Make(c.pattern);
        EXPECT_EQ(bitmap.FindFree(c.needed, c.area), c.expected);
    }
    Bitmap bitmap = Make(mixed);
    EXPECT_EQ(bitmap.FindFirstClearRun(), BlockArea(1, 5));
    EXPECT_EQ(bitmap.FindFirstClear(), 1u);
    EXPECT_EQ(Make("111111111").FindFirstClear(), 0xFFFFFFFFu);
    EXPECT_EQ(RaisedCode([&] { Bitmap::SearchInArea(&bitmap, 0, BlockArea(0, 9)); }), Common::FILE_UNSUPPORTED);
    EXPECT_EQ(RaisedCode([&] { Bitmap::SearchLesserLength(&bitmap, 2, BlockArea()); }),
              Common::FILE_UNSUPPORTED);
}

// Random bits and random changes: the indexes stay those of the bits, and
// a search gives clear blocks of its area, enough of them whenever one run
// there has enough, and something whenever the area has a clear block.
// (Short of enough, it needn't be the longest run: the search by length
// gives up once the shorter runs can't beat what it has.)
TEST(HFSPlusBitmap, RandomChangesAndSearchesAgreeWithTheBits) {
    std::mt19937 random(7);
    for (int round = 0; round < 40; ++round) {
        const std::uint32_t bits = 1 + random() % 300;
        std::string pattern(bits, '0');
        for (char& bit : pattern) bit = random() % 3 == 0 ? '0' : '1';
        Bitmap bitmap = Make(pattern);
        for (int change = 0; change < 30; ++change) {
            const std::uint32_t first = random() % bits;
            const BlockArea area(first, first + random() % (bits - first));
            if (change % 2 == 0) {
                bitmap.SetRange(area, false);
            } else {
                const BlockArea free = bitmap.FindFree(1 + random() % 12, area);
                bitmap.SetRange(free, true);
            }
            ExpectIndexesMatchBits(bitmap);
            const std::uint32_t needed = 1 + random() % 16;
            const BlockArea found = bitmap.FindFree(needed, area);
            std::uint32_t longest = 0;
            for (std::uint32_t block = std::max<std::uint32_t>(area.first, 1), run = 0;
                 !area.IsEmpty() && block <= area.last; ++block) {
                run = bitmap.GetBit(block) ? 0 : run + 1;
                longest = std::max(longest, run);
            }
            ASSERT_EQ(found.IsEmpty(), longest == 0) << round << "/" << change;
            if (found.IsEmpty()) continue;
            EXPECT_EQ(BlockArea::Intersect(found, area), found);
            for (std::uint32_t block = found.first; block <= found.last; ++block) EXPECT_FALSE(bitmap.GetBit(block));
            if (longest >= needed) EXPECT_GE(found.GetCount(), needed);
        }
    }
}

using Volume = TestSupport::Volume<HFSPlusDriver, TryHFSPlusDriver>;

std::string MakeVolume(const TestSupport::ImageFile& image, const std::string& size, std::uint32_t block,
                       const std::string& options) {
    return "truncate -s " + size + " " + image.path + " && mkfs.hfsplus -b " + std::to_string(block) + " " +
           options + " " + image.path;
}

// The allocation file as the mount will hold it: extents completed from
// the overflow tree, then the bits.
std::unique_ptr<AllocationFile> OpenAllocationFile(HFSPlusDriver& driver) {
    auto file = std::make_unique<AllocationFile>(&driver);
    driver.metadata().GetExtentsOverflowFile().CompleteExtents(*file);
    file->LoadBitmap();
    return file;
}

TEST(HFSPlusAllocationFile, LoadsMkfsVolumes) {
    struct Case {
        std::string size;
        std::uint32_t block;
        std::string options;
    };
    const Case cases[] = {
        {"16M", 512, ""},
        {"32M", 1024, ""},
        {"64M", 512, ""},                // a bitmap of 32 blocks
        {"16396K", 4096, ""},            // 4099 blocks: the last byte is partly past the volume
        {"128M", 4096, "-J"},
        {"96M", 8192, ""},
        {"40M", 2048, ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.size + " / " + std::to_string(c.block) + " " + c.options);
        TestSupport::ImageFile image;
        ASSERT_EQ(TestSupport::RunQuietly(MakeVolume(image, c.size, c.block, c.options)), 0);
        ASSERT_EQ(TestSupport::RunQuietly("fsck.hfsplus -fn " + image.path), 0);
        Volume volume(image.path);
        ASSERT_NE(volume.driver, nullptr);
        const auto file = OpenAllocationFile(*volume.driver);
        const VolumeHeader& header = volume.driver->metadata().GetVolumeHeader().header();
        const Bitmap& bitmap = file->bitmap();
        EXPECT_EQ(header.blockSize(), c.block);
        EXPECT_EQ(bitmap.bit_count(), header.totalBlocks());
        EXPECT_EQ(bitmap.clear_count(), header.freeBlocks());
        ExpectIndexesMatchBits(bitmap);
        // The bits are the file's bytes where its first extent lies.
        const auto disk = image.bytes();
        const std::uint64_t at = std::uint64_t(file->extents.GetExtent(0).startBlock()) * c.block;
        const std::uint32_t compared = std::min<std::uint32_t>(bitmap.byte_count(),
                                                               file->extents.GetExtent(0).blockCount() * c.block);
        EXPECT_TRUE(std::equal(bitmap.data(), bitmap.data() + compared, disk.begin() + at));
        EXPECT_NE(volume.driver->open_status & HFSPlusDriver::kAllocationClean, 0);
    }
}

struct MkfsVolume {
    explicit MkfsVolume(const std::string& options = "-n c=16384") {
        EXPECT_EQ(TestSupport::RunQuietly(MakeVolume(image, "32M", 4096, options)), 0);
        volume = std::make_unique<Volume>(image.path);
    }
    HFSPlusDriver& driver() const { return *volume->driver; }
    VolumeHeader& header() const { return driver().metadata().GetVolumeHeader().header(); }

    TestSupport::ImageFile image;
    std::unique_ptr<Volume> volume;
};

ExtentsDescriptorArray List(std::initializer_list<BlockArea> areas) {
    ExtentsDescriptorArray list;
    for (const BlockArea& area : areas) list.AddArea(area);
    return list;
}

Runs ExtentsOf(const ExtentsDescriptorArray& list) {
    Runs runs;
    for (std::uint32_t i = 0; i < list.extent_count(); ++i) {
        const ExtentDescriptor& extent = list.GetExtent(i);
        runs.emplace_back(extent.startBlock(), extent.startBlock() + extent.blockCount() - 1);
    }
    return runs;
}

TEST(HFSPlusAllocationFile, FilesGrowAndShrinkOnAMkfsVolume) {
    MkfsVolume made;
    ASSERT_NE(made.volume->driver, nullptr);
    AllocationFile unloaded(&made.driver());
    ExtentsDescriptorArray file;
    EXPECT_EQ(RaisedCode([&] { unloaded.ExtendFile(16, 1, file); }), Common::FILE_CORRUPT);
    const auto allocation = OpenAllocationFile(made.driver());
    Bitmap& bitmap = allocation->bitmap();
    const std::uint32_t free_before = made.header().freeBlocks();
    const std::uint32_t first_free = bitmap.FindFirstClear();
    const std::vector<unsigned char> before(bitmap.data(), bitmap.data() + bitmap.byte_count());

    // A new file starts at the volume's first free block; its growth
    // joins its last extent.
    ASSERT_TRUE(allocation->ExtendFile(16, 10, file));
    ASSERT_TRUE(allocation->ExtendFile(16, 6, file));
    EXPECT_EQ(ExtentsOf(file), (Runs{{first_free, first_free + 15}}));
    EXPECT_EQ(made.header().freeBlocks(), free_before - 16);
    EXPECT_EQ(bitmap.clear_count(), made.header().freeBlocks());
    EXPECT_EQ(made.driver().open_status & HFSPlusDriver::kAllocationClean, 0);
    EXPECT_EQ(allocation->dirty, 1);
    // The bytes to be written differ from the disk's in those blocks alone.
    for (std::uint32_t block = 0; block < bitmap.bit_count(); ++block) {
        const bool was = (before[block / 8] & (0x80u >> (block % 8))) != 0;
        ASSERT_EQ(bitmap.GetBit(block), was || (block >= first_free && block < first_free + 16)) << block;
    }

    EXPECT_FALSE(allocation->ExtendFile(16, bitmap.clear_count() + 1, file));
    EXPECT_FALSE(allocation->ExtendFile(16, 0, file));
    EXPECT_EQ(RaisedCode([&] { allocation->ExtendFile(kCatalogFileId, 1, file); }), Common::FILE_UNSUPPORTED);
    ExtentsDescriptorArray outside = List({BlockArea(bitmap.bit_count() - 1, bitmap.bit_count())});
    EXPECT_EQ(RaisedCode([&] { allocation->ExtendFile(16, 1, outside); }), Common::FILE_CORRUPT);

    // Freed, the blocks rejoin the free run behind them.
    allocation->FreeExtents(List({BlockArea(first_free, first_free + 7)}));
    allocation->FreeExtents(List({BlockArea(first_free + 8, first_free + 15)}));
    EXPECT_EQ(made.header().freeBlocks(), free_before);
    EXPECT_EQ(std::vector<unsigned char>(bitmap.data(), bitmap.data() + bitmap.byte_count()), before);
    ExpectIndexesMatchBits(bitmap);

    // The tree grows by its clump, in whole nodes of four blocks.
    CatalogFile& catalog = made.driver().metadata().GetCatalogFile();
    ASSERT_EQ(catalog.GetAllocationUnit(), 4u);
    const std::uint32_t catalog_blocks = catalog.extents.block_count();
    ASSERT_TRUE(allocation->ExtendTreeFile(catalog));
    EXPECT_EQ(catalog.extents.block_count(), catalog_blocks + catalog.fork().clumpSize() / 4096);
    EXPECT_EQ(RaisedCode([&] { allocation->ExtendTreeFile(*allocation); }), Common::FILE_UNSUPPORTED);

    // A failed write of the bits keeps the mark; with nothing clear the
    // next allocation is the block count.
    const bool flushed = RaisedCode([&] { allocation->Flush(); }) == 0;
    EXPECT_EQ(flushed, allocation->dirty == 0);
    const std::vector<unsigned char> full_bits(bitmap.byte_count(), 0xFF);
    AllocationFile full(&made.driver(), full_bits.data(), full_bits.size());
    full.MarkDirty();
    RaisedCode([&] { full.Flush(); });
    EXPECT_EQ(made.header().nextAllocation_.get(), bitmap.bit_count());
}

// Bits written here for a 32 MiB volume of 4096-byte blocks: all in use
// but the runs named. A file of two extents around a gap.
struct Crafted {
    Crafted(MkfsVolume& made, const std::vector<BlockArea>& free) {
        const std::uint32_t bits = made.header().totalBlocks();
        std::vector<unsigned char> bytes((bits + 7) / 8, 0xFF);
        for (const BlockArea& area : free) {
            for (std::uint32_t block = area.first; block <= area.last; ++block) {
                bytes[block / 8] = static_cast<unsigned char>(bytes[block / 8] & ~(0x80u >> (block % 8)));
            }
        }
        file = std::make_unique<AllocationFile>(&made.driver(), bytes.data(), bytes.size());
        made.driver().metadata().GetExtentsOverflowFile().CompleteExtents(*file);
        made.header().freeBlocks_.set(file->bitmap().clear_count());
    }
    std::unique_ptr<AllocationFile> file;
};

TEST(HFSPlusAllocationFile, WhereTheSearchLooks) {
    MkfsVolume made;
    ASSERT_NE(made.volume->driver, nullptr);
    {
        // The only room lies between the file's extents: not for growth,
        // but for a new list of the whole file.
        Crafted crafted(made, {BlockArea(1000, 1011)});
        const ExtentsDescriptorArray file = List({BlockArea(990, 999), BlockArea(1012, 1013)});
        ExtentsDescriptorArray grown(file);
        EXPECT_FALSE(crafted.file->ExtendFile(16, 2, grown));
        EXPECT_EQ(ExtentsOf(grown), ExtentsOf(file));
        EXPECT_EQ(crafted.file->bitmap().clear_count(), 12u);
        EXPECT_TRUE(crafted.file->AllocateWholeFile(16, 12, file).extent_count() == 0);
        const ExtentsDescriptorArray moved = crafted.file->AllocateWholeFile(16, 0, file);
        EXPECT_EQ(ExtentsOf(moved), (Runs{{1000, 1011}}));
        // The old blocks are free now, in one run with nothing else.
        EXPECT_EQ(RunsOf(crafted.file->bitmap()), (Runs{{990, 999}, {1012, 1013}}));
        EXPECT_EQ(made.header().freeBlocks(), 12u);
    }
    {
        // Behind the last extent first, then before the first one.
        Crafted crafted(made, {BlockArea(100, 104), BlockArea(3000, 3002)});
        ExtentsDescriptorArray file = List({BlockArea(2000, 2009)});
        ASSERT_TRUE(crafted.file->ExtendFile(16, 6, file));
        EXPECT_EQ(ExtentsOf(file), (Runs{{2000, 2009}, {3000, 3002}, {100, 102}}));
        EXPECT_EQ(RunsOf(crafted.file->bitmap()), (Runs{{103, 104}}));
    }
    {
        // A tree of four-block nodes takes runs cut to whole nodes: two
        // runs two blocks short of its clump give it two extents, and what
        // is left of them stays free.
        CatalogFile& catalog = made.driver().metadata().GetCatalogFile();
        const std::uint32_t clump = catalog.fork().clumpSize() / 4096;
        ASSERT_GE(clump, 8u);
        ASSERT_EQ(clump % 4, 0u);
        const ExtentDescriptor& last = catalog.extents.GetExtent(catalog.extents.extent_count() - 1);
        const std::uint32_t behind = last.startBlock() + last.blockCount();
        Crafted crafted(made, {BlockArea::FromCount(behind + 100, clump - 2),
                               BlockArea::FromCount(behind + 200, clump - 2)});
        const std::uint32_t before = catalog.extents.extent_count();
        ASSERT_TRUE(crafted.file->ExtendTreeFile(catalog));
        ASSERT_EQ(catalog.extents.extent_count(), before + 2);
        EXPECT_EQ(ExtentsOf(catalog.extents).back(), std::make_pair(behind + 200, behind + 203));
        EXPECT_EQ(catalog.extents.GetExtent(before).blockCount(), clump - 4);
        EXPECT_EQ(crafted.file->bitmap().clear_count(), clump - 4);
        ExpectIndexesMatchBits(crafted.file->bitmap());
    }
}

TEST(HFSPlusAllocationFile, ReadOnlyVolumes) {
    MkfsVolume made;
    ASSERT_NE(made.volume->driver, nullptr);
    const auto disk = TestSupport::DiskOf(made.image.bytes());
    const std::vector<unsigned char> given(1024, 0);
    HFSPlusDriver driver(disk.get(), 0, disk->GetLastSector() + 1, 0, given.data(), given.size());
    ASSERT_EQ(driver.read_only, 1);
    AllocationFile file(&driver);
    EXPECT_TRUE(file.loaded());
    ExtentsDescriptorArray list;
    EXPECT_EQ(RaisedCode([&] { file.ExtendFile(16, 1, list); }), Common::FILE_READ_ONLY);
    EXPECT_EQ(RaisedCode([&] { file.FreeExtents(list); }), Common::FILE_READ_ONLY);
    const std::uint32_t next = made.header().nextAllocation_.get();
    file.MarkDirty();
    file.Flush();
    EXPECT_EQ(file.dirty, 0);
    EXPECT_EQ(driver.metadata().GetVolumeHeader().header().nextAllocation_.get(), next);
}

}  // namespace
