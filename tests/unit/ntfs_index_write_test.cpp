// Insertion into and removal from NTFS index trees, over directories that
// mkntfs makes and ntfs-3g fills over FUSE. What the trees wrote is listed
// afterwards by ntfsls and ntfsinfo and checked by ntfsfix.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "loader/common/byte_order.h"
#include "loader/common/error_codes.h"
#include "ntfs/file_record.h"
#include "ntfs/index_tree.h"
#include "ntfs/ntfs_driver.h"
#include "ntfs/system_indexes.h"
#include "tests/support/ntfs_image.h"
#include "tests/support/raised_code.h"
#include "tests/support/shell.h"
#include "tests/support/volume_fixture.h"

namespace {

using ntfs::DirectoryIndex;
using ntfs::IndexCursor;
using ntfs::NTFSDriver;
using TestSupport::RaisedCode;
using Volume = TestSupport::Volume<NTFSDriver, TryNTFSDriver>;

// "grown" had 60 files and lost them, so it has buffers and a leaf root;
// "few" never had buffers; "big" holds 200 names in two levels; a stream
// of 450 bytes fills most of the record of "crowded".
std::vector<unsigned char> MakeBase() {
    return TestSupport::MakeNtfsImage(
        "truncate -s 32M volume.img; mkntfs -F -f -q -c 4096 volume.img; mkdir mnt;"
        " ntfs-3g volume.img mnt; cd mnt; printf t > target; mkdir grown few big;"
        " for i in $(seq 1 60); do : > grown/f$i; done; rm grown/*; : > few/readme;"
        " for i in $(seq 0 199); do printf -v f 'big/k%04d' $i; : > $f; done;"
        " mkdir crowded; : > crowded/a; setfattr -n user.pad -v $(printf '%0450d' 0) crowded;"
        " cd ..; umount mnt");
}

const std::vector<unsigned char>& Base() {
    static const std::vector<unsigned char> base = MakeBase();
    return base;
}

std::u16string Wide(const std::string& text) { return std::u16string(text.begin(), text.end()); }

std::string Narrow(const std::u16string& text) { return std::string(text.begin(), text.end()); }

class NtfsIndexWrite : public ::testing::Test {
protected:
    void SetUp() override {
        if (Base().empty()) GTEST_SKIP() << "mkntfs or ntfs-3g over FUSE isn't available";
        image_.store(Base());
        volume_ = std::make_unique<Volume>(image_.path);
        ASSERT_NE(volume_->driver, nullptr);
    }

    std::uint64_t RecordOf(const std::string& path) const {
        const std::string info = TestSupport::CaptureOutput("ntfsinfo -F " + path + " " + image_.path);
        const std::size_t at = info.find("Dumping Inode ");
        return at == std::string::npos ? 0 : std::stoull(info.substr(at + 14));
    }
    ntfs::RecordRef Record(const std::string& path) { return volume_->driver->record_cache->get(RecordOf(path)); }

    // An entry of `directory` for `name` that points at the file "target".
    ntfs::IndexTreeBase::Entry EntryFor(const ntfs::RecordRef& directory, const std::string& name,
                                        std::uint8_t name_space = ntfs::FileNameValue::kWin32) {
        DirectoryIndex root(volume_->driver, volume_->driver->record_cache->get(ntfs::kRootRecord));
        IndexCursor cursor;
        EXPECT_TRUE(root.find(u"target", cursor));
        const auto* model = reinterpret_cast<const unsigned char*>(cursor.position.entry);
        const std::size_t key = ntfs::FileNameValue::SizeFor(static_cast<std::uint32_t>(name.size()));
        ntfs::IndexTreeBase::Entry entry((16 + key + 7) & ~std::size_t(7), 0);
        std::memcpy(entry.data(), model, 16 + ntfs::FileNameValue::kNameOffset);
        Common::StoreLE16(entry.data() + 8, static_cast<std::uint16_t>(entry.size()));
        Common::StoreLE16(entry.data() + 10, static_cast<std::uint16_t>(key));
        Common::StoreLE16(entry.data() + 12, 0);
        Common::StoreLE64(entry.data() + 16, directory->reference());
        entry[16 + 64] = static_cast<unsigned char>(name.size());
        entry[16 + 65] = name_space;
        for (std::size_t i = 0; i < name.size(); ++i) Common::StoreLE16(entry.data() + 16 + 66 + 2 * i, name[i]);
        return entry;
    }

    static std::string NameAt(const IndexCursor& cursor) {
        return Narrow(ntfs::FileNameKey::NameOf(ntfs::KeyOf(cursor.position.entry)));
    }
    static std::vector<std::string> Walk(DirectoryIndex& index) {
        std::vector<std::string> names;
        IndexCursor cursor;
        for (bool more = index.first(cursor); more; more = index.next(cursor)) names.push_back(NameAt(cursor));
        return names;
    }
    // What ntfsls lists, sorted, without "." and "..". (It goes through
    // the buffers in the order of their VCNs, not in key order.)
    std::vector<std::string> Listed(const std::string& directory) const {
        std::istringstream lines(TestSupport::CaptureOutput("ntfsls " + image_.path + " -p " + directory));
        std::vector<std::string> names;
        for (std::string line; std::getline(lines, line);) {
            if (line != "." && line != "..") names.push_back(line);
        }
        std::sort(names.begin(), names.end());
        return names;
    }
    // Whether ntfsinfo finds every `step`th name and the last one by a
    // lookup, which descends the tree by key order, at the file "target".
    bool FoundByName(const std::string& directory, const std::vector<std::string>& names, std::size_t step) const {
        const std::uint64_t target = RecordOf("/target");
        for (std::size_t i = 0; i < names.size(); i += step) {
            if (RecordOf(directory + "/" + names[i]) != target) return false;
        }
        return RecordOf(directory + "/" + names.back()) == target;
    }
    std::string Info(const std::string& path) const {
        return TestSupport::CaptureOutput("ntfsinfo -F " + path + " " + image_.path);
    }
    bool Sound() const {
        return TestSupport::CaptureOutput("ntfsfix -n " + image_.path + "; echo status=$?").find("status=0") !=
               std::string::npos;
    }

    TestSupport::ImageFile image_;
    std::unique_ptr<Volume> volume_;
};

// Distinct names in a scrambled order, long enough that a buffer holds
// about twenty: 300 of them need buffers under buffers.
std::vector<std::string> Names(std::size_t count, const std::string& head) {
    std::vector<std::string> names;
    for (std::size_t i = 0; i < count; ++i) {
        const std::string number = std::to_string(10000 + (i * 7919) % count);
        names.push_back(head + number + std::string(40, 'q'));
    }
    return names;
}

TEST_F(NtfsIndexWrite, InsertionsPushTheRootDownAndSplitBuffersInKeyOrder) {
    std::vector<std::string> names = Names(300, "e");
    std::size_t deepest = 0;
    {
        ntfs::RecordRef directory = Record("/grown");
        DirectoryIndex index(volume_->driver, directory);
        for (const std::string& name : names) {
            IndexCursor cursor;
            index.insert(EntryFor(directory, name), cursor);
            ASSERT_TRUE(cursor.valid());
            EXPECT_EQ(NameAt(cursor), name);
        }
        std::sort(names.begin(), names.end());
        EXPECT_EQ(Walk(index), names);
        for (const std::string& name : names) {
            IndexCursor cursor;
            ASSERT_TRUE(index.find(Wide(name), cursor)) << name;
            deepest = std::max(deepest, cursor.stack.size());
        }
    }
    // The root, buffers that lead to buffers, and leaves.
    EXPECT_GE(deepest, 2u);
    volume_->unmount();
    EXPECT_EQ(Listed("/grown"), names);
    EXPECT_TRUE(FoundByName("/grown", names, 10));
    const std::string info = Info("/grown");
    EXPECT_NE(info.find("Index header flags:\t 0x01"), std::string::npos) << info;
    // 300 entries of 176 bytes need at least 13 buffers, where the
    // directory had two.
    const std::size_t buffers = info.find("Data size:", info.find("$INDEX_ALLOCATION"));
    ASSERT_NE(buffers, std::string::npos) << info;
    EXPECT_GE(std::stoull(info.substr(buffers + 10)), 13u * 4096) << info;
    EXPECT_TRUE(Sound());
}

TEST_F(NtfsIndexWrite, KeysGoWhereTheirOrderSaysOrAreRefused) {
    ntfs::RecordRef few = Record("/few");
    ntfs::RecordRef big = Record("/big");
    std::vector<std::string> in = {"readme", "readme2"};
    {
        DirectoryIndex small(volume_->driver, few);
        struct Case {
            const char* name;
            std::uint8_t name_space;
            std::uint32_t code;
        } cases[] = {
            {"README", ntfs::FileNameValue::kWin32, Common::FILE_EXISTS},
            {"ReadMe", ntfs::FileNameValue::kDos, Common::FILE_EXISTS},
            {"readme", ntfs::FileNameValue::kPosix, Common::FILE_EXISTS},
            {"readme2", ntfs::FileNameValue::kPosix, 0},
        };
        for (const Case& c : cases) {
            SCOPED_TRACE(c.name);
            IndexCursor cursor;
            EXPECT_EQ(RaisedCode([&] { small.insert(EntryFor(few, c.name, c.name_space), cursor); }), c.code);
        }
        ntfs::IndexTreeBase::Entry keyless = EntryFor(few, "x");
        Common::StoreLE16(keyless.data() + 10, 0);
        IndexCursor cursor;
        EXPECT_EQ(RaisedCode([&] { small.insert(keyless, cursor); }), Common::FILE_CORRUPT);
        EXPECT_EQ(RaisedCode([&] { small.findForRemoval(u"absent", cursor); }), Common::FILE_NOT_FOUND);
        // A root that outgrows its record is pushed down into the first
        // buffer, whose two attributes the record makes room for.
        std::uint32_t code = 0;
        for (std::size_t i = 0; i < 40 && code == 0; ++i) {
            const std::string name = "f" + std::to_string(100 + i) + std::string(30, 'w');
            code = RaisedCode([&] { small.insert(EntryFor(few, name), cursor); });
            if (code == 0) in.push_back(name);
        }
        EXPECT_EQ(code, 0u);
        EXPECT_TRUE(few.find(ntfs::kIndexAllocation, u"$I30"));
        EXPECT_TRUE(few.find(ntfs::kBitmap, u"$I30"));
        std::sort(in.begin(), in.end());
        EXPECT_EQ(Walk(small), in);

        DirectoryIndex large(volume_->driver, big);
        EXPECT_EQ(RaisedCode([&] { large.insert(EntryFor(big, "zzzz"), cursor); }), 0u);
        // After every other name: down the end entries.
        ASSERT_FALSE(cursor.stack.empty());
        EXPECT_TRUE(ntfs::IsEndEntry(cursor.stack.back().entry));
        EXPECT_EQ(Walk(large).back(), "zzzz");
        EXPECT_EQ(RaisedCode([&] { large.insert(EntryFor(big, "a"), cursor); }), 0u);
        EXPECT_EQ(Walk(large).front(), "a");
        EXPECT_EQ(Walk(large).size(), 202u);
    }
    few.reset();
    big.reset();
    volume_->unmount();
    const std::vector<std::string> listed = Listed("/big");
    ASSERT_EQ(listed.size(), 202u);
    EXPECT_EQ(listed.front(), "a");
    EXPECT_EQ(listed.back(), "zzzz");
    EXPECT_TRUE(FoundByName("/big", {"a", "zzzz"}, 1));
    EXPECT_EQ(Listed("/few"), in);
    EXPECT_TRUE(Sound());
}

// The data size that ntfsinfo shows in the key of `name`, which it dumps
// before the name.
std::string KeyDataSize(const std::string& info, const std::string& name) {
    const std::size_t named = info.find("Filename:\t\t '" + name + "'");
    if (named == std::string::npos) return "<no key " + name + ">";
    const std::size_t at = info.rfind("Data Size:", named);
    if (at == std::string::npos) return "<no size>";
    const std::size_t start = info.find_first_not_of(" \t", at + 10);
    return info.substr(start, info.find('\n', start) - start);
}

TEST_F(NtfsIndexWrite, KeysAreRewrittenWhereTheyStandOrRefused) {
    struct Case {
        const char* directory;
        const char* name;
        std::function<void(std::vector<unsigned char>&)> change;
        std::uint32_t code;
    };
    const auto size_of = [](std::uint64_t size) {
        return [size](std::vector<unsigned char>& key) { Common::StoreLE64(key.data() + 48, size); };
    };
    const Case cases[] = {
        {"/big", "k0150", size_of(12345), 0},
        {"/few", "readme", size_of(777), 0},
        {"/big", "k0151", [](std::vector<unsigned char>& key) { key[66] = 'j'; }, Common::FILE_CORRUPT},
        {"/big", "k0152", [](std::vector<unsigned char>& key) { key.resize(key.size() + 2); }, Common::FILE_CORRUPT},
    };
    bool in_buffer = false;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        DirectoryIndex index(volume_->driver, Record(c.directory));
        IndexCursor cursor;
        ASSERT_TRUE(index.find(Wide(c.name), cursor));
        in_buffer |= cursor.position.vcn != ntfs::IndexPosition::kRootVcn;
        const unsigned char* stored = ntfs::KeyOf(cursor.position.entry);
        std::vector<unsigned char> key(stored, stored + cursor.position.entry->key_length());
        c.change(key);
        EXPECT_EQ(RaisedCode([&] { index.rewriteKey(cursor, key.data(), std::uint32_t(key.size())); }), c.code);
    }
    EXPECT_TRUE(in_buffer);
    volume_->unmount();
    const std::string big = TestSupport::CaptureOutput("ntfsinfo -v -F /big " + image_.path);
    EXPECT_EQ(KeyDataSize(big, "k0150"), "12345 (0x3039)");
    EXPECT_EQ(KeyDataSize(big, "k0151"), "0 (0x0)");
    EXPECT_EQ(KeyDataSize(big, "k0152"), "0 (0x0)");
    EXPECT_EQ(KeyDataSize(TestSupport::CaptureOutput("ntfsinfo -v -F /few " + image_.path), "readme"), "777 (0x309)");
    EXPECT_EQ(Listed("/big").size(), 200u);
    // A lookup by key order still reaches them.
    for (const char* name : {"k0000", "k0150", "k0151", "k0199"}) EXPECT_NE(RecordOf(std::string("/big/") + name), 0u);
    EXPECT_TRUE(Sound());
}

// Needs records that make room by moving attributes out: until they do,
// the small root's write ends in FILE_DISK_FULL with the root at 168 bytes.
TEST_F(NtfsIndexWrite, ASmallRootMakesRoomInItsRecordAndALargeOneMovesOut) {
    ntfs::RecordRef directory = Record("/crowded");
    std::vector<std::string> in = {"a"};
    std::uint32_t code = 0;
    ASSERT_FALSE(directory.find(ntfs::kData, u"pad")->header()->non_resident());
    ASSERT_FALSE(directory.find(ntfs::kIndexAllocation, u"$I30"));
    bool pad_left_before_push = false;
    {
        DirectoryIndex index(volume_->driver, directory);
        for (int i = 10; i < 40 && code == 0; ++i) {
            const std::string name = "m" + std::to_string(i);
            IndexCursor cursor;
            code = RaisedCode([&] { index.insert(EntryFor(directory, name), cursor); });
            if (code == 0) in.push_back(name);
            // While the root is small, the stream leaves for clusters first.
            if (!directory.find(ntfs::kIndexAllocation, u"$I30"))
                pad_left_before_push |= directory.find(ntfs::kData, u"pad")->header()->non_resident();
        }
        EXPECT_EQ(Walk(index), in);
    }
    EXPECT_EQ(code, 0u);
    EXPECT_TRUE(pad_left_before_push);
    EXPECT_TRUE(directory.find(ntfs::kIndexAllocation, u"$I30"));
    directory.reset();
    volume_->unmount();
    EXPECT_EQ(Listed("/crowded"), in);
    EXPECT_EQ(TestSupport::CaptureOutput("ntfscat -a 0x80 -n pad " + image_.path + " /crowded"),
              std::string(450, '0'));
    EXPECT_TRUE(Sound());
}

TEST_F(NtfsIndexWrite, RemovalsShrinkTheTreeBackToAnEmptyLeafRoot) {
    std::vector<std::string> left;
    for (int i = 0; i < 200; ++i) {
        char name[8];
        std::snprintf(name, sizeof(name), "k%04d", i);
        left.push_back(name);
    }
    {
        ntfs::RecordRef directory = Record("/big");
        DirectoryIndex index(volume_->driver, directory);
        ASSERT_EQ(Walk(index), left);
        // A key that leads to a buffer: its predecessor takes its place.
        std::string separator;
        for (const std::string& name : left) {
            IndexCursor cursor;
            ASSERT_TRUE(index.find(Wide(name), cursor));
            if (separator.empty() && ntfs::HasSubNode(cursor.position.entry)) separator = name;
        }
        ASSERT_FALSE(separator.empty());
        std::vector<std::string> order = {separator};
        for (std::size_t i = 0; i < left.size(); ++i) {
            const std::string& name = left[(i * 77) % left.size()];
            if (name != separator) order.push_back(name);
        }
        for (std::size_t i = 0; i < order.size(); ++i) {
            IndexCursor cursor;
            index.findForRemoval(Wide(order[i]), cursor);
            index.remove(cursor);
            EXPECT_FALSE(cursor.valid());
            left.erase(std::find(left.begin(), left.end(), order[i]));
            if (i % 20 == 0 || left.size() < 5) ASSERT_EQ(Walk(index), left) << "after " << order[i];
        }
        IndexCursor cursor;
        EXPECT_FALSE(index.first(cursor));
        // Every buffer went back to the bitmap.
        ntfs::AttributeRef bitmap = directory.find(ntfs::kBitmap, u"$I30");
        ASSERT_TRUE(bitmap);
        std::vector<unsigned char> bits(bitmap->size());
        bitmap->read(0, bits.size(), bits.data());
        EXPECT_TRUE(std::all_of(bits.begin(), bits.end(), [](unsigned char b) { return b == 0; }));
    }
    volume_->unmount();
    EXPECT_TRUE(Listed("/big").empty());
    const std::string info = Info("/big");
    EXPECT_NE(info.find("Index header flags:\t 0x00"), std::string::npos) << info;
    EXPECT_NE(info.find("Index Size:\t\t 32 (0x20)"), std::string::npos) << info;
    EXPECT_TRUE(Sound());
}

TEST_F(NtfsIndexWrite, TheNextSecurityIdFollowsTheGreatestOfTheIdIndex) {
    const std::string info = TestSupport::CaptureOutput("ntfsinfo -v -i 9 " + image_.path);
    const std::size_t ids = info.find("'$SII'");
    ASSERT_NE(ids, std::string::npos);
    std::uint32_t greatest = 0;
    const std::string label = "Key security id:";
    for (std::size_t at = info.find(label, ids); at != std::string::npos; at = info.find(label, at + 1)) {
        greatest = std::max<std::uint32_t>(greatest, std::stoul(info.substr(at + label.size())));
    }
    ASSERT_GE(greatest, 256u);
    EXPECT_EQ(volume_->driver->secure_file->nextFreeId(), greatest + 1);
}

}  // namespace
