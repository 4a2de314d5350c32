// The ext driver over volumes that mkfs.ext2/3/4 and debugfs make: the
// mount's refusals with their codes, listings, lookups by path, and reads
// that must equal the files the tools were given, through block maps of
// every depth, extent trees of several levels, holes and unwritten extents.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "extfs/extfs_driver.h"
#include "extfs/extfs_inode.h"
#include "extfs/extfs_inode_cache.h"
#include "fsdriver/directory_object.h"
#include "fsdriver/driver_selection.h"
#include "loader/common/byte_order.h"
#include "loader/common/error.h"
#include "loader/common/error_codes.h"
#include "tests/support/ext_image.h"
#include "tests/support/raised_code.h"
#include "tests/support/raised_error.h"
#include "tests/support/temp_folder.h"

namespace {

using extfs::ExtfsDriver;
using Image = TestSupport::ExtImage;
using TestSupport::DiskOf;
using TestSupport::Pattern;
using TestSupport::RaisedCode;
using TestSupport::TempFolder;
using Volume = TestSupport::Volume<ExtfsDriver, TryExtDriver>;

constexpr std::uint64_t kKiB = 1024;

int Shell(const std::string& command) { return TestSupport::RunQuietly(command); }

// Writes `data` at `offset` of a host file, leaving a hole in front. The
// folder must exist.
void PutAt(const std::string& path, std::uint64_t offset, const std::string& data) {
    FILE* file = std::fopen(path.c_str(), "r+b");
    if (file == nullptr) file = std::fopen(path.c_str(), "w+b");
    ASSERT_NE(file, nullptr) << path;
    fseeko(file, static_cast<off_t>(offset), SEEK_SET);
    std::fwrite(data.data(), 1, data.size(), file);
    std::fclose(file);
}

// The source tree every content volume is made from, and what it holds.
// The sparse file has data in a direct block, behind the double indirect
// and behind the triple indirect pointer of a 1 KiB-block map.
struct SourceTree {
    explicit SourceTree(const TempFolder& folder) : root(folder.Path() + "/src") {
        folder.Write("src/hello.txt", "hello ext\n");
        folder.Write("src/.hidden", "h");
        deep = Pattern(5000, 1);
        folder.Write("src/dir/sub/deep.bin", deep);
        big = Pattern(300 * kKiB, 2);
        folder.Write("src/big.bin", big);
        for (std::uint64_t block : {3ull, 12ull + 256 + 7, 12ull + 256 + 65536 + 9}) {
            PutAt(root + "/sparse.bin", block * kKiB, Pattern(kKiB, static_cast<unsigned>(block)));
        }
        slow_target = std::string(100, 'a') + "/target";
        Shell("cd '" + root + "' && ln -s dir/sub/deep.bin link_fast && ln -s " + slow_target +
              " link_slow && chmod 0640 hello.txt && touch -d @1700000000 hello.txt");
    }
    std::string file(const std::string& name) const {
        std::vector<unsigned char> data = TestSupport::LoadFile(root + "/" + name);
        return std::string(data.begin(), data.end());
    }

    std::string root;
    std::string deep, big, slow_target;
};

std::uint32_t InodeIndex(Volume& volume, const std::u16string& directory, const std::u16string& name) {
    return static_cast<std::uint32_t>(volume.find(directory, name)->object_id());
}

struct ContentCase {
    const char* mkfs;
    unsigned kib;
    std::uint32_t sector;
    const char* type;
    std::uint32_t change_code;  // what a change is refused with; 0 on a writable volume
};

TEST(ExtDriver, ToolMadeVolumesListAndReadLikeTheirSource) {
    TempFolder folder;
    SourceTree source(folder);
    const ContentCase cases[] = {
        // The image matrix reads the plain ext2, ext3 and ext4 volumes; these
        // rows are the layouts it has no row for.
        // Revision 0: no feature at all, 128-byte inodes, first inode 11.
        {"mkfs.ext2 -r 0 -b 1024 -L etiqueta", 4096, 512, "Ext2", 0},
        {"mkfs.ext4 -b 4096 -L etiqueta", 16384, 4096, "Ext4", Common::FILE_READ_ONLY},  // metadata checksums
        {"mkfs.ext4 -b 1024 -I 128 -O ^metadata_csum,uninit_bg,^has_journal -L etiqueta", 4096, 512, "Ext4",
         0},
        {"mkfs.ext4 -b 2048 -O ^extent,^64bit,^metadata_csum -L etiqueta", 8192, 2048, "Ext4",
         0},
        {"mkfs.ext4 -b 4096 -I 1024 -O ^metadata_csum -L etiqueta", 16384, 512, "Ext4", 0},
        // Blocks of 16 KiB make an Ext4 volume without any ext4 feature.
        {"mkfs.ext2 -b 16384 -L etiqueta", 16384, 512, "Ext4", 0},
        // Descriptors of 32 groups in two blocks, the second in group 16,
        // each checked against its checksum.
        {"mkfs.ext4 -b 1024 -g 256 -N 512 -O meta_bg,^resize_inode,^has_journal,64bit,^metadata_csum,uninit_bg "
         "-L etiqueta",
         8192, 512, "Ext4", 0},
    };
    const std::string sparse = source.file("sparse.bin");
    for (const ContentCase& row : cases) {
        SCOPED_TRACE(std::string(row.mkfs) + " sector " + std::to_string(row.sector));
        Image image;
        ASSERT_TRUE(image.make(row.mkfs, row.kib, source.root));
        Volume volume(DiskOf(image.path, row.sector));
        ASSERT_NE(volume.driver, nullptr);
        EXPECT_STREQ(volume.driver->type_name(), row.type);
        char16_t label[6];
        volume.root->label(label, 6);
        EXPECT_EQ(std::u16string(label), u"etiqu");  // cut to the capacity less its ending 0

        std::map<std::u16string, std::uint32_t> expected = {
            {u"lost+found", KIND_DIRECTORY}, {u"hello.txt", KIND_FILE},  {u".hidden", KIND_FILE},
            {u"dir", KIND_DIRECTORY},        {u"big.bin", KIND_FILE},    {u"sparse.bin", KIND_FILE},
            {u"link_fast", KIND_SYMLINK},    {u"link_slow", KIND_SYMLINK}};
        EXPECT_EQ(volume.list(u"/").kinds(), expected);
        const std::map<std::u16string, std::uint32_t> sub = {{u"deep.bin", KIND_FILE}};
        EXPECT_EQ(volume.list(u"/dir/sub").kinds(), sub);
        EXPECT_TRUE(volume.list(u"/lost+found").kinds().empty());

        EXPECT_EQ(volume.read(u"/hello.txt"), "hello ext\n");
        EXPECT_EQ(volume.read(u"/dir/sub/deep.bin"), source.deep);
        EXPECT_EQ(volume.read(u"/big.bin"), source.big);
        EXPECT_EQ(volume.read(u"/big.bin", 4093, 9000), source.big.substr(4093, 9000));
        EXPECT_EQ(volume.read(u"/sparse.bin"), sparse);
        EXPECT_EQ(volume.read(u"/missing"), "<open failed>");
        EXPECT_EQ(volume.read(u"/dir"), "<open failed>");

        auto hello = volume.find(u"/", u"hello.txt");
        EXPECT_EQ(hello->permissions(), 0640u);
        EXPECT_EQ(hello->modified(), 1700000000000);
        EXPECT_EQ(hello->size(), 10u);
        EXPECT_FALSE(hello->hidden());
        EXPECT_TRUE(volume.find(u"/", u".hidden")->hidden());
        // Where data lies on the volume, in its sectors, as debugfs maps it.
        const std::uint32_t block = volume.driver->block_size();
        const std::uint64_t per_block = block / row.sector;
        FileSystemDriver::DirectoryObject* top = volume.driver->get_directory(u"/");
        std::unique_ptr<FileSystemDriver::IteratorObject> entry(top->find(u"big.bin"));
        EXPECT_EQ(entry->first_sector(), image.number("bmap big.bin 0") * per_block);
        entry.reset(top->find(u"link_fast"));
        EXPECT_EQ(entry->first_sector(), 0u);
        std::unique_ptr<FileSystemDriver::FileObject> big(top->open_file(u"big.bin"));
        // The last byte of block 5 lies in that block's last sector.
        EXPECT_EQ(big->sector_at(6 * block - 1), image.number("bmap big.bin 5") * per_block + per_block - 1);
        EXPECT_EQ(volume.find(u"/", u"link_fast")->link_target(), u"dir/sub/deep.bin");
        std::u16string slow(source.slow_target.begin(), source.slow_target.end());
        EXPECT_EQ(volume.find(u"/", u"link_slow")->link_target(), slow);
        // The dot entries are found by name though a walk never shows them.
        std::unique_ptr<FileSystemDriver::IteratorObject> dots(volume.driver->get_directory(u"/dir")->find(u".."));
        EXPECT_EQ(dots->object_id(), 1u);

        // On a volume held read only nothing is changed, and the refusal tells why.
        if (row.change_code == 0) continue;
        std::unique_ptr<rio_dir> root(volume.driver->open_root());
        root->make_dir(u"new");
        EXPECT_EQ(root->error().Code(), row.change_code);
        root->remove_dir(u"dir");  // not empty, but the volume's refusal comes first
        EXPECT_EQ(root->error().Code(), row.change_code);
        std::unique_ptr<rio_file> update(root->open_for_update(u"hello.txt", false));
        std::uint64_t written = 0;
        update->write("x", 1, written);
        EXPECT_EQ(update->error().Code(), row.change_code);
        EXPECT_EQ(volume.disk->writes(), 0u);
    }
}

TEST(ExtDriver, ContiguousDataIsReadInWholeRuns) {
    // Without a fragmented allocation big.bin lies in one run on the 4 KiB
    // volume, and in runs cut only at the map's pointer arrays on 1 KiB.
    TempFolder folder;
    SourceTree source(folder);
    const std::pair<const char*, std::size_t> cases[] = {{"mkfs.ext4 -O ^metadata_csum", 1},
                                                         {"mkfs.ext2 -b 1024", 6}};
    for (const auto& [mkfs, most_reads] : cases) {
        SCOPED_TRACE(mkfs);
        Image image;
        ASSERT_TRUE(image.make(mkfs, 16384, source.root));
        Volume volume(DiskOf(image.path));
        ASSERT_NE(volume.driver, nullptr);
        std::unique_ptr<ri_file> file(volume.root->open_file(u"/big.bin", false));
        std::vector<char> buffer(source.big.size() + 512);
        char* aligned = buffer.data() + (512 - reinterpret_cast<std::uintptr_t>(buffer.data()) % 512) % 512;
        volume.disk->log.clear();
        std::uint64_t got = 0;
        file->read(aligned, source.big.size(), got);
        EXPECT_EQ(std::string(aligned, got), source.big);
        EXPECT_LE(volume.disk->reads(), most_reads);
        EXPECT_EQ(volume.disk->unaligned, 0);
    }
}

TEST(ExtDriver, LegacyMapAnswersRunsAndHolesByPointerSpan) {
    TempFolder folder;
    SourceTree source(folder);
    Image image;
    ASSERT_TRUE(image.make("mkfs.ext2 -b 1024", 4096, source.root));
    Volume volume(DiskOf(image.path));
    ASSERT_NE(volume.driver, nullptr);
    extfs::InodeRef sparse = volume.driver->inodes().open(InodeIndex(volume, u"/", u"sparse.bin"));
    const std::uint64_t p = 256;
    struct Row {
        std::uint64_t block;
        bool hole;
        std::uint64_t count;
    } rows[] = {
        {0, true, 3},                       // zero direct pointers up to block 3
        {3, false, 1},                      // one data block
        {4, true, 8},                       // the rest of the direct array
        {12, true, p},                      // no single indirect block at all
        {12 + p, true, 7},                  // a zero pointer in the last-level block
        {12 + p + 7, false, 1},
        {12 + p + p, true, (p - 1) * p},    // the double block's empty pointers, span by span
        {12 + p + p * p + 9, false, 1},     // behind the triple indirect pointer
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.block);
        std::uint64_t count = 0;
        std::uint64_t physical = sparse->map_block(row.block, count);
        EXPECT_EQ(physical == ExtfsDriver::kNoBlock, row.hole);
        EXPECT_EQ(count, row.count);
        if (!row.hole) {
            EXPECT_EQ(physical, image.number("bmap sparse.bin " + std::to_string(row.block)));
        }
    }
    std::uint64_t count = 0;
    EXPECT_EQ(RaisedCode([&] { sparse->map_block(12 + p + p * p + p * p * p, count); }), Common::FILE_SEEK);
    // A run of the direct pointers stops at the end of their array.
    extfs::InodeRef big = volume.driver->inodes().open(InodeIndex(volume, u"/", u"big.bin"));
    big->map_block(11, count);
    EXPECT_EQ(count, 1u);
}

TEST(ExtDriver, FragmentedFileWalksAMultiLevelExtentTree) {
    // Many one-block files, every other one removed, then a big file
    // written into the gaps: hundreds of extents, two levels of index.
    TempFolder folder;
    std::vector<std::string> removals;
    Shell("mkdir '" + folder.Path() + "/small'");
    for (int i = 1; i <= 800; ++i) {
        PutAt(folder.Path() + "/small/f" + std::to_string(i), 0, std::string(100, 'x'));
        if (i % 2 == 0) removals.push_back("rm f" + std::to_string(i));
    }
    const std::string content = Pattern(450000, 3);
    folder.Write("big", content);
    Image image;
    ASSERT_TRUE(image.make("mkfs.ext4 -b 1024 -N 2048 -O ^has_journal", 4096, folder.Path() + "/small"));
    ASSERT_TRUE(image.change_all(removals));
    ASSERT_TRUE(image.change("write " + folder.Path() + "/big big"));
    ASSERT_NE(image.ask("ex big").find(" 2/ 2 "), std::string::npos) << "the tree should have depth 2";

    Volume volume(DiskOf(image.path));
    ASSERT_NE(volume.driver, nullptr);
    EXPECT_EQ(volume.read(u"/big"), content);
    EXPECT_EQ(volume.read(u"/big", 100001, 3333), content.substr(100001, 3333));
    extfs::InodeRef big = volume.driver->inodes().open(InodeIndex(volume, u"/", u"big"));
    for (std::uint64_t block : {0ull, 1ull, 91ull, 92ull, 250ull, 439ull}) {
        std::uint64_t count = 0;
        EXPECT_EQ(big->map_block(block, count), image.number("bmap big " + std::to_string(block))) << block;
    }
    EXPECT_EQ(volume.list(u"/").kinds().size(), 400u + 2);  // lost+found and big besides the kept files

    // A child that points back at its parent is refused, not followed:
    // the first index entry of the node below the root names that node.
    std::istringstream tree(image.ask("ex big"));
    std::string line, token;
    std::getline(tree, line);
    std::getline(tree, line);
    std::istringstream fields(line);
    for (int n = 0; n < 8; ++n) fields >> token;  // level, entries, logical range, physical
    const std::uint64_t top = std::strtoull(token.c_str(), nullptr, 10);
    ASSERT_GT(top, 0u);
    auto copy = DiskOf(volume.disk->bytes);
    unsigned char* node = copy->bytes.data() + top * kKiB;
    Common::StoreLE32(node + 12 + 4, static_cast<std::uint32_t>(top));
    Volume damaged(std::move(copy));
    ASSERT_NE(damaged.driver, nullptr);
    EXPECT_EQ(damaged.read(u"/big"), "<read failed " + std::to_string(Common::FILE_CORRUPT) + ">");

    // A root header that claims room for five entries doesn't fit in the inode.
    ASSERT_TRUE(image.change("sif big block[1] 0x00020005"));
    Volume overfull(DiskOf(image.path));
    ASSERT_NE(overfull.driver, nullptr);
    EXPECT_EQ(overfull.read(u"/big"), "<read failed " + std::to_string(Common::FILE_CORRUPT) + ">");
}

TEST(ExtDriver, HolesUnwrittenExtentsAndFilesOverFourGiB) {
    TempFolder folder;
    const std::uint64_t huge_size = 5 * kKiB * kKiB * kKiB + 3;
    const std::string tail = "tail of a file beyond 4 GiB";
    folder.Write("src/prealloc", Pattern(4096, 4));
    PutAt(folder.Path() + "/src/huge.bin", huge_size - tail.size(), tail);
    Image image;
    ASSERT_TRUE(image.make("mkfs.ext4", 16384, folder.Path() + "/src"));
    // Blocks 1 to 5 of prealloc become an unwritten extent; whatever the
    // disk holds there must read as zeros.
    ASSERT_TRUE(image.change("fallocate prealloc 1 5"));
    std::uint64_t unwritten = image.number("bmap prealloc 2");
    ASSERT_NE(unwritten, 0u);
    ASSERT_TRUE(image.change("sif prealloc size 24576"));
    auto disk = DiskOf(image.path);
    std::memset(disk->bytes.data() + unwritten * 4096, 0x5A, 4096);
    Volume volume(std::move(disk));
    ASSERT_NE(volume.driver, nullptr);

    std::unique_ptr<ri_file> huge(volume.root->open_file(u"/huge.bin", false));
    EXPECT_EQ(huge->size(), huge_size);
    EXPECT_EQ(volume.read(u"/huge.bin", huge_size - tail.size()), tail);
    EXPECT_EQ(volume.read(u"/huge.bin", 4 * kKiB * kKiB * kKiB - 5, 10), std::string(10, '\0'));
    EXPECT_EQ(volume.find(u"/", u"huge.bin")->size(), huge_size);

    std::string prealloc = volume.read(u"/prealloc");
    ASSERT_EQ(prealloc.size(), 24576u);
    EXPECT_EQ(prealloc.substr(0, 4096), Pattern(4096, 4));
    EXPECT_EQ(prealloc.substr(4096), std::string(20480, '\0'));
}

TEST(ExtDriver, SizesBeyondWhatTheMapOrTheVolumeHoldsAreCorrupt) {
    // A file may be sparse up to what its map addresses: 12 + p + p^2 + p^3
    // blocks of a 1 KiB block map (p = 256), 2^32 blocks of an extent tree.
    // A directory has no holes, so it can't outgrow the volume (4096
    // blocks), and a symbolic link's target fits in one block. One byte
    // more is damage, refused alike by a listing, a lookup and an open.
    TempFolder folder;
    SourceTree source(folder);
    const std::uint64_t legacy_largest = (12 + 256 + 256 * 256 + 256ull * 256 * 256) * kKiB;
    const std::uint64_t extents_largest = (1ull << 32) * kKiB;
    struct Row {
        const char* mkfs;
        const char* name;
        std::uint64_t size;
        std::uint32_t code;
    } rows[] = {
        {"mkfs.ext2 -b 1024", "big.bin", legacy_largest, 0},
        {"mkfs.ext2 -b 1024", "big.bin", legacy_largest + 1, Common::FILE_CORRUPT},
        {"mkfs.ext2 -b 1024", "hello.txt", 0xFFFFFFFE00000006, Common::FILE_CORRUPT},
        {"mkfs.ext4 -b 1024", "big.bin", extents_largest, 0},
        {"mkfs.ext4 -b 1024", "big.bin", extents_largest + 1, Common::FILE_CORRUPT},
        {"mkfs.ext2 -b 1024", "dir", 4097 * kKiB, Common::FILE_CORRUPT},
        {"mkfs.ext2 -b 1024", "link_slow", kKiB + 1, Common::FILE_CORRUPT},
    };
    for (const Row& row : rows) {
        const std::string name = row.name;
        SCOPED_TRACE(std::string(row.mkfs) + " " + name + " size " + std::to_string(row.size));
        Image image;
        ASSERT_TRUE(image.make(row.mkfs, 4096, source.root));
        ASSERT_TRUE(image.change("sif " + name + " size " + std::to_string(row.size)));
        Volume volume(DiskOf(image.path));
        ASSERT_NE(volume.driver, nullptr);
        const std::u16string wide(name.begin(), name.end());
        FileSystemDriver::DirectoryObject* top = volume.driver->get_directory(u"/");
        EXPECT_EQ(RaisedCode([&] { std::unique_ptr<FileSystemDriver::IteratorObject> entry(top->find(wide)); }),
                  row.code);
        EXPECT_EQ(volume.list(u"/").error != 0, row.code != 0);
        if (name == "dir") {
            EXPECT_EQ(RaisedCode([&] { volume.driver->get_directory(u"/dir"); }), row.code);
            continue;
        }
        if (name == "link_slow") continue;
        EXPECT_EQ(RaisedCode([&] { std::unique_ptr<FileSystemDriver::FileObject> file(top->open_file(wide)); }),
                  row.code);
        if (row.code != 0) {
            EXPECT_EQ(volume.read(u"/" + wide), "<open failed>");
            continue;
        }
        EXPECT_EQ(volume.find(u"/", wide)->size(), row.size);
        EXPECT_EQ(volume.read(u"/" + wide, 0, 3000), source.big.substr(0, 3000));
        EXPECT_EQ(volume.read(u"/" + wide, row.size - 10), std::string(10, '\0'));  // a hole up to the end
    }
}

TEST(ExtDriver, TimesCarryTheirExtraFieldWhereTheInodeHasRoom) {
    TempFolder folder;
    folder.Write("src/t", "t");
    Shell("touch -d @1700000000 '" + folder.Path() + "/src/t'");
    const std::pair<const char*, std::int64_t> cases[] = {{"mkfs.ext4 -O ^metadata_csum", 1700000000500},
                                                          {"mkfs.ext4 -I 128 -O ^metadata_csum", 1700000000000}};
    for (const auto& [mkfs, expected] : cases) {
        SCOPED_TRACE(mkfs);
        Image image;
        ASSERT_TRUE(image.make(mkfs, 8192, folder.Path() + "/src"));
        // 500 ms as nanoseconds, above the two epoch bits.
        image.change("sif t mtime_extra 0x77359400");
        Volume volume(DiskOf(image.path));
        ASSERT_NE(volume.driver, nullptr);
        EXPECT_EQ(volume.find(u"/", u"t")->modified(), expected);
    }
}

TEST(ExtDriver, IndexedDirectoryReadsAsAList) {
    TempFolder folder;
    std::set<std::u16string> names;
    Shell("mkdir -p '" + folder.Path() + "/src/many'");
    for (int i = 0; i < 300; ++i) {
        std::string name = "a-rather-long-file-name-number-" + std::to_string(i);
        PutAt(folder.Path() + "/src/many/" + name, 0, name);
        names.insert(std::u16string(name.begin(), name.end()));
    }
    Image image;
    ASSERT_TRUE(image.make("mkfs.ext4 -b 1024 -O ^has_journal", 4096, folder.Path() + "/src"));
    Shell("e2fsck -fyD '" + image.path + "'");
    ASSERT_NE(image.ask("htree many").find("Root node dump"), std::string::npos) << "many should be indexed";
    Volume volume(DiskOf(image.path));
    ASSERT_NE(volume.driver, nullptr);
    std::set<std::u16string> listed;
    for (const auto& entry : volume.list(u"/many").kinds()) listed.insert(entry.first);
    EXPECT_EQ(listed, names);
    EXPECT_EQ(volume.read(u"/many/a-rather-long-file-name-number-299"), "a-rather-long-file-name-number-299");

    // The walk opened 300 inodes and let each go: the cache kept at most
    // its limit. Inodes that are held are never dropped.
    extfs::ExtfsInodeCache& cache = volume.driver->inodes();
    EXPECT_LE(cache.count, extfs::ExtfsInodeCache::kIdleLimit);
    const std::uint32_t first = InodeIndex(volume, u"/many", u"a-rather-long-file-name-number-0");
    std::vector<extfs::InodeRef> held;
    for (std::uint32_t n = 0; n < 40; ++n) held.push_back(cache.open(first + n));
    EXPECT_GE(cache.count, 40u);
    held.clear();
    cache.open(first + 100);  // a miss drops what nobody holds
    EXPECT_LE(cache.count, extfs::ExtfsInodeCache::kIdleLimit);
}

TEST(ExtDriver, InodeFilterHidesEntriesAndHoldsTheVolumeReadOnly) {
    TempFolder folder;
    SourceTree source(folder);
    Image image;
    ASSERT_TRUE(image.make("mkfs.ext2 -b 1024", 4096, source.root));
    std::uint32_t hidden_index = 0;
    {
        Volume plain(DiskOf(image.path));
        ASSERT_NE(plain.driver, nullptr);
        hidden_index = InodeIndex(plain, u"/", u"hello.txt");
    }
    std::vector<unsigned char> bits(64, 0xFF);
    bits[hidden_index / 8] &= static_cast<unsigned char>(~(1u << (hidden_index % 8)));
    {
        Volume filtered(DiskOf(image.path), bits.data(), bits.size() * 8);
        ASSERT_NE(filtered.driver, nullptr);
        std::map<std::u16string, std::uint32_t> names = filtered.list(u"").kinds();
        EXPECT_EQ(names.count(u"hello.txt"), 0u);
        EXPECT_EQ(names.count(u"big.bin"), 1u);
        std::unique_ptr<ri_file> file(filtered.root->open_file(u"hello.txt", false));
        EXPECT_TRUE(file == nullptr || file->failed());
        filtered.root->make_dir(u"new");
        EXPECT_EQ(filtered.root->error().Code(), Common::FILE_READ_ONLY);
    }
    // A filter that hides the root's own inode leaves nothing to read.
    bits.assign(64, 0xFF);
    bits[0] &= static_cast<unsigned char>(~2u);
    Volume rootless(DiskOf(image.path), bits.data(), bits.size() * 8);
    ASSERT_NE(rootless.driver, nullptr);
    std::unique_ptr<i_dir::iterator> walk(rootless.root->begin());
    EXPECT_TRUE(walk == nullptr || walk->failed());
    EXPECT_EQ(rootless.root->error().Code(), Common::FILE_CORRUPT);
}

struct RefusalCase {
    const char* request;  // debugfs request on a fresh ext3 volume, or "" for none
    bool swap_magic;      // the superblock's magic with its two bytes exchanged
    std::uint32_t sector;
    std::uint32_t code;
    std::uint32_t cause;
};

TEST(ExtDriver, MountRefusesWithTheCodeOfEachCheck) {
    Image base;
    ASSERT_TRUE(base.make("mkfs.ext3 -b 1024", 2048));
    const RefusalCase cases[] = {
        {"", false, 512, 0, 0},
        {"feature needs_recovery", false, 512, Common::FILE_CORRUPT, Common::RESIZER_INVALID_FILE_SYSTEM},
        {"feature needs_recovery;ssv creator_os 3", false, 512, Common::FILE_CORRUPT,
         Common::RESIZER_INVALID_FILE_SYSTEM},
        {"ssv creator_os 3", false, 512, Common::FILE_UNSUPPORTED, 0},
        {"feature mmp", false, 512, Common::FILE_UNSUPPORTED, 0},
        {"ssv rev_level 2", false, 512, Common::FILE_UNSUPPORTED, 0},
        // Revision 0 reads 128-byte inodes; these tables hold 256-byte ones.
        {"ssv rev_level 0", false, 512, Common::FILE_CORRUPT, 0},
        // Features that mke2fs offers and the image matrix sees refused
        // only as "no driver": each must be refused for the feature itself.
        {"feature metadata_csum_seed", false, 512, Common::FILE_UNSUPPORTED, 0},
        {"feature large_dir", false, 512, Common::FILE_UNSUPPORTED, 0},
        {"feature inline_data", false, 512, Common::FILE_UNSUPPORTED, 0},
        {"feature casefold", false, 512, Common::FILE_UNSUPPORTED, 0},
        {"feature orphan_file", false, 512, 0, 0},
        {"", true, 512, Common::FILE_CORRUPT, 0},
        {"ssv log_cluster_size 1", false, 512, Common::FILE_UNSUPPORTED, 0},
        {"ssv first_data_block 0", false, 512, Common::FILE_UNSUPPORTED, 0},
        {"ssv inodes_count 7", false, 512, Common::FILE_CORRUPT, 0},
        {"ssv log_block_size 7", false, 512, Common::FILE_CORRUPT, 0},
        {"", false, 4096, Common::FILE_CORRUPT, 0},  // 1 KiB blocks on 4 KiB sectors
    };
    for (const RefusalCase& row : cases) {
        SCOPED_TRACE(std::string(row.request) + (row.swap_magic ? " swapped magic" : "") + " sector " +
                     std::to_string(row.sector));
        Image image;
        ASSERT_EQ(Shell("cp '" + base.path + "' '" + image.path + "'"), 0);
        std::istringstream requests(row.request);
        for (std::string request; std::getline(requests, request, ';');) image.change(request);
        auto disk = DiskOf(image.path, row.sector);
        if (row.swap_magic) std::swap(disk->bytes[1024 + 0x38], disk->bytes[1024 + 0x39]);
        Common::Error caught = TestSupport::RaisedError(
            [&] { ExtfsDriver driver(disk.get(), 0, disk->GetLastSector() + 1, 0, nullptr, 0); });
        EXPECT_EQ(caught.Code(), row.code);
        EXPECT_EQ(caught.Next().Code(), row.cause);
        // The ext factory, and the whole trial once FAT has refused, answer
        // the same; a refused volume gives none.
        for (DriverFactory factory : {kDriverTable[1].factory, kDriverTable[0].factory}) {
            FileSystemDriver* found = factory(disk.get(), 0, disk->GetLastSector() + 1, 0, nullptr, 0, 0);
            EXPECT_EQ(found == nullptr, row.code != 0);
            if (found == nullptr) continue;
            EXPECT_STREQ(found->type_name(), "Ext3");
            ++found->references;
            release(found);
        }
        EXPECT_EQ(disk->writes(), 0u);
    }
}

TEST(ExtDriver, DescriptorChecksumsAreCheckedOnlyWhereTheVolumeHasThem) {
    const std::pair<const char*, std::uint32_t> cases[] = {
        {"mkfs.ext4 -b 1024 -O ^metadata_csum,uninit_bg,^has_journal", Common::FILE_CORRUPT},
        {"mkfs.ext2 -b 1024", 0},
    };
    for (const auto& [mkfs, code] : cases) {
        SCOPED_TRACE(mkfs);
        Image image;
        ASSERT_TRUE(image.make(mkfs, 4096));
        auto disk = DiskOf(image.path);
        EXPECT_EQ(RaisedCode([&] { ExtfsDriver intact(disk.get(), 0, disk->GetLastSector() + 1, 0, nullptr, 0); }), 0u);
        disk->bytes[2 * kKiB + 0x12] ^= 0x04;  // bg_flags of group 0, behind the superblock
        EXPECT_EQ(RaisedCode([&] { ExtfsDriver changed(disk.get(), 0, disk->GetLastSector() + 1, 0, nullptr, 0); }), code);
    }
}

TEST(ExtDriver, DamagedDirectoriesAndInodesRaiseCorruptWhereMet) {
    TempFolder folder;
    SourceTree source(folder);
    Image image;
    ASSERT_TRUE(image.make("mkfs.ext2 -b 1024", 4096, source.root));
    const std::uint64_t root_block = image.number("bmap <2> 0");
    struct Damage {
        const char* what;
        std::function<void(TestSupport::MemoryDisk&)> apply;
    } damages[] = {
        {"rec_len 0 behind the dot entries",
         [&](TestSupport::MemoryDisk& disk) { std::memset(disk.bytes.data() + root_block * kKiB + 24 + 4, 0, 2); }},
        {"rec_len past the block",
         [&](TestSupport::MemoryDisk& disk) { disk.bytes[root_block * kKiB + 24 + 5] = 0x7F; }},
        {"an inode number beyond the volume",
         [&](TestSupport::MemoryDisk& disk) { std::memset(disk.bytes.data() + root_block * kKiB + 24, 0xFF, 4); }},
        {"a slash in a name",
         [&](TestSupport::MemoryDisk& disk) { disk.bytes[root_block * kKiB + 24 + 8] = '/'; }},
    };
    for (const Damage& damage : damages) {
        SCOPED_TRACE(damage.what);
        auto disk = DiskOf(image.path);
        damage.apply(*disk);
        Volume volume(std::move(disk));
        ASSERT_NE(volume.driver, nullptr);
        EXPECT_EQ(volume.list(u"/").error, Common::FILE_CORRUPT);
    }
    // An entry whose inode has no links left fails alone, where it is met;
    // the first entry of a listing (lost+found) can't hide the rest.
    ASSERT_TRUE(image.change("sif lost+found links_count 0"));
    {
        Volume first_dangles(DiskOf(image.path));
        ASSERT_NE(first_dangles.driver, nullptr);
        auto listing = first_dangles.list(u"/");
        EXPECT_EQ(listing.error, 0u);
        EXPECT_EQ(listing.entries.count(u"lost+found"), 0u);
        EXPECT_EQ(listing.entries.count(u"hello.txt"), 1u);
    }
    ASSERT_TRUE(image.change("sif hello.txt links_count 0"));
    Volume dangling(DiskOf(image.path));
    ASSERT_NE(dangling.driver, nullptr);
    EXPECT_EQ(dangling.list(u"/").error, Common::FILE_OPEN);
    EXPECT_EQ(dangling.read(u"/hello.txt"), "<open failed>");
    EXPECT_EQ(dangling.read(u"/dir/sub/deep.bin"), source.deep);
}

TEST(ExtDriver, MutatedMetadataNeverHangsOrCrashes) {
    // Bytes of the first 64 KiB (superblock, descriptors, bitmaps, inode
    // table, first directories) changed at random: each mount and walk
    // ends, and every failure is one of the driver's codes.
    TempFolder folder;
    SourceTree source(folder);
    Image image;
    ASSERT_TRUE(image.make("mkfs.ext2 -b 1024", 4096, source.root));
    const std::vector<unsigned char> pristine = image.bytes();
    const std::set<std::uint32_t> allowed = {0,  Common::FILE_CORRUPT, Common::FILE_UNSUPPORTED, Common::FILE_OPEN,
                                             Common::FILE_NOT_FOUND, Common::FILE_SEEK, Common::FILE_EOF};
    std::uint32_t seed = 12345;
    auto random = [&] { return seed = seed * 1103515245u + 12345u, (seed >> 8) & 0xFFFFFF; };
    for (int round = 0; round < 120; ++round) {
        auto disk = DiskOf(pristine);
        for (int n = 0; n < 8; ++n) disk->bytes[1024 + random() % (63 * kKiB)] = static_cast<unsigned char>(random());
        Volume volume(std::move(disk));
        if (volume.driver == nullptr) continue;
        const std::uint32_t walked = volume.list(u"/").error;
        EXPECT_TRUE(allowed.count(walked)) << walked;
        for (const char16_t* path : {u"/hello.txt", u"/big.bin", u"/dir/sub/deep.bin", u"/sparse.bin"}) {
            std::unique_ptr<ri_file> file(volume.root->open_file(path, false));
            if (file == nullptr || file->failed()) continue;
            std::string buffer(std::min<std::uint64_t>(file->size(), kKiB * kKiB), '\0');
            std::uint64_t got = 0;
            file->read(buffer.data(), buffer.size(), got);
            EXPECT_TRUE(allowed.count(file->error().Code())) << file->error().Code();
        }
    }
}

}  // namespace
