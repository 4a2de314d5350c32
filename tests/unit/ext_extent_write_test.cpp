// Changes of the extent tree, driven as a file drives them: blocks mapped
// one at a time through the inode, ranges released. Trees to start from
// are made by mkfs.ext4 and debugfs (fallocate, punch); what the driver
// leaves is judged by e2fsck -fn and read back through debugfs: its list of
// extents, its dump of the file, the free block count.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "extfs/extfs_driver.h"
#include "extfs/extfs_inode.h"
#include "extfs/extfs_inode_cache.h"
#include "fsdriver/driver_selection.h"
#include "loader/common/error_codes.h"
#include "tests/support/ext_image.h"
#include "tests/support/raised_code.h"
#include "tests/support/temp_folder.h"

namespace {

using extfs::ExtfsDriver;
using TestSupport::Pattern;
using TestSupport::RaisedCode;
using Volume = TestSupport::Volume<ExtfsDriver, TryExtDriver>;

constexpr std::uint32_t kLongestWritten = 0x8000;

struct Extent {
    std::uint64_t logical;
    std::uint64_t physical;
    std::uint64_t length;
    bool unwritten;
    bool operator==(const Extent& other) const {
        return logical == other.logical && physical == other.physical && length == other.length &&
               unwritten == other.unwritten;
    }
};

std::ostream& operator<<(std::ostream& out, const Extent& extent) {
    return out << "(" << extent.logical << "+" << extent.length << "@" << extent.physical
               << (extent.unwritten ? " u)" : ")");
}

// What debugfs lists of a file's tree: its depth and the leaves' extents.
struct Tree {
    std::uint32_t depth = 0;
    std::uint32_t nodes = 0;  // blocks below the root
    std::vector<Extent> extents;
};

struct Image : TestSupport::ExtImage {
    // mkfs.ext4 over `files` (name to content), then debugfs requests.
    bool make(std::uint32_t block_size, unsigned kib, const std::map<std::string, std::string>& files,
              const std::vector<std::string>& requests = {}) {
        TestSupport::TempFolder source;
        for (const auto& [name, content] : files) source.Write("src/" + name, content);
        if (files.empty()) source.Write("src/.keep", "");
        return ExtImage::make("mkfs.ext4 -b " + std::to_string(block_size) + " -O ^metadata_csum,^has_journal", kib,
                              source.Path() + "/src") &&
               (requests.empty() || change_all(requests));
    }
    std::uint32_t index(const std::string& name) { return static_cast<std::uint32_t>(inode("/" + name) - 1); }
    // The lines "L/D E/M first - last start - end length [Uninit]" of the
    // leaves; index lines have no physical range and give only the depth.
    Tree tree(const std::string& name) {
        Tree tree;
        std::istringstream lines(ask("ex /" + name));
        for (std::string line; std::getline(lines, line);) {
            unsigned level, depth, entry, entries;
            unsigned long long first, last, start, end, length;
            const int got = std::sscanf(line.c_str(), "%u/%u %u/%u %llu - %llu %llu - %llu %llu", &level, &depth,
                                        &entry, &entries, &first, &last, &start, &end, &length);
            if (got >= 2) tree.depth = depth;
            if (got == 7) ++tree.nodes;
            if (got != 9) continue;
            tree.extents.push_back({first, start, length, line.find("Uninit") != std::string::npos});
        }
        return tree;
    }
};

// The extents a map of logical to (physical, unwritten) must make when
// every block that continues its neighbour joins it, up to the longest
// extent of its state.
std::vector<Extent> Runs(const std::map<std::uint64_t, std::pair<std::uint64_t, bool>>& map) {
    std::vector<Extent> runs;
    for (const auto& [logical, where] : map) {
        if (!runs.empty()) {
            Extent& last = runs.back();
            const std::uint64_t longest = last.unwritten ? kLongestWritten - 1 : kLongestWritten;
            if (last.logical + last.length == logical && last.physical + last.length == where.first &&
                last.unwritten == where.second && last.length < longest) {
                ++last.length;
                continue;
            }
        }
        runs.push_back({logical, where.first, 1, where.second});
    }
    return runs;
}

// Growth: runs that continue, extents scattered upwards, downwards and into
// the gaps between others, written and unwritten. The depth is that of a
// root of 4 entries growing by one level and leaves splitting in halves.
TEST(ExtExtentWrites, MappedBlocksFormTheTreeThatTheToolsRead) {
    enum Order { kAscending, kDescending, kGapsLater };
    const struct {
        std::uint32_t block_size;
        Order order;
        std::uint64_t step;  // between logical blocks
        std::uint32_t count;
        bool unwritten;
        int depth;  // -1: not foreseen
    } cases[] = {
        {1024, kAscending, 1, 300, false, 0},  {4096, kAscending, 1, 40, true, 0},
        {1024, kAscending, 2, 4, false, 0},    {1024, kAscending, 2, 5, false, 1},
        {1024, kAscending, 2, 300, false, 2},  {4096, kAscending, 3, 400, false, 1},
        {1024, kDescending, 2, 100, false, 1}, {1024, kGapsLater, 1, 240, false, -1},
        {1024, kAscending, 2, 90, true, 1},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(std::to_string(test.block_size) + " order " + std::to_string(test.order) + " step " +
                     std::to_string(test.step) + " count " + std::to_string(test.count));
        Image image;
        ASSERT_TRUE(image.make(test.block_size, 8192, {{"e", ""}}));
        const std::uint32_t index = image.index("e");
        std::vector<std::uint64_t> blocks;
        for (std::uint32_t n = 0; n < test.count; ++n) blocks.push_back(n * test.step);
        if (test.order == kDescending) blocks.assign(blocks.rbegin(), blocks.rend());
        if (test.order == kGapsLater) {  // every other block first, then the ones between
            std::vector<std::uint64_t> ordered;
            for (std::size_t n = 0; n < blocks.size(); n += 2) ordered.push_back(blocks[n]);
            for (std::size_t n = 1; n < blocks.size(); n += 2) ordered.push_back(blocks[n]);
            blocks = ordered;
        }
        std::map<std::uint64_t, std::pair<std::uint64_t, bool>> mapped;
        std::string content(((test.count - 1) * test.step + 1) * test.block_size, '\0');
        {
            Volume volume(image.path);
            ASSERT_NE(volume.driver, nullptr);
            extfs::InodeRef inode = volume.driver->inodes().open(index);
            for (std::uint64_t block : blocks) {
                const std::uint64_t physical = inode->allocate_block(block, test.unwritten);
                mapped.emplace(block, std::make_pair(physical, test.unwritten));
                // Asked again, the block is there already.
                ASSERT_EQ(inode->allocate_block(block, test.unwritten), physical);
                const std::string data = Pattern(test.block_size, static_cast<unsigned>(block));
                volume.driver->write_blocks(data.data(), physical, 1);
                if (!test.unwritten) content.replace(block * test.block_size, test.block_size, data);
            }
            inode->set_size_field(content.size());
        }
        ASSERT_EQ(image.problems(), "");
        const Tree tree = image.tree("e");
        EXPECT_EQ(tree.extents, Runs(mapped));
        if (test.depth >= 0) {
            EXPECT_EQ(tree.depth, static_cast<std::uint32_t>(test.depth));
        }
        EXPECT_TRUE(image.content("/e") == content);
    }
}

// Blocks written into an extent that fallocate left unwritten keep their
// place on the disk; the extent gives way on either side of them.
TEST(ExtExtentWrites, WritesIntoAnUnwrittenExtentCutItIntoPieces) {
    const struct {
        std::vector<std::uint64_t> written;
        std::vector<Extent> expected;  // physical blocks counted from the extent's first
        std::uint32_t depth;
        std::uint32_t nodes;  // the root grows a leaf and splits it at once
    } cases[] = {
        {{7}, {{0, 0, 7, true}, {7, 7, 1, false}, {8, 8, 12, true}}, 0, 0},
        {{0, 1, 2}, {{0, 0, 3, false}, {3, 3, 17, true}}, 0, 0},
        {{19, 18}, {{0, 0, 18, true}, {18, 18, 2, false}}, 0, 0},
        {{5, 6, 19}, {{0, 0, 5, true}, {5, 5, 2, false}, {7, 7, 12, true}, {19, 19, 1, false}}, 0, 0},
        {{5, 10, 15},
         {{0, 0, 5, true},
          {5, 5, 1, false},
          {6, 6, 4, true},
          {10, 10, 1, false},
          {11, 11, 4, true},
          {15, 15, 1, false},
          {16, 16, 4, true}},
         1,
         2},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(::testing::PrintToString(test.written));
        Image image;
        // The padding takes the gaps between the group's metadata first.
        ASSERT_TRUE(image.make(4096, 8192, {{"u", ""}, {"pad", ""}}, {"fallocate /pad 0 99", "fallocate /u 0 19"}));
        const Tree before = image.tree("u");
        ASSERT_EQ(before.extents.size(), 1u);
        ASSERT_EQ(before.extents[0].length, 20u);
        const std::uint64_t base = before.extents[0].physical;
        const std::uint64_t free_before = image.superblock_count("Free blocks");
        std::string content(20 * 4096, '\0');
        {
            Volume volume(image.path);
            ASSERT_NE(volume.driver, nullptr);
            extfs::InodeRef inode = volume.driver->inodes().open(image.index("u"));
            // Already unwritten: nothing to do.
            EXPECT_EQ(inode->allocate_block(3, true), base + 3);
            for (std::uint64_t block : test.written) {
                ASSERT_EQ(inode->allocate_block(block, false), base + block);
                const std::string data = Pattern(4096, static_cast<unsigned>(block));
                volume.driver->write_blocks(data.data(), base + block, 1);
                content.replace(block * 4096, 4096, data);
            }
            inode->set_size_field(content.size());
        }
        ASSERT_EQ(image.problems(), "");
        std::vector<Extent> expected = test.expected;
        for (Extent& extent : expected) extent.physical += base;
        const Tree after = image.tree("u");
        EXPECT_EQ(after.extents, expected);
        EXPECT_EQ(after.depth, test.depth);
        EXPECT_EQ(after.nodes, test.nodes);
        EXPECT_EQ(image.superblock_count("Free blocks"), free_before - test.nodes);
        EXPECT_TRUE(image.content("/u") == content);
    }
}

// Releases from a tree that debugfs punched into 200 extents over two
// leaves, and from a root leaf that is full.
TEST(ExtExtentWrites, ReleasesCutExtentsAndGiveBackDataAndTreeBlocks) {
    std::vector<std::string> punches;
    for (std::uint64_t block = 1; block < 300; block += 3) {
        punches.push_back("punch /f " + std::to_string(block) + " " + std::to_string(block));
    }
    const std::vector<std::string> four = {"punch /g 2 2", "punch /g 5 5", "punch /g 8 8"};  // 4 extents
    const struct {
        const char* name;
        std::uint64_t blocks;
        const std::vector<std::string>* commands;
        std::uint64_t first;
        std::uint64_t count;  // ~0: to the end, with the size
        bool zeroed;          // the range stays mapped and reads as zeros
    } cases[] = {
        {"f", 300, &punches, 0, ~0ull, false}, {"f", 300, &punches, 50, 150, false},
        {"f", 300, &punches, 100, ~0ull, false}, {"f", 300, &punches, 0, 120, false},
        {"g", 12, &four, 3, 1, false},         {"g", 12, &four, 10, 1, true},
        {"g", 12, &four, 0, 2, false},         {"g", 12, &four, 0, ~0ull, false},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(std::string(test.name) + " " + std::to_string(test.first) + "+" + std::to_string(test.count));
        const std::string data = Pattern(test.blocks * 1024, 9);
        Image image;
        ASSERT_TRUE(image.make(1024, 8192, {{test.name, data}}, *test.commands));
        const Tree before = image.tree(test.name);
        ASSERT_EQ(before.depth, test.blocks > 100 ? 1u : 0u);
        if (before.depth == 0) {
            ASSERT_EQ(before.extents.size(), 4u);  // a full root
        }
        const std::uint64_t free_before = image.superblock_count("Free blocks");
        const std::uint64_t end = test.count == ~0ull ? test.blocks : test.first + test.count;
        // What must stay: each extent outside the range; what goes back: its blocks inside.
        std::vector<Extent> expected;
        std::uint64_t freed = 0;
        std::string content(test.blocks * 1024, '\0');
        for (const Extent& extent : before.extents) {
            for (std::uint64_t n = 0; n < extent.length; ++n) {
                const std::uint64_t block = extent.logical + n;
                const bool inside = block >= test.first && block < end;
                if (!inside) content.replace(block * 1024, 1024, data, block * 1024, 1024);
                if (inside && !test.zeroed) {
                    ++freed;
                    continue;
                }
                if (!expected.empty() && expected.back().logical + expected.back().length == block &&
                    expected.back().physical + expected.back().length == extent.physical + n) {
                    ++expected.back().length;
                } else {
                    expected.push_back({block, extent.physical + n, 1, extent.unwritten});
                }
            }
        }
        if (test.count == ~0ull) content.resize(test.first * 1024);
        {
            Volume volume(image.path);
            ASSERT_NE(volume.driver, nullptr);
            extfs::InodeRef inode = volume.driver->inodes().open(image.index(test.name));
            if (test.count == ~0ull) {
                inode->set_size(test.first * 1024);
            } else {
                inode->release_blocks(test.first, test.count);
            }
        }
        ASSERT_EQ(image.problems(), "");
        const Tree after = image.tree(test.name);
        EXPECT_EQ(after.extents, expected);
        EXPECT_TRUE(image.content("/" + std::string(test.name)) == content);
        if (expected.empty()) {
            // Everything went, the leaves too: an empty root of depth 0 again.
            EXPECT_EQ(after.depth, 0u);
            EXPECT_NE(image.ask("stat /" + std::string(test.name)).find("Blockcount: 0\n"), std::string::npos);
            EXPECT_EQ(image.superblock_count("Free blocks"), free_before + freed + before.nodes);
        } else if (before.depth == 0) {
            EXPECT_EQ(image.superblock_count("Free blocks"), free_before + freed);
        }
    }
}

// A root that the checks refuse: nothing is read, mapped or freed, and
// the volume stays as it was, byte for byte.
TEST(ExtExtentWrites, DamagedRootIsRefusedAndChangesNothing) {
    const struct {
        const char* field;
        std::uint32_t value;
    } cases[] = {
        {"block[1]", 5},                     // eh_max 5: 72 bytes in 60
        {"block[0]", 0xF30B},                // the magic
        {"block[0]", 0xF30A | 5u << 16},     // more entries than eh_max
        {"block[1]", 4 | 1u << 16},          // an index of no entries
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(std::string(test.field) + " " + std::to_string(test.value));
        Image image;
        ASSERT_TRUE(image.make(1024, 4096, {{"d", Pattern(3000, 1)}},
                               {"sif /d " + std::string(test.field) + " " + std::to_string(test.value)}));
        const std::vector<unsigned char> before = image.bytes();
        {
            Volume volume(image.path);
            ASSERT_NE(volume.driver, nullptr);
            extfs::InodeRef inode = volume.driver->inodes().open(image.index("d"));
            std::uint64_t count = 0;
            EXPECT_EQ(RaisedCode([&] { inode->map_block(0, count); }), Common::FILE_CORRUPT);
            EXPECT_EQ(RaisedCode([&] { inode->allocate_block(5, false); }), Common::FILE_CORRUPT);
            EXPECT_EQ(RaisedCode([&] { inode->release_blocks(0, 1); }), Common::FILE_CORRUPT);
        }
        EXPECT_TRUE(image.bytes() == before);
    }
}

}  // namespace
