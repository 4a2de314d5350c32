// The FAT driver over volumes that mkfs.fat and mtools make: the mount's
// refusals, listings and lookups, reads that must equal what mtools put in,
// and writes that fsck.fat must accept and mtools must read back.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "fat/fat_driver.h"
#include "fsdriver/driver_selection.h"
#include "loader/common/byte_order.h"
#include "loader/common/error.h"
#include "loader/common/error_codes.h"
#include "tests/support/raised_code.h"
#include "tests/support/shell.h"
#include "tests/support/volume_fixture.h"

namespace {

using TestSupport::DiskOf;
using TestSupport::Pattern;
using TestSupport::RaisedCode;
using Volume = TestSupport::Volume<FATDriver, TryFATDriver>;

int Run(const std::string& command) { return TestSupport::RunQuietly("MTOOLS_SKIP_CHECK=1 " + command); }

std::string Capture(const std::string& command) { return TestSupport::CaptureOutput("MTOOLS_SKIP_CHECK=1 " + command); }

// A disk image file made by mkfs.fat and filled by mtools.
class Image : public TestSupport::ImageFile {
public:
    Image(const std::string& format, unsigned kib) {
        EXPECT_EQ(Run("mkfs.fat -C " + format + " " + path + " " + std::to_string(kib)), 0);
    }

    void put(const std::string& target, const std::string& content) {
        folder.Write("put.in", content);
        EXPECT_EQ(Run("mcopy -o -i " + path + " " + folder.Path() + "/put.in '::" + target + "'"), 0) << target;
    }
    void mkdir(const std::string& target) { EXPECT_EQ(Run("mmd -i " + path + " '::" + target + "'"), 0); }
    void del(const std::string& target) { EXPECT_EQ(Run("mdel -i " + path + " '::" + target + "'"), 0); }
    std::string type(const std::string& target) { return Capture("mtype -i " + path + " '::" + target + "'"); }
    std::string listing(const std::string& target) { return Capture("mdir -a -i " + path + " '::" + target + "'"); }
    std::uint64_t free_bytes() {
        std::string line = Capture("mdir -i " + path + " :: | grep 'bytes free'");
        std::string digits;
        for (char c : line) {
            if (c >= '0' && c <= '9') digits.push_back(c);
        }
        return digits.empty() ? 0 : std::stoull(digits);
    }
    bool clean() { return Run("fsck.fat -n " + path) == 0; }
};

// Fields of the boot sector and the table, changed in place.
void Put16(std::vector<unsigned char>& d, std::size_t at, std::uint16_t v) { Common::StoreLE16(&d[at], v); }
void Put32(std::vector<unsigned char>& d, std::size_t at, std::uint32_t v) { Common::StoreLE32(&d[at], v); }
std::uint16_t Get16(const std::vector<unsigned char>& d, std::size_t at) { return Common::LoadLE16(&d[at]); }

// What the public constructor makes of a changed image on a device `cut`
// sectors short of it: the code raised (0 when it mounts), the type the
// driver names and the clusters it counts.
struct Mounted {
    std::uint32_t code = 0;
    std::string type;
    std::uint32_t clusters = 0;
};

Mounted Mount(const std::vector<unsigned char>& made, const std::function<void(std::vector<unsigned char>&)>& change,
              std::uint64_t cut) {
    std::vector<unsigned char> data = made;
    change(data);
    auto disk = DiskOf(data);
    Mounted mounted;
    mounted.code = RaisedCode([&] {
        FATDriver driver(disk.get(), 0, data.size() / 512 - cut, 0, nullptr, nullptr, 0);
        mounted.type = driver.type_name();
        mounted.clusters = driver.cluster_count;
    });
    return mounted;
}

}  // namespace

TEST(FATMount, BootSectorChecksWidthsAndTableCut) {
    Image fat12_image("-F 12", 1024);
    Image fat16_image("-F 16", 16384);
    Image fat32_image("-F 32 -s 1", 34000);
    const std::vector<unsigned char> fat12 = fat12_image.bytes();
    const std::vector<unsigned char> fat16 = fat16_image.bytes();
    const std::vector<unsigned char> fat32 = fat32_image.bytes();
    auto none = [](std::vector<unsigned char>&) {};
    struct Row {
        const char* what;
        const std::vector<unsigned char>* image;
        std::function<void(std::vector<unsigned char>&)> change;
        std::uint64_t cut;
        const char* type;          // null: refused as corrupt
        std::uint32_t clusters;    // 0: not looked at
    };
    const Row rows[] = {
        {"as made", &fat16, none, 0, "FAT16", 0},
        // FAT12 is served, and named, as the driver's 16-bit type.
        {"FAT12 as made", &fat12, none, 0, "FAT16", 0},
        {"jump E9", &fat16, [](auto& d) { d[0] = 0xE9; }, 0, "FAT16", 0},
        {"jump 90", &fat16, [](auto& d) { d[0] = 0x90; }, 0, nullptr, 0},
        {"no signature", &fat16, [](auto& d) { d[510] = 0; }, 0, nullptr, 0},
        {"3 sectors per cluster", &fat16, [](auto& d) { d[13] = 3; }, 0, nullptr, 0},
        {"0 sectors per cluster", &fat16, [](auto& d) { d[13] = 0; }, 0, nullptr, 0},
        {"no reserved sectors", &fat16, [](auto& d) { Put16(d, 14, 0); }, 0, nullptr, 0},
        {"no tables", &fat16, [](auto& d) { d[16] = 0; }, 0, nullptr, 0},
        {"128 tables", &fat16, [](auto& d) { d[16] = 128; }, 0, nullptr, 0},
        {"root entries not whole sectors", &fat16, [](auto& d) { Put16(d, 17, 520); }, 0, nullptr, 0},
        {"no root entries", &fat16, [](auto& d) { Put16(d, 17, 0); }, 0, nullptr, 0},
        {"device one sector short", &fat16, none, 1, nullptr, 0},
        {"tables past the volume", &fat16, [](auto& d) { Put16(d, 22, 0xFFFF); }, 0, nullptr, 0},
        // A table cut to 20 sectors maps 20 * 256 - 2 clusters: still FAT16.
        {"table cut to 20 sectors", &fat16, [](auto& d) { Put16(d, 22, 20); }, 0, "FAT16", 20 * 256 - 2},
        // Cut to 8 sectors it would fall below the FAT16 line.
        {"table cut to 8 sectors", &fat16, [](auto& d) { Put16(d, 22, 8); }, 0, nullptr, 0},
        {"FAT32 as made", &fat32, none, 0, "FAT32", 0},
        {"FAT32 version 1", &fat32, [](auto& d) { Put16(d, 42, 1); }, 0, nullptr, 0},
        {"FAT32 root cluster 1", &fat32, [](auto& d) { Put32(d, 44, 1); }, 0, nullptr, 0},
        {"FAT32 root cluster past the end", &fat32, [](auto& d) { Put32(d, 44, 0x0FFFFFF0); }, 0, nullptr, 0},
        {"FAT32 active table 5 of 2", &fat32, [](auto& d) { Put16(d, 40, 0x85); }, 0, nullptr, 0},
        {"FAT32 active table 1, no mirror", &fat32, [](auto& d) { Put16(d, 40, 0x81); }, 0, "FAT32", 0},
        {"FAT32 FSInfo beyond reserved", &fat32, [](auto& d) { Put16(d, 48, Get16(d, 14)); }, 0, "FAT32", 0},
        {"FAT32 table size 0", &fat32, [](auto& d) { Put32(d, 36, 0); }, 0, nullptr, 0},
        {"FAT32 device one sector short", &fat32, none, 1, nullptr, 0},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        Mounted mounted = Mount(*row.image, row.change, row.cut);
        EXPECT_EQ(mounted.code, row.type != nullptr ? 0u : Common::FILE_CORRUPT);
        if (row.type == nullptr) continue;
        EXPECT_EQ(mounted.type, row.type);
        if (row.clusters != 0) {
            EXPECT_EQ(mounted.clusters, row.clusters);
        }
    }

    // The trial's factory turns the refusal into none and leaves the device alone.
    auto disk = DiskOf(fat16);
    FileSystemDriver* found = TryFATDriver(disk.get(), 0, fat16.size() / 512, 0, disk->sector(0), 0, 0);
    ASSERT_NE(found, nullptr);
    delete found;
    disk->sector(0)[0] = 0x90;
    EXPECT_EQ(TryFATDriver(disk.get(), 0, fat16.size() / 512, 0, disk->sector(0), 0, 0), nullptr);
}

TEST(FATDirectories, ListingLookupNamesAndLabel) {
    Image image("-F 16 -n BOOTVOL", 16384);
    image.put("README.TXT", "upper");
    image.put("lower.txt", "lower case");
    image.put("Long File Name.txt", Pattern(3000, 1));
    image.mkdir("Sub Dir");
    image.put("Sub Dir/inner.bin", Pattern(700, 2));
    image.mkdir("Sub Dir/deeper");
    image.put("Sub Dir/deeper/x", "x");
    Volume volume(image.path);
    ASSERT_NE(volume.driver, nullptr);

    std::map<std::u16string, std::uint64_t> expected = {
        {u"README.TXT", 5}, {u"lower.txt", 10}, {u"Long File Name.txt", 3000}, {u"Sub Dir", ~0ull}};
    EXPECT_EQ(volume.list(u"").sizes(), expected);
    std::map<std::u16string, std::uint64_t> inner = {{u"inner.bin", 700}, {u"deeper", ~0ull}};
    EXPECT_EQ(volume.list(u"sub dir").sizes(), inner);
    EXPECT_EQ(volume.read(u"SUB DIR\\DEEPER\\X"), "x");

    struct Lookup {
        const char16_t* asked;
        const char16_t* found;  // null: not there
        const char16_t* short_name;
    };
    const Lookup lookups[] = {
        {u"readme.txt", u"README.TXT", u""},
        {u"README.TXT", u"README.TXT", u""},
        {u"LOWER.TXT", u"lower.txt", u""},
        {u"long file name.TXT", u"Long File Name.txt", u"LONGFI~1.TXT"},
        {u"LONGFI~1.TXT", u"Long File Name.txt", u"LONGFI~1.TXT"},
        {u"Long File Name", nullptr, nullptr},
        {u"missing", nullptr, nullptr},
    };
    for (const Lookup& lookup : lookups) {
        std::unique_ptr<i_dir::iterator> hit(volume.root->find(lookup.asked));
        if (lookup.found == nullptr) {
            EXPECT_EQ(hit, nullptr);
            EXPECT_EQ(volume.root->error().Code(), Common::FILE_NOT_FOUND) << std::string(lookup.asked, lookup.asked + 4);
            continue;
        }
        ASSERT_NE(hit, nullptr);
        ASSERT_FALSE(hit->failed());
        EXPECT_EQ(hit->name(), lookup.found);
        EXPECT_EQ(hit->short_name(), lookup.short_name);
    }

    // Directories answer their kind, allocation and attributes; files their clusters.
    std::unique_ptr<i_dir::iterator> sub(volume.root->find(u"Sub Dir"));
    EXPECT_EQ(sub->kind(), std::uint32_t(KIND_DIRECTORY));
    EXPECT_EQ(sub->attributes() & 0x10, 0x10u);
    EXPECT_EQ(sub->allocated_size(), 2048u);  // 4 sectors per cluster, one cluster
    std::unique_ptr<i_dir::iterator> long_file(volume.root->find(u"Long File Name.txt"));
    EXPECT_EQ(long_file->allocated_size(), 4096u);
    EXPECT_NE(long_file->modified(), 0);

    char16_t label[32];
    volume.root->label(label, 32);
    EXPECT_EQ(std::u16string(label), u"BOOTVOL");
    volume.root->label(label, 5);
    EXPECT_EQ(std::u16string(label), u"BOOT");
}

TEST(FATFiles, FragmentedChainsPartialReadsAndOneTransferPerRun) {
    Image image("-F 12 -s 1", 1024);
    image.put("first", Pattern(5000, 1));
    image.put("hole", Pattern(20000, 2));  // 40 clusters
    image.put("third", Pattern(5000, 3));
    const std::string contiguous = Pattern(200 * 1024, 5);
    image.put("big", contiguous);
    // Fills the volume but for 10 clusters, so that a file of 43 clusters
    // must take the hole and go on behind the filler.
    image.put("filler", std::string(image.free_bytes() - 10 * 512, 'f'));
    image.del("hole");
    const std::string fragmented = Pattern(22000, 4);
    image.put("d", fragmented);
    ASSERT_TRUE(image.type("d") == fragmented);
    Volume volume(image.path);
    ASSERT_NE(volume.driver, nullptr);
    EXPECT_TRUE(volume.read(u"d") == fragmented);
    {
        // The chain really has a gap: the sectors of its first and last byte are far apart.
        FileSystemDriver::FileObject* object = volume.driver->get_directory(u"/")->open_file(u"d");
        std::uint64_t first = object->sector_at(0);
        std::uint64_t last = object->sector_at(21504);
        delete object;
        EXPECT_NE(last - first, 42u);
    }

    std::unique_ptr<ri_file> file(volume.root->open_file(u"d", false));
    ASSERT_FALSE(file->failed());
    struct Piece {
        std::int64_t at;
        std::uint64_t length;
    };
    // Inside a cluster, across clusters, across the hole, backwards, at and past the end.
    const Piece pieces[] = {{100, 50}, {500, 1000}, {20000, 2000}, {20479, 3}, {1, 21999}, {21990, 100}, {22000, 10}, {40000, 1}};
    for (const Piece& piece : pieces) {
        std::vector<char> buffer(piece.length);
        file->seek(piece.at);
        std::uint64_t got = 99;
        file->read(buffer.data(), piece.length, got);
        EXPECT_FALSE(file->failed());
        std::string expected = piece.at < 22000 ? fragmented.substr(piece.at, piece.length) : "";
        EXPECT_TRUE(std::string(buffer.data(), got) == expected) << piece.at;
    }

    // A contiguous file read into an aligned buffer is one transfer of the data area.
    std::unique_ptr<ri_file> big(volume.root->open_file(u"big", false));
    std::vector<char> storage(contiguous.size() + 1024);
    char* aligned = storage.data() + (512 - reinterpret_cast<std::uintptr_t>(storage.data()) % 512) % 512;
    volume.disk->log.clear();
    std::uint64_t got = 0;
    big->read(aligned, contiguous.size(), got);
    ASSERT_EQ(got, contiguous.size());
    EXPECT_TRUE(std::string(aligned, got) == contiguous);
    std::size_t large_reads = 0;
    for (const auto& record : volume.disk->log) large_reads += record.operation == Fdisk::kTransferRead && record.count > 1;
    EXPECT_EQ(large_reads, 1u);
}

TEST(FATFiles, DamagedChainsEndInCorruptNotInAHang) {
    Image image("-F 16 -s 1", 16384);
    image.put("file", Pattern(4000, 1));  // 8 clusters from cluster 2 on
    image.mkdir("dir");                    // cluster 10
    std::vector<unsigned char> data = image.bytes();
    const std::size_t table = Get16(data, 14) * 512;
    auto damage = [&](std::uint32_t cluster, std::uint32_t value) {
        std::vector<unsigned char> changed = data;
        Put16(changed, table + 2 * cluster, value);
        image.store(changed);
    };
    struct Row {
        const char* what;
        std::uint32_t cluster, value;
        const char16_t* path;
        bool directory;
        bool corrupt;  // else the read ends, bounded by the size
    };
    const Row rows[] = {
        {"file chain loops", 5, 3, u"file", false, false},
        {"file chain ends early", 4, 0xFFFF, u"file", false, true},
        {"file chain runs into a free cluster", 4, 0, u"file", false, true},
        {"file chain leaves the volume", 4, 0xFFF0, u"file", false, true},
        {"directory chain loops", 10, 10, u"dir", true, true},
    };
    for (const Row& row : rows) {
        damage(row.cluster, row.value);
        Volume volume(image.path);
        ASSERT_NE(volume.driver, nullptr);
        if (row.directory) {
            std::unique_ptr<rio_dir> dir(volume.root->open_dir(row.path));
            EXPECT_TRUE(dir == nullptr || dir->failed() || [&] {
                std::unique_ptr<i_dir::iterator> walk(dir->begin());
                return dir->failed() && dir->error().Code() == Common::FILE_CORRUPT;
            }()) << row.what;
            continue;
        }
        std::unique_ptr<ri_file> file(volume.root->open_file(row.path, false));
        ASSERT_NE(file, nullptr);
        std::vector<char> buffer(8192);
        std::uint64_t got = 0;
        file->read(buffer.data(), buffer.size(), got);
        EXPECT_EQ(file->error().Code(), row.corrupt ? Common::FILE_CORRUPT : 0u) << row.what;
        EXPECT_EQ(got, row.corrupt ? 0u : 4000u) << row.what;
    }
    // A folder whose entry starts at no cluster would be taken for the
    // root, and a walk below it would go round.
    std::vector<unsigned char> changed = data;
    const std::string entry = "DIR        ";
    auto at = std::search(changed.begin(), changed.end(), entry.begin(), entry.end());
    ASSERT_NE(at, changed.end());
    Put16(changed, static_cast<std::size_t>(at - changed.begin()) + 26, 0);
    image.store(changed);
    Volume volume(image.path);
    ASSERT_NE(volume.driver, nullptr);
    std::unique_ptr<rio_dir> dir(volume.root->open_dir(u"dir"));
    ASSERT_NE(dir, nullptr);
    std::unique_ptr<i_dir::iterator> walk(dir->begin());
    EXPECT_EQ(dir->error().Code(), Common::FILE_CORRUPT);
}

namespace {

// Writes `data` in pieces of `step` bytes from `at` on.
std::uint64_t WriteAll(rio_file& file, const std::string& data, std::int64_t at, std::size_t step) {
    file.seek(at);
    std::uint64_t total = 0;
    for (std::size_t done = 0; done < data.size(); done += step) {
        std::uint64_t written = 0;
        file.write(data.data() + done, std::min(step, data.size() - done), written);
        total += written;
    }
    return total;
}

}  // namespace

TEST(FATWrites, ChangesPassFsckAndReadBackThroughMtools) {
    struct Format {
        const char* options;
        unsigned kib;
    };
    const Format formats[] = {{"-F 12", 1024}, {"-F 16 -s 1", 16384}, {"-F 32 -s 1", 34000}};
    for (const Format& format : formats) {
        SCOPED_TRACE(format.options);
        Image image(format.options, format.kib);
        image.put("README.TXT", "old readme");
        image.put("shrink.bin", Pattern(9000, 1));
        image.put("gone.bin", Pattern(3000, 2));
        image.mkdir("from");
        image.mkdir("from/moved");
        image.put("from/moved/inside.txt", "inside");
        const std::string created = Pattern(70000, 3);
        std::string aligned_data = Pattern(100000, 6);
        const std::string grown = std::string("head") + std::string(4992, '\0') + "tail";
        {
            Volume volume(image.path);
            ASSERT_NE(volume.driver, nullptr);
            rio_dir& root = *volume.root;
            std::unique_ptr<rio_file> file(root.create_file(u"New File.txt"));
            ASSERT_NE(file, nullptr);
            EXPECT_EQ(WriteAll(*file, created, 0, 3001), created.size());
            file.reset();
            // From a sector-aligned buffer whole clusters go straight to the device.
            file.reset(root.create_file(u"aligned.bin"));
            std::vector<char> storage(aligned_data.size() + 512);
            char* aligned = storage.data() + (512 - reinterpret_cast<std::uintptr_t>(storage.data()) % 512) % 512;
            std::memcpy(aligned, aligned_data.data(), aligned_data.size());
            std::uint64_t written = 0;
            file->write(aligned, aligned_data.size(), written);
            EXPECT_EQ(written, aligned_data.size());
            file->seek(1000);  // and again, over data already there
            file->write(aligned + 1000 % 512, 40000, written);
            EXPECT_EQ(written, 40000u);
            std::memcpy(&aligned_data[1000], aligned + 1000 % 512, 40000);
            file.reset();
            // A write behind the end fills the gap with zeros.
            file.reset(root.create_file(u"grown.bin"));
            EXPECT_EQ(WriteAll(*file, "head", 0, 4), 4u);
            EXPECT_EQ(WriteAll(*file, "tail", 4996, 4), 4u);
            file.reset();
            // Shrunk below one cluster: the rest of the chain is freed at the flush.
            file.reset(root.open_for_update(u"shrink.bin", false));
            ASSERT_NE(file, nullptr);
            file->set_size(100);
            EXPECT_FALSE(file->failed());
            file.reset();
            // Creating an existing file empties it.
            file.reset(root.create_file(u"readme.txt"));
            EXPECT_EQ(WriteAll(*file, "new", 0, 3), 3u);
            file.reset();
            root.rename(u"README.TXT", u"renamed.txt");
            EXPECT_FALSE(root.failed());
            root.remove_file(u"gone.bin");
            EXPECT_FALSE(root.failed());
            root.make_dir(u"Made Dir");
            EXPECT_FALSE(root.failed());
            file.reset(root.create_file(u"Made Dir\\a+b.txt"));
            EXPECT_EQ(WriteAll(*file, "plus", 0, 4), 4u);
            file.reset();
            root.rename(u"from\\moved", u"Made Dir\\moved");
            EXPECT_FALSE(root.failed());
            root.make_dir(u"RENAMED.TXT");
            EXPECT_EQ(root.error().Code(), Common::FILE_EXISTS);
            root.remove_file(u"from");
            EXPECT_EQ(root.error().Code(), Common::FILE_DELETE);
            std::unique_ptr<rio_file> refused(root.create_file(u"a?b"));
            EXPECT_EQ(refused, nullptr);
            EXPECT_NE(root.error().Code(), 0u);
            EXPECT_TRUE(volume.read(u"Made Dir\\moved\\inside.txt") == "inside");
        }
        EXPECT_TRUE(image.clean()) << Capture("fsck.fat -n " + image.path);
        EXPECT_TRUE(image.type("New File.txt") == created);
        EXPECT_TRUE(image.type("aligned.bin") == aligned_data);
        EXPECT_TRUE(image.type("grown.bin") == grown) << image.type("grown.bin").size();
        EXPECT_EQ(image.type("shrink.bin"), Pattern(9000, 1).substr(0, 100));
        EXPECT_EQ(image.type("renamed.txt"), "new");
        EXPECT_EQ(image.type("Made Dir/a+b.txt"), "plus");
        EXPECT_EQ(image.type("Made Dir/moved/inside.txt"), "inside");
        std::string root_listing = image.listing("");
        EXPECT_EQ(root_listing.find("gone"), std::string::npos);
        EXPECT_EQ(root_listing.find("README"), std::string::npos) << root_listing;
        EXPECT_NE(root_listing.find("New File.txt"), std::string::npos);
        EXPECT_EQ(image.listing("from").find("moved"), std::string::npos);
    }
}

TEST(FATWrites, ShortNamesLongEntriesAndDirectoryGrowth) {
    Image image("-F 32 -s 1", 34000);
    image.mkdir("names");
    {
        Volume volume(image.path);
        ASSERT_NE(volume.driver, nullptr);
        std::unique_ptr<rio_dir> names(volume.root->open_dir(u"names"));
        ASSERT_NE(names, nullptr);
        // Ten names of one basis: nine numbered tails, then a random one.
        // Three entries each overflow the first 512-byte cluster twice over.
        for (int i = 1; i <= 10; ++i) {
            std::u16string name = u"Long File Name " + std::u16string(1, char16_t(u'0' + i % 10)) + u".txt";
            std::unique_ptr<rio_file> file(names->create_file(name.c_str()));
            ASSERT_NE(file, nullptr) << i;
        }
        struct Created {
            const char16_t* name;
            const char16_t* short_name;  // empty: no long entry was needed
        };
        const Created created[] = {
            {u"readme.txt", u"README.TXT"}, {u"PLAIN.TXT", u""}, {u"a+b", u"A_B~1"},
            {u"Thirteen char", u"THIRTE~1"}, {u"Fourteen chars", u"FOURTE~1"},
        };
        for (const Created& entry : created) {
            std::unique_ptr<rio_file> file(names->create_file(entry.name));
            ASSERT_NE(file, nullptr);
            std::unique_ptr<i_dir::iterator> found(names->find(entry.name));
            ASSERT_NE(found, nullptr);
            EXPECT_EQ(found->name(), entry.name);
            EXPECT_EQ(found->short_name(), entry.short_name);
        }
        std::set<std::u16string> tails;
        std::unique_ptr<i_dir::iterator> walk(names->begin());
        do {
            if (walk->name().rfind(u"Long File Name", 0) == 0) tails.insert(walk->short_name());
        } while (walk->next());
        ASSERT_EQ(tails.size(), 10u);
        for (int i = 1; i <= 9; ++i) {
            EXPECT_EQ(tails.count(u"LONGFI~" + std::u16string(1, char16_t(u'0' + i)) + u".TXT"), 1u) << i;
        }
        const std::u16string random = *tails.rbegin() == u"LONGFI~9.TXT" ? *tails.begin() : *tails.rbegin();
        EXPECT_EQ(random.substr(0, 3), u"LO~");
        EXPECT_EQ(random.substr(7), u"1.TXT");
    }
    EXPECT_TRUE(image.clean()) << Capture("fsck.fat -n " + image.path);
    std::string listing = image.listing("names");
    for (const char* name : {"Long File Name 0.txt", "Long File Name 9.txt", "readme.txt", "a+b", "Thirteen char",
                             "Fourteen chars", "PLAIN"}) {
        EXPECT_NE(listing.find(name), std::string::npos) << name << listing;
    }
}

TEST(FATWrites, SizesLimitsAndRefusals) {
    Image image("-F 12 -s 1", 1024);
    image.put("data.bin", Pattern(3000, 1));
    {
        Volume volume(image.path);
        ASSERT_NE(volume.driver, nullptr);
        rio_dir& root = *volume.root;
        std::unique_ptr<rio_file> file(root.open_for_update(u"data.bin", false));
        // Down and up again before the flush: the gap reads as zeros, nothing is freed.
        file->set_size(100);
        file->set_size(3000);
        EXPECT_EQ(file->size(), 3000u);
        // No file reaches 4 GiB.
        file->set_size(0xFFFFFE01ull);
        EXPECT_EQ(file->error().Code(), Common::FILE_WRITE);
        file.reset();
        file.reset(root.open_for_update(u"data.bin", false));
        ASSERT_NE(file, nullptr);
        file->seek(0x100000000ll);
        std::uint64_t written = 1;
        file->write("x", 1, written);
        EXPECT_EQ(file->error().Code(), Common::FILE_WRITE);
        EXPECT_EQ(written, 0u);
        file.reset();
        // Renaming in another case keeps the entry's data.
        root.rename(u"data.bin", u"DATA.bin");
        EXPECT_FALSE(root.failed());
        std::unique_ptr<i_dir::iterator> renamed(root.find(u"data.bin"));
        ASSERT_NE(renamed, nullptr);
        EXPECT_EQ(renamed->name(), u"DATA.bin");
        EXPECT_EQ(renamed->size(), 3000u);
        // A full volume answers FILE_DISK_FULL and stays consistent.
        file.reset(root.create_file(u"full.bin"));
        ASSERT_NE(file, nullptr);
        std::string chunk(64 * 1024, 'z');
        std::uint64_t total = 0;
        for (int i = 0; i < 40 && !file->failed(); ++i) {
            file->write(chunk.data(), chunk.size(), written);
            total += written;
        }
        EXPECT_EQ(file->error().Code(), Common::FILE_DISK_FULL);
        EXPECT_GT(total, 900u * 1024);
    }
    EXPECT_TRUE(image.clean()) << Capture("fsck.fat -n " + image.path);
    EXPECT_TRUE(image.type("DATA.bin") == Pattern(3000, 1).substr(0, 100) + std::string(2900, '\0'));

    // A device that refuses writes answers the first change with FILE_READ_ONLY.
    Volume locked(image.path);
    ASSERT_NE(locked.driver, nullptr);
    locked.disk->read_only = true;
    std::unique_ptr<rio_file> refused(locked.root->create_file(u"new.txt"));
    EXPECT_EQ(refused, nullptr);
    EXPECT_EQ(locked.root->error().Code(), Common::FILE_READ_ONLY);
    EXPECT_TRUE(locked.read(u"DATA.bin") == Pattern(3000, 1).substr(0, 100) + std::string(2900, '\0'));
}

TEST(FATDirectories, ClusterFilterHidesEntriesOutsideIt) {
    Image image("-F 16", 16384);
    image.put("empty", "");
    image.put("data", "some data");
    image.mkdir("dir");
    std::vector<unsigned char> data = image.bytes();
    struct Row {
        unsigned char fill;
        std::uint64_t bits;
        std::set<std::u16string> shown;
    };
    const Row rows[] = {
        {0xFF, 64, {u"empty", u"data", u"dir"}},
        {0x00, 64, {u"empty"}},  // an empty file has no cluster to test
        {0xFF, 1, {u"empty", u"data"}},  // only cluster 2, the first that mtools gave, lies inside
    };
    for (const Row& row : rows) {
        std::vector<unsigned char> filter(8, row.fill);
        Volume volume(DiskOf(data), filter.data(), row.bits);
        ASSERT_NE(volume.driver, nullptr);
        std::set<std::u16string> shown;
        for (const auto& entry : volume.list(u"").kinds()) shown.insert(entry.first);
        EXPECT_EQ(shown, row.shown) << int(row.fill) << " " << row.bits;
    }
}

TEST(FATWrites, EndMarkInTheMiddleHidesTheRestAndTakesTheNewEntry) {
    Image image("-F 16", 16384);
    image.put("A", "a");
    image.put("B", "b");
    image.put("C", "c");
    std::vector<unsigned char> data = image.bytes();
    const std::size_t root = (Get16(data, 14) + data[16] * Get16(data, 22)) * 512;
    std::size_t b_entry = root;
    while (std::memcmp(&data[b_entry], "B          ", 11) != 0) b_entry += 32;
    data[b_entry] = 0;
    image.store(data);
    {
        Volume volume(image.path);
        ASSERT_NE(volume.driver, nullptr);
        std::map<std::u16string, std::uint64_t> before = {{u"A", 1}};
        EXPECT_EQ(volume.list(u"").sizes(), before);
        std::unique_ptr<rio_file> file(volume.root->create_file(u"NEW"));
        ASSERT_NE(file, nullptr);
    }
    data = image.bytes();
    EXPECT_EQ(std::memcmp(&data[b_entry], "NEW        ", 11), 0);
    EXPECT_EQ(data[b_entry + 32], 0);  // the end mark moved behind it
    std::string listing = image.listing("");
    EXPECT_NE(listing.find("NEW"), std::string::npos);
    EXPECT_EQ(listing.find("C "), std::string::npos) << listing;
}
