// HFS+ directories, files and iterators over volumes that xorriso's HFS+
// writer and mkfs.hfsplus make: listings equal to what sleuthkit's fls
// lists, contents as they were put, what an entry answers of its record,
// the journal's files left out of listings but found by name, valences
// that lie, every change refused with the volume untouched, and the hard
// and symbolic links of volumes that the Linux driver filled.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
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
#include "fsdriver/file_object.h"
#include "fsdriver/iterator_object.h"
#include "hfsplus/hfsplus_driver.h"
#include "hfsplus/hfsplus_file.h"
#include "loader/common/byte_order.h"
#include "loader/common/error_codes.h"
#include "tests/support/raised_code.h"
#include "tests/support/shell.h"
#include "tests/support/temp_folder.h"
#include "tests/support/volume_fixture.h"

namespace {

using hfsplus::HFSPlusDriver;
using TestSupport::DiskOf;
using TestSupport::Pattern;
using TestSupport::RaisedCode;
using Volume = TestSupport::Volume<HFSPlusDriver, TryHFSPlusDriver>;
using Iterator = std::unique_ptr<FileSystemDriver::IteratorObject>;

constexpr std::uint32_t kBlock = 2048;  // xorriso's hfsplus_block_size below
constexpr int kManyFiles = 300;         // enough for several catalog leaves
constexpr std::int64_t kHelloTime = 1330837568000;  // 2012-03-04 05:06:08 UTC in ms

// UTF-8 as the volume stores names: UTF-16, with surrogate pairs beyond
// the BMP, which the shared decoder doesn't make.
std::u16string Utf16Of(const std::string& text) {
    std::u16string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto lead = static_cast<unsigned char>(text[i]);
        if (lead < 0xF0 || i + 3 >= text.size()) {
            const std::size_t length = lead < 0x80 ? 1 : lead < 0xE0 ? 2 : 3;
            out += utf8_to_utf16(text.substr(i, length));
            i += length - 1;
            continue;
        }
        const std::uint32_t code = ((lead & 7u) << 18 | (text[i + 1] & 0x3Fu) << 12 | (text[i + 2] & 0x3Fu) << 6 |
                                    (text[i + 3] & 0x3Fu)) - 0x10000;
        out += {static_cast<char16_t>(0xD800 + (code >> 10)), static_cast<char16_t>(0xDC00 + (code & 0x3FF))};
        i += 3;
    }
    return out;
}

// One entry as fls lists it: its type letter and catalog node id.
struct Seen {
    char type;
    std::uint32_t id;
};

struct Content {
    std::vector<unsigned char> image;                         // the Apple_HFS partition alone
    std::map<std::string, std::map<std::u16string, Seen>> listed;  // by folder, "" for the root
    std::map<std::string, std::string> files;                 // path to the bytes put there
};

// The Apple_HFS partition of xorriso's Apple partition map.
std::vector<unsigned char> HfsPartition(const std::vector<unsigned char>& iso) {
    if (iso.size() < 4 || iso[0] != 'E' || iso[1] != 'R') return {};
    const std::size_t unit = Common::LoadBE16(&iso[2]);
    for (std::size_t at = unit; unit != 0 && at + 80 <= iso.size() && iso[at] == 'P' && iso[at + 1] == 'M'; at += unit) {
        if (std::strncmp(reinterpret_cast<const char*>(&iso[at + 48]), "Apple_HFS", 32) != 0) continue;
        const std::size_t start = Common::LoadBE32(&iso[at + 8]) * unit, size = Common::LoadBE32(&iso[at + 12]) * unit;
        if (start + size > iso.size()) return {};
        return std::vector<unsigned char>(iso.begin() + start, iso.begin() + start + size);
    }
    return {};
}

Content MakeContent() {
    Content made;
    TestSupport::TempFolder folder;
    const std::string root = folder.Path();
    made.files = {{"hello.txt", "hello hfs\n"}, {"sub/big.bin", Pattern(100000, 1)},
                  {"sub/deeper/d.txt", "deep"}, {".dotfile", "dot"}, {"caf\xC3\xA9.txt", "e"},
                  {"emoji \xF0\x9F\x98\x80.txt", "smile"}};
    std::string script = "set -e; cd '" + root + "'; mkdir -p tree/sub/deeper tree/empty tree/many;";
    for (int i = 0; i < kManyFiles; ++i) {
        char name[32];
        std::snprintf(name, sizeof(name), "many/f%03d", i);
        made.files[name] = std::string(i % 7, 'm');
    }
    for (const auto& [path, bytes] : made.files) folder.Write("tree/" + path, bytes);
    script += " chmod 640 tree/hello.txt; touch -d '2012-03-04 05:06:08 UTC' tree/hello.txt;"
              " xorriso -outdev x.iso -hfsplus on -boot_image any hfsplus_block_size=" + std::to_string(kBlock) +
              " -map tree /";
    folder.Write("make.sh", script);
    if (TestSupport::RunQuietly("bash '" + root + "/make.sh'") != 0) return made;
    const std::vector<unsigned char> partition = HfsPartition(TestSupport::LoadFile(root + "/x.iso"));
    if (partition.empty()) return made;
    const std::string image = root + "/h.img";
    TestSupport::StoreFile(image, partition);
    // xorriso leaves the free block count a little off; fsck mends it.
    for (int round = 0; round < 3 && TestSupport::RunQuietly("fsck.hfsplus -fn '" + image + "'") != 0; ++round) {
        TestSupport::RunQuietly("fsck.hfsplus -fy '" + image + "'");
    }
    if (TestSupport::RunQuietly("fsck.hfsplus -fn '" + image + "'") != 0) return made;
    std::istringstream lines(TestSupport::CaptureOutput("fls -f hfs -r -p -u '" + image + "'"));
    std::string line;
    while (std::getline(lines, line)) {
        const std::size_t colon = line.find(":\t");
        if (line.size() < 5 || colon == std::string::npos || line[4] == '$') continue;
        const std::string path = line.substr(colon + 2);
        if (path[0] == '$') continue;  // the special files
        const std::size_t slash = path.rfind('/');
        const std::string dir = slash == std::string::npos ? "" : path.substr(0, slash);
        made.listed[dir][Utf16Of(path.substr(slash + 1))] = {line[0], std::uint32_t(std::stoul(line.substr(4)))};
    }
    made.image = TestSupport::LoadFile(image);
    return made;
}

const Content& TheContent() {
    static const Content content = MakeContent();
    return content;
}

class HfsPlusDirectoryTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (TheContent().image.empty()) GTEST_SKIP() << "xorriso, fsck.hfsplus or fls isn't available";
    }
    static std::unique_ptr<Volume> Mount() {
        auto volume = std::make_unique<Volume>(DiskOf(TheContent().image));
        EXPECT_NE(volume->driver, nullptr);
        return volume;
    }
    static std::uint32_t IdOf(const std::string& dir, const std::u16string& name) {
        return TheContent().listed.at(dir).at(name).id;
    }
};

TEST_F(HfsPlusDirectoryTest, ListingsAndContentsAreWhatWasPut) {
    auto volume = Mount();
    ASSERT_NE(volume->driver, nullptr);
    // The paths as stored: UTF-16 with surrogate pairs, and decomposed, as
    // the format keeps names (xorriso decomposes "é").
    std::map<std::u16string, std::string> stored;
    for (const auto& [path, bytes] : TheContent().files) {
        std::u16string name = Utf16Of(path);
        if (name == u"caf\u00e9.txt") name = u"cafe\u0301.txt";
        stored[name] = bytes;
    }
    for (const char* dir : {"", "sub", "sub/deeper", "many"}) {
        SCOPED_TRACE(dir);
        const std::u16string prefix = *dir ? utf8_to_utf16(dir) + u"/" : u"";
        std::map<std::u16string, std::uint32_t> expected_kinds;
        std::map<std::u16string, std::uint64_t> expected_sizes;
        for (const auto& [name, seen] : TheContent().listed.at(dir)) {
            expected_kinds[name] = seen.type == 'd' ? KIND_DIRECTORY : KIND_FILE;
            auto put = stored.find(prefix + name);
            expected_sizes[name] = seen.type == 'd' ? ~0ull : put == stored.end() ? ~1ull : put->second.size();
        }
        const TestSupport::Listing listing = volume->list(prefix);
        EXPECT_EQ(listing.kinds(), expected_kinds);
        EXPECT_EQ(listing.sizes(), expected_sizes);
    }
    EXPECT_EQ(TheContent().listed.at("many").size(), std::size_t(kManyFiles));
    EXPECT_EQ(TheContent().listed.at("").count(u"cafe\u0301.txt"), 1u);
    // An empty folder has no first entry, and that is no failure.
    const TestSupport::Listing empty = volume->list(u"empty");
    EXPECT_TRUE(empty.entries.empty());
    EXPECT_EQ(empty.error, 0u);
    for (const auto& [path, bytes] : stored) EXPECT_TRUE(volume->read(path) == bytes) << utf16_to_utf8(path);
    EXPECT_TRUE(volume->read(u"sub/big.bin", 4095, 3000, 1) == TheContent().files.at("sub/big.bin").substr(4095, 3000));
    EXPECT_EQ(volume->read(u"caf\u00e9.txt"), "<open failed>");  // no normalisation of names
}

TEST_F(HfsPlusDirectoryTest, EntriesAnswerFromTheirRecords) {
    auto volume = Mount();
    ASSERT_NE(volume->driver, nullptr);
    FileSystemDriver::DirectoryObject* root = volume->driver->get_directory(u"/");
    FileSystemDriver::DirectoryObject* sub = volume->driver->get_directory(u"/sub");

    Iterator hello(root->find(u"hello.txt"));
    EXPECT_EQ(hello->name(), u"hello.txt");
    EXPECT_EQ(hello->size(), 10u);
    EXPECT_EQ(hello->allocated_size(), kBlock);
    EXPECT_EQ(hello->kind(), std::uint32_t(KIND_FILE));
    EXPECT_EQ(hello->modified(), kHelloTime);
    EXPECT_EQ(hello->object_id(), IdOf("", u"hello.txt"));
    EXPECT_EQ(hello->permissions(), 0100640u);
    EXPECT_FALSE(hello->hidden());
    EXPECT_EQ(hello->links(), 1u);
    unsigned char bsd[16] = {};
    EXPECT_EQ(hello->security(bsd), 16u);
    EXPECT_EQ(Common::LoadBE16(bsd + 10), 0100640);
    EXPECT_EQ(Common::LoadBE32(bsd) + Common::LoadBE32(bsd + 4), hello->owner() + hello->group());
    EXPECT_EQ(RaisedCode([&] { hello->device_major(); }), Common::FILE_UNSUPPORTED);
    EXPECT_EQ(RaisedCode([&] { hello->link_target(); }), Common::FILE_UNSUPPORTED);

    EXPECT_TRUE(Iterator(root->find(u".dotfile"))->hidden());
    Iterator folder(root->find(u"sub"));
    EXPECT_EQ(folder->kind(), std::uint32_t(KIND_DIRECTORY));
    EXPECT_EQ(folder->size(), 0u);
    EXPECT_EQ(folder->first_sector(), 0u);

    // The first sector holds the first bytes, and so does sector_at(0);
    // xorriso writes a file in one run.
    Iterator big(sub->find(u"big.bin"));
    const std::string& bytes = TheContent().files.at("sub/big.bin");
    const std::uint64_t first = big->first_sector();
    ASSERT_GT(first, 0u);
    EXPECT_EQ(std::memcmp(&volume->disk->bytes[first * 512], bytes.data(), 512), 0);
    FileSystemDriver::FileObject* file = sub->open_file(*big);
    EXPECT_EQ(file, sub->open_file(u"big.bin"));  // one object per file
    EXPECT_EQ(file->sector_at(0), first);
    EXPECT_EQ(file->sector_at(3 * kBlock + 513), first + 3 * (kBlock / 512) + 1);
    EXPECT_EQ(RaisedCode([&] { file->sector_at(bytes.size()); }), Common::FILE_SEEK);
    std::unique_ptr<file_identifier> identifier(big->identifier());
    EXPECT_EQ(sub->open_file(*identifier), file);
    delete file;
    Iterator again(sub->find(*identifier));
    EXPECT_EQ(again->object_id(), big->object_id());

    // Lookups that miss, and entries of the wrong kind.
    EXPECT_EQ(RaisedCode([&] { delete root->find(u"absent"); }), Common::FILE_NOT_FOUND);
    EXPECT_EQ(RaisedCode([&] { delete root->find(std::u16string(256, u'x')); }), Common::FILE_NOT_FOUND);
    EXPECT_EQ(RaisedCode([&] { root->lookup_directory(u"hello.txt"); }), Common::FILE_OPEN);
    EXPECT_EQ(RaisedCode([&] { delete root->open_file(u"sub"); }), Common::FILE_OPEN);

    // Past the end, the walk stops and every query raises FILE_EOF.
    Iterator walk(sub->begin());
    int steps = 1;
    while (walk->next()) ++steps;
    EXPECT_EQ(steps, 2);
    EXPECT_FALSE(walk->next());
    for (const std::function<void()>& query : std::vector<std::function<void()>>{
             [&] { walk->name(); }, [&] { walk->size(); }, [&] { walk->object_id(); }, [&] { walk->hidden(); }}) {
        EXPECT_EQ(RaisedCode(query), Common::FILE_EOF);
    }
}

TEST_F(HfsPlusDirectoryTest, ChangesAreRefusedAndNothingIsWritten) {
    // A bitmap given at the mount stands for the volume's own and holds it read only.
    const std::vector<unsigned char> bitmap(4096, 0xFF);
    for (const bool read_only : {false, true}) {
        SCOPED_TRACE(read_only ? "held read only" : "without a write path");
        // A volume whose header is software-locked is held read only too.
        const bool locked = (Common::LoadBE32(&TheContent().image[1024 + 4]) & 0x8000) != 0;
        const std::uint32_t refused = read_only || locked ? Common::FILE_READ_ONLY : Common::FILE_UNSUPPORTED;
        Volume volume(DiskOf(TheContent().image), read_only ? bitmap.data() : nullptr, read_only ? bitmap.size() : 0);
        ASSERT_NE(volume.driver, nullptr);
        FileSystemDriver::DirectoryObject* root = volume.driver->get_directory(u"/");
        FileSystemDriver::DirectoryObject* sub = volume.driver->get_directory(u"/sub");
        const std::uint64_t now = 1700000000000;
        const unsigned char security[16] = {};
        std::uint64_t written = 1;
        std::unique_ptr<FileSystemDriver::FileObject> file(root->open_file(u"hello.txt"));
        const std::vector<std::pair<const char*, std::function<void()>>> changes = {
            {"create_file", [&] { root->create_file(u"new.txt"); }},
            {"remove_file", [&] { root->remove_file(u"hello.txt"); }},
            {"remove_directory_entry", [&] { root->remove_directory_entry(u"empty"); }},
            {"make_directory", [&] { root->make_directory(u"made"); }},
            {"rename_entry", [&] { root->rename_entry(u"hello.txt", *sub, u"moved.txt"); }},
            {"link_entry", [&] { sub->link_entry(u"link", *root, u"hello.txt"); }},
            {"symlink_entry", [&] { root->symlink_entry(u"sym", u"hello.txt"); }},
            {"set_security", [&] { root->set_security(u"hello.txt", security, 16); }},
            {"set_permissions", [&] { root->set_permissions(u"hello.txt", 0600); }},
            {"set_owner", [&] { root->set_owner(u"hello.txt", 1, 1); }},
            {"set_times", [&] { root->set_times(u"hello.txt", now, now, now); }},
            {"refuse_if_unchangeable", [&] { volume.driver->refuse_if_unchangeable(); }},
            {"write", [&] { file->write("x", 0, 1, written); }},
            {"set_size", [&] { file->set_size(1); }},
            {"file set_times", [&] { file->set_times(now, now, now); }},
        };
        for (const auto& [what, change] : changes) EXPECT_EQ(RaisedCode(change), refused) << what;
        EXPECT_EQ(RaisedCode([&] { root->set_attributes(u"hello.txt", 1); }), Common::FILE_UNSUPPORTED);
        EXPECT_EQ(RaisedCode([&] { root->make_node(u"node", KIND_FIFO, 0644, 0, 0); }), Common::FILE_UNSUPPORTED);
        EXPECT_EQ(written, 0u);
        file.reset();
        // Through the framework the refusal is the first thing said.
        std::unique_ptr<rio_dir> framework_root(volume.driver->open_root());
        framework_root->make_dir(u"made");
        EXPECT_EQ(framework_root->error().Code(), refused);
        EXPECT_EQ(volume.read(u"hello.txt"), "hello hfs\n");
        framework_root.reset();
        EXPECT_EQ(volume.disk->writes(), 0u);
    }
}

// The valence of "many" as stored, and the record of hello.txt: patched,
// they must give FILE_CORRUPT, never a walk that runs on or a wrong answer.
TEST_F(HfsPlusDirectoryTest, DamagedRecordsEndInFileCorrupt) {
    const std::vector<unsigned char>& clean = TheContent().image;
    auto find_record = [&](std::uint16_t type, std::uint32_t id) -> std::size_t {
        for (std::size_t at = 0; at + 12 <= clean.size(); at += 2) {
            if (Common::LoadBE16(&clean[at]) == type && Common::LoadBE32(&clean[at + 8]) == id &&
                (type != 2 || Common::LoadBE32(&clean[at + 4]) == 0)) {
                return at;
            }
        }
        return 0;
    };
    const std::size_t many = find_record(1, IdOf("", u"many"));
    ASSERT_NE(many, 0u);
    ASSERT_EQ(Common::LoadBE32(&clean[many + 4]), std::uint32_t(kManyFiles));
    const struct {
        std::uint32_t valence;
        std::uint32_t listing_error;
    } valences[] = {{kManyFiles - 1, Common::FILE_CORRUPT}, {kManyFiles + 1, Common::FILE_CORRUPT},
                    {0xFFFFFFFF, Common::FILE_CORRUPT}, {1, Common::FILE_CORRUPT}, {kManyFiles, 0}};
    for (const auto& row : valences) {
        SCOPED_TRACE(row.valence);
        std::vector<unsigned char> bytes = clean;
        Common::StoreBE32(&bytes[many + 4], row.valence);
        Volume volume(DiskOf(bytes));
        ASSERT_NE(volume.driver, nullptr);
        EXPECT_EQ(volume.list(u"many").error, row.listing_error);
        // Finding the last child counts the children before it.
        FileSystemDriver::DirectoryObject* folder = volume.driver->get_directory(u"/many");
        EXPECT_EQ(RaisedCode([&] { delete folder->find(u"f299"); }), row.valence < kManyFiles ? row.listing_error : 0u);
    }

    // A first extent beyond the volume has no first sector.
    const std::size_t hello = find_record(2, IdOf("", u"hello.txt"));
    ASSERT_NE(hello, 0u);
    std::vector<unsigned char> bytes = clean;
    Common::StoreBE32(&bytes[hello + 88 + 16], 0xFFFFFFF0);  // dataFork.extents[0].startBlock
    Volume volume(DiskOf(bytes));
    ASSERT_NE(volume.driver, nullptr);
    Iterator entry(volume.driver->get_directory(u"/")->find(u"hello.txt"));
    EXPECT_EQ(RaisedCode([&] { entry->first_sector(); }), Common::FILE_CORRUPT);
    EXPECT_EQ(entry->size(), 10u);
}

// mkfs.hfsplus leaves the root empty but for the journal's two files,
// which a listing leaves out and a lookup finds.
TEST(HfsPlusDirectory, FreshVolumesListNothing) {
    for (const std::string options : {"", "-J", "-J -s"}) {
        SCOPED_TRACE(options);
        TestSupport::ImageFile image;
        // A journal needs 8 MiB at least, which mkfs gives from 128 MiB on.
        const std::string size = options.empty() ? "8M" : "128M";
        if (TestSupport::RunQuietly("truncate -s " + size + " '" + image.path + "' && mkfs.hfsplus " + options + " '" +
                                    image.path + "'") != 0) {
            GTEST_SKIP() << "mkfs.hfsplus isn't available";
        }
        const std::vector<unsigned char> before = image.bytes();
        Volume volume(image.path);
        ASSERT_NE(volume.driver, nullptr);
        const TestSupport::Listing listing = volume.list(u"");
        EXPECT_TRUE(listing.entries.empty() && listing.error == 0);
        FileSystemDriver::DirectoryObject* root = volume.driver->get_directory(u"/");
        for (const char16_t* name : {u".journal", u".journal_info_block"}) {
            std::unique_ptr<FileSystemDriver::IteratorObject> found;
            const std::uint32_t code = RaisedCode([&] { found.reset(root->find(name)); });
            EXPECT_EQ(code, options.empty() ? Common::FILE_NOT_FOUND : 0u);
            if (found) {
                EXPECT_TRUE(found->name() == name && found->kind() == KIND_FILE && found->hidden());
            }
        }
        volume.unmount();
        EXPECT_TRUE(image.bytes() == before);
    }
}

// The Linux hfsplus driver in a QEMU guest makes the hard and symbolic
// links (tests/images/hfsplus_guest); its volumes are cached in the build
// folder, or named by MORVANE_HFSPLUS_GUEST_IMAGES. The guest's manifest
// tells each entry as Linux read it back: "f PATH SIZE ...", "l PATH TARGET".
std::string GuestImages() {
    const char* named = std::getenv("MORVANE_HFSPLUS_GUEST_IMAGES");
    const std::string found = named != nullptr ? std::string(named) + "/complete"
                                               : TestSupport::CaptureOutput("ls hfsplus-images/*/complete | head -n 1");
    const std::size_t end = found.rfind("/complete");
    return end == std::string::npos || TestSupport::RunQuietly("test -f '" + found.substr(0, end + 9) + "'") != 0
               ? std::string()
               : found.substr(0, end);
}

// What follows "TYPE PATH " on the manifest's line of that entry.
std::string ManifestAfter(const std::string& manifest, char type, const std::string& path) {
    const std::string head = std::string(1, type) + " " + path + " ";
    const std::size_t at = manifest.find("\n" + head);
    if (at == std::string::npos) return std::string();
    return manifest.substr(at + 1 + head.size(), manifest.find('\n', at + 1) - at - 1 - head.size());
}

TEST(HfsPlusDirectory, LinksOfTheLinuxDriverLeadToTheirInodesAndTargets) {
    const std::string folder = GuestImages();
    if (folder.empty()) GTEST_SKIP() << "no volumes of the Linux guest: run tests/images/hfsplus_matrix.sh first";
    const std::string manifest = "\n" + std::string(TestSupport::CaptureOutput("cat '" + folder + "/b4096.manifest'"));
    Volume volume(DiskOf(folder + "/b4096.img"));
    ASSERT_NE(volume.driver, nullptr);
    {
        FileSystemDriver::DirectoryObject* root = volume.driver->get_directory(u"/");
        FileSystemDriver::DirectoryObject* links = volume.driver->get_directory(u"/links");

        // Symbolic links: their kind and target, as Linux read them.
        for (const char* name : {"absolute", "dangling", "relative link", "long target"}) {
            SCOPED_TRACE(name);
            Iterator entry(links->find(utf8_to_utf16(name)));
            EXPECT_EQ(entry->kind(), std::uint32_t(KIND_SYMLINK));
            EXPECT_EQ(utf16_to_utf8(entry->link_target()), ManifestAfter(manifest, 'l', std::string("links/") + name));
        }

        // Hard links: the inode's size, contents and link count; the link's own id.
        const std::string size = ManifestAfter(manifest, 'f', "links/big.bin");
        ASSERT_FALSE(size.empty());
        Iterator one(links->find(u"big.bin"));
        Iterator two(root->find(u"big link.bin"));
        EXPECT_TRUE(one->size() == std::stoull(size) && two->size() == one->size());
        EXPECT_TRUE(one->links() == 2 && one->kind() == KIND_FILE && one->object_id() != two->object_id());
        const std::string bytes = volume.read(u"links/big.bin");
        EXPECT_TRUE(bytes.size() == std::stoull(size) && volume.read(u"big link.bin") == bytes);
        // Both links open at once share their inode's one object.
        std::unique_ptr<FileSystemDriver::FileObject> first(links->open_file(u"big.bin"));
        std::unique_ptr<FileSystemDriver::FileObject> second(root->open_file(u"big link.bin"));
        auto* a = dynamic_cast<hfsplus::HFSPlusFileObject*>(first.get());
        auto* b = dynamic_cast<hfsplus::HFSPlusFileObject*>(second.get());
        ASSERT_TRUE(a != nullptr && b != nullptr);
        EXPECT_TRUE(a != b && &a->Target() == &b->Target() && &a->Target() != a);
        first.reset();
        EXPECT_EQ(b->size(), bytes.size());  // the inode outlives one of its links
        second.reset();

        // The private directory doesn't show in the root, but is found by name.
        const TestSupport::Listing listing = volume.list(u"");
        EXPECT_TRUE(listing.error == 0 && listing.entries.count(u"hello.txt") == 1);
        EXPECT_EQ(listing.entries.count(u"HFS+ Private Data"), 0u);
        EXPECT_EQ(Iterator(root->find(u"HFS+ Private Data"))->kind(), std::uint32_t(KIND_DIRECTORY));
    }
    volume.unmount();
    EXPECT_TRUE(TestSupport::LoadFile(folder + "/b4096.img") == volume.disk->bytes);
}

}  // namespace
