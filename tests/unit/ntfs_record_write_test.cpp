// The NTFS record layer written: records allocated and freed, attributes
// and names put in and taken out, full records that move attributes to
// extension records behind an attribute list. Volumes are made by mkntfs,
// ntfscp and ntfs-3g; what the driver wrote is read back by ntfsinfo and
// ntfscat and checked by ntfsfix.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "loader/common/byte_order.h"
#include "loader/common/error_codes.h"
#include "ntfs/cluster_allocator.h"
#include "ntfs/file_record.h"
#include "ntfs/file_record_impl.h"
#include "ntfs/mft.h"
#include "ntfs/ntfs_driver.h"
#include "tests/support/raised_code.h"
#include "tests/support/shell.h"
#include "tests/support/volume_fixture.h"

namespace {

using ntfs::NTFSDriver;
using TestSupport::RaisedCode;
using Volume = TestSupport::Volume<NTFSDriver, TryNTFSDriver>;

constexpr std::uint64_t kRootReference = 5 | (5ull << 48);

struct Image {
    // mkntfs, then the files through an ntfs-3g mount; `dos_names` gives
    // a file its DOS twin.
    bool make(const std::vector<std::string>& files, const std::string& dos_name = "") {
        const std::string mount = file.folder.Path() + "/mount";
        std::string script = "truncate -s 16M " + file.path + " && mkntfs -F -f -q " + file.path + " && mkdir " +
                             mount + " && ntfs-3g " + file.path + " " + mount;
        for (const std::string& name : files) script += " && echo " + name + " > " + mount + "/" + name;
        if (!dos_name.empty())
            script += " && setfattr -n system.ntfs_dos_name -v " + dos_name + " " + mount + "/" + files.front();
        const int status = TestSupport::RunQuietly("(" + script + ")");
        TestSupport::RunQuietly("umount " + mount);
        return status == 0;
    }
    std::string info(std::uint64_t record) const {
        return TestSupport::CaptureOutput("ntfsinfo -i " + std::to_string(record) + " " + file.path + " 2>&1");
    }
    std::uint64_t record(const std::string& name) const {
        const std::string out = TestSupport::CaptureOutput("ntfsinfo -F /" + name + " " + file.path);
        const std::size_t at = out.find("Dumping Inode ");
        return at == std::string::npos ? 0 : std::stoull(out.substr(at + 14));
    }
    std::string stream(std::uint64_t record, const std::string& name) const {
        return TestSupport::CaptureOutput("ntfscat -i " + std::to_string(record) + " -a 0x80 -n " + name + " " +
                                          file.path);
    }
    // Records in use by the MFT's bitmap, counted by ntfscat.
    std::uint64_t recordsInUse() const {
        const std::string bits = TestSupport::CaptureOutput("ntfscat -a 0xB0 -i 0 " + file.path);
        std::uint64_t count = 0;
        for (unsigned char byte : bits) count += __builtin_popcount(byte);
        return count;
    }
    std::uint64_t freeClusters() const {
        const std::string out = TestSupport::CaptureOutput("ntfsinfo -m " + file.path);
        const std::size_t at = out.find("Free Clusters:");
        return at == std::string::npos ? ~0ull : std::stoull(out.substr(at + 14));
    }
    // The u16 at `offset` of record `number`, the MFT's start being contiguous.
    std::uint16_t recordField(std::uint64_t number, std::uint32_t offset) const {
        const std::vector<unsigned char> bytes = file.bytes();
        const std::uint64_t cluster = 512ull * bytes[0x0D];
        const std::uint64_t at = Common::LoadLE64(bytes.data() + 0x30) * cluster + number * 1024 + offset;
        return Common::LoadLE16(bytes.data() + at);
    }
    bool sound() const {
        return TestSupport::CaptureOutput("ntfsfix -n " + file.path + "; echo status=$?").find("status=0") !=
               std::string::npos;
    }

    TestSupport::ImageFile file;
};

std::vector<unsigned char> NameValue(std::uint64_t parent, const std::u16string& name, std::uint8_t space) {
    std::vector<unsigned char> value(ntfs::FileNameValue::SizeFor(static_cast<std::uint32_t>(name.size())), 0);
    Common::StoreLE64(value.data(), parent);
    value[64] = static_cast<unsigned char>(name.size());
    value[65] = space;
    for (std::size_t i = 0; i < name.size(); ++i) Common::StoreLE16(value.data() + 66 + 2 * i, name[i]);
    return value;
}

std::u16string Wide(const std::string& text) { return std::u16string(text.begin(), text.end()); }

// Adds an attribute `type` named `name` holding `text` to `record`.
void AddAttribute(ntfs::BaseFileRecord& record, std::uint32_t type, const std::string& name, const std::string& text,
                  bool resident) {
    ntfs::AttributeRef stream(&record, record.createAttribute(type, Wide(name), resident));
    ASSERT_TRUE(stream);
    ASSERT_EQ(stream->write(0, text.size(), text.data()), text.size());
}

void AddStream(ntfs::BaseFileRecord& record, const std::string& name, const std::string& text, bool resident) {
    AddAttribute(record, ntfs::kData, name, text, resident);
}

TEST(NtfsRecordWrite, NewRecordsTakeBitsAndClustersThatTheirDeletionGivesBack) {
    Image image;
    ASSERT_TRUE(image.make({"a.txt"}));
    const std::uint64_t records_before = image.recordsInUse();
    const std::uint64_t clusters_before = image.freeClusters();
    const std::string data(3 * 4096 - 100, 'd');
    std::vector<std::uint64_t> numbers;
    {
        Volume volume(image.file.path);
        ASSERT_NE(volume.driver, nullptr);
        for (int i = 0; i < 3; ++i) {
            ntfs::RecordRef file = volume.driver->record_cache->create();
            AddAttribute(*file, ntfs::kStandardInformation, "", std::string(72, '\0'), true);
            const std::vector<unsigned char> name = NameValue(kRootReference, Wide("n" + std::to_string(i)), 1);
            file->addName(name.data(), static_cast<std::uint32_t>(name.size()));
            AddStream(*file, "", data, true);
            numbers.push_back(file->recordNumber());
        }
    }
    for (std::size_t i = 0; i < numbers.size(); ++i) {
        EXPECT_GE(numbers[i], 24u);
        if (i > 0) {
            EXPECT_NE(numbers[i], numbers[i - 1]);
        }
        const std::string info = image.info(numbers[i]);
        EXPECT_NE(info.find("Number of Hard Links:\t 1"), std::string::npos) << info;
        EXPECT_NE(info.find("Filename:\t\t 'n" + std::to_string(i) + "'"), std::string::npos) << info;
        EXPECT_TRUE(TestSupport::CaptureOutput("ntfscat -i " + std::to_string(numbers[i]) + " " + image.file.path) ==
                    data);
    }
    EXPECT_EQ(image.recordsInUse(), records_before + 3);
    EXPECT_EQ(image.freeClusters(), clusters_before - 9);
    std::vector<std::uint16_t> sequences;
    for (std::uint64_t number : numbers) sequences.push_back(image.recordField(number, 16));
    {
        Volume volume(image.file.path);
        for (std::size_t i = 0; i < numbers.size(); ++i) {
            ntfs::RecordRef file = volume.driver->record_cache->get(numbers[i]);
            const std::vector<unsigned char> name = NameValue(kRootReference, Wide("N" + std::to_string(i)), 1);
            const auto removed = file->removeName(name.data(), static_cast<std::uint32_t>(name.size()));
            EXPECT_EQ(removed.first, Wide("n" + std::to_string(i)));
            EXPECT_TRUE(removed.second.empty());
            file->owner();
        }
    }
    EXPECT_EQ(image.recordsInUse(), records_before);
    EXPECT_EQ(image.freeClusters(), clusters_before);
    for (std::size_t i = 0; i < numbers.size(); ++i) {
        EXPECT_EQ(image.recordField(numbers[i], 16), sequences[i] + 1);
        EXPECT_EQ(image.recordField(numbers[i], 22) & 1, 0);
    }
    EXPECT_TRUE(image.sound());
}

TEST(NtfsRecordWrite, AFullRecordMovesAttributesOutAndEveryStreamStaysReadable) {
    struct Case {
        const char* what;
        int streams;
        std::size_t name_length;
        std::size_t value_length;
        bool resident;
        bool list_expected;
        int in_clusters;  // attributes ntfsinfo shows non-resident
    };
    const Case cases[] = {
        {"long values go to clusters in place", 2, 4, 500, true, false, 1},
        {"long attributes in clusters go to extension records", 8, 130, 5000, false, true, 9},
        {"many short values split the record; the list goes to clusters", 40, 6, 40, true, true, 1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Image image;
        ASSERT_TRUE(image.make({"a.txt"}));
        const std::uint64_t number = image.record("a.txt");
        ASSERT_NE(number, 0u);
        std::vector<std::string> names;
        {
            Volume volume(image.file.path);
            ASSERT_NE(volume.driver, nullptr);
            ntfs::RecordRef file = volume.driver->record_cache->get(number);
            for (int i = 0; i < c.streams; ++i) {
                std::string name = "s" + std::to_string(i);
                name += std::string(c.name_length - std::min(c.name_length, name.size()), 'x');
                names.push_back(name);
                AddStream(*file, name, std::string(c.value_length, char('a' + i % 26)), c.resident);
            }
        }
        const std::string info = image.info(number);
        EXPECT_EQ(info.find("$ATTRIBUTE_LIST") != std::string::npos, c.list_expected) << info;
        int in_clusters = 0;
        for (std::size_t at = info.find("Resident: \t\t No"); at != std::string::npos;
             at = info.find("Resident: \t\t No", at + 1)) {
            ++in_clusters;
        }
        EXPECT_EQ(in_clusters, c.in_clusters);
        for (std::size_t i = 0; i < names.size(); ++i) {
            EXPECT_TRUE(image.stream(number, names[i]) == std::string(c.value_length, char('a' + i % 26))) << names[i];
        }
        EXPECT_EQ(TestSupport::CaptureOutput("ntfscat " + image.file.path + " /a.txt"), "a.txt\n");
        EXPECT_TRUE(image.sound());
    }
}

// A volume whose free space ntfs-3g left in holes of one cluster: a filler
// file, then files of one cluster of which every other one goes again.
bool MakeHoles(Image& image, int files, int cluster = 4096) {
    const std::string mount = image.file.folder.Path() + "/mount";
    const std::string size = std::to_string(cluster);
    // Room for the files and for the records that ntfs-3g adds to the MFT.
    const std::string spare = std::to_string(files * 4096 / cluster + 400);
    const std::string script =
        "truncate -s 64M " + image.file.path + " && mkntfs -F -f -q -c " + size + " " + image.file.path +
        " && mkdir " + mount + " && ntfs-3g " + image.file.path + " " + mount + " && echo a.txt > " + mount +
        "/a.txt" + " && free=$(df -B" + size + " " + mount + " | tail -1 | awk '{print $4}')" + " && dd if=/dev/zero of=" +
        mount + "/filler bs=" + size + " count=$((free - " + spare + ")) 2>/dev/null" +
        " && for i in $(seq 1 " + std::to_string(files) + "); do head -c " + size + " /dev/zero > " + mount +
        "/s$i; done && for i in $(seq 1 2 " + std::to_string(files) + "); do rm " + mount + "/s$i; done";
    const int status = TestSupport::RunQuietly("(" + script + ")");
    TestSupport::RunQuietly("umount " + mount);
    return status == 0;
}

TEST(NtfsRecordWrite, AFragmentedStreamGrowsIntoNewExtentsAndShrinksBack) {
    Image image;
    ASSERT_TRUE(MakeHoles(image, 800));
    const std::uint64_t number = image.record("a.txt");
    const std::uint64_t free_before = image.freeClusters();
    const std::uint64_t grown = 380 * 4096ull;
    std::string pattern(grown, '\0');
    for (std::size_t i = 0; i < pattern.size(); ++i) pattern[i] = static_cast<char>('a' + (i / 4096) % 26);
    {
        Volume volume(image.file.path);
        ASSERT_NE(volume.driver, nullptr);
        ntfs::RecordRef file = volume.driver->record_cache->get(number);
        ntfs::AttributeRef data = file.find(ntfs::kData);
        ASSERT_EQ(data->write(0, grown, pattern.data()), grown);
    }
    const std::string info = image.info(number);
    EXPECT_NE(info.find("$ATTRIBUTE_LIST"), std::string::npos);
    std::size_t extents = 0;
    for (std::size_t at = info.find("Dumping attribute $DATA"); at != std::string::npos;
         at = info.find("Dumping attribute $DATA", at + 1)) {
        ++extents;
    }
    EXPECT_GE(extents, 2u) << info;
    EXPECT_TRUE(TestSupport::CaptureOutput("ntfscat " + image.file.path + " /a.txt") == pattern);
    EXPECT_EQ(image.freeClusters(), free_before - 380);
    EXPECT_TRUE(image.sound());
    {
        Volume volume(image.file.path);
        ntfs::RecordRef file = volume.driver->record_cache->get(number);
        ntfs::AttributeRef data = file.find(ntfs::kData);
        EXPECT_EQ(data->resize(4096, true), 4096u);
    }
    EXPECT_EQ(image.freeClusters(), free_before - 1);
    EXPECT_TRUE(TestSupport::CaptureOutput("ntfscat " + image.file.path + " /a.txt") == pattern.substr(0, 4096));
    EXPECT_TRUE(image.sound());
}

TEST(NtfsRecordWrite, TheMftsFirstExtensionRecordIsFifteen) {
    Image image;
    ASSERT_TRUE(image.make({"a.txt"}));
    {
        Volume volume(image.file.path);
        ASSERT_NE(volume.driver, nullptr);
        ntfs::BaseFileRecord& mft = volume.driver->mft->recordZero();
        for (int i = 0; i < 3; ++i) AddStream(mft, "m" + std::to_string(i) + std::string(130, 'x'), "mft", false);
    }
    const std::string info = image.info(0);
    EXPECT_NE(info.find("$ATTRIBUTE_LIST"), std::string::npos);
    // The first stream that had to leave went to record 15, the next one
    // to the record that the allocator kept back.
    EXPECT_NE(info.find("$DATA (0x80) from mft record 15 "), std::string::npos) << info;
    EXPECT_NE(info.find("Data size:\t\t 3 (0x3)"), std::string::npos);
    EXPECT_EQ(image.recordField(15, 32), 0);  // its base is record 0
    EXPECT_EQ(image.recordField(15, 22) & 1, 1);
    EXPECT_EQ(TestSupport::CaptureOutput("ntfscat " + image.file.path + " /a.txt"), "a.txt\n");
    EXPECT_TRUE(image.sound());
}

TEST(NtfsRecordWrite, TheMftsOwnRunsAreCutBehindItsFirstSixteenRecords) {
    Image image;
    // Clusters of one record: each record that the MFT grows by comes from
    // a hole of its own, once the records that ntfs-3g freed are taken,
    // until record 0 can't name all the runs.
    ASSERT_TRUE(MakeHoles(image, 800, 1024));
    const std::uint64_t records_before = image.recordsInUse();
    constexpr int kFiles = 1000;
    std::vector<std::uint64_t> numbers;
    {
        Volume volume(image.file.path);
        ASSERT_NE(volume.driver, nullptr);
        for (int i = 0; i < kFiles; ++i) {
            ntfs::RecordRef file = volume.driver->record_cache->create();
            AddAttribute(*file, ntfs::kStandardInformation, "", std::string(72, '\0'), true);
            const std::vector<unsigned char> name = NameValue(kRootReference, Wide("n" + std::to_string(i)), 1);
            file->addName(name.data(), static_cast<std::uint32_t>(name.size()));
            numbers.push_back(file->recordNumber());
        }
    }
    const std::string info = TestSupport::CaptureOutput("ntfsinfo -v -i 0 " + image.file.path + " 2>&1");
    EXPECT_NE(info.find("$ATTRIBUTE_LIST"), std::string::npos) << info;
    // Record 0 keeps the clusters of records 0 to 15, of 1024 bytes each;
    // the rest goes on from record 15.
    const std::size_t head = info.find("$DATA (0x80) from mft record 0 ");
    const std::size_t tail = info.find("$DATA (0x80) from mft record 15 ");
    ASSERT_NE(head, std::string::npos) << info;
    ASSERT_NE(tail, std::string::npos) << info;
    EXPECT_EQ(info.find("Highest VCN:\t\t 15 (0xf)", head), info.find("Highest VCN:", head)) << info;
    EXPECT_EQ(info.find("Lowest VCN\t\t 16 (0x10)", tail), info.find("Lowest VCN", tail)) << info;
    // Extension records the MFT took beyond record 15 are records in use too.
    std::uint64_t extensions = 0;
    const std::string marker = "$DATA (0x80) from mft record ";
    for (std::size_t at = info.find(marker); at != std::string::npos; at = info.find(marker, at + 1)) {
        if (std::stoull(info.substr(at + marker.size())) > 15) ++extensions;
    }
    EXPECT_EQ(image.recordsInUse(), records_before + kFiles + extensions);
    for (std::uint64_t number : {numbers.front(), numbers[kFiles / 2], numbers.back()}) {
        EXPECT_NE(image.info(number).find("Number of Hard Links:\t 1"), std::string::npos) << number;
    }
    EXPECT_EQ(TestSupport::CaptureOutput("ntfscat " + image.file.path + " /a.txt"), "a.txt\n");
    EXPECT_TRUE(image.sound());
    // Record 0 finds its data stream through its own list at the next mount.
    Volume again(image.file.path);
    EXPECT_NE(again.driver, nullptr);
}

TEST(NtfsRecordWrite, AHeldResidentValueGoesToClustersUnderItsHolder) {
    Image image;
    ASSERT_TRUE(image.make({"a.txt"}));
    const std::uint64_t number = image.record("a.txt");
    const std::string held_value(400, 'h');
    {
        Volume volume(image.file.path);
        ASSERT_NE(volume.driver, nullptr);
        ntfs::RecordRef file = volume.driver->record_cache->get(number);
        AddStream(*file, "held", held_value, true);
        ntfs::AttributeRef held(file.get(), file->findAttribute(ntfs::kData, u"held"));
        ASSERT_TRUE(held);
        AddStream(*file, "other", std::string(400, 'o'), true);
        std::string read(held_value.size(), '\0');
        EXPECT_EQ(held->read(0, read.size(), read.data()), read.size());
        EXPECT_EQ(read, held_value);
        EXPECT_EQ(held->write(held_value.size(), 4, "tail"), 4u);
    }
    const std::string info = image.info(number);
    // Room came from the held value, not from a split of the record.
    EXPECT_EQ(info.find("$ATTRIBUTE_LIST"), std::string::npos) << info;
    EXPECT_EQ(image.stream(number, "held"), held_value + "tail");
    EXPECT_EQ(image.stream(number, "other"), std::string(400, 'o'));
    EXPECT_TRUE(image.sound());
}

TEST(NtfsRecordWrite, AHeldNameIsBusyAndTwinsGoTogether) {
    Image image;
    ASSERT_TRUE(image.make({"LongFileName.txt", "b.txt"}, "LONGFI~1.TXT"));
    const std::uint64_t twin_file = image.record("LongFileName.txt");
    const std::uint64_t plain_file = image.record("b.txt");
    {
        Volume volume(image.file.path);
        ASSERT_NE(volume.driver, nullptr);
        ntfs::RecordRef plain = volume.driver->record_cache->get(plain_file);
        const std::vector<unsigned char> b = NameValue(kRootReference, u"B.TXT", 0);
        {
            ntfs::AttributeRef held(plain.get(), plain->firstOfType(ntfs::kFileName));
            EXPECT_EQ(RaisedCode([&] { plain->removeName(b.data(), std::uint32_t(b.size())); }), Common::FILE_BUSY);
            EXPECT_EQ(plain->recordBuffer()->header()->link_count(), 1);
        }
        const std::vector<unsigned char> wrong = NameValue(kRootReference, u"c.txt", 0);
        EXPECT_EQ(RaisedCode([&] { plain->removeName(wrong.data(), std::uint32_t(wrong.size())); }),
                  Common::FILE_CORRUPT);
        EXPECT_EQ(plain->removeName(b.data(), std::uint32_t(b.size())).first, u"b.txt");

        ntfs::RecordRef twins = volume.driver->record_cache->get(twin_file);
        const std::vector<unsigned char> dos = NameValue(kRootReference, u"longfi~1.txt", 2);
        const auto removed = twins->removeName(dos.data(), std::uint32_t(dos.size()));
        EXPECT_EQ(removed.first, u"LONGFI~1.TXT");
        EXPECT_EQ(removed.second, u"LongFileName.txt");
    }
    for (std::uint64_t number : {twin_file, plain_file}) {
        const std::string info = image.info(number);
        EXPECT_NE(info.find("Number of Hard Links:\t 0"), std::string::npos) << info;
        EXPECT_EQ(info.find("$FILE_NAME"), std::string::npos) << info;
    }
}

}  // namespace
