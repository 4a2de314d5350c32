// NTFS directories over a volume that mkntfs makes and ntfs-3g fills over
// FUSE: listings equal to what ntfs-3g lists, in small, 3000-entry and
// three-level indexes; lookups without regard to case; hard links, names
// that differ only in case, DOS names, Unicode beyond the BMP, reparse
// points, security descriptors, the hidden system files; and damaged index
// entries, buffers and roots that must end in FILE_CORRUPT.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "files/file_identifier.h"
#include "files/utf_conversion.h"
#include "fsdriver/directory_object.h"
#include "fsdriver/driver_selection.h"
#include "fsdriver/iterator_reference.h"
#include "loader/common/byte_order.h"
#include "loader/common/error_codes.h"
#include "ntfs/file_security.h"
#include "ntfs/ntfs_driver.h"
#include "ntfs/ntfs_iterator.h"
#include "ntfs/system_indexes.h"
#include "tests/support/raised_code.h"
#include "tests/support/shell.h"
#include "tests/support/temp_folder.h"
#include "tests/support/volume_fixture.h"

namespace {

using ntfs::NTFSDriver;
using TestSupport::DiskOf;
using TestSupport::RaisedCode;
using Volume = TestSupport::Volume<NTFSDriver, TryNTFSDriver>;

constexpr std::uint32_t kIndexBlock = 4096;  // mkntfs's index buffer size
constexpr std::size_t kStride = 512;         // fixups hide the last two bytes of each

// What ntfs-3g showed of one entry: its type letter of find(1), size and links.
struct Seen {
    char type;
    std::uint64_t size;
    std::uint32_t links;
};
using SeenListing = std::map<std::u16string, Seen>;

// Reparse data, as the published layouts of mount points and symbolic links have it.
std::string ReparseHex(std::uint32_t tag, const std::u16string& substitute, bool symlink, std::uint32_t flags) {
    std::vector<unsigned char> names;
    for (char16_t c : substitute) {
        names.insert(names.end(), {static_cast<unsigned char>(c), static_cast<unsigned char>(c >> 8)});
    }
    const auto length = static_cast<std::uint16_t>(names.size());
    std::vector<unsigned char> body(8, 0);
    Common::StoreLE16(&body[2], length);                                  // substitute: offset 0, length
    Common::StoreLE16(&body[4], static_cast<std::uint16_t>(length + 2));  // print name behind a 0 character
    if (symlink) {
        unsigned char word[4];
        Common::StoreLE32(word, flags);
        body.insert(body.end(), word, word + 4);
    }
    body.insert(body.end(), names.begin(), names.end());
    body.insert(body.end(), {0, 0});
    std::vector<unsigned char> data(8, 0);
    Common::StoreLE32(&data[0], tag);
    Common::StoreLE16(&data[4], static_cast<std::uint16_t>(body.size()));
    data.insert(data.end(), body.begin(), body.end());
    std::string hex = "0x";
    for (unsigned char b : data) {
        char pair[3];
        std::snprintf(pair, sizeof(pair), "%02x", b);
        hex += pair;
    }
    return hex;
}

// The volume of every test, made once, and what ntfs-3g listed of it.
struct Content {
    std::vector<unsigned char> image;
    std::map<std::string, SeenListing> listings;  // by directory, "" for the root
    std::vector<unsigned char> hello_acl;
    std::string big_bin;
};

const char* const kListed[] = {"", "big", "deep", "links", "twins", "sub"};

std::string DeepName(int i) {
    char head[16];
    std::snprintf(head, sizeof(head), "n%03d_", i);
    return head + std::string(240, 'x');
}

// UTF-8 to UTF-16 with surrogate pairs, which names beyond the BMP need.
std::u16string Utf16Of(const std::string& text) {
    std::u16string out;
    for (std::size_t i = 0; i < text.size();) {
        const auto lead = static_cast<unsigned char>(text[i]);
        const std::size_t length = lead < 0x80 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
        std::uint32_t code = length == 1 ? lead : lead & (0x7F >> length);
        for (std::size_t k = 1; k < length && i + k < text.size(); ++k) code = (code << 6) | (text[i + k] & 0x3F);
        if (code >= 0x10000) {
            out += static_cast<char16_t>(0xD800 + ((code - 0x10000) >> 10));
            out += static_cast<char16_t>(0xDC00 + ((code - 0x10000) & 0x3FF));
        } else {
            out += static_cast<char16_t>(code);
        }
        i += length;
    }
    return out;
}

SeenListing ParseListing(const std::string& text) {
    SeenListing listing;
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        std::size_t a = line.find('|'), b = line.find('|', a + 1), c = line.find('|', b + 1);
        if (c == std::string::npos) continue;
        listing[Utf16Of(line.substr(c + 1))] = {line[0], std::stoull(line.substr(a + 1, b - a - 1)),
                                                static_cast<std::uint32_t>(std::stoul(line.substr(b + 1, c - b - 1)))};
    }
    return listing;
}

std::vector<unsigned char> ParseHex(const std::string& text) {
    std::vector<unsigned char> bytes;
    std::size_t at = text.find("=0x");
    if (at == std::string::npos) return bytes;
    for (at += 3; at + 1 < text.size() && std::isxdigit(static_cast<unsigned char>(text[at])); at += 2) {
        bytes.push_back(static_cast<unsigned char>(std::stoi(text.substr(at, 2), nullptr, 16)));
    }
    return bytes;
}

Content MakeContent() {
    Content made;
    TestSupport::TempFolder folder;
    const std::string root = folder.Path();
    const std::string mnt = root + "/mnt";
    made.big_bin = TestSupport::Pattern(10000, 3);
    folder.Write("big.bin", made.big_bin);
    std::string script =
        "set -e; cd '" + root +
        "'; truncate -s 64M volume.img; mkntfs -F -f -q volume.img; mkdir mnt;"
        " ntfs-3g volume.img mnt; cd mnt;"
        " printf 'hello ntfs\\n' > hello.txt; cp ../big.bin big.bin;"
        " printf x > 'long file name.txt';"
        " setfattr -n system.ntfs_dos_name -v 'LONGFI~1.TXT' 'long file name.txt';"
        " : > 'ñandú.txt'; : > '日本語'; printf e > 'emoji 😀.txt';"
        " mkdir big deep links twins sub reparse;"
        " printf link > links/a; ln links/a links/b; ln links/a sub/c; : > sub/plain;"
        " printf lower > twins/readme; printf upper > twins/README;"
        " for i in $(seq 0 2999); do printf -v f 'big/file_%04d.txt' $i; printf \"%$((i % 97))s\" '' > $f; done;";
    for (int i = 0; i < 300; ++i) script += " : > deep/" + DeepName(i) + ";";
    struct Point {
        const char* name;
        bool directory;
        std::uint32_t tag;
        std::u16string substitute;
        bool symlink;
        std::uint32_t flags;
    };
    const Point points[] = {
        {"j1", true, 0xA0000003, u"\\??\\C:", false, 0},
        {"j2", true, 0xA0000003, u"\\??\\C:\\data", false, 0},
        {"j3", true, 0xA0000003, u"\\??\\Volume{x}\\data", false, 0},
        {"s1", false, 0xA000000C, u"sub\\file", true, 1},
        {"s2", false, 0xA000000C, u"C:\\abs", true, 0},
        {"s3", false, 0xA000000C, u"\\??\\D:\\x", true, 0},
        {"u1", false, 0x80000017, u"abcd", false, 0},
    };
    for (const Point& p : points) {
        script += std::string(p.directory ? " mkdir" : " touch") + " reparse/" + p.name +
                  "; setfattr -n system.ntfs_reparse_data -v " + ReparseHex(p.tag, p.substitute, p.symlink, p.flags) +
                  " reparse/" + p.name + ";";
    }
    for (const char* dir : kListed) {
        script += std::string(" find ./") + dir + " -mindepth 1 -maxdepth 1 -printf '%y|%s|%n|%f\\n' > ../list_" +
                  (*dir ? dir : "root") + ".txt;";
    }
    script += " getfattr -n system.ntfs_acl -e hex hello.txt > ../acl.txt; cd ..; umount mnt";
    folder.Write("make.sh", script);
    if (TestSupport::RunQuietly("bash '" + root + "/make.sh'") != 0) {
        TestSupport::RunQuietly("umount '" + mnt + "'");
        return made;
    }
    for (const char* dir : kListed) {
        made.listings[dir] = ParseListing(folder.Read(std::string("list_") + (*dir ? dir : "root") + ".txt"));
    }
    made.hello_acl = ParseHex(folder.Read("acl.txt"));
    made.image = TestSupport::LoadFile(root + "/volume.img");
    return made;
}

const Content& TheContent() {
    static const Content content = MakeContent();
    return content;
}

class NtfsDirectoryTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (TheContent().image.empty()) GTEST_SKIP() << "mkntfs or ntfs-3g over FUSE isn't available";
    }
    static std::vector<unsigned char> Image() { return TheContent().image; }
    // The iterator object under a reference of the framework.
    static FileSystemDriver::IteratorReference* Reference(i_dir::iterator* walk) {
        return dynamic_cast<FileSystemDriver::IteratorReference*>(walk);
    }
};

std::uint32_t KindClassOf(char type) { return type == 'd' ? KIND_DIRECTORY : KIND_FILE; }

TEST_F(NtfsDirectoryTest, ListingsEqualWhatNtfs3gLists) {
    Volume volume(DiskOf(Image()));
    ASSERT_NE(volume.driver, nullptr);
    for (const char* dir : kListed) {
        SCOPED_TRACE(dir);
        const std::u16string path = utf8_to_utf16(dir);
        std::map<std::u16string, std::uint32_t> kinds, expected_kinds;
        std::map<std::u16string, std::uint64_t> sizes, expected_sizes;
        TestSupport::Listing listing = volume.list(path);
        EXPECT_EQ(listing.error, 0u);
        for (const auto& [name, seen] : TheContent().listings.at(dir)) {
            expected_kinds[name] = KindClassOf(seen.type);
            if (seen.type == 'f') expected_sizes[name] = seen.size;
        }
        for (const auto& [name, entry] : listing.entries) {
            kinds[name] = entry.kind;
            if (entry.kind == KIND_FILE) sizes[name] = entry.size;
        }
        // ntfs-3g hides the system files and the DOS names too, and shows
        // the reparse points, which get their own test, as links.
        kinds.erase(u"reparse");
        expected_kinds.erase(u"reparse");
        EXPECT_EQ(kinds, expected_kinds);
        EXPECT_EQ(sizes, expected_sizes);
    }
    EXPECT_EQ(TheContent().listings.at("big").size(), 3000u);
}

TEST_F(NtfsDirectoryTest, LookupsIgnoreCase) {
    Volume volume(DiskOf(Image()));
    ASSERT_NE(volume.driver, nullptr);
    const std::string deep = DeepName(123);
    std::string deep_upper = deep;
    for (char& c : deep_upper) c = static_cast<char>(std::toupper(c));
    const struct {
        std::u16string path;
        std::string contents;
    } rows[] = {
        {u"hello.txt", "hello ntfs\n"},
        {u"HELLO.TXT", "hello ntfs\n"},
        {u"Long File Name.TXT", "x"},
        {u"longfi~1.txt", "x"},
        {u"ÑANDÚ.TXT", ""},
        {u"EMOJI 😀.TXT", "e"},
        {u"BIG\\FILE_2999.TXT", std::string(2999 % 97, ' ')},
        {u"big\\File_0000.txt", ""},
        {u"Big\\file_1500.TXT", std::string(1500 % 97, ' ')},
        {u"DEEP\\" + utf8_to_utf16(deep_upper), ""},
        {u"LINKS\\B", "link"},
        {u"SUB\\C", "link"},
        {u"big.bin", TheContent().big_bin},
    };
    for (const auto& row : rows) EXPECT_EQ(volume.read(row.path), row.contents) << utf16_to_utf8(row.path);
    EXPECT_EQ(volume.read(u"big\\file_3000.txt"), "<open failed>");
    EXPECT_EQ(volume.read(u"nowhere\\hello.txt"), "<open failed>");
    // A directory isn't a file, and a file isn't a directory.
    EXPECT_EQ(volume.read(u"big"), "<open failed>");
    EXPECT_EQ(volume.list(u"hello.txt").error, Common::FILE_OPEN);
}

TEST_F(NtfsDirectoryTest, EntriesTellLinksShortNamesAndSectors) {
    Volume volume(DiskOf(Image()));
    ASSERT_NE(volume.driver, nullptr);
    const auto& root_seen = TheContent().listings.at("");
    const struct {
        std::u16string dir, name;
        std::uint32_t links;
        std::u16string short_name;
    } rows[] = {
        {u"links", u"a", TheContent().listings.at("links").at(u"a").links, u""},
        {u"sub", u"c", TheContent().listings.at("sub").at(u"c").links, u""},
        {u"sub", u"plain", 1, u""},
        {u"", u"hello.txt", root_seen.at(u"hello.txt").links, u""},
        // ntfs-3g counts the DOS name as a link of its own; the pair is one.
        {u"", u"long file name.txt", 1, u"LONGFI~1.TXT"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(utf16_to_utf8(row.name));
        std::unique_ptr<rio_dir> opened(row.dir.empty() ? nullptr : volume.root->open_dir(row.dir.c_str()));
        rio_dir* dir = row.dir.empty() ? volume.root.get() : opened.get();
        std::unique_ptr<i_dir::iterator> entry(dir->find(row.name.c_str()));
        ASSERT_TRUE(entry != nullptr && !entry->failed());
        EXPECT_EQ(entry->name(), row.name);
        EXPECT_EQ(entry->links(), row.links);
        EXPECT_EQ(entry->short_name(), row.short_name);
    }
    EXPECT_EQ(TheContent().listings.at("links").at(u"a").links, 3u);

    // The first sector of a file in clusters holds its first bytes; a value
    // in the record has none.
    std::unique_ptr<i_dir::iterator> big(volume.root->find(u"big.bin"));
    const std::uint64_t sector = Reference(big.get())->entry()->first_sector();
    ASSERT_NE(sector, 0u);
    EXPECT_EQ(std::memcmp(&volume.disk->bytes[sector * 512], TheContent().big_bin.data(), 512), 0);
    std::unique_ptr<i_dir::iterator> hello(volume.root->find(u"HELLO.txt"));
    EXPECT_EQ(Reference(hello.get())->entry()->first_sector(), 0u);
    EXPECT_EQ(hello->size(), 11u);
    EXPECT_EQ(hello->kind(), KIND_FILE);
    EXPECT_FALSE(hello->hidden());
    EXPECT_EQ(hello->attributes() & 0x10, 0u);
    std::unique_ptr<i_dir::iterator> big_dir(volume.root->find(u"BIG"));
    EXPECT_EQ(big_dir->kind(), KIND_DIRECTORY);
    EXPECT_EQ(big_dir->attributes() & 0x10000010, 0x10u);
    // The times are those of the file, a little before the test ran.
    EXPECT_GT(hello->modified(), 1600000000000);
    EXPECT_GE(hello->modified(), hello->created());
}

TEST_F(NtfsDirectoryTest, TwinsInCaseAreBothListedAndFoundByIdentifier) {
    Volume volume(DiskOf(Image()));
    ASSERT_NE(volume.driver, nullptr);
    std::unique_ptr<rio_dir> twins(volume.root->open_dir(u"twins"));
    ASSERT_TRUE(twins != nullptr && !twins->failed());
    std::map<std::u16string, std::string> contents;
    std::unique_ptr<i_dir::iterator> walk(twins->begin());
    while (walk != nullptr && !walk->failed()) {
        std::unique_ptr<file_identifier> id(walk->identifier());
        std::unique_ptr<i_dir::iterator> again(twins->find(*id));
        ASSERT_TRUE(again != nullptr && !again->failed());
        EXPECT_EQ(again->name(), walk->name());
        std::unique_ptr<ri_file> file(twins->open_file(*id, true));
        ASSERT_TRUE(file != nullptr && !file->failed());
        char text[16] = {};
        std::uint64_t got = 0;
        file->read(text, sizeof(text), got);
        contents[walk->name()] = std::string(text, got);
        if (!walk->next()) break;
    }
    const std::map<std::u16string, std::string> expected = {{u"README", "upper"}, {u"readme", "lower"}};
    EXPECT_EQ(contents, expected);
    // A lookup by name gives one of them.
    const std::string any = volume.read(u"twins\\ReadMe");
    EXPECT_TRUE(any == "upper" || any == "lower") << any;

    NTFSDriver& driver = *volume.driver;
    const struct {
        const char16_t *a, *b;
        int sign;
    } order[] = {{u"readme", u"README", 0}, {u"a", u"B", -1}, {u"b", u"A", 1}, {u"ab", u"A", 1}, {u"ñ", u"Ñ", 0}};
    for (const auto& row : order) {
        the_identifier a(row.a, "k", 1), b(row.b, "k", 1);
        const int result = driver.compare_identifiers(a, b);
        EXPECT_EQ((result > 0) - (result < 0), row.sign) << utf16_to_utf8(row.a) << " " << utf16_to_utf8(row.b);
    }
}

TEST_F(NtfsDirectoryTest, ReparsePointsGiveKindsAndTargets) {
    Volume volume(DiskOf(Image()));
    ASSERT_NE(volume.driver, nullptr);
    const struct {
        std::u16string name;
        std::uint32_t kind;
        std::u16string target;
        std::uint32_t error;
    } rows[] = {
        {u"j1", 150, u"C:\\", 0},
        {u"j2", 150, u"C:\\data", 0},
        {u"j3", 150, u"\\\\?\\Volume{x}\\data", 0},
        {u"s1", KIND_SYMLINK, u"sub\\file", 0},
        {u"s2", KIND_SYMLINK, u"", Common::FILE_OPEN},
        {u"s3", KIND_SYMLINK, u"D:\\x", 0},
        {u"u1", KIND_FILE, u"", Common::FILE_OPEN},
    };
    std::unique_ptr<rio_dir> reparse(volume.root->open_dir(u"reparse"));
    ASSERT_TRUE(reparse != nullptr && !reparse->failed());
    for (const auto& row : rows) {
        SCOPED_TRACE(utf16_to_utf8(row.name));
        std::unique_ptr<i_dir::iterator> entry(reparse->find(row.name.c_str()));
        ASSERT_TRUE(entry != nullptr && !entry->failed());
        EXPECT_EQ(entry->kind(), row.kind);
        EXPECT_EQ(entry->link_target(), row.target);
        EXPECT_EQ(entry->failed() ? entry->error().Code() : 0u, row.error);
    }
    std::unique_ptr<i_dir::iterator> plain(volume.root->find(u"hello.txt"));
    EXPECT_EQ(plain->link_target(), u"");
    EXPECT_FALSE(plain->failed());
}

TEST_F(NtfsDirectoryTest, SecurityIsWhatNtfs3gStored) {
    Volume volume(DiskOf(Image()));
    ASSERT_NE(volume.driver, nullptr);
    ASSERT_FALSE(TheContent().hello_acl.empty());
    std::unique_ptr<i_dir::iterator> hello(volume.root->find(u"hello.txt"));
    FileSystemDriver::IteratorReference* reference = Reference(hello.get());
    ASSERT_NE(reference, nullptr);
    const std::uint32_t size = reference->security(nullptr);
    ASSERT_EQ(size, TheContent().hello_acl.size());
    std::vector<unsigned char> descriptor(size);
    EXPECT_EQ(reference->security(descriptor.data()), size);
    EXPECT_EQ(descriptor, TheContent().hello_acl);
}

// ntfs-3g files each reparse point under (tag, file reference) in $Reparse,
// and its descriptors in $Secure; the system indexes must agree.
TEST_F(NtfsDirectoryTest, SystemIndexesAgreeWithTheDirectories) {
    Volume volume(DiskOf(Image()));
    ASSERT_NE(volume.driver, nullptr);
    ASSERT_NE(volume.driver->reparse_file, nullptr);
    ntfs::ReparseIndex* reparse = volume.driver->reparse_file->index();
    ASSERT_NE(reparse, nullptr);
    std::map<std::uint64_t, std::uint32_t> indexed, listed;  // record to tag
    ntfs::IndexCursor cursor;
    for (bool placed = reparse->first(cursor); placed; placed = reparse->next(cursor)) {
        const unsigned char* key = ntfs::KeyOf(cursor.position.entry);
        indexed[ntfs::RecordNumberOf(Common::LoadLE64(key + 4))] = Common::LoadLE32(key);
    }
    std::unique_ptr<rio_dir> dir(volume.root->open_dir(u"reparse"));
    std::unique_ptr<i_dir::iterator> walk(dir->begin());
    while (walk != nullptr && !walk->failed()) {
        auto* entry = dynamic_cast<ntfs::NTFSIterator*>(Reference(walk.get())->entry());
        ASSERT_NE(entry, nullptr);
        listed[walk->object_id()] = entry->key().reparse_tag();
        ntfs::IndexCursor found;
        EXPECT_TRUE(reparse->find({entry->key().reparse_tag(), static_cast<std::uint32_t>(entry->reference()),
                                   static_cast<std::uint32_t>(entry->reference() >> 32)},
                                  found));
        if (!walk->next()) break;
    }
    EXPECT_EQ(listed.size(), 7u);
    EXPECT_EQ(indexed, listed);
    ASSERT_NE(volume.driver->objid_file, nullptr);
    EXPECT_NE(volume.driver->objid_file->index(), nullptr);

    ASSERT_NE(volume.driver->secure_file, nullptr);
    EXPECT_EQ(RaisedCode([&] { volume.driver->secure_file->descriptor(0xFFFFFF); }), Common::FILE_NOT_FOUND);
    // A file without a descriptor of its own gets one whose owner is the
    // administrators, as the one ntfs-3g gave hello.txt.
    const std::vector<unsigned char> built_in = ntfs::BuiltInDescriptor();
    const std::vector<unsigned char>& stored = TheContent().hello_acl;
    ASSERT_EQ(built_in.size(), 100u);
    ASSERT_GE(stored.size(), 20u);
    const std::uint32_t owner = Common::LoadLE32(&built_in[4]), stored_owner = Common::LoadLE32(&stored[4]);
    ASSERT_LE(owner + 16, built_in.size());
    ASSERT_LE(stored_owner + 16, stored.size());
    EXPECT_TRUE(std::equal(&built_in[owner], &built_in[owner + 16], &stored[stored_owner]));
    EXPECT_EQ(Common::LoadLE16(&built_in[2]), Common::LoadLE16(&stored[2]));
}

TEST_F(NtfsDirectoryTest, SystemFilesHideUntilAsked) {
    Volume volume(DiskOf(Image()));
    ASSERT_NE(volume.driver, nullptr);
    struct {
        std::uint32_t request;
        std::uint8_t set, value;
    } block = {0x52505953, 1, 0};
    EXPECT_EQ(volume.read(u"$MFT"), "<open failed>");
    EXPECT_EQ(volume.read(u"$UpCase"), "<open failed>");
    volume.driver->control(&block);
    EXPECT_EQ(volume.read(u"$UpCase").size(), 131072u);
    EXPECT_NE(volume.read(u"$MFT"), "<open failed>");
    // Listings leave them out all the same.
    EXPECT_EQ(volume.list(u"").entries.count(u"$MFT"), 0u);
    block.value = 1;
    volume.driver->control(&block);
    EXPECT_EQ(volume.read(u"$UpCase"), "<open failed>");
}

TEST_F(NtfsDirectoryTest, RecordFilterHidesItsRecords) {
    std::uint64_t hidden_record = 0;
    {
        Volume volume(DiskOf(Image()));
        ASSERT_NE(volume.driver, nullptr);
        hidden_record = std::unique_ptr<i_dir::iterator>(volume.root->find(u"hello.txt"))->object_id();
    }
    ASSERT_GE(hidden_record, 16u);
    std::vector<unsigned char> filter(8192, 0xFF);
    filter[hidden_record / 8] &= static_cast<unsigned char>(~(1u << (hidden_record % 8)));
    Volume volume(DiskOf(Image()), filter.data(), filter.size() * 8);
    ASSERT_NE(volume.driver, nullptr);
    TestSupport::Listing listing = volume.list(u"");
    EXPECT_EQ(listing.entries.count(u"hello.txt"), 0u);
    EXPECT_EQ(listing.entries.count(u"big.bin"), 1u);
    EXPECT_EQ(volume.read(u"hello.txt"), "<open failed>");
    EXPECT_EQ(volume.read(u"long file name.txt"), "x");
}

TEST_F(NtfsDirectoryTest, ChangesOnAVolumeHeldReadOnlyAreRefusedAndLeaveIt) {
    const std::vector<unsigned char> every_record(8192, 0xFF);
    Volume volume(DiskOf(Image()), every_record.data(), every_record.size() * 8);
    ASSERT_NE(volume.driver, nullptr);
    FileSystemDriver::DirectoryObject* root = volume.driver->get_object(0);
    const std::vector<std::function<void()>> changes = {
        [&] { root->create_file(u"new.txt"); },
        [&] { root->create_file(u"hello.txt"); },
        [&] { root->remove_file(u"hello.txt"); },
        [&] { root->remove_directory_entry(u"sub"); },
        [&] { root->make_directory(u"made"); },
        [&] { root->rename_entry(u"hello.txt", *root, u"renamed.txt"); },
        [&] { root->link_entry(u"hello.txt", *root, u"linked.txt"); },
        [&] { root->symlink_entry(u"sym", u"hello.txt"); },
        [&] { root->set_attributes(u"hello.txt", 2); },
        [&] { root->set_short_name(u"hello.txt", u"HELLO~1.TXT"); },
        [&] { root->set_security(u"hello.txt", "x", 1); },
    };
    for (std::size_t i = 0; i < changes.size(); ++i) EXPECT_EQ(RaisedCode(changes[i]), Common::FILE_READ_ONLY) << i;
    EXPECT_EQ(RaisedCode([&] { volume.driver->get_object(NTFSDriver::DirectoryIdOfRecord(9)); }),
              Common::FILE_NOT_FOUND);
    EXPECT_EQ(RaisedCode([&] { root->lookup_directory(u"hello.txt"); }), Common::FILE_OPEN);
    EXPECT_EQ(RaisedCode([&] { root->lookup_directory(u"$Extend"); }), Common::FILE_OPEN);
    EXPECT_EQ(RaisedCode([&] { root->lookup_directory(u"absent"); }), Common::FILE_NOT_FOUND);
    volume.unmount();
    EXPECT_TRUE(volume.disk->bytes == Image());
}

// --- damage ---

bool InStrideTail(std::size_t at, std::size_t length) {
    for (std::size_t i = at; i < at + length; ++i) {
        if (i % kStride >= kStride - 2) return true;
    }
    return false;
}

std::string Utf16Bytes(const std::u16string& text) {
    std::string bytes;
    for (char16_t c : text) bytes += {static_cast<char>(c & 0xFF), static_cast<char>(c >> 8)};
    return bytes;
}

// The offset of the index entry of `name` in an index buffer of the image,
// with its length field clear of the fixup words; 0 when there is none.
std::size_t IndexEntryOf(const std::vector<unsigned char>& image, const std::u16string& name) {
    const std::string haystack(image.begin(), image.end());
    const std::string needle = Utf16Bytes(name);
    for (std::size_t at = haystack.find(needle); at != std::string::npos; at = haystack.find(needle, at + 1)) {
        const std::size_t entry = at - 16 - ntfs::FileNameValue::kNameOffset;
        const std::size_t block = entry / kIndexBlock * kIndexBlock;
        // Splits leave stale copies of entries behind the end of a node.
        const bool live = entry < block + 24 + Common::LoadLE32(&image[block + 28]);
        if (std::memcmp(&image[block], "INDX", 4) == 0 && live && !InStrideTail(entry + 8, 2)) return entry;
    }
    return 0;
}

// The offset of the resident value of attribute `type` in the MFT record
// whose first $FILE_NAME is `name`; 0 when there is none.
std::size_t RecordValueOf(const std::vector<unsigned char>& image, const std::u16string& name, std::uint32_t type) {
    for (std::size_t record = 0; record + 1024 <= image.size(); record += 1024) {
        if (std::memcmp(&image[record], "FILE", 4) != 0) continue;
        std::size_t named = 0, wanted = 0;
        for (std::size_t at = record + Common::LoadLE16(&image[record + 20]); at + 24 <= record + 1024;) {
            const std::uint32_t attribute = Common::LoadLE32(&image[at]);
            const std::uint32_t length = Common::LoadLE32(&image[at + 4]);
            if (attribute == 0xFFFFFFFF || length < 16 || at + length > record + 1024) break;
            const std::size_t value = at + Common::LoadLE16(&image[at + 20]);
            if (attribute == ntfs::kFileName && named == 0 && image[value + 64] == name.size() &&
                std::memcmp(&image[value + 66], Utf16Bytes(name).data(), 2 * name.size()) == 0) {
                named = value;
            }
            if (attribute == type && image[at + 8] == 0) wanted = value;
            at += length;
        }
        if (named != 0 && wanted != 0) return wanted;
    }
    return 0;
}

// An inner index buffer of the deep directory: the offset of its first
// entry's sub-node VCN, and the buffer's own VCN.
bool InnerBufferLoop(const std::vector<unsigned char>& image, std::size_t& vcn_at, std::uint64_t& own) {
    const std::string needle = Utf16Bytes(std::u16string(20, u'x'));
    for (std::size_t at = 0; at + kIndexBlock <= image.size(); at += kIndexBlock) {
        if (std::memcmp(&image[at], "INDX", 4) != 0 || (image[at + 36] & 1) == 0) continue;
        if (std::string(image.begin() + at, image.begin() + at + kIndexBlock).find(needle) == std::string::npos) {
            continue;
        }
        for (std::size_t entry = at + 24 + Common::LoadLE32(&image[at + 24]);;) {
            const std::uint16_t length = Common::LoadLE16(&image[entry + 8]);
            if (!InStrideTail(entry + length - 8, 8)) {
                vcn_at = entry + length - 8;
                own = Common::LoadLE64(&image[at + 16]);
                return true;
            }
            if ((image[entry + 12] & 2) != 0 || InStrideTail(entry + 8, 2)) break;
            entry += length;
        }
    }
    return false;
}

TEST_F(NtfsDirectoryTest, DamagedIndexesAreCorrupt) {
    const std::string deep = DeepName(5);
    const struct {
        const char* what;
        std::u16string dir;
        std::function<bool(std::vector<unsigned char>&)> damage;
    } rows[] = {
        {"entry length 0", u"big",
         [](std::vector<unsigned char>& image) {
             const std::size_t entry = IndexEntryOf(image, u"file_1500.txt");
             if (entry == 0) return false;
             Common::StoreLE16(&image[entry + 8], 0);
             return true;
         }},
        {"entry longer than its node", u"big",
         [](std::vector<unsigned char>& image) {
             const std::size_t entry = IndexEntryOf(image, u"file_2000.txt");
             if (entry == 0) return false;
             Common::StoreLE16(&image[entry + 8], 0xFFF8);
             return true;
         }},
        {"key longer than its entry", u"big",
         [](std::vector<unsigned char>& image) {
             const std::size_t entry = IndexEntryOf(image, u"file_0700.txt");
             if (entry == 0 || InStrideTail(entry + 10, 2)) return false;
             Common::StoreLE16(&image[entry + 10], 0x400);
             return true;
         }},
        // Finding an inner buffer also shows that the deep index has three levels.
        {"sub-node that is itself", u"deep",
         [](std::vector<unsigned char>& image) {
             std::size_t vcn_at = 0;
             std::uint64_t own = 0;
             if (!InnerBufferLoop(image, vcn_at, own)) return false;
             Common::StoreLE64(&image[vcn_at], own);
             return true;
         }},
        {"collation 2 in the root", u"twins",
         [](std::vector<unsigned char>& image) {
             const std::size_t root = RecordValueOf(image, u"twins", ntfs::kIndexRoot);
             if (root == 0 || InStrideTail(root + 4, 4)) return false;
             Common::StoreLE32(&image[root + 4], 2);
             return true;
         }},
        {"a sub-node flag where the root has none", u"twins",
         [](std::vector<unsigned char>& image) {
             const std::size_t root = RecordValueOf(image, u"twins", ntfs::kIndexRoot);
             if (root == 0 || InStrideTail(root + 16 + 16 + 12, 1)) return false;
             image[root + 16 + Common::LoadLE32(&image[root + 16]) + 12] |= 1;
             return true;
         }},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        std::vector<unsigned char> image = Image();
        ASSERT_TRUE(row.damage(image));
        Volume volume(DiskOf(image));
        ASSERT_NE(volume.driver, nullptr);
        EXPECT_EQ(volume.list(row.dir).error, Common::FILE_CORRUPT);
        // The rest of the volume still reads.
        EXPECT_EQ(volume.read(u"hello.txt"), "hello ntfs\n");
    }
}

}  // namespace
