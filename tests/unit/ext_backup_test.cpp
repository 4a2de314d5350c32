// The ext backup object on volumes that mke2fs and debugfs make, read
// through the "BKUP" directory request: the order of the streams, the
// POSIX record, the extended attributes of the inode and of the attribute
// block, the contents as a Win32 backup stream whose holes stay out, and
// damage met as FILE_CORRUPT. What each stream must hold comes from what
// the tools were told and what debugfs reports.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <unistd.h>

#include "extfs/extfs_backup.h"
#include "extfs/extfs_driver.h"
#include "extfs/extfs_inode_cache.h"
#include "fsdriver/backup_object.h"
#include "fsdriver/directory_object.h"
#include "fsdriver/driver_selection.h"
#include "fsdriver/iterator_object.h"
#include "loader/common/byte_order.h"
#include "loader/common/error_codes.h"
#include "tests/support/ext_image.h"
#include "tests/support/raised_code.h"
#include "tests/support/temp_folder.h"

namespace {

using extfs::ExtfsDriver;
using Image = TestSupport::ExtImage;
using TestSupport::Pattern;
using TestSupport::TempFolder;
using Volume = TestSupport::Volume<ExtfsDriver, TryExtDriver>;

constexpr std::uint32_t kBackupWord = 0x50554B42;  // "BKUP"
constexpr std::uint64_t kKiB = 1024;

// Each output stream of a backup, whole, in the order they were opened.
class Collector : public BackupStreams {
public:
    struct Stream {
        std::uint32_t kind;
        std::string bytes;
    };
    class Output : public BackupOutputStream {
    public:
        Output(Collector& owner, std::size_t index) : owner_(owner), index_(index) {}
        unsigned char* reserve(std::uint64_t size) override {
            area_.assign(size, 0);
            return area_.data();
        }
        void send(const unsigned char* start, std::uint64_t size) override {
            owner_.streams[index_].bytes.append(reinterpret_cast<const char*>(start), size);
        }

    private:
        Collector& owner_;
        std::size_t index_;
        std::vector<unsigned char> area_;
    };

    Common::Error open_output(std::uint32_t type, BackupOutputStream*& stream) override {
        streams.push_back({type, ""});
        stream = new Output(*this, streams.size() - 1);
        return Common::Error();
    }
    RestoreInputStream* next_input() override { return nullptr; }
    Common::Error error() override { return Common::Error(); }

    std::vector<Stream> streams;
};

struct Backup {
    std::uint32_t code = 0;
    std::vector<Collector::Stream> streams;

    std::vector<std::uint32_t> kinds() const {
        std::vector<std::uint32_t> kinds;
        for (const auto& stream : streams) kinds.push_back(stream.kind);
        return kinds;
    }
    std::string of(std::uint32_t kind) const {
        for (const auto& stream : streams) {
            if (stream.kind == kind) return stream.bytes;
        }
        return "";
    }
};

// The backup of entry `name` of `directory` (the directory itself for an
// empty name) by the request, as a caller of the library issues it.
Backup Request(Volume& volume, const std::u16string& directory, const std::u16string& name, std::uint32_t option,
               i_dir::iterator* foreign = nullptr) {
    std::unique_ptr<rio_dir> opened(directory.empty() ? nullptr : volume.root->open_dir(directory.c_str()));
    rio_dir* dir = directory.empty() ? volume.root.get() : opened.get();
    Backup backup;
    if (dir == nullptr || (opened != nullptr && opened->failed())) {
        backup.code = ~0u;
        return backup;
    }
    std::unique_ptr<i_dir::iterator> entry(name.empty() ? nullptr : dir->find(name.c_str()));
    Collector collector;
    BackupRequest request{kBackupWord, 0, {&collector, nullptr, option}, {foreign != nullptr ? foreign : entry.get()}};
    dir->control(&request);
    backup.code = dir->failed() ? dir->error().Code() : 0;
    backup.streams = collector.streams;
    return backup;
}

// The backup of a root entry straight from the directory object: the
// request opens every entry that isn't a directory as a file, which links
// and devices can't be.
std::uint32_t U32(const std::string& bytes, std::size_t at) {
    return at + 4 <= bytes.size() ? Common::LoadLE32(bytes.data() + at) : ~0u;
}
std::uint64_t U64(const std::string& bytes, std::size_t at) {
    return at + 8 <= bytes.size() ? Common::LoadLE64(bytes.data() + at) : ~0ull;
}

// The headers of a Win32 backup stream, each with its data.
struct Win32Stream {
    std::uint32_t id;
    std::uint32_t attributes;
    std::uint64_t size;
    std::uint64_t start;  // sparse blocks only
    std::string data;
};

std::vector<Win32Stream> Win32Streams(const std::string& bytes) {
    std::vector<Win32Stream> streams;
    std::size_t at = 0;
    while (at < bytes.size()) {
        Win32Stream stream{U32(bytes, at), U32(bytes, at + 4), U64(bytes, at + 8), 0, ""};
        const std::uint32_t name_size = U32(bytes, at + 16);
        at += 20 + std::size_t(name_size);
        std::uint64_t data_size = stream.size;
        if (stream.id == 9) {
            stream.start = U64(bytes, at);
            at += 8;
            data_size -= 8;
        }
        if (name_size == ~0u || at + data_size > bytes.size()) {
            ADD_FAILURE() << "a stream header reaches past the data at " << at;
            break;
        }
        stream.data = bytes.substr(at, data_size);
        at += data_size;
        streams.push_back(stream);
    }
    return streams;
}

// The file the streams stand for, holes as zeros.
std::string Rebuilt(const std::vector<Win32Stream>& streams, std::uint64_t size) {
    std::string file(size, '\0');
    for (const Win32Stream& stream : streams) {
        if (stream.start + stream.data.size() <= size) file.replace(stream.start, stream.data.size(), stream.data);
    }
    return file;
}

// Full name to value, from the attribute records; a repeated name shows
// as "<twice>".
std::map<std::string, std::string> Records(const std::string& bytes) {
    std::map<std::string, std::string> records;
    std::size_t at = 0;
    while (at < bytes.size()) {
        if (at + 10 > bytes.size()) return {{"<cut>", ""}};
        const std::size_t name = Common::LoadLE16(bytes.data() + at);
        const std::uint64_t value = U64(bytes, at + 2);
        if (at + 10 + name + value > bytes.size()) return {{"<cut>", ""}};
        const std::string full = bytes.substr(at + 10, name);
        if (!records.emplace(full, bytes.substr(at + 10 + name, value)).second) records["<twice>"] = full;
        at += 10 + name + value;
    }
    return records;
}

// Writes `data` at `offset` of a host file, leaving a hole in front.
void PutAt(const std::string& path, std::uint64_t offset, const std::string& data) {
    FILE* file = std::fopen(path.c_str(), "r+b");
    if (file == nullptr) file = std::fopen(path.c_str(), "w+b");
    ASSERT_NE(file, nullptr) << path;
    fseeko(file, static_cast<off_t>(offset), SEEK_SET);
    std::fwrite(data.data(), 1, data.size(), file);
    std::fclose(file);
}

TEST(ExtBackup, StreamsComeInTheirOrderForEachKindOfEntry) {
    TempFolder folder;
    folder.Write("dense", Pattern(3000, 1));
    folder.Write("empty", "");
    Image image;
    ASSERT_TRUE(image.make("mkfs.ext4 -b 1024 -I 256", 4096));
    ASSERT_TRUE(image.change_all({"mkdir d", "mkdir da", "ea_set da user.tag dirvalue", "write " + folder.Path() +
                                  "/empty empty", "write " + folder.Path() + "/dense dense", "ea_set dense user.k v"}));
    Volume volume(image.path);
    ASSERT_NE(volume.driver, nullptr);
    struct Case {
        const char16_t* name;
        std::uint32_t option;
        std::vector<std::uint32_t> kinds;
        std::uint32_t attributes;  // the word of kind 1
    } const cases[] = {
        {u"d", 0, {1, 6, 5}, 0x10},        {u"da", 0, {1, 6, 7, 5}, 0x10},     {u"da", 4, {1, 6, 7, 5}, 0x10},
        {u"empty", 0, {1, 6, 5}, 0},       {u"dense", 0, {1, 6, 7, 2, 5}, 0},  {u"dense", 4, {1, 6, 7, 5}, 0},
        {u"dense", 3, {1, 6, 7, 2, 5}, 0}, {u"", 0, {1, 6, 5}, 0x10},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.name, c.name + std::char_traits<char16_t>::length(c.name)) + " option " +
                     std::to_string(c.option));
        Backup backup = Request(volume, u"", c.name, c.option);
        ASSERT_EQ(backup.code, 0u);
        EXPECT_EQ(backup.kinds(), c.kinds);
        EXPECT_EQ(backup.of(1), std::string(reinterpret_cast<const char*>(&c.attributes), 4));
    }
}

TEST(ExtBackup, ContentsLeaveHolesOutOnEveryMap) {
    // Pieces of data in KiB, on 64 KiB boundaries so that every host file
    // system keeps the holes between them; the middle one needs more than
    // one read of 256 KiB.
    struct Span {
        std::uint64_t at, size;
    };
    struct File {
        const char* name;
        std::vector<Span> spans;
        std::uint64_t size;
    } const files[] = {
        {"dense", {{0, 300 * kKiB + 5}}, 300 * kKiB + 5},
        {"sparse", {{0, 8 * kKiB}, {64 * kKiB, 320 * kKiB}, {1024 * kKiB, 5000}}, 1024 * kKiB + 5000},
        {"tail_hole", {{0, 8 * kKiB}}, 200 * kKiB},
        {"head_hole", {{64 * kKiB, 100}}, 64 * kKiB + 100},
    };
    for (const char* mkfs : {"mkfs.ext4 -b 1024", "mkfs.ext2 -b 1024", "mkfs.ext4 -b 4096"}) {
        SCOPED_TRACE(mkfs);
        TempFolder folder;
        std::vector<std::string> requests;
        for (const File& file : files) {
            const std::string host = folder.Path() + "/" + file.name;
            for (const Span& span : file.spans) PutAt(host, span.at, Pattern(span.size, unsigned(span.at)));
            ASSERT_EQ(truncate(host.c_str(), off_t(file.size)), 0);
            requests.push_back("write " + host + " " + file.name);
        }
        Image image;
        ASSERT_TRUE(image.make(mkfs, 8192));
        ASSERT_TRUE(image.change_all(requests));
        // The holes are really there: debugfs maps no block in them.
        const long long block = image.number("stats", "Block size:");
        for (long long hole : {32 * 1024ll, 512 * 1024ll}) {
            EXPECT_EQ(image.number("bmap sparse " + std::to_string(hole / block)), 0);
        }
        Volume volume(image.path);
        ASSERT_NE(volume.driver, nullptr);
        for (const File& file : files) {
            SCOPED_TRACE(file.name);
            const std::u16string name(file.name, file.name + std::char_traits<char>::length(file.name));
            Backup backup = Request(volume, u"", name, 0);
            ASSERT_EQ(backup.code, 0u);
            const std::vector<Win32Stream> streams = Win32Streams(backup.of(2));
            EXPECT_EQ(Rebuilt(streams, file.size), image.content(file.name));
            const bool whole = file.spans.size() == 1 && file.spans[0].at == 0 && file.spans[0].size == file.size;
            ASSERT_EQ(streams.size(), file.spans.size());
            for (std::size_t i = 0; i < streams.size(); ++i) {
                EXPECT_EQ(streams[i].id, whole ? 1u : 9u);
                EXPECT_EQ(streams[i].attributes, whole ? 0u : 8u);
                EXPECT_EQ(streams[i].start, whole ? 0 : file.spans[i].at);
                EXPECT_EQ(streams[i].data.size(), file.spans[i].size);
            }
        }
    }
}

TEST(ExtBackup, PosixRecordCarriesOwnerDeviceAndLinkTarget) {
    TempFolder folder;
    folder.Write("f", "x");
    const std::string slow_target = std::string(100, 'a') + "/target";
    Image image;
    ASSERT_TRUE(image.make("mkfs.ext4 -b 1024 -I 256", 4096));
    ASSERT_TRUE(image.change_all({"write " + folder.Path() + "/f f", "sif f uid 1234", "sif f gid 4321",
                                  "sif f mode 0100751", "sif f mtime 1600000000", "sif f mtime_extra 493827156",
                                  "sif f crtime 1500000000", "sif f crtime_extra 0", "mkdir d",
                                  "symlink fast short/target", "symlink slow " + slow_target, "mknod cdev c 4 5",
                                  "mknod bdev b 259 700", "mknod pipe p"}));
    Volume volume(image.path);
    ASSERT_NE(volume.driver, nullptr);
    struct Case {
        const char* name;
        std::uint32_t kind, major, minor;
        std::string target;
    } const cases[] = {
        {"f", KIND_FILE, 0, 0, ""},          {"d", KIND_DIRECTORY, 0, 0, ""},
        {"cdev", KIND_CHARACTER_DEVICE, 4, 5, ""}, {"bdev", KIND_BLOCK_DEVICE, 259, 700, ""},
        {"pipe", KIND_FIFO, 0, 0, ""},      {"fast", KIND_SYMLINK, 0, 0, "short/target"},
        {"slow", KIND_SYMLINK, 0, 0, slow_target},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const std::u16string name(c.name, c.name + std::char_traits<char>::length(c.name));
        Backup backup = Request(volume, u"", name, 0);
        ASSERT_EQ(backup.code, 0u);
        const std::string record = backup.of(6);
        const bool device = c.major != 0;
        const std::size_t size = c.kind == KIND_SYMLINK ? c.target.size() * 2 + 24 : device ? 28 : 20;
        ASSERT_EQ(record.size(), size);
        EXPECT_EQ(U32(record, 0), size);
        EXPECT_EQ(U32(record, 4), c.kind);
        EXPECT_EQ(U32(record, 8), image.number("stat " + std::string(c.name), "User:"));
        EXPECT_EQ(U32(record, 12), image.number("stat " + std::string(c.name), "Group:"));
        EXPECT_EQ(U32(record, 16), image.number("stat " + std::string(c.name), "Mode:") & 0xFFF);
        if (device) {
            EXPECT_EQ(U64(record, 20), c.major | std::uint64_t(c.minor) << 32);
        }
        if (c.kind == KIND_SYMLINK) {
            EXPECT_EQ(Common::LoadLE16(record.data() + 20), c.target.size());
            std::string narrowed;
            for (std::size_t i = 22; i + 1 < record.size(); i += 2) {
                narrowed += char(Common::LoadLE16(record.data() + i));
            }
            EXPECT_EQ(narrowed, c.target + '\0');
        }
    }
    // A link listed in another directory isn't one of this directory's.
    std::unique_ptr<i_dir::iterator> of_root(volume.root->find(u"fast"));
    ASSERT_NE(of_root, nullptr);
    EXPECT_EQ(Request(volume, u"d", u"", 0, of_root.get()).code, Common::FILE_OPEN);
    // The values debugfs was told.
    Backup file = Request(volume, u"", u"f", 0);
    ASSERT_EQ(file.code, 0u);
    EXPECT_EQ(U32(file.of(6), 8), 1234u);
    EXPECT_EQ(U32(file.of(6), 16), 0751u);
    EXPECT_EQ(file.of(5).size(), 16u);
    EXPECT_EQ(U64(file.of(5), 0), 1600000000123ull);  // 123456789 ns in the extra field
    EXPECT_EQ(U64(file.of(5), 8), 1500000000000ull);
}

TEST(ExtBackup, ExtendedAttributesOfTheInodeAndOfTheBlock) {
    TempFolder folder;
    folder.Write("f", "data");
    std::string big;
    for (char c : Pattern(600, 3)) big += char('a' + (static_cast<unsigned char>(c) % 26));
    folder.Write("big", big);
    // Three entries of 80 bytes fit the 92 behind the magic of a 256-byte
    // inode; the others need the attribute block.
    const std::map<std::string, std::string> small = {
        {"user.one", "valueone"}, {"trusted.x", "tx"}, {"user.abcde", "5"}};
    const std::map<std::string, std::string> more = {{"security.sec", "s e c"}, {"user.empty", ""}, {"user.big", big}};
    struct Case {
        const char* what;
        const char* mkfs;
        bool with_more;
        bool in_block;  // debugfs reports an attribute block
    } const cases[] = {
        {"block only", "mkfs.ext4 -b 1024 -I 128", true, true},
        {"inode only", "mkfs.ext4 -b 1024 -I 256", false, false},
        {"both", "mkfs.ext4 -b 1024 -I 256", true, true},
        {"block of ext2", "mkfs.ext2 -b 4096 -I 128", true, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        std::map<std::string, std::string> expected = small;
        std::vector<std::string> requests = {"write " + folder.Path() + "/f f"};
        for (const auto& [name, value] : small) requests.push_back("ea_set f " + name + " " + value);
        if (c.with_more) {
            expected.insert(more.begin(), more.end());
            requests.push_back("ea_set f security.sec \"s e c\"");
            requests.push_back("ea_set f user.empty \"\"");
            requests.push_back("ea_set -f " + folder.Path() + "/big f user.big");
        }
        Image image;
        ASSERT_TRUE(image.make(c.mkfs, 4096));
        ASSERT_TRUE(image.change_all(requests));
        EXPECT_EQ(image.number("stat f", "File ACL: ") != 0, c.in_block);
        Volume volume(image.path);
        ASSERT_NE(volume.driver, nullptr);
        Backup backup = Request(volume, u"", u"f", 0);
        ASSERT_EQ(backup.code, 0u);
        EXPECT_EQ(backup.kinds(), (std::vector<std::uint32_t>{1, 6, 7, 2, 5}));
        EXPECT_EQ(Records(backup.of(7)), expected);
    }
}

TEST(ExtBackup, AttributeRecordsThatDontFitWaitForTheNextRead) {
    TempFolder folder;
    folder.Write("f", "data");
    Image image;
    ASSERT_TRUE(image.make("mkfs.ext4 -b 1024 -I 128", 4096));
    ASSERT_TRUE(image.change_all({"write " + folder.Path() + "/f f", "ea_set f user.a 12", "ea_set f user.b 34"}));
    Volume volume(image.path);
    ASSERT_NE(volume.driver, nullptr);
    const auto index = static_cast<std::uint32_t>(image.inode("f") - 1);
    extfs::ExtfsBackupObject backup(volume.driver, volume.driver->inodes().open(index), 0);
    std::vector<unsigned char> area(0x40000);
    while (backup.stream_type != 7) ASSERT_NE(backup.read(area.data()), 0u);
    // Each record is 10 bytes, the 6 of the full name and the 2 of the value.
    struct Step {
        std::uint64_t buffer, answer, chunk_after;
        std::uint32_t kind_after;
    } const steps[] = {
        {17, 0, 18, 7},   // too small for any record: the buffer grows to one
        {18, 18, 18, 7},  // one record; the other waits
        {35, 18, 0x4001C, 2},
    };
    std::string got;
    for (const Step& step : steps) {
        backup.chunk = step.buffer;
        const std::uint64_t answer = backup.read(area.data());
        got.append(reinterpret_cast<const char*>(area.data()), answer);
        EXPECT_EQ(answer, step.answer) << step.buffer;
        EXPECT_EQ(backup.chunk, step.chunk_after) << step.buffer;
        EXPECT_EQ(backup.stream_type, step.kind_after) << step.buffer;
    }
    EXPECT_EQ(Records(got), (std::map<std::string, std::string>{{"user.a", "12"}, {"user.b", "34"}}));
}

TEST(ExtBackup, DamagedAttributesAreCorrupt) {
    TempFolder folder;
    folder.Write("f", "data");
    struct Patch {
        const char* what;
        std::uint64_t offset;  // in the attribute block
        std::uint32_t value;
        unsigned width;
    } const patches[] = {
        {"magic", 0, 0xEA020001, 4},
        {"no references", 4, 0, 4},
        {"two blocks", 8, 2, 4},
        {"value offset past the block", 32 + 2, 0xFFF0, 2},
        {"value offset inside its entry", 32 + 2, 40, 2},
        {"value size past the block", 32 + 8, 0x10000, 4},
    };
    for (const Patch& patch : patches) {
        SCOPED_TRACE(patch.what);
        Image image;
        ASSERT_TRUE(image.make("mkfs.ext4 -b 1024 -I 128 -O ^metadata_csum", 4096));
        ASSERT_TRUE(image.change_all({"write " + folder.Path() + "/f f", "ea_set f user.name value"}));
        const long long block = image.number("stat f", "File ACL: ");
        ASSERT_GT(block, 0);
        std::vector<unsigned char> bytes = image.bytes();
        unsigned char* at = bytes.data() + block * kKiB + patch.offset;
        ASSERT_EQ(Common::LoadLE32(bytes.data() + block * kKiB), 0xEA020000u);
        if (patch.width == 2) {
            Common::StoreLE16(at, static_cast<std::uint16_t>(patch.value));
        } else {
            Common::StoreLE32(at, patch.value);
        }
        image.store(bytes);
        Volume volume(image.path);
        ASSERT_NE(volume.driver, nullptr);
        EXPECT_EQ(Request(volume, u"", u"f", 0).code, Common::FILE_CORRUPT);
    }
    // An attribute block past the volume, and a room behind the extra
    // fields that lies past the inode, which holds no attributes then.
    Image image;
    ASSERT_TRUE(image.make("mkfs.ext4 -b 1024 -I 256 -O ^metadata_csum", 4096));
    ASSERT_TRUE(image.change_all({"write " + folder.Path() + "/f f", "ea_set f user.a b", "write " + folder.Path() +
                                  "/f g", "ea_set g user.a b", "sif f file_acl 9999999", "sif g extra_isize 200"}));
    ASSERT_EQ(image.number("stat g", "File ACL: "), 0);
    Volume volume(image.path);
    ASSERT_NE(volume.driver, nullptr);
    EXPECT_EQ(Request(volume, u"", u"f", 0).code, Common::FILE_CORRUPT);
    Backup g = Request(volume, u"", u"g", 0);
    EXPECT_EQ(g.code, 0u);
    EXPECT_EQ(g.kinds(), (std::vector<std::uint32_t>{1, 6, 2, 5}));
}

}  // namespace
