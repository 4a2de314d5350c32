// Changes on damaged volumes. mkntfs and ntfs-3g make a volume, the test
// damages it by exact byte edits, and the driver is asked to change it.
// Damage that an operation meets is FILE_CORRUPT with the image left byte
// for byte as it was, or with no more than a record taken and given back;
// damage that an allocator can pass over is passed over, and every other
// file stays as ntfscat reads it.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "fsdriver/directory_object.h"
#include "fsdriver/file_object.h"
#include "loader/common/byte_order.h"
#include "loader/common/error_codes.h"
#include "ntfs/ntfs_driver.h"
#include "tests/support/raised_code.h"
#include "tests/support/shell.h"
#include "tests/support/volume_fixture.h"

namespace {

using ntfs::NTFSDriver;
using TestSupport::RaisedCode;
using Volume = TestSupport::Volume<NTFSDriver, TryNTFSDriver>;
using Bytes = std::vector<unsigned char>;

constexpr std::uint32_t kCluster = 4096;
constexpr std::uint32_t kRecord = 1024;
constexpr std::uint32_t kStride = 512;

// keep.bin: data in clusters; many.txt: 11 names behind an attribute list;
// dir: a directory whose index lives in several buffers.
Bytes MakeBase() {
    TestSupport::TempFolder folder;
    const std::string root = folder.Path();
    folder.Write("make.sh",
                 "set -e; cd '" + root +
                     "'; truncate -s 16M volume.img; mkntfs -F -f -q -c 4096 volume.img; mkdir mnt;"
                     " ntfs-3g volume.img mnt; cd mnt; head -c 20000 /dev/urandom > keep.bin; echo small > small.txt;"
                     " mkdir dir; for i in $(seq 1 60); do echo $i > dir/a_rather_long_file_name_number_$i.txt; done;"
                     " echo linked > many.txt; for i in $(seq 1 10); do ln many.txt "
                     "many_link_with_a_name_long_enough_to_fill_a_record_soon_$i; done;"
                     " cd ..; umount mnt");
    if (TestSupport::RunQuietly("bash '" + root + "/make.sh'") != 0) {
        TestSupport::RunQuietly("umount '" + root + "/mnt'");
        return {};
    }
    return TestSupport::LoadFile(root + "/volume.img");
}

const Bytes& Base() {
    static const Bytes base = MakeBase();
    return base;
}

// Byte edits of the image, which mkntfs lays out with a contiguous MFT.
struct Image {
    Bytes bytes;

    std::size_t recordAt(std::uint64_t number) const {
        return Common::LoadLE64(bytes.data() + 0x30) * kCluster + number * kRecord;
    }
    // Record `number` as its fields read, the stride tails put back from
    // the update sequence array; `edit` changes it and the tails go back.
    void editRecord(std::uint64_t number, const std::function<void(unsigned char*)>& edit) {
        unsigned char* record = bytes.data() + recordAt(number);
        const std::uint16_t array = Common::LoadLE16(record + 4);
        for (std::uint32_t i = 1; i <= kRecord / kStride; ++i)
            std::copy_n(record + array + 2 * i, 2, record + i * kStride - 2);
        edit(record);
        for (std::uint32_t i = 1; i <= kRecord / kStride; ++i) {
            std::copy_n(record + i * kStride - 2, 2, record + array + 2 * i);
            std::copy_n(record + array, 2, record + i * kStride - 2);
        }
    }
    // The offset in `record` of its first attribute of `type`; 0 if none.
    static std::uint32_t attributeIn(const unsigned char* record, std::uint32_t type) {
        for (std::uint32_t at = Common::LoadLE16(record + 0x14); at + 8 <= kRecord;) {
            const std::uint32_t found = Common::LoadLE32(record + at);
            const std::uint32_t length = Common::LoadLE32(record + at + 4);
            if (found == type) return at;
            if (found == 0xFFFFFFFF || length == 0) return 0;
            at += length;
        }
        return 0;
    }
    // The clusters of the first extent of a non-resident attribute.
    std::vector<std::uint64_t> clustersOf(std::uint64_t number, std::uint32_t type) const {
        const unsigned char* record = bytes.data() + recordAt(number);
        const std::uint32_t attribute = attributeIn(record, type);
        std::vector<std::uint64_t> clusters;
        if (attribute == 0) return clusters;
        const unsigned char* pair = record + attribute + Common::LoadLE16(record + attribute + 0x20);
        std::int64_t lcn = 0;
        for (; *pair != 0; pair += 1 + (*pair & 15) + (*pair >> 4)) {
            std::uint64_t length = 0;
            std::int64_t delta = 0;
            for (int i = (*pair & 15); i > 0; --i) length = length << 8 | pair[i];
            for (int i = (*pair >> 4); i > 0; --i) delta = delta * 256 + pair[(*pair & 15) + i];
            const int width = 8 * (*pair >> 4);
            if (width != 0 && width < 64 && (delta >> (width - 1)) != 0) delta -= std::int64_t(1) << width;
            lcn += delta;
            for (std::uint64_t i = 0; i < length; ++i) clusters.push_back(std::uint64_t(lcn) + i);
        }
        return clusters;
    }
};

std::string Shell(const std::string& command) { return TestSupport::CaptureOutput(command); }

std::uint64_t RecordOf(const std::string& image, const std::string& path) {
    const std::string out = Shell("ntfsinfo -F '" + path + "' " + image + " 2>/dev/null");
    const std::size_t at = out.find("Dumping Inode ");
    return at == std::string::npos ? 0 : std::stoull(out.substr(at + 14));
}

bool BitOf(const std::string& bits, std::uint64_t bit) {
    return bit / 8 < bits.size() && (static_cast<unsigned char>(bits[bit / 8]) >> (bit % 8) & 1) != 0;
}

// Where the damage goes: records as ntfsinfo finds them by path, the
// cluster bitmap's byte offset in the image.
struct Places {
    std::uint64_t keep, many, dir, cluster_bitmap;
};

class NtfsDamagedWrite : public ::testing::Test {
protected:
    void SetUp() override {
        if (Base().empty()) GTEST_SKIP() << "mkntfs or ntfs-3g over FUSE isn't available";
        image_.bytes = Base();
        file_.store(Base());
        places_ = {RecordOf(file_.path, "/keep.bin"), RecordOf(file_.path, "/many.txt"), RecordOf(file_.path, "/dir"),
                   0};
        const std::vector<std::uint64_t> bitmap = image_.clustersOf(6, 0x80);
        ASSERT_FALSE(bitmap.empty());
        places_.cluster_bitmap = bitmap.front() * kCluster;
        ASSERT_NE(places_.keep * places_.many * places_.dir, 0u);
    }

    // Mounts the damaged image, runs `action`, lets the driver go.
    std::uint32_t change(const std::function<void(NTFSDriver&)>& action) {
        file_.store(image_.bytes);
        Volume volume(file_.path);
        if (volume.driver == nullptr) return ~0u;
        return RaisedCode([&] { action(*volume.driver); });
    }
    struct Refusal {
        const char* what;
        std::function<void(NTFSDriver&)> action;
    };
    // Every action meets the damage: FILE_CORRUPT, and not one byte changed.
    void refusedUnchanged(const std::vector<Refusal>& rows) {
        for (const Refusal& row : rows) {
            EXPECT_EQ(change(row.action), Common::FILE_CORRUPT) << row.what;
            EXPECT_TRUE(file_.bytes() == image_.bytes) << row.what << ": the volume changed";
        }
    }
    // Bytes that differ from the damaged image outside the records that the
    // MFT's bitmap, as ntfscat reads it, calls free: a record taken and given
    // back by a refused change leaves only such bytes behind.
    std::size_t changedOutsideFreeRecords() const {
        const Bytes now = file_.bytes();
        const std::string bits = bitmapOfRecords();
        const std::size_t records = image_.recordAt(0);
        std::size_t changed = 0;
        for (std::size_t at = 0; at < now.size() && at < image_.bytes.size(); ++at) {
            if (now[at] == image_.bytes[at]) continue;
            const std::uint64_t record = at >= records ? (at - records) / kRecord : ~0ull;
            changed += record == ~0ull || BitOf(bits, record);
        }
        return changed;
    }
    std::string cat(const std::string& path) const { return Shell("ntfscat " + file_.path + " '" + path + "' 2>&1"); }
    std::string bitmapOfRecords() const { return Shell("ntfscat -a 0xb0 " + file_.path + " '$MFT' 2>/dev/null"); }

    Image image_;
    TestSupport::ImageFile file_;
    Places places_{};
};

FileSystemDriver::DirectoryObject& At(NTFSDriver& driver, const std::u16string& path) {
    return *driver.get_directory(path);
}

void Create(NTFSDriver& driver, const std::u16string& parent, const std::u16string& name) {
    std::unique_ptr<FileSystemDriver::FileObject> made(At(driver, parent).create_file(name));
}

void WriteAt(NTFSDriver& driver, const std::u16string& name, std::uint64_t position, const std::string& data) {
    std::unique_ptr<FileSystemDriver::FileObject> file(At(driver, u"/").open_file(name));
    std::uint64_t written = 0;
    file->write(data.data(), position, data.size(), written);
    file->flush_file();
}

void Cut(NTFSDriver& driver, const std::u16string& name) {
    std::unique_ptr<FileSystemDriver::FileObject> file(At(driver, u"/").open_file(name));
    file->set_size(0);
    file->flush_file();
}

void Grow(NTFSDriver& driver, const std::u16string& name) {
    std::unique_ptr<FileSystemDriver::FileObject> file(At(driver, u"/").open_file(name));
    file->set_size(5 * kCluster);
    file->flush_file();
}

// Blocks whose update sequence check fails: the second stride of a block
// loses its number. Every change that has to read the block is refused.
// (A rename enters the new index key before it reads the record, as the
// rename order has it, so it is no row here.)
TEST_F(NtfsDamagedWrite, BlocksThatFailTheirCheckRefuseEveryChangeThroughThem) {
    const Bytes sound = image_.bytes;
    const struct {
        const char* what;
        std::vector<std::size_t> blocks;
        std::vector<Refusal> rows;
    } damages[] = {
        {"dir's index buffers",
         {},
         {{"create", [](NTFSDriver& d) { Create(d, u"/dir", u"new.txt"); }},
          {"make a directory", [](NTFSDriver& d) { At(d, u"/dir").make_directory(u"sub"); }},
          {"remove", [](NTFSDriver& d) { At(d, u"/dir").remove_file(u"a_rather_long_file_name_number_7.txt"); }},
          {"rename into", [](NTFSDriver& d) { d.rename(u"/small.txt", u"/dir/small.txt"); }},
          {"rename out of", [](NTFSDriver& d) { d.rename(u"/dir/a_rather_long_file_name_number_9.txt", u"/nine"); }}}},
        {"keep.bin's record",
         {image_.recordAt(places_.keep)},
         {{"write", [](NTFSDriver& d) { WriteAt(d, u"keep.bin", 0, "changed"); }},
          {"grow", [](NTFSDriver& d) { Grow(d, u"keep.bin"); }},
          {"remove", [](NTFSDriver& d) { At(d, u"/").remove_file(u"keep.bin"); }}}},
    };
    for (const auto& damage : damages) {
        SCOPED_TRACE(damage.what);
        image_.bytes = sound;
        std::vector<std::size_t> blocks = damage.blocks;
        if (blocks.empty()) {
            for (std::uint64_t cluster : image_.clustersOf(places_.dir, 0xA0)) blocks.push_back(cluster * kCluster);
        }
        for (std::size_t block : blocks) image_.bytes[block + 2 * kStride - 2] ^= 0x5A;
        refusedUnchanged(damage.rows);
    }
    // Elsewhere the volume is still written.
    EXPECT_EQ(change([](NTFSDriver& d) { Create(d, u"/", u"elsewhere.txt"); }), 0u);
    EXPECT_NE(RecordOf(file_.path, "/elsewhere.txt"), 0u);
    EXPECT_EQ(cat("/small.txt"), "small\n");
}

// A directory index's bitmap calling the leaf free that new names go to:
// names are added one per mount until the leaf splits, and the split, which
// would hand that leaf out as the new buffer, is refused. Only the record
// taken for the refused name, given back free, differs; no entry is lost.
TEST_F(NtfsDamagedWrite, AnIndexBufferTheBitmapCallsFreeIsNotHandedOutOverItsEntries) {
    const std::vector<std::uint64_t> buffers = image_.clustersOf(places_.dir, 0xA0);
    const std::u16string wide = u"number_1.txt";
    const auto* key = reinterpret_cast<const unsigned char*>(wide.data());
    std::uint64_t leaf = buffers.size();
    for (std::uint64_t vcn = 0; vcn < buffers.size() && leaf == buffers.size(); ++vcn) {
        // Only the entries in use count: a buffer keeps old ones behind them.
        const auto node = image_.bytes.begin() + buffers[vcn] * kCluster + 0x18;
        const auto begin = node + Common::LoadLE32(&node[0]), end = node + Common::LoadLE32(&node[4]);
        const bool is_leaf = (node[0x0C] & 1) == 0;
        if (is_leaf && end <= node + (kCluster - 0x18) && std::search(begin, end, key, key + 2 * wide.size()) != end)
            leaf = vcn;
    }
    ASSERT_LT(leaf, buffers.size());
    image_.editRecord(places_.dir, [leaf](unsigned char* record) {
        const std::uint32_t bitmap = Image::attributeIn(record, 0xB0);
        ASSERT_NE(bitmap, 0u);
        unsigned char* bits = record + bitmap + Common::LoadLE16(record + bitmap + 0x14);
        for (std::uint64_t lower = 0; lower < leaf; ++lower) ASSERT_NE(bits[lower / 8] >> (lower % 8) & 1, 0);
        bits[leaf / 8] &= ~(1u << (leaf % 8));
    });
    // Each name with what its file holds: the number for the old ones.
    std::vector<std::pair<std::string, std::string>> names;
    for (int i = 1; i <= 60; ++i)
        names.push_back({"a_rather_long_file_name_number_" + std::to_string(i) + ".txt", std::to_string(i) + "\n"});
    std::uint32_t code = 0;
    for (int added = 0; added < 60 && code == 0; ++added) {
        const std::string name = names.front().first + "_" + char('A' + added / 26) + char('a' + added % 26);
        code = change([&](NTFSDriver& d) { Create(d, u"/dir", std::u16string(name.begin(), name.end())); });
        if (code == 0) names.push_back({name, ""});
        if (code == 0) image_.bytes = file_.bytes();
    }
    EXPECT_EQ(code, Common::FILE_CORRUPT);
    EXPECT_EQ(changedOutsideFreeRecords(), 0u) << "the refused split changed the volume";
    // ntfs-3g lists only buffers whose bit is set; a lookup by name goes down the tree.
    for (const auto& [name, data] : names) EXPECT_EQ(cat("/dir/" + name), data) << name;
}

// Every list entry of attributes of `type` is made to name `foreign` when
// given, else another record of the file, one that holds no attribute of
// that type and instance.
void MisdirectEntries(unsigned char* entries, std::uint32_t size, std::uint32_t type, std::uint64_t foreign) {
    struct Entry {
        std::uint32_t type;
        std::uint64_t record;
        std::uint16_t instance;
        unsigned char* at;
    };
    std::vector<Entry> list;
    std::vector<std::uint64_t> records;
    for (std::uint32_t at = 0; at + 26 <= size && Common::LoadLE16(entries + at + 4) != 0;
         at += Common::LoadLE16(entries + at + 4)) {
        list.push_back({Common::LoadLE32(entries + at), Common::LoadLE64(entries + at + 16),
                        Common::LoadLE16(entries + at + 24), entries + at});
        if (std::find(records.begin(), records.end(), list.back().record) == records.end())
            records.push_back(list.back().record);
    }
    auto holds = [&list](std::uint64_t record, std::uint32_t type, std::uint16_t instance) {
        return std::any_of(list.begin(), list.end(), [&](const Entry& entry) {
            return entry.record == record && entry.type == type && entry.instance == instance;
        });
    };
    std::size_t misdirected = 0;
    for (const Entry& entry : list) {
        if (entry.type != type) continue;
        for (std::uint64_t record : foreign != 0 ? std::vector<std::uint64_t>{foreign} : records) {
            if (holds(record, type, entry.instance)) continue;
            Common::StoreLE64(entry.at + 16, record);
            ++misdirected;
            break;
        }
    }
    ASSERT_GT(misdirected, 0u);
}

TEST_F(NtfsDamagedWrite, AnAttributeListNamingTheWrongRecordRefusesChangesThatNeedTheAttribute) {
    const std::uint64_t sequence = Common::LoadLE16(image_.bytes.data() + image_.recordAt(places_.keep) + 0x10);
    const std::uint64_t keep_reference = sequence << 48 | places_.keep;
    const struct {
        std::uint32_t type;
        std::uint64_t foreign;
        std::vector<Refusal> rows;
    } damages[] = {
        {0x80,
         0,
         {{"write", [](NTFSDriver& d) { WriteAt(d, u"many.txt", 0, "changed"); }},
          {"grow", [](NTFSDriver& d) { Grow(d, u"many.txt"); }},
          {"cut", [](NTFSDriver& d) { Cut(d, u"many.txt"); }}}},
        // keep.bin's record, with its sequence number: a data stream, but another file's.
        {0x80,
         keep_reference,
         {{"write another file's record", [](NTFSDriver& d) { WriteAt(d, u"many.txt", 0, "changed"); }}}},
        {0x30, 0, {{"remove", [](NTFSDriver& d) { At(d, u"/").remove_file(u"many.txt"); }}}},
    };
    const Bytes sound = image_.bytes;
    for (const auto& damage : damages) {
        image_.bytes = sound;
        const unsigned char* record = image_.bytes.data() + image_.recordAt(places_.many);
        const std::uint32_t list = Image::attributeIn(record, 0x20);
        const std::vector<std::uint64_t> clusters = image_.clustersOf(places_.many, 0x20);
        ASSERT_TRUE(list != 0 && record[list + 8] == 1 && clusters.size() == 1)
            << "ntfs-3g keeps the list in a cluster";
        const std::uint64_t size = Common::LoadLE64(record + list + 0x30);
        ASSERT_LE(size, kCluster);
        MisdirectEntries(image_.bytes.data() + clusters.front() * kCluster, static_cast<std::uint32_t>(size),
                         damage.type, damage.foreign);
        refusedUnchanged(damage.rows);
    }
    // A rename puts the new name in before it meets the old one, and stops
    // there: the file keeps both names.
    EXPECT_EQ(change([](NTFSDriver& d) { d.rename(u"/many.txt", u"/renamed.txt"); }), Common::FILE_CORRUPT);
    EXPECT_EQ(cat("/many.txt"), "linked\n");
    EXPECT_EQ(cat("/renamed.txt"), "linked\n");
    EXPECT_EQ(cat("/small.txt"), "small\n");
}

TEST_F(NtfsDamagedWrite, RecordsTheMftBitmapMisstatesAreNeverHandedOut) {
    // Free records 24 to 63 marked in use; keep.bin's and small.txt's
    // records marked free. The lower becomes the record kept back for the
    // MFT, whose bit stays clear until used; the higher is met in use,
    // passed and its bit stored; what is handed out lies past both.
    const std::uint64_t small = RecordOf(file_.path, "/small.txt");
    ASSERT_EQ(small, places_.keep + 1);
    ASSERT_GE(places_.keep, 64u);
    const std::vector<std::uint64_t> bitmap = image_.clustersOf(0, 0xB0);
    ASSERT_FALSE(bitmap.empty());
    const std::size_t bits = bitmap.front() * kCluster;
    for (std::uint64_t record = 24; record < 64; ++record) image_.bytes[bits + record / 8] |= 1u << (record % 8);
    for (std::uint64_t record : {places_.keep, small}) image_.bytes[bits + record / 8] &= ~(1u << (record % 8));
    const std::string keep = cat("/keep.bin");
    const struct {
        const char* what;
        std::function<void(NTFSDriver&)> action;
        const char* made;
    } rows[] = {
        {"create", [](NTFSDriver& d) { Create(d, u"/", u"new"); }, "/new"},
        {"make a directory", [](NTFSDriver& d) { At(d, u"/").make_directory(u"new"); }, "/new"},
        {"create in a big directory", [](NTFSDriver& d) { Create(d, u"/dir", u"new"); }, "/dir/new"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(change(row.action), 0u) << row.what;
        EXPECT_EQ(cat("/keep.bin"), keep) << row.what;
        EXPECT_EQ(cat("/small.txt"), "small\n") << row.what;
        EXPECT_EQ(RecordOf(file_.path, "/keep.bin"), places_.keep) << row.what;
        EXPECT_EQ(RecordOf(file_.path, "/small.txt"), small) << row.what;
        const std::uint64_t made = RecordOf(file_.path, row.made);
        EXPECT_GT(made, small) << row.what;
        const std::string after = bitmapOfRecords();
        EXPECT_TRUE(BitOf(after, made)) << row.what;
        EXPECT_FALSE(BitOf(after, places_.keep)) << row.what;
        EXPECT_TRUE(BitOf(after, small)) << row.what;
        for (std::uint64_t record = 24; record < 64; ++record) EXPECT_TRUE(BitOf(after, record)) << row.what;
    }
}

// A cluster bitmap that calls keep.bin's clusters free can't be told from a
// sound one without reading every run list of the volume, which the
// allocator doesn't do: it hands out the lowest clear bits. The damage then
// shows as clusters that two files claim, which ntfscluster reports, and
// nothing but the new file's own clusters and records changes.
TEST_F(NtfsDamagedWrite, ClustersTheBitmapCallsFreeAreHandedOutFirstFit) {
    const std::vector<std::uint64_t> keep = image_.clustersOf(places_.keep, 0x80);
    ASSERT_FALSE(keep.empty());
    std::uint64_t free_below = 0;
    for (std::uint64_t cluster = 0; cluster < keep.front(); ++cluster)
        free_below += (image_.bytes[places_.cluster_bitmap + cluster / 8] >> (cluster % 8) & 1) == 0;
    for (std::uint64_t cluster : keep) image_.bytes[places_.cluster_bitmap + cluster / 8] &= ~(1u << (cluster % 8));
    const std::string data = TestSupport::Pattern((free_below + 1) * kCluster, 3);
    ASSERT_EQ(change([&](NTFSDriver& d) {
                  Create(d, u"/", u"big");
                  WriteAt(d, u"big", 0, data);
              }),
              0u);
    EXPECT_EQ(cat("/big"), data);
    EXPECT_EQ(cat("/small.txt"), "small\n");
    const std::string owners =
        Shell("ntfscluster -c " + std::to_string(keep.front()) + " " + file_.path + " 2>/dev/null");
    EXPECT_NE(owners.find("/keep.bin/$DATA"), std::string::npos) << owners;
    EXPECT_NE(owners.find("/big/$DATA"), std::string::npos) << owners;
    EXPECT_EQ(Shell("ntfscluster -c " + std::to_string(keep.back()) + " " + file_.path + " 2>/dev/null").find("/big"),
              std::string::npos)
        << "one cluster more than the free ones below is taken, no more";
}

}  // namespace
