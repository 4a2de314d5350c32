// The ext backup object on volumes that mke2fs and debugfs make: what the
// host tool's comparison with debugfs can't see. The option bit and the
// entry that decide the streams, times with their nanoseconds, records of
// attributes that wait for a bigger buffer, contents read straight into
// the aligned area and moved behind their header, and damaged attribute
// areas met as FILE_CORRUPT.
#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "extfs/extfs_backup.h"
#include "extfs/extfs_driver.h"
#include "extfs/extfs_inode_cache.h"
#include "fsdriver/backup_object.h"
#include "fsdriver/directory_object.h"
#include "fsdriver/driver_selection.h"
#include "loader/common/byte_order.h"
#include "loader/common/error_codes.h"
#include "tests/support/ext_image.h"
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
    if (dir == nullptr || (opened != nullptr && opened->failed())) return Backup{~0u, {}};
    std::unique_ptr<i_dir::iterator> entry(name.empty() ? nullptr : dir->find(name.c_str()));
    Collector collector;
    BackupRequest request{kBackupWord, 0, {&collector, nullptr, option}, {foreign != nullptr ? foreign : entry.get()}};
    dir->control(&request);
    return Backup{dir->failed() ? dir->error().Code() : 0, collector.streams};
}

std::uint32_t U32(const std::string& bytes, std::size_t at) {
    return at + 4 <= bytes.size() ? Common::LoadLE32(bytes.data() + at) : ~0u;
}
std::uint64_t U64(const std::string& bytes, std::size_t at) {
    return at + 8 <= bytes.size() ? Common::LoadLE64(bytes.data() + at) : ~0ull;
}

// Full name to value, from the attribute records; a repeated name or a
// record cut short is all that shows.
std::map<std::string, std::string> Records(const std::string& bytes) {
    std::map<std::string, std::string> records;
    std::size_t at = 0;
    while (at < bytes.size()) {
        const std::size_t name = at + 10 <= bytes.size() ? Common::LoadLE16(bytes.data() + at) : 0;
        const std::uint64_t value = U64(bytes, at + 2);
        if (value > bytes.size() || at + 10 + name + value > bytes.size()) return {{"<cut>", ""}};
        const std::string full = bytes.substr(at + 10, name);
        if (!records.emplace(full, bytes.substr(at + 10 + name, value)).second) return {{"<twice>", full}};
        at += 10 + name + value;
    }
    return records;
}

// The entry's inode as an object of its own, read up to `kind`, into an
// area aligned as the framework aligns it.
struct DirectRead {
    DirectRead(Volume& volume, const Image& image, const std::string& name, std::uint32_t kind)
        : object(volume.driver, volume.driver->inodes().open(std::uint32_t(image.inode(name) - 1)), 0),
          storage(0x40000 + 0x10000) {
        const auto start = reinterpret_cast<std::uintptr_t>(storage.data());
        area = storage.data() + ((0x10000 - start % 0x10000) % 0x10000);
        while (object.stream_type != kind && object.stream_type != 0) object.read(area);
    }
    std::string read() { return std::string(reinterpret_cast<const char*>(area), object.read(area)); }
    extfs::ExtfsBackupObject object;
    std::vector<unsigned char> storage;
    unsigned char* area = nullptr;
};

TEST(ExtBackup, OptionBitAndEntryDecideTheStreams) {
    TempFolder folder;
    folder.Write("dense", Pattern(3000, 1));
    Image image;
    ASSERT_TRUE(image.make("mkfs.ext4 -b 1024 -I 256", 4096));
    ASSERT_TRUE(image.change_all({"mkdir d", "ea_set d user.tag dirvalue", "write " + folder.Path() + "/dense dense",
                                  "sif dense mtime 1600000000", "sif dense mtime_extra 493827156",
                                  "sif dense crtime 1500000000", "sif dense crtime_extra 0", "symlink d/link x",
                                  "symlink link y"}));
    Volume volume(image.path);
    ASSERT_NE(volume.driver, nullptr);
    // Only bit 2 leaves the contents out; a directory never has any.
    struct Case {
        const char16_t* name;
        std::uint32_t option;
        std::vector<std::uint32_t> kinds;
    } const cases[] = {
        {u"d", 4, {1, 6, 7, 5}}, {u"dense", 4, {1, 6, 5}}, {u"dense", 3, {1, 6, 2, 5}}, {u"dense", 0xFB, {1, 6, 2, 5}},
    };
    for (const Case& c : cases) {
        Backup backup = Request(volume, u"", c.name, c.option);
        ASSERT_EQ(backup.code, 0u);
        EXPECT_EQ(backup.kinds(), c.kinds) << c.option;
    }
    // The times debugfs was told: 123456789 ns in the extra field.
    Backup dense = Request(volume, u"", u"dense", 0);
    ASSERT_EQ(dense.of(5).size(), 16u);
    EXPECT_EQ(U64(dense.of(5), 0), 1600000000123ull);
    EXPECT_EQ(U64(dense.of(5), 8), 1500000000000ull);
    // An entry listed in another directory isn't one of this directory's,
    // even where this one has an entry of the same name.
    std::unique_ptr<rio_dir> d(volume.root->open_dir(u"d"));
    ASSERT_NE(d, nullptr);
    std::unique_ptr<i_dir::iterator> of_d(d->find(u"link"));
    ASSERT_NE(of_d, nullptr);
    EXPECT_EQ(Request(volume, u"", u"", 0, of_d.get()).code, Common::FILE_OPEN);
    EXPECT_EQ(Request(volume, u"d", u"", 0, of_d.get()).code, 0u);
}

TEST(ExtBackup, AttributeRecordsThatDontFitWaitForTheNextRead) {
    TempFolder folder;
    folder.Write("f", "data");
    // Names of 5 bytes: each entry takes 21 bytes, and the next begins at 24.
    Image image;
    ASSERT_TRUE(image.make("mkfs.ext4 -b 1024 -I 128", 4096));
    ASSERT_TRUE(image.change_all({"write " + folder.Path() + "/f f", "ea_set f user.abcde 12",
                                  "ea_set f user.vwxyz 34"}));
    Volume volume(image.path);
    ASSERT_NE(volume.driver, nullptr);
    DirectRead direct(volume, image, "f", 7);
    ASSERT_EQ(direct.object.stream_type, 7u);
    // Each record is 22 bytes: 10 fixed, 10 of the full name, 2 of the value.
    struct Step {
        std::uint64_t buffer, answer, chunk_after;
        std::uint32_t kind_after;
    } const steps[] = {
        {21, 0, 22, 7},  // too small for any record: the buffer grows to one
        {22, 22, 22, 7},  // one record; the other waits
        {43, 22, 0x4001C, 2},
    };
    std::string got;
    for (const Step& step : steps) {
        direct.object.chunk = step.buffer;
        const std::string answer = direct.read();
        got += answer;
        EXPECT_EQ(answer.size(), step.answer) << step.buffer;
        EXPECT_EQ(direct.object.chunk, step.chunk_after) << step.buffer;
        EXPECT_EQ(direct.object.stream_type, step.kind_after) << step.buffer;
    }
    EXPECT_EQ(Records(got), (std::map<std::string, std::string>{{"user.abcde", "12"}, {"user.vwxyz", "34"}}));
}

TEST(ExtBackup, ContentsAreReadAlignedAndMovedBehindTheHeader) {
    TempFolder folder;
    const std::uint64_t size = 40 * kKiB + 100;  // 41 blocks, the last cut short
    folder.Write("f", Pattern(size, 5));
    Image image;
    ASSERT_TRUE(image.make("mkfs.ext4 -b 1024", 4096));
    ASSERT_TRUE(image.change_all({"write " + folder.Path() + "/f f"}));
    ASSERT_EQ(image.number("bmap f 40") - image.number("bmap f 0"), 40);  // in one piece on the disk
    Volume volume(image.path);
    ASSERT_NE(volume.driver, nullptr);
    DirectRead direct(volume, image, "f", 2);
    ASSERT_EQ(direct.object.stream_type, 2u);
    EXPECT_EQ(direct.object.alignment, kKiB);
    // Buffers of 16 blocks and a header's room: the header only in front
    // of the first, and every read of blocks one transfer from the device
    // straight into the aligned area, which only an unmoved read allows.
    struct Step {
        std::uint64_t first_block, blocks, answer;
    } const steps[] = {{0, 16, 20 + 16 * kKiB}, {16, 16, 16 * kKiB}, {32, 9, 8 * kKiB + 100}};
    std::string got;
    for (const Step& step : steps) {
        SCOPED_TRACE(step.first_block);
        direct.object.chunk = 28 + 16 * kKiB;
        const std::size_t logged = volume.disk->log.size();
        const std::string answer = direct.read();
        got += answer;
        EXPECT_EQ(answer.size(), step.answer);
        ASSERT_EQ(volume.disk->log.size(), logged + 1);
        const driver_test::TransferRecord& transfer = volume.disk->log.back();
        EXPECT_EQ(transfer.sector, 2 * image.number("bmap f " + std::to_string(step.first_block)));
        EXPECT_EQ(transfer.count, 2 * step.blocks);
    }
    EXPECT_EQ(direct.object.stream_type, 5u);
    ASSERT_EQ(U32(got, 0), 1u);  // one data stream: the file is mapped whole
    EXPECT_EQ(U64(got, 8), size);
    EXPECT_EQ(got.substr(20), image.content("f"));
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
        {"magic", 0, 0xEA020001, 4},          {"no references", 4, 0, 4},
        {"two blocks", 8, 2, 4},              {"value offset past the block", 32 + 2, 0xFFF0, 2},
        {"value offset inside its entry", 32 + 2, 40, 2}, {"value size past the block", 32 + 8, 0x10000, 4},
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
        patch.width == 2 ? Common::StoreLE16(at, std::uint16_t(patch.value)) : Common::StoreLE32(at, patch.value);
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
