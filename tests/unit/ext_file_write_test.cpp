// Writes into files of ext volumes that mke2fs made from a host folder.
// What the driver leaves is judged by e2fsck -fn and read back by debugfs,
// whose dump must equal what the test expects byte for byte; the driver's
// own reads must agree before and after the volume is mounted again.
#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "extfs/extfs_driver.h"
#include "fsdriver/driver_selection.h"
#include "loader/common/error_codes.h"
#include "tests/support/ext_image.h"
#include "tests/support/temp_folder.h"

namespace {

using extfs::ExtfsDriver;
using TestSupport::Pattern;
using TestSupport::TempFolder;
using Image = TestSupport::ExtImage;
using Volume = TestSupport::Volume<ExtfsDriver, TryExtDriver>;

constexpr std::uint64_t kKiB = 1024;

// Writes `data` at `position` of `path` through the framework; answers the
// error code, 0 for none, and the bytes written.
std::uint32_t WriteAt(Volume& volume, const std::u16string& path, std::uint64_t position, const std::string& data,
                      std::uint64_t* written = nullptr) {
    std::unique_ptr<rio_file> file(volume.root->open_for_update(path.c_str(), false));
    if (file == nullptr || file->failed()) return file == nullptr ? 1 : file->error().Code();
    file->seek(static_cast<std::int64_t>(position));
    std::uint64_t done = 0;
    file->write(data.data(), data.size(), done);
    if (written != nullptr) *written = done;
    return file->failed() ? file->error().Code() : 0;
}

std::uint32_t Resize(Volume& volume, const std::u16string& path, std::uint64_t size) {
    std::unique_ptr<rio_file> file(volume.root->open_for_update(path.c_str(), false));
    if (file == nullptr || file->failed()) return 1;
    file->set_size(size);
    return file->failed() ? file->error().Code() : 0;
}

// Puts `data` at `position` of `text`, zeros in any gap.
void Overlay(std::string& text, std::uint64_t position, const std::string& data) {
    if (text.size() < position + data.size()) text.resize(position + data.size(), '\0');
    text.replace(position, data.size(), data);
}

struct Layout {
    const char* mkfs;
    unsigned kib;
};

// Block-mapped volumes of 1 KiB blocks reach the single and the double
// indirect blocks at 12 and 12 + 256 blocks; extent-mapped ones grow a tree.
const Layout kLayouts[] = {
    {"mkfs.ext2 -b 1024", 8192},
    {"mkfs.ext3 -b 1024 -I 128", 8192},
    {"mkfs.ext4 -b 1024 -O ^metadata_csum,^has_journal", 8192},
    {"mkfs.ext4 -b 4096 -O ^metadata_csum", 16384},
};

TEST(ExtFileWrites, GrowthHolesAndTruncationPassTheCheckerAndReadBack) {
    for (const Layout& layout : kLayouts) {
        SCOPED_TRACE(layout.mkfs);
        TempFolder folder;
        folder.Write("src/grow.bin", Pattern(5 * kKiB + 17, 1));
        folder.Write("src/cut.bin", Pattern(40 * kKiB, 2));
        folder.Write("src/keep.bin", Pattern(70 * kKiB, 3));
        Image image;
        ASSERT_TRUE(image.make(layout.mkfs, layout.kib, folder.Path() + "/src"));
        std::string grow = Pattern(5 * kKiB + 17, 1);
        std::string cut = Pattern(40 * kKiB, 2);
        {
            Volume volume(image.path);
            ASSERT_NE(volume.driver, nullptr);
            // Past the direct blocks and the single indirect block, unaligned at both ends.
            const std::string more = Pattern(300 * kKiB + 333, 4);
            ASSERT_EQ(WriteAt(volume, u"/grow.bin", grow.size(), more), 0u);
            Overlay(grow, grow.size(), more);
            // Far behind the end: a hole, then a partial block in the middle of nowhere.
            ASSERT_EQ(WriteAt(volume, u"/grow.bin", 1200 * kKiB + 100, "tail"), 0u);
            Overlay(grow, 1200 * kKiB + 100, "tail");
            // Into that hole: only the bytes written may differ from zero.
            ASSERT_EQ(WriteAt(volume, u"/grow.bin", 700 * kKiB + 1000, std::string(50, 'h')), 0u);
            Overlay(grow, 700 * kKiB + 1000, std::string(50, 'h'));
            // Whole blocks over existing data, aligned.
            ASSERT_EQ(WriteAt(volume, u"/grow.bin", 8 * kKiB, Pattern(16 * kKiB, 5)), 0u);
            Overlay(grow, 8 * kKiB, Pattern(16 * kKiB, 5));
            EXPECT_EQ(volume.read(u"/grow.bin"), grow);
            // Truncation into the middle of a block, then growth by size alone reads zeros.
            ASSERT_EQ(Resize(volume, u"/cut.bin", 9 * kKiB + 5), 0u);
            ASSERT_EQ(Resize(volume, u"/cut.bin", 30 * kKiB), 0u);
            cut = cut.substr(0, 9 * kKiB + 5) + std::string(30 * kKiB - (9 * kKiB + 5), '\0');
            EXPECT_EQ(volume.read(u"/cut.bin"), cut);
        }
        EXPECT_EQ(image.problems(), "");
        EXPECT_EQ(image.content("/grow.bin"), grow);
        EXPECT_EQ(image.content("/cut.bin"), cut);
        EXPECT_EQ(image.content("/keep.bin"), Pattern(70 * kKiB, 3));
        {
            Volume volume(image.path);
            ASSERT_NE(volume.driver, nullptr);
            EXPECT_EQ(volume.read(u"/grow.bin"), grow);
            ASSERT_EQ(Resize(volume, u"/grow.bin", 0), 0u);
            EXPECT_EQ(volume.read(u"/grow.bin"), "");
        }
        EXPECT_EQ(image.problems(), "");
        EXPECT_EQ(image.content("/grow.bin"), "");
    }
}

TEST(ExtFileWrites, FullVolumeWritesWhatFitsThenRefuses) {
    TempFolder folder;
    folder.Write("src/small.txt", "x");
    Image image;
    ASSERT_TRUE(image.make("mkfs.ext2 -b 1024 -m 0", 2048, folder.Path() + "/src"));
    std::uint64_t written = 0;
    {
        Volume volume(image.path);
        ASSERT_NE(volume.driver, nullptr);
        const std::string data = Pattern(4096 * kKiB, 6);  // twice the volume
        // Short, without an error, with the size covering what was written.
        EXPECT_EQ(WriteAt(volume, u"/small.txt", 1, data, &written), 0u);
        EXPECT_GT(written, 0u);
        EXPECT_LT(written, data.size());
        EXPECT_EQ(volume.read(u"/small.txt"), "x" + data.substr(0, written));
        EXPECT_EQ(WriteAt(volume, u"/small.txt", 1 + written, "more", &written), Common::FILE_DISK_FULL);
        EXPECT_EQ(written, 0u);
    }
    EXPECT_EQ(image.problems(), "");
    const std::string content = image.content("/small.txt");
    EXPECT_EQ(content, "x" + Pattern(4096 * kKiB, 6).substr(0, content.size() - 1));
}

TEST(ExtFileWrites, PolicyReadOnlyVolumeRefusesAndStaysUnchanged) {
    TempFolder folder;
    folder.Write("src/a.txt", "abc");
    Image image;
    ASSERT_TRUE(image.make("mkfs.ext4 -b 4096 -O metadata_csum", 16384, folder.Path() + "/src"));
    const std::vector<unsigned char> before = image.bytes();
    {
        Volume volume(image.path);
        ASSERT_NE(volume.driver, nullptr);
        EXPECT_EQ(WriteAt(volume, u"/a.txt", 0, "zz"), Common::FILE_READ_ONLY);
        EXPECT_EQ(Resize(volume, u"/a.txt", 0), Common::FILE_READ_ONLY);
        EXPECT_EQ(volume.disk->writes(), 0u);
    }
    EXPECT_TRUE(image.bytes() == before);
}

}  // namespace

namespace {

// Damage that a change meets only after it has begun: the change stops
// with FILE_CORRUPT, the volume takes no further change, and the disk is
// left byte for byte as the change found it.
TEST(ExtFileWrites, DamageMetMidwayLeavesTheDiskAsTheChangeFoundIt) {
    struct Case {
        const char* damage;  // debugfs requests
        std::function<std::uint32_t(Volume&)> change;
    };
    const Case cases[] = {
        // The inode is free in its bitmap: found when the last name goes,
        // after its data blocks have been given back.
        {"freei /a.bin",
         [](Volume& volume) {
             volume.root->remove_file(u"a.bin");
             return volume.root->error().Code();
         }},
        // A bitmap whose free count disagrees with its descriptor: found at
        // the first block a write into a hole needs.
        {"setb 7000 20",
         [](Volume& volume) { return WriteAt(volume, u"/a.bin", 200 * kKiB, Pattern(40 * kKiB, 9)); }},
    };
    for (const Case& row : cases) {
        SCOPED_TRACE(row.damage);
        TempFolder folder;
        folder.Write("src/a.bin", Pattern(30 * kKiB, 7));
        folder.Write("src/b.txt", "b");
        Image image;
        ASSERT_TRUE(image.make("mkfs.ext2 -b 1024", 8192, folder.Path() + "/src"));
        ASSERT_TRUE(image.change(row.damage));
        const std::vector<unsigned char> before = image.bytes();
        {
            Volume volume(image.path);
            ASSERT_NE(volume.driver, nullptr);
            EXPECT_EQ(row.change(volume), Common::FILE_CORRUPT);
            volume.root->make_dir(u"later");
            EXPECT_EQ(volume.root->error().Code(), Common::FILE_READ_ONLY);
        }
        EXPECT_TRUE(image.bytes() == before);
    }
}

}  // namespace
