// Directory changes on ext volumes that mke2fs made from a host folder:
// new directories, files, links, symbolic links and nodes, removals and
// renames. What the driver leaves is judged by e2fsck -fn and read by
// debugfs and dumpe2fs; refused changes must leave the image byte for byte.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "extfs/extfs_directory.h"
#include "extfs/extfs_driver.h"
#include "fsdriver/driver_selection.h"
#include "loader/common/error_codes.h"
#include "tests/support/ext_image.h"
#include "tests/support/temp_folder.h"

namespace {

using extfs::ExtfsDriver;
using TestSupport::TempFolder;
using Volume = TestSupport::Volume<ExtfsDriver, TryExtDriver>;
using Step = std::function<void(Volume&)>;

int Shell(const std::string& command) { return TestSupport::RunQuietly(command); }

// What a directory test reads back besides the shared questions.
struct Image : TestSupport::ExtImage {
    bool make(const std::string& mkfs, const std::string& source) { return ExtImage::make(mkfs, 8 * 1024, source); }
    long long links(const std::string& path) { return number("stat " + path, "Links: "); }
    // Name to "mode/uid/gid/size" of each live entry, from the lines
    // "/inode/mode/uid/gid/name/size/" of `ls -p`; removed ones show inode 0.
    std::map<std::string, std::string> entries(const std::string& directory) {
        std::map<std::string, std::string> found;
        std::istringstream listing(ask("ls -p " + directory));
        for (std::string line; std::getline(listing, line);) {
            std::vector<std::string> f;
            std::istringstream parts(line);
            for (std::string field; std::getline(parts, field, '/');) f.push_back(field);
            if (f.size() >= 7 && f[0].empty() && f[1] != "0") found[f[5]] = f[2] + "/" + f[3] + "/" + f[4] + "/" + f[6];
        }
        return found;
    }
    // bg_used_dirs_count over all groups.
    long long directories() {
        const std::string listing = groups();
        long long total = 0;
        const std::string label = " directories";
        for (std::size_t at = listing.find(label); at != std::string::npos; at = listing.find(label, at + 1)) {
            total += std::strtoll(listing.c_str() + listing.rfind(' ', at - 1) + 1, nullptr, 10);
        }
        return total;
    }
    // Mounts, runs each step, which must not fail, and unmounts.
    void apply(std::initializer_list<Step> steps) {
        Volume volume(path);
        ASSERT_NE(volume.root, nullptr);
        int number = 0;
        for (const Step& step : steps) {
            step(volume);
            EXPECT_FALSE(volume.root->failed()) << "step " << number++ << " code " << volume.root->error().Code();
        }
    }
};

std::u16string Wide(const std::string& text) { return std::u16string(text.begin(), text.end()); }

// The volumes every change runs on: both map kinds, 1 and 4 KiB blocks,
// with and without a journal, 128- and 256-byte inodes.
const char* const kVolumes[] = {
    "mkfs.ext2 -b 1024",
    "mkfs.ext3 -b 1024 -I 128",
    "mkfs.ext4 -b 4096 -O ^metadata_csum,^has_journal",
    "mkfs.ext4 -b 1024 -O ^metadata_csum",
};

struct Prefilled {
    explicit Prefilled(const std::string& mkfs) {
        folder.Write("src/f.txt", "hello");
        folder.Write("src/gone.bin", TestSupport::Pattern(3000, 3));
        folder.Write("src/a/x/inner.txt", "inner");
        Shell("cd '" + folder.Path() + "/src' && mkdir -p b d gonedir && chmod 0640 gone.bin && ln -s " +
              std::string(80, 'm') + " made_slow");
        made = image.make(mkfs, folder.Path() + "/src");
    }
    TempFolder folder;
    Image image;
    bool made = false;
};

TEST(ExtDirectoryWrites, NewObjectsAndRenamesAreWhatTheCheckerSees) {
    for (const char* mkfs : kVolumes) {
        SCOPED_TRACE(mkfs);
        Prefilled source(mkfs);
        ASSERT_TRUE(source.made);
        Image& image = source.image;
        const long long root_links = image.links("/");
        const long long directories = image.directories();
        const long long moved = image.inode("/a/x");
        const std::u16string slow(100, u's');
        image.apply({
            [](Volume& v) { v.root->make_dir(u"top"); },
            [](Volume& v) { v.root->make_dir(u"d/sub1"); },
            [](Volume& v) { v.root->make_dir(u"d/sub2"); },
            [](Volume& v) { v.root->make_dir(u"d/sub1/deep"); },
            [](Volume& v) { delete v.root->create_file(u"d/new.txt"); },
            [](Volume& v) { v.root->set_permissions(u"d/new.txt", 0600); },
            [](Volume& v) { v.root->set_owner(u"d/new.txt", 1000, 100); },
            [](Volume& v) { v.root->link(u"f.txt", u"d/hard.txt"); },
            // Each symbolic link changes its kind of target once.
            [&](Volume& v) { v.root->symlink(u"fast", slow.c_str()); },
            [](Volume& v) { v.root->symlink(u"fast", u"d/new.txt"); },
            [](Volume& v) { v.root->symlink(u"slow", u"short"); },
            [&](Volume& v) { v.root->symlink(u"slow", slow.c_str()); },
            [](Volume& v) { v.root->symlink(u"made_slow", u"tiny"); },
            [](Volume& v) { delete v.root->create_file(u"gone.bin"); },
            [](Volume& v) { v.root->make_node(u"fifo", KIND_FIFO, 0600, 0, 0); },
            [](Volume& v) { v.root->make_node(u"tty", KIND_CHARACTER_DEVICE, 0620, 4, 1); },
            [](Volume& v) { v.root->make_node(u"disk", KIND_BLOCK_DEVICE, 0660, 259, 70000); },
            [](Volume& v) {
                extfs::ExtfsDirectory root(v.driver, 0);
                root.set_times(u"f.txt", 1700000000123ll, 1600000000000ll, 1500000000000ll);
            },
            [](Volume& v) { v.root->rename(u"a/x", u"b/y"); },
            [](Volume& v) { v.root->rename(u"b/y/inner.txt", u"b/y/renamed.txt"); },
        });
        EXPECT_EQ(image.problems(), "");
        EXPECT_EQ(image.directories(), directories + 4);
        const std::pair<const char*, long long> links[] = {{"/", root_links + 1}, {"/d", 4}, {"/d/sub1", 3},
                                                           {"/d/sub1/deep", 2}, {"/f.txt", 2}, {"/a", 2}, {"/b", 3}};
        for (const auto& [path, count] : links) EXPECT_EQ(image.links(path), count) << path;
        EXPECT_EQ(image.inode("/d/hard.txt"), image.inode("/f.txt"));
        EXPECT_EQ(image.inode("/d/sub1/.."), image.inode("/d"));
        EXPECT_EQ(image.inode("/b/y"), moved);
        EXPECT_EQ(image.inode("/b/y/.."), image.inode("/b"));
        EXPECT_EQ(image.ask("cat /b/y/renamed.txt"), "inner");
        EXPECT_EQ(image.entries("/b/y").count("inner.txt") + image.entries("/a").count("x"), 0u);
        auto root = image.entries("/");
        const std::map<std::string, std::string> expected = {
            {"fast", "120777/0/0/9"},  {"slow", "120777/0/0/100"}, {"fifo", "010600/0/0/0"},
            {"gone.bin", "100644/0/0/0"}, {"made_slow", "120777/0/0/4"}, {"top", "040755/0/0/"}};
        for (const auto& [name, fields] : expected) EXPECT_EQ(root[name], fields) << name;
        EXPECT_EQ(image.entries("/d")["new.txt"], "100600/1000/100/0");
        EXPECT_NE(image.ask("stat /fast").find("Fast link dest: \"d/new.txt\""), std::string::npos);
        EXPECT_NE(image.ask("stat /made_slow").find("Fast link dest: \"tiny\""), std::string::npos);
        EXPECT_EQ(image.number("stat /fast", "Blockcount: ") + image.number("stat /gone.bin", "Blockcount: "), 0);
        EXPECT_EQ(image.ask("cat /slow"), std::string(100, 's'));
        EXPECT_NE(image.ask("stat /tty").find("number: 04:01"), std::string::npos);
        EXPECT_NE(image.ask("stat /disk").find("number: 259:70000"), std::string::npos);
        // 123 ms are 123000000 ns above the two epoch bits, where the inode has room.
        const bool extra = image.number("stats", "Inode size:") > 128;
        EXPECT_NE(image.ask("stat /f.txt").find(extra ? "mtime: 0x6553f100:1d535300" : "mtime: 0x6553f100"),
                  std::string::npos);
    }
}

TEST(ExtDirectoryWrites, RemovalsGiveBackInodesAndBlocks) {
    for (const char* mkfs : kVolumes) {
        SCOPED_TRACE(mkfs);
        Prefilled source(mkfs);
        ASSERT_TRUE(source.made);
        Image& image = source.image;
        const long long free_inodes = image.number("stats", "Free inodes:");
        const long long free_blocks = image.number("stats", "Free blocks:");
        const long long freed = (image.number("stat /gone.bin", "Blockcount: ") +
                                 image.number("stat /gonedir", "Blockcount: ")) /
                                (image.number("stats", "Block size:") / 512);
        const long long root_links = image.links("/");
        const long long directories = image.directories();
        image.apply({
            // Linked first: behind a removed last entry a block has no room.
            [](Volume& v) { v.root->link(u"a/x/inner.txt", u"kept.txt"); },
            [](Volume& v) { v.root->remove_file(u"gone.bin"); },
            [](Volume& v) { v.root->remove_dir(u"gonedir"); },
            [](Volume& v) { v.root->remove_file(u"a/x/inner.txt"); },
        });
        EXPECT_EQ(image.problems(), "");
        EXPECT_EQ(image.number("stats", "Free inodes:"), free_inodes + 2);
        EXPECT_EQ(image.number("stats", "Free blocks:"), free_blocks + freed);
        EXPECT_EQ(image.links("/"), root_links - 1);
        EXPECT_EQ(image.directories(), directories - 1);
        EXPECT_EQ(image.links("/kept.txt"), 1);
        EXPECT_EQ(image.ask("cat /kept.txt"), "inner");
        EXPECT_EQ(image.entries("/").count("gone.bin") + image.entries("/a/x").count("inner.txt"), 0u);
    }
}

TEST(ExtDirectoryWrites, RefusedChangesLeaveTheImageAsItWas) {
    TempFolder folder;
    folder.Write("src/f.txt", "hello");
    folder.Write("src/a/in.txt", "in");
    struct Case {
        const char* mkfs;
        const char* what;
        std::function<void(rio_dir&)> change;
        std::uint32_t code;
    };
    const std::u16string long_name(256, u'n');
    const char* plain = "mkfs.ext4 -b 1024 -O ^metadata_csum,^has_journal";
    const char* policy = "mkfs.ext4 -b 1024";  // metadata checksums: held read only
    const Case cases[] = {
        {plain, "rename onto a name", [](rio_dir& r) { r.rename(u"f.txt", u"a/in.txt"); }, Common::FILE_EXISTS},
        {plain, "directory over a name", [](rio_dir& r) { r.make_dir(u"f.txt"); }, Common::FILE_EXISTS},
        {plain, "256-byte name", [&](rio_dir& r) { delete r.create_file(long_name.c_str()); }, Common::FILE_CREATE},
        {plain, "symlink over a file", [](rio_dir& r) { r.symlink(u"f.txt", u"x"); }, Common::FILE_EXISTS},
        {plain, "hard link to a directory", [](rio_dir& r) { r.link(u"a", u"a2"); }, Common::FILE_CREATE},
        {plain, "remove a directory as a file", [](rio_dir& r) { r.remove_file(u"a"); }, Common::FILE_DELETE},
        {plain, "remove an open file",
         [](rio_dir& r) {
             std::unique_ptr<ri_file> open(r.open_file(u"f.txt", false));
             r.remove_file(u"f.txt");
         },
         Common::FILE_ACCESS_DENIED},
        {policy, "create", [](rio_dir& r) { delete r.create_file(u"new.txt"); }, Common::FILE_READ_ONLY},
        {policy, "mkdir", [](rio_dir& r) { r.make_dir(u"new"); }, Common::FILE_READ_ONLY},
        {policy, "rename", [](rio_dir& r) { r.rename(u"f.txt", u"g.txt"); }, Common::FILE_READ_ONLY},
        {policy, "remove", [](rio_dir& r) { r.remove_file(u"f.txt"); }, Common::FILE_READ_ONLY},
        {policy, "link", [](rio_dir& r) { r.link(u"f.txt", u"h.txt"); }, Common::FILE_READ_ONLY},
        {policy, "symlink", [](rio_dir& r) { r.symlink(u"s", u"f.txt"); }, Common::FILE_READ_ONLY},
        {policy, "permissions", [](rio_dir& r) { r.set_permissions(u"f.txt", 0600); }, Common::FILE_READ_ONLY},
        {policy, "owner", [](rio_dir& r) { r.set_owner(u"f.txt", 1, 1); }, Common::FILE_READ_ONLY},
        {policy, "node", [](rio_dir& r) { r.make_node(u"p", KIND_FIFO, 0600, 0, 0); }, Common::FILE_READ_ONLY},
        {policy, "rmdir", [](rio_dir& r) { r.remove_dir(u"a"); }, Common::FILE_READ_ONLY},
    };
    for (const Case& row : cases) {
        SCOPED_TRACE(row.what);
        Image image;
        ASSERT_TRUE(image.make(row.mkfs, folder.Path() + "/src"));
        const auto before = image.bytes();
        {
            Volume volume(image.path);
            ASSERT_NE(volume.root, nullptr);
            row.change(*volume.root);
            EXPECT_EQ(volume.root->error().Code(), row.code);
        }
        EXPECT_TRUE(image.bytes() == before);
    }
}

// A directory's link count at the limit: ext4 stops counting (1) and says
// so by a feature; ext2 refuses the subdirectory and keeps nothing of it.
TEST(ExtDirectoryWrites, SubdirectoryAtTheLinkLimit) {
    TempFolder folder;
    Shell("mkdir -p '" + folder.Path() + "/src/full'");
    const struct {
        const char* mkfs;
        int count;
        std::uint32_t code;
        long long links_after;
    } cases[] = {
        {"mkfs.ext2 -b 1024", 31999, Common::FILE_CREATE, 31999},
        {"mkfs.ext4 -b 1024 -O ^metadata_csum,^has_journal,^dir_nlink", 64999, 0, 1},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row.mkfs);
        Image image;
        ASSERT_TRUE(image.make(row.mkfs, folder.Path() + "/src"));
        ASSERT_TRUE(image.change("sif /full links_count " + std::to_string(row.count)));
        const long long free_inodes = image.number("stats", "Free inodes:");
        const long long free_blocks = image.number("stats", "Free blocks:");
        {
            Volume volume(image.path);
            volume.root->make_dir(u"full/one_more");
            EXPECT_EQ(volume.root->error().Code(), row.code);
        }
        EXPECT_EQ(image.links("/full"), row.links_after);
        const bool made = row.code == 0;
        EXPECT_EQ(image.number("stats", "Free inodes:"), free_inodes - (made ? 1 : 0));
        EXPECT_EQ(image.number("stats", "Free blocks:"), free_blocks - (made ? 1 : 0));
        EXPECT_EQ(image.ask("stats").find("dir_nlink") != std::string::npos, made);
    }
}

TEST(ExtDirectoryWrites, ManyNamesGrowDirectoriesAndEndTheirIndex) {
    TempFolder folder;
    for (int i = 0; i < 120; ++i) folder.Write("src/many/file_with_a_rather_long_name_" + std::to_string(i), "");
    Shell("mkdir '" + folder.Path() + "/src/plain'");
    Image image;
    ASSERT_TRUE(image.make("mkfs.ext4 -b 1024 -O ^metadata_csum,^has_journal,dir_index", folder.Path() + "/src"));
    Shell("e2fsck -fyD '" + image.path + "'");  // indexes "many"
    ASSERT_EQ(image.number("stat /many", "Flags: ") & 0x1000, 0x1000);
    const std::string longest(255, 'L');
    image.apply({
        [](Volume& v) {
            for (int i = 0; i < 120; ++i) {
                const std::string name = "added_name_that_fills_blocks_quickly_enough_" + std::to_string(i / 2);
                delete v.root->create_file(Wide((i % 2 == 0 ? "many/" : "plain/") + name).c_str());
                ASSERT_FALSE(v.root->failed()) << name << " " << v.root->error().Code();
            }
        },
        [&](Volume& v) { delete v.root->create_file(Wide(longest).c_str()); },
    });
    EXPECT_EQ(image.problems(), "");
    EXPECT_EQ(image.number("stat /many", "Flags: ") & 0x1000, 0);
    EXPECT_EQ(image.entries("/many").size(), 182u);
    EXPECT_EQ(image.entries("/plain").size(), 62u);
    EXPECT_GE(image.number("stat /plain", "Size: "), 4 * 1024);
    EXPECT_EQ(image.entries("/").count(longest), 1u);
}

}  // namespace
