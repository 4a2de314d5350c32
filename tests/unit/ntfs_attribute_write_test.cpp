// The NTFS write layer below the directory interface: the run list codec,
// values of non-resident and resident attributes written, grown and cut,
// and records written back with their update sequence. Volumes are made by
// mkntfs and ntfscp; what the driver wrote is read back by ntfscat and
// ntfsinfo and checked by ntfsfix.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "fsdriver/aligned_buffer.h"
#include "loader/common/byte_order.h"
#include "loader/common/error_codes.h"
#include "ntfs/cluster_allocator.h"
#include "ntfs/file_record.h"
#include "ntfs/fixups.h"
#include "ntfs/ntfs_driver.h"
#include "ntfs/run_list.h"
#include "tests/support/raised_code.h"
#include "tests/support/shell.h"
#include "tests/support/volume_fixture.h"

namespace {

using ntfs::NTFSDriver;
using ntfs::RunEntry;
using ntfs::RunList;
using TestSupport::Pattern;
using TestSupport::RaisedCode;
using Volume = TestSupport::Volume<NTFSDriver, TryNTFSDriver>;

// A volume made by mkntfs with files put by ntfscp, and the tools that
// judge it afterwards.
struct Image {
    bool make(const std::string& options, const std::map<std::string, std::string>& files) {
        if (TestSupport::RunQuietly("truncate -s 16M " + file.path + " && mkntfs -F -f -q " + options + " " +
                                    file.path) != 0) {
            return false;
        }
        for (const auto& [name, data] : files) {
            file.folder.Write("src/" + name, data);
            if (TestSupport::RunQuietly("ntfscp " + file.path + " " + file.folder.Path() + "/src/" + name + " /" +
                                        name) != 0) {
                return false;
            }
        }
        return true;
    }
    std::uint64_t record(const std::string& name) const {
        const std::string info = TestSupport::CaptureOutput("ntfsinfo -F /" + name + " " + file.path);
        const std::size_t at = info.find("Dumping Inode ");
        return at == std::string::npos ? 0 : std::stoull(info.substr(at + 14));
    }
    std::string cat(const std::string& name) const {
        return TestSupport::CaptureOutput("ntfscat " + file.path + " /" + name);
    }
    // ntfsfix -n finds nothing to repair.
    bool sound() const {
        const std::string out = TestSupport::CaptureOutput("ntfsfix -n " + file.path + "; echo status=$?");
        return out.find("status=0") != std::string::npos;
    }

    TestSupport::ImageFile file;
};

// Runs `change` on the unnamed data attribute of `name` over a mounted
// copy of the image, then stores what the driver wrote back into it.
template <typename Change>
void ChangeData(Image& image, const std::string& name, Change change) {
    const std::uint64_t number = image.record(name);
    ASSERT_NE(number, 0u);
    Volume volume(image.file.path);
    ASSERT_NE(volume.driver, nullptr);
    {
        ntfs::RecordRef file = volume.driver->record_cache->get(number);
        ntfs::AttributeRef data = file.find(ntfs::kData);
        ASSERT_TRUE(data);
        change(*data);
    }
    volume.unmount();
}

std::string Bytes(std::initializer_list<unsigned> values) {
    std::string out;
    for (unsigned v : values) out.push_back(static_cast<char>(v));
    return out;
}

// The byte offset in the image of the header of the first attribute of
// `type` in record `number` (the MFT's start lies in one piece).
std::uint64_t AttributeOffset(const std::vector<unsigned char>& bytes, std::uint64_t number, std::uint32_t type) {
    const std::uint64_t cluster = 512ull * bytes[0x0D];
    const auto per_record = static_cast<std::int8_t>(bytes[0x40]);
    const std::uint64_t record_size = per_record < 0 ? 1ull << -per_record : per_record * cluster;
    const std::uint64_t record = Common::LoadLE64(bytes.data() + 0x30) * cluster + number * record_size;
    std::uint64_t at = record + Common::LoadLE16(bytes.data() + record + 20);
    while (Common::LoadLE32(bytes.data() + at) != type) at += Common::LoadLE32(bytes.data() + at + 4);
    return at;
}

// The number of free clusters that ntfsinfo counts in $Bitmap.
std::uint64_t FreeClusters(const Image& image) {
    const std::string info = TestSupport::CaptureOutput("ntfsinfo -m " + image.file.path);
    const std::size_t at = info.find("Free Clusters:");
    return at == std::string::npos ? ~0ull : std::stoull(info.substr(at + 14));
}

// Growth and shrinking take and give clusters through the volume's
// cluster allocator; a volume whose allocator counts no free cluster has
// none to give.
bool AllocatorWorks(Volume& volume) { return volume.driver->cluster_allocator->freeCount() != 0; }

TEST(NtfsAttributeWrite, FixupsProtectEveryStrideAndComeBack) {
    struct Case {
        const char* what;
        std::uint16_t number;
        std::uint16_t expected;
    } cases[] = {{"counts on", 7, 8}, {"skips 0", 0xFFFF, 1}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        std::vector<unsigned char> block(1024);
        for (std::size_t i = 0; i < block.size(); ++i) block[i] = static_cast<unsigned char>(i * 13 + 1);
        Common::StoreLE16(block.data() + 4, 48);
        Common::StoreLE16(block.data() + 6, 3);
        Common::StoreLE16(block.data() + 48, c.number);
        const std::vector<unsigned char> plain = block;
        ntfs::ApplyWriteFixups(block.data(), 1024, ntfs::kRecordFixupMinimum);
        EXPECT_EQ(Common::LoadLE16(block.data() + 48), c.expected);
        EXPECT_EQ(Common::LoadLE16(block.data() + 510), c.expected);
        EXPECT_EQ(Common::LoadLE16(block.data() + 1022), c.expected);
        ntfs::ApplyReadFixups(block.data(), 1024, ntfs::kRecordFixupMinimum);
        // Every byte but the array's is back.
        EXPECT_EQ(Common::LoadLE16(block.data() + 50), Common::LoadLE16(plain.data() + 510));
        std::copy(plain.begin() + 48, plain.begin() + 54, block.begin() + 48);
        EXPECT_TRUE(block == plain);
    }
    std::vector<unsigned char> wrong(1024);
    Common::StoreLE16(wrong.data() + 4, 48);
    Common::StoreLE16(wrong.data() + 6, 2);
    EXPECT_EQ(RaisedCode([&] { ntfs::ApplyWriteFixups(wrong.data(), 1024, 42); }), Common::FILE_CORRUPT);
}

TEST(NtfsAttributeWrite, RunListEncodesInTheMinimalFormAndDecodesBack) {
    constexpr std::uint64_t kClusters = 0x200000000ull;
    struct Case {
        const char* what;
        std::vector<RunEntry> runs;
        std::string encoded;
    } cases[] = {
        {"one short run", {{0x1234, 0, 0x10}}, Bytes({0x21, 0x10, 0x34, 0x12, 0})},
        {"negative delta", {{0x1000, 0, 1}, {0xFF0, 1, 2}}, Bytes({0x21, 1, 0x00, 0x10, 0x11, 2, 0xF0, 0})},
        {"sparse keeps the previous cluster", {{0x80, 0, 1}, {RunEntry::kSparse, 1, 0x80}, {0x90, 0x81, 1}},
         Bytes({0x21, 1, 0x80, 0x00, 0x02, 0x80, 0x00, 0x11, 1, 0x10, 0})},
        {"five-byte positive", {{0x80000000u, 0, 1}}, Bytes({0x51, 1, 0, 0, 0, 0x80, 0x00, 0})},
        {"four-byte negative", {{0x90000000u, 0, 1}, {0x10000000u, 1, 1}},
         Bytes({0x51, 1, 0, 0, 0, 0x90, 0x00, 0x41, 1, 0, 0, 0, 0x80, 0})},
        {"five-byte negative", {{0xF0000000u, 0, 1}, {0x10000000u, 1, 1}},
         Bytes({0x51, 1, 0, 0, 0, 0xF0, 0x00, 0x51, 1, 0, 0, 0, 0x20, 0xFF, 0})},
        {"long length", {{5, 0, 0x12345}}, Bytes({0x13, 0x45, 0x23, 0x01, 5, 0})},
        {"empty", {}, Bytes({0})},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        RunList list;
        for (const RunEntry& run : c.runs) list.append(run);
        ASSERT_EQ(list.encodedSize(), c.encoded.size());
        std::string out(list.encodedSize(), '\x55');
        list.encode(reinterpret_cast<unsigned char*>(out.data()));
        EXPECT_EQ(out, c.encoded);
        std::uint64_t end = c.runs.empty() ? 0 : c.runs.back().end();
        RunList back = RunList::Decode(reinterpret_cast<const unsigned char*>(out.data()),
                                       static_cast<std::uint32_t>(out.size()), 0, end - 1, kClusters);
        ASSERT_EQ(back.size(), c.runs.size());
        for (std::size_t i = 0; i < c.runs.size(); ++i) {
            EXPECT_EQ(back[i].cluster, c.runs[i].cluster);
            EXPECT_EQ(back[i].vcn, c.runs[i].vcn);
            EXPECT_EQ(back[i].length, c.runs[i].length);
        }
    }
    RunList too_far;
    too_far.append({0x100000000ull, 0, 1});
    EXPECT_EQ(RaisedCode([&] { too_far.encodedSize(); }), Common::FILE_UNSUPPORTED);
}

TEST(NtfsAttributeWrite, RunListAppendsMergedAndSplitsAtAVcn) {
    RunList list;
    list.append({100, 0, 4});
    list.append({104, 4, 2});                 // continues the clusters: merged
    list.append({RunEntry::kSparse, 6, 3});   // a hole
    list.append({RunEntry::kSparse, 9, 1});   // and more of it: merged
    list.append({50, 10, 5});                 // elsewhere
    ASSERT_EQ(list.size(), 3u);
    EXPECT_EQ(list[0].length, 6u);
    EXPECT_EQ(list[1].length, 4u);
    RunList tail = list.splitAt(12);
    ASSERT_EQ(list.size(), 3u);
    EXPECT_EQ(list[2].length, 2u);
    ASSERT_EQ(tail.size(), 1u);
    EXPECT_EQ(tail[0].cluster, 52u);
    EXPECT_EQ(tail[0].vcn, 12u);
    EXPECT_EQ(tail[0].length, 3u);
    RunList rest = list.splitAt(6);
    EXPECT_EQ(list.size(), 1u);
    EXPECT_EQ(rest.size(), 2u);
    EXPECT_EQ(list.splitAt(6).size(), 0u);
}

TEST(NtfsAttributeWrite, NonResidentWritesInsideTheStreamReachTheDisk) {
    for (const char* options : {"-c 4096", "-c 512"}) {
        SCOPED_TRACE(options);
        Image image;
        std::string expected = Pattern(50000, 3);
        ASSERT_TRUE(image.make(options, {{"data.bin", expected}}));
        struct Write {
            std::uint64_t position;
            std::uint64_t length;
            bool zeros;
        } writes[] = {
            {5000, 3000, false},   // across a cluster boundary, unaligned
            {8192, 8192, false},   // whole clusters
            {49990, 10, false},    // the tail, up to the size
            {100, 200, true},      // zeros from a null buffer
            {0, 1, false},
        };
        ChangeData(image, "data.bin", [&](ntfs::Attribute& data) {
            for (const Write& w : writes) {
                const std::string bytes = Pattern(w.length, static_cast<unsigned>(w.position % 251));
                const std::uint64_t written = data.write(w.position, w.length, w.zeros ? nullptr : bytes.data());
                EXPECT_EQ(written, w.length);
                expected.replace(w.position, w.length, w.zeros ? std::string(w.length, '\0') : bytes);
            }
            std::string back(expected.size(), '\0');
            EXPECT_EQ(data.read(0, back.size(), back.data()), back.size());
            EXPECT_TRUE(back == expected);
        });
        EXPECT_TRUE(image.cat("data.bin") == expected);
        EXPECT_TRUE(image.sound());
    }
}

TEST(NtfsAttributeWrite, DirectWritesCheckTheGridAndReachTheDisk) {
    Image image;
    std::string expected = Pattern(40000, 4);
    ASSERT_TRUE(image.make("-c 2048", {{"direct.bin", expected}}));
    ChangeData(image, "direct.bin", [&](ntfs::Attribute& data) {
        AlignedBuffer buffer(8192, 512);
        const std::string bytes = Pattern(8192, 9);
        std::memcpy(buffer.data(), bytes.data(), bytes.size());
        EXPECT_EQ(RaisedCode([&] { data.writeSectors(100, 512, buffer.data()); }), Common::FILE_WRITE);
        EXPECT_EQ(RaisedCode([&] { data.writeSectors(512, 100, buffer.data()); }), Common::FILE_WRITE);
        EXPECT_EQ(RaisedCode([&] { data.writeSectors(512, 512, nullptr); }), Common::FILE_WRITE);
        EXPECT_EQ(RaisedCode([&] { data.writeSectors(512, 512, buffer.data() + 1); }),
                  Common::FILE_WRITE);
        // Across clusters and into a block the cache holds already.
        std::string cached(100, '\0');
        data.read(3000, cached.size(), cached.data());
        EXPECT_EQ(data.writeSectors(1536, 8192, buffer.data()), 8192u);
        expected.replace(1536, 8192, bytes);
        data.read(3000, cached.size(), cached.data());
        EXPECT_TRUE(cached == expected.substr(3000, 100));
    });
    EXPECT_TRUE(image.cat("direct.bin") == expected);
    EXPECT_TRUE(image.sound());
}

TEST(NtfsAttributeWrite, WritesPastTheInitializedSizeZeroTheGapFirst) {
    Image image;
    std::string expected = Pattern(20000, 6);
    ASSERT_TRUE(image.make("-c 4096", {{"init.bin", expected}}));
    // Only the first cluster counts as written; the rest reads as zeros.
    std::vector<unsigned char> bytes = image.file.bytes();
    Common::StoreLE64(bytes.data() + AttributeOffset(bytes, image.record("init.bin"), ntfs::kData) + 56, 4096);
    image.file.store(bytes);
    std::fill(expected.begin() + 4096, expected.end(), '\0');
    ChangeData(image, "init.bin", [&](ntfs::Attribute& data) {
        const std::string bytes = Pattern(100, 8);
        EXPECT_EQ(data.write(8192, 100, bytes.data()), 100u);
        expected.replace(8192, 100, bytes);
        // Past the data size but inside the last cluster: no new cluster.
        EXPECT_EQ(data.write(20400, 100, bytes.data()), 100u);
        expected.resize(20400, '\0');
        expected += bytes;
        EXPECT_EQ(data.size(), 20500u);
    });
    EXPECT_TRUE(image.cat("init.bin") == expected);
    EXPECT_TRUE(image.sound());
}

TEST(NtfsAttributeWrite, ResidentValuesChangeInTheirRecord) {
    Image image;
    const std::string named = Pattern(300, 2);
    ASSERT_TRUE(image.make("-c 4096", {{"small.txt", "resident bytes"}}));
    image.file.folder.Write("named", named);
    ASSERT_EQ(TestSupport::RunQuietly("ntfscp -N alt " + image.file.path + " " + image.file.folder.Path() +
                                      "/named /small.txt"),
              0);
    std::string expected = "resident bytes";
    const std::uint64_t number = image.record("small.txt");
    {
        Volume volume(image.file.path);
        ASSERT_NE(volume.driver, nullptr);
        ntfs::RecordRef file = volume.driver->record_cache->get(number);
        ntfs::AttributeRef data = file.find(ntfs::kData);
        ntfs::AttributeRef stream = file.find(ntfs::kData, u"alt");
        ASSERT_TRUE(data && stream);
        struct Step {
            const char* what;
            std::uint64_t position;
            std::string bytes;
            std::uint64_t resize;  // before the write, ~0 for none
        } steps[] = {
            {"grow by a write past the end", 14, Pattern(200, 4), ~0ull},
            {"write inside", 3, "XYZ", ~0ull},
            {"shrink", 0, "", 50},
            {"grow by a resize, zeros behind", 0, "", 90},
        };
        for (const Step& step : steps) {
            SCOPED_TRACE(step.what);
            if (step.resize != ~0ull) {
                EXPECT_EQ(data->resize(step.resize, false), step.resize);
                expected.resize(step.resize, '\0');
            }
            if (!step.bytes.empty()) {
                EXPECT_EQ(data->write(step.position, step.bytes.size(), step.bytes.data()), step.bytes.size());
                expected.resize(std::max<std::size_t>(expected.size(), step.position + step.bytes.size()));
                expected.replace(step.position, step.bytes.size(), step.bytes);
            }
            // The stream behind the value moved with it.
            std::string back(named.size(), '\0');
            EXPECT_EQ(stream->read(0, back.size(), back.data()), back.size());
            EXPECT_TRUE(back == named);
        }
    }
    EXPECT_TRUE(image.cat("small.txt") == expected);
    EXPECT_TRUE(TestSupport::CaptureOutput("ntfscat -a 0x80 -n alt " + image.file.path + " /small.txt") == named);
    EXPECT_TRUE(image.sound());
}

TEST(NtfsAttributeWrite, SystemRecordsReachTheMirrorAndTheDefinitionsBoundValues) {
    Image image;
    ASSERT_TRUE(image.make("-c 4096 -L Old", {}));
    {
        Volume volume(image.file.path);
        ASSERT_NE(volume.driver, nullptr);
        ntfs::RecordRef record = volume.driver->record_cache->get(ntfs::kVolumeRecord);
        ntfs::AttributeRef name = record.find(ntfs::kVolumeName);
        ASSERT_TRUE(name);
        // Below the type's minimum of one character the value stays at it.
        EXPECT_EQ(name->resize(0, false), 2u);
        const std::u16string label = u"A much longer label";
        const std::uint64_t bytes = 2 * label.size();
        EXPECT_EQ(name->write(0, bytes, label.data()), bytes);
        EXPECT_EQ(name->size(), bytes);
        // The root's index must stay in its record: no room is disk full.
        ntfs::RecordRef root = volume.driver->record_cache->get(ntfs::kRootRecord);
        ntfs::AttributeRef index = root.find(ntfs::kIndexRoot, u"$I30");
        ASSERT_TRUE(index);
        const std::uint64_t before = index->size();
        EXPECT_EQ(RaisedCode([&] { index->resize(8000, true); }), Common::FILE_DISK_FULL);
        EXPECT_EQ(index->size(), before);
    }
    EXPECT_EQ(TestSupport::CaptureOutput("ntfslabel " + image.file.path), "A much longer label\n");
    // ntfsfix compares $MFTMirr with $MFT record by record.
    EXPECT_TRUE(image.sound());
}

TEST(NtfsAttributeWrite, FlushedRecordsGoOutProtectedAndMirrored) {
    for (const char* options : {"-c 512", "-c 4096"}) {
        SCOPED_TRACE(options);
        Image image;
        ASSERT_TRUE(image.make(options, {}));
        const std::vector<unsigned char> before = image.file.bytes();
        const std::uint64_t cluster = 512ull * before[0x0D];
        const std::uint64_t mft = Common::LoadLE64(before.data() + 0x30) * cluster;
        const std::uint64_t mirror = Common::LoadLE64(before.data() + 0x38) * cluster;
        {
            Volume volume(image.file.path);
            ASSERT_NE(volume.driver, nullptr);
            for (std::uint64_t number : {0, 1, 2, 3, 5}) {
                ntfs::RecordRef record = volume.driver->record_cache->get(number);
                record->flush();
            }
        }
        const std::vector<unsigned char> after = image.file.bytes();
        for (std::uint64_t number = 0; number < 4; ++number) {
            const std::uint64_t at = mft + number * 1024;
            // A new update sequence number in the array and at each stride's end.
            const std::uint16_t sequence = Common::LoadLE16(after.data() + at + Common::LoadLE16(after.data() + at + 4));
            EXPECT_EQ(sequence, Common::LoadLE16(before.data() + at + Common::LoadLE16(before.data() + at + 4)) + 1);
            EXPECT_EQ(Common::LoadLE16(after.data() + at + 510), sequence);
            EXPECT_EQ(Common::LoadLE16(after.data() + at + 1022), sequence);
            EXPECT_TRUE(std::equal(after.begin() + at, after.begin() + at + 1024, after.begin() + mirror + number * 1024));
        }
        EXPECT_TRUE(image.sound());
    }
}

TEST(NtfsAttributeWrite, CompressedAndEncryptedStreamsRefuseChanges) {
    struct Case {
        const char* what;
        std::uint16_t flags;
        std::uint32_t write;
        std::uint32_t grow;
    } cases[] = {
        {"sparse", ntfs::kFlagSparse, Common::FILE_WRITE, Common::FILE_READ_ONLY},
        {"compressed", 1, Common::FILE_WRITE, Common::FILE_READ_ONLY},
        {"encrypted", ntfs::kFlagEncrypted, Common::FILE_UNSUPPORTED, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Image image;
        ASSERT_TRUE(image.make("-c 4096", {{"flagged.bin", Pattern(9000, 1)}}));
        std::vector<unsigned char> bytes = image.file.bytes();
        Common::StoreLE16(bytes.data() + AttributeOffset(bytes, image.record("flagged.bin"), ntfs::kData) + 12, c.flags);
        image.file.store(bytes);
        ChangeData(image, "flagged.bin", [&](ntfs::Attribute& data) {
            AlignedBuffer buffer(512, 512);
            EXPECT_EQ(RaisedCode([&] { data.write(0, 10, "0123456789"); }), c.write);
            EXPECT_EQ(RaisedCode([&] { data.writeSectors(0, 512, buffer.data()); }), c.write);
            if (c.grow != 0) EXPECT_EQ(RaisedCode([&] { data.resize(100, false); }), c.grow);
        });
        EXPECT_TRUE(image.file.bytes() == bytes);
    }
}

TEST(NtfsAttributeWrite, ReadOnlyVolumesTakeNoWrite) {
    Image image;
    ASSERT_TRUE(image.make("-c 4096", {{"kept.bin", Pattern(9000, 1)}}));
    const std::uint64_t number = image.record("kept.bin");
    std::vector<unsigned char> filter(16, 0xFF);
    Volume volume(TestSupport::DiskOf(image.file.path), filter.data(), filter.size() * 8);
    ASSERT_NE(volume.driver, nullptr);
    ntfs::RecordRef file = volume.driver->record_cache->get(number);
    ntfs::AttributeRef data = file.find(ntfs::kData);
    ASSERT_TRUE(data);
    EXPECT_EQ(RaisedCode([&] { data->write(0, 4, "abcd"); }), Common::FILE_READ_ONLY);
    EXPECT_EQ(volume.disk->writes(), 0u);
}

// What needs clusters from the volume: values moved out of their record,
// streams grown past their clusters, shrunk streams giving clusters back,
// a compressed stream emptied into a plain one.
TEST(NtfsAttributeWrite, GrowthAndShrinkingTakeAndGiveClusters) {
    Image image;
    const std::string big = Pattern(50000, 5);
    ASSERT_TRUE(image.make("-c 4096", {{"res.txt", "short"}, {"big.bin", big}, {"packed.bin", Pattern(9000, 2)}}));
    std::vector<unsigned char> bytes = image.file.bytes();
    Common::StoreLE16(bytes.data() + AttributeOffset(bytes, image.record("packed.bin"), ntfs::kData) + 12,
                      ntfs::kFlagSparse);
    image.file.store(bytes);
    const std::uint64_t free_before = FreeClusters(image);
    const std::string grown = Pattern(6000, 7);
    const std::string tail = Pattern(30000, 8);
    {
        Volume volume(image.file.path);
        ASSERT_NE(volume.driver, nullptr);
        if (!AllocatorWorks(volume)) GTEST_SKIP() << "the volume's cluster allocator has nothing to give";
        ntfs::RecordRef res = volume.driver->record_cache->get(image.record("res.txt"));
        ntfs::AttributeRef value = res.find(ntfs::kData);
        EXPECT_EQ(value->write(0, grown.size(), grown.data()), grown.size());  // out of the record: 2 clusters
        ntfs::RecordRef file = volume.driver->record_cache->get(image.record("big.bin"));
        ntfs::AttributeRef data = file.find(ntfs::kData);
        EXPECT_EQ(data->resize(5000, false), 5000u);                           // 13 clusters to 2
        const std::size_t logged = volume.disk->log.size();
        EXPECT_EQ(data->write(5000, tail.size(), tail.data()), tail.size());  // 2 to 9
        // Clusters past the old end are written without being read first.
        for (std::uint64_t vcn = 2; vcn < 9; ++vcn) {
            const std::uint64_t sector = data->physicalPosition(vcn * 4096);
            for (std::size_t i = logged; i < volume.disk->log.size(); ++i) {
                const driver_test::TransferRecord& t = volume.disk->log[i];
                EXPECT_FALSE(t.operation == Fdisk::kTransferRead && t.sector <= sector && sector < t.sector + t.count);
            }
        }
        ntfs::RecordRef packed = volume.driver->record_cache->get(image.record("packed.bin"));
        ntfs::AttributeRef plain = packed.find(ntfs::kData);
        EXPECT_EQ(plain->resize(0, false), 0u);                                // 3 clusters to 0
        EXPECT_EQ(plain->write(0, 4, "open"), 4u);                             // 0 to 1
    }
    EXPECT_TRUE(image.cat("res.txt") == grown);
    EXPECT_TRUE(image.cat("big.bin") == big.substr(0, 5000) + tail);
    EXPECT_EQ(image.cat("packed.bin"), "open");
    EXPECT_EQ(FreeClusters(image), free_before - 2 + 11 - 7 + 3 - 1);
    EXPECT_TRUE(image.sound());
}

}  // namespace
