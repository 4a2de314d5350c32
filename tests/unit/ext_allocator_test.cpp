// The ext block and inode allocators over volumes that mkfs.ext2/3/4 make.
// What they must hand out comes from dumpe2fs, which lists each group's
// free blocks and inodes (working out itself those of groups whose bitmap
// was never written); what they leave on disk is judged by e2fsck -fn,
// dumpe2fs and debugfs.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "extfs/block_allocator.h"
#include "extfs/extfs_driver.h"
#include "extfs/inode_allocator.h"
#include "fsdriver/driver_selection.h"
#include "loader/common/error_codes.h"
#include "tests/support/ext_image.h"
#include "tests/support/raised_code.h"

namespace {

using extfs::ExtfsDriver;
using TestSupport::RaisedCode;
using Volume = TestSupport::Volume<ExtfsDriver, TryExtDriver>;

constexpr std::uint32_t kFile = 0;
constexpr std::uint32_t kDirectory = extfs::ExtfsInodeAllocator::kDirectoryKind;
const char* const kUninit1k = "mkfs.ext4 -b 1024 -O ^metadata_csum,uninit_bg,^has_journal";
const char* const kMetaBg = "mkfs.ext4 -b 1024 -g 256 -N 512 -O meta_bg,^resize_inode,^has_journal,64bit,"
                            "^metadata_csum,uninit_bg";

// What dumpe2fs tells of each group, which the allocators must agree with.
struct Image : TestSupport::ExtImage {
    // Every free block or inode, ascending, from each group's "Free
    // blocks:" or "Free inodes:" line of ranges "a-b, c, ...".
    std::vector<std::uint64_t> free_list(const std::string& what) {
        std::vector<std::uint64_t> list;
        std::istringstream lines(groups());
        const std::string heading = "  Free " + what + ": ";
        for (std::string line; std::getline(lines, line);) {
            if (line.compare(0, heading.size(), heading) != 0) continue;
            std::istringstream ranges(line.substr(heading.size()));
            for (std::string range; std::getline(ranges, range, ',');) {
                char* rest = nullptr;
                std::uint64_t object = std::strtoull(range.c_str(), &rest, 10);
                const std::uint64_t last = *rest == '-' ? std::strtoull(rest + 1, nullptr, 10) : object;
                for (; object <= last; ++object) list.push_back(object);
            }
        }
        return list;
    }
    // Group `group`'s part of the dump, up to the next group.
    std::string group(std::uint32_t group) {
        const std::string text = groups();
        const std::size_t at = text.find("\nGroup " + std::to_string(group) + ":");
        return at == std::string::npos ? "<none>" : text.substr(at, text.find("\nGroup ", at + 1) - at);
    }
};

template <typename Allocator>
std::vector<std::uint64_t> Drain(Allocator& allocator, std::uint32_t& code, std::uint64_t shift = 0) {
    std::vector<std::uint64_t> got;
    code = RaisedCode([&] {
        for (;;) got.push_back(allocator.allocate(kFile) + shift);
    });
    return got;
}

// Volumes of every shape the allocators meet: 1 KiB and 4 KiB blocks,
// bitmaps in their group or packed by FLEX_BG, groups never initialised,
// a short last group, descriptors in META_BG runs with 64-bit fields. In
// the last, group 16 holds nothing but the bitmaps and tables of groups 16
// to 31 and a descriptor block: marked BLOCK_UNINIT, its fresh bitmap must
// keep them all (dumpe2fs doesn't work that out, so its lists are taken
// before).
TEST(ExtAllocator, SweepsHandOutExactlyTheFreeObjectsInOrderAndGiveThemBack) {
    const struct {
        const char* mkfs;
        unsigned kib;
        int uninit;  // a group that debugfs then marks BLOCK_UNINIT
    } shapes[] = {
        {"mkfs.ext2 -b 1024", 20 * 1024, -1},
        {"mkfs.ext3 -b 4096 -g 4096", 56 * 1024, -1},
        {kUninit1k, 40 * 1024, -1},
        {"mkfs.ext4 -b 1024 -O ^metadata_csum,^flex_bg,uninit_bg,^has_journal", 40 * 1024, -1},
        {"mkfs.ext4 -b 4096 -g 8192 -O ^metadata_csum,uninit_bg", 100 * 1024, -1},
        {kMetaBg, 8192, -1},
        {kMetaBg, 8192, 16},
    };
    for (const auto& shape : shapes) {
        SCOPED_TRACE(std::string(shape.mkfs) + " " + std::to_string(shape.uninit));
        Image image;
        ASSERT_TRUE(image.make(shape.mkfs, shape.kib));
        const std::vector<std::uint64_t> blocks = image.free_list("blocks"), inodes = image.free_list("inodes");
        ASSERT_EQ(blocks.size(), image.superblock_count("Free blocks"));
        ASSERT_EQ(inodes.size(), image.superblock_count("Free inodes"));
        if (shape.uninit >= 0) {
            const std::string group = std::to_string(shape.uninit);
            ASSERT_TRUE(image.change("set_bg " + group + " flags 7"));  // + INODE_UNINIT, ITABLE_ZEROED
            ASSERT_TRUE(image.change("set_bg " + group + " checksum calc"));
            ASSERT_NE(image.group(shape.uninit).find("BLOCK_UNINIT"), std::string::npos);
        }
        {
            Volume volume(image.path);
            ASSERT_NE(volume.driver, nullptr);
            std::uint32_t code = 0;
            EXPECT_EQ(Drain(volume.driver->block_allocator(), code), blocks);
            EXPECT_EQ(code, Common::FILE_DISK_FULL);
            EXPECT_EQ(Drain(volume.driver->inode_allocator(), code, 1), inodes);  // numbers, not indexes
            EXPECT_EQ(code, Common::FILE_DISK_FULL);
            volume.driver->flush_descriptors();
        }
        // The full state reached the disk: bitmaps, descriptors, superblock.
        EXPECT_EQ(image.superblock_count("Free blocks"), 0u);
        EXPECT_EQ(image.superblock_count("Free inodes"), 0u);
        EXPECT_TRUE(image.free_list("blocks").empty());
        {
            Volume volume(image.path);
            ASSERT_NE(volume.driver, nullptr);
            auto& allocator = volume.driver->block_allocator();
            EXPECT_EQ(RaisedCode([&] { allocator.allocate(kFile); }), Common::FILE_DISK_FULL);
            for (std::uint64_t block : blocks) allocator.free(block, kFile);
            for (std::uint64_t number : inodes) volume.driver->inode_allocator().free(number - 1, kFile);
            volume.driver->flush_descriptors();
        }
        // Given back, the volume is consistent and as free as mkfs left it.
        EXPECT_EQ(image.problems(), "");
        EXPECT_EQ(image.free_list("blocks"), blocks);
        EXPECT_EQ(image.free_list("inodes"), inodes);
        EXPECT_EQ(image.superblock_count("Free blocks"), blocks.size());
        EXPECT_EQ(image.superblock_count("Free inodes"), inodes.size());
    }
}

TEST(ExtAllocator, NextFitWrapsOnceAndRefusesWhatItMust) {
    Image image;
    ASSERT_TRUE(image.make("mkfs.ext2 -b 1024", 20 * 1024));
    const std::vector<std::uint64_t> blocks = image.free_list("blocks");
    Volume volume(image.path);
    ASSERT_NE(volume.driver, nullptr);
    auto& allocator = volume.driver->block_allocator();
    // A block freed behind the cursor comes back only after the wrap.
    allocator.free(allocator.allocate(kFile), kFile);
    std::uint32_t code = 0;
    std::vector<std::uint64_t> rest = Drain(allocator, code);
    ASSERT_EQ(code, Common::FILE_DISK_FULL);
    ASSERT_EQ(rest.size(), blocks.size());
    EXPECT_EQ(rest.front(), blocks[1]);
    EXPECT_EQ(rest.back(), blocks[0]);
    // Full answers at once until a free; the next sweep finds the lowest
    // freed block first and stops after one sweep.
    EXPECT_EQ(RaisedCode([&] { allocator.allocate(kFile); }), Common::FILE_DISK_FULL);
    const std::uint64_t middle = blocks[blocks.size() / 2];
    allocator.free(middle, kFile);
    allocator.free(blocks[3], kFile);
    EXPECT_EQ(allocator.allocate(kFile), blocks[3]);
    EXPECT_EQ(allocator.allocate(kFile), middle);
    EXPECT_EQ(RaisedCode([&] { allocator.allocate(kFile); }), Common::FILE_DISK_FULL);
    // Freeing a free block, or one outside the volume, is damage; so is
    // freeing a reserved inode (the root) or a free one (12).
    allocator.free(middle, kFile);
    for (std::uint64_t block : {middle, std::uint64_t(0), volume.driver->blocks_count, ~std::uint64_t(0)}) {
        EXPECT_EQ(RaisedCode([&] { allocator.free(block, kFile); }), Common::FILE_CORRUPT) << block;
    }
    for (std::uint64_t index : {1u, 11u}) {
        EXPECT_EQ(RaisedCode([&] { volume.driver->inode_allocator().free(index, kFile); }), Common::FILE_CORRUPT);
    }
    // A volume held read only (metadata checksums) refuses both, each time.
    Image checksummed;
    ASSERT_TRUE(checksummed.make("mkfs.ext4 -b 1024 -O metadata_csum", 8 * 1024));
    Volume held(checksummed.path);
    ASSERT_NE(held.driver, nullptr);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(RaisedCode([&] { held.driver->block_allocator(); }), Common::FILE_READ_ONLY);
        EXPECT_EQ(RaisedCode([&] { held.driver->inode_allocator(); }), Common::FILE_READ_ONLY);
    }
}

TEST(ExtAllocator, FullnessComesFromTheBitmapsAndEndsAtTheVolume) {
    // The last group has 4095 of 8192 blocks; its bitmap (block 16385) is
    // given clear bits behind them, which must not count.
    Image image;
    ASSERT_TRUE(image.make("mkfs.ext2 -b 1024", 20 * 1024));
    const std::vector<std::uint64_t> blocks = image.free_list("blocks");
    std::vector<unsigned char> bytes = image.bytes();
    const std::size_t bitmap = 16385 * 1024;
    bytes[bitmap + 4095 / 8] &= 0x7F;
    std::memset(&bytes[bitmap + 4096 / 8], 0, 1024 - 4096 / 8);
    image.store(bytes);
    {
        Volume volume(image.path);
        ASSERT_NE(volume.driver, nullptr);
        std::uint32_t code = 0;
        EXPECT_EQ(Drain(volume.driver->block_allocator(), code), blocks);
        EXPECT_EQ(code, Common::FILE_DISK_FULL);
    }
    // A volume that debugfs filled, but for one block. Its bitmap alone
    // changed first, which leaves the descriptor's count disagreeing: that
    // is damage, and nothing is handed out from it.
    Image filled;
    ASSERT_TRUE(filled.make("mkfs.ext2 -b 1024", 8 * 1024));
    ASSERT_TRUE(filled.change("setb 1 8191") && filled.change("freeb 5000"));
    {
        Volume disagreeing(filled.path);
        ASSERT_NE(disagreeing.driver, nullptr);
        EXPECT_EQ(RaisedCode([&] { disagreeing.driver->block_allocator().allocate(kFile); }),
                  Common::FILE_CORRUPT);
    }
    ASSERT_TRUE(filled.change("set_bg 0 free_blocks_count 1"));
    Volume volume(filled.path);
    ASSERT_NE(volume.driver, nullptr);
    EXPECT_EQ(volume.driver->block_allocator().allocate(kFile), 5000u);
    EXPECT_EQ(RaisedCode([&] { volume.driver->block_allocator().allocate(kFile); }), Common::FILE_DISK_FULL);
}

TEST(ExtAllocator, InodeGroupsCountDirectoriesAndTheirUnusedTableTail) {
    Image image;
    ASSERT_TRUE(image.make(kUninit1k, 40 * 1024));  // 2048 inodes a group, 11 taken in group 0
    ASSERT_NE(image.group(1).find("INODE_UNINIT"), std::string::npos);
    const std::vector<std::uint64_t> inodes = image.free_list("inodes");
    {
        // Group 0 filled, its first two new inodes directories; then the
        // first of group 1, a directory, from a fresh bitmap.
        Volume volume(image.path);
        ASSERT_NE(volume.driver, nullptr);
        auto& allocator = volume.driver->inode_allocator();
        for (std::uint64_t index = 11; index < 2048; ++index) {
            EXPECT_EQ(allocator.allocate(index < 13 ? kDirectory : kFile), index);
        }
        EXPECT_EQ(allocator.allocate(kDirectory), 2048u);
        volume.driver->flush_descriptors();
    }
    // dumpe2fs leaves out an unused count of 0.
    EXPECT_NE(image.group(0).find(" 0 free inodes, 4 directories\n"), std::string::npos) << image.group(0);
    EXPECT_NE(image.group(1).find(" 2047 free inodes, 1 directories, 2047 unused inodes"), std::string::npos)
        << image.group(1);
    EXPECT_EQ(image.group(1).find("INODE_UNINIT"), std::string::npos);
    {
        Volume volume(image.path);
        ASSERT_NE(volume.driver, nullptr);
        auto& allocator = volume.driver->inode_allocator();
        for (std::uint64_t index = 11; index <= 2048; ++index) {
            allocator.free(index, index < 13 || index == 2048 ? kDirectory : kFile);
        }
        volume.driver->flush_descriptors();
    }
    // The directory counts fall back; the unused tails don't grow again.
    EXPECT_NE(image.group(0).find(" 2037 free inodes, 2 directories\n"), std::string::npos) << image.group(0);
    EXPECT_NE(image.group(1).find(" 2048 free inodes, 0 directories, 2047 unused inodes"), std::string::npos)
        << image.group(1);
    EXPECT_EQ(image.problems(), "");
    EXPECT_EQ(image.free_list("inodes"), inodes);
}

TEST(ExtAllocator, BlocksGivenBackLeaveTheVolumeByteForByteAndTheirDataUnwritten) {
    for (const char* mkfs : {kUninit1k, "mkfs.ext4 -b 4096 -g 8192 -O ^metadata_csum,uninit_bg"}) {
        SCOPED_TRACE(mkfs);
        Image image;
        ASSERT_TRUE(image.make(mkfs, 40 * 1024));
        const std::vector<unsigned char> before = image.bytes();
        {
            Volume volume(image.path);
            ASSERT_NE(volume.driver, nullptr);
            auto& allocator = volume.driver->block_allocator();
            std::vector<std::uint64_t> taken;
            for (int i = 0; i < 100; ++i) taken.push_back(allocator.allocate(kFile));
            // A block written through the cache and freed before the flush
            // must never reach the disk.
            BlockHandle data = volume.driver->get_fs_block(taken[7], true);
            volume.driver->prepare_block_write(data);
            std::memset(data.data(), 0xA5, volume.driver->block_size());
            data.set_dirty();
            data.reset();
            for (std::uint64_t block : taken) allocator.free(block, kFile);
            volume.driver->flush_descriptors();
        }
        EXPECT_TRUE(image.bytes() == before);
    }
}

}  // namespace
