// The bit arrays of the NTFS driver on volumes that mkntfs makes: the
// cluster bitmap against ntfsinfo's count, the record bitmap's kept bits
// and its reserved record, an index's buffer bitmap. What the allocators
// write is read back with ntfscat and ntfsinfo, and ntfsfix must accept it.
#include <gtest/gtest.h>

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "loader/common/error_codes.h"
#include "ntfs/cluster_allocator.h"
#include "ntfs/file_record_impl.h"
#include "ntfs/index_buffer_allocator.h"
#include "ntfs/mft.h"
#include "ntfs/ntfs_driver.h"
#include "ntfs/record_allocator.h"
#include "tests/support/raised_code.h"
#include "tests/support/shell.h"
#include "tests/support/volume_fixture.h"

namespace ntfs {
// Runs as (first, count) in a failure's message.
void PrintTo(const BitRun& run, std::ostream* out) { *out << "(" << run.first << ", " << run.count << ")"; }
}  // namespace ntfs

namespace {

using ntfs::BitRun;
using ntfs::NTFSDriver;
using TestSupport::RaisedCode;
using Volume = TestSupport::Volume<NTFSDriver, TryNTFSDriver>;

// 9 MiB in 4 KiB clusters: 2303 clusters, so the cluster bitmap's last byte
// is only partly the volume's.
struct SmallVolume {
    SmallVolume() {
        made = TestSupport::RunQuietly("truncate -s 9M " + file.path + " && mkntfs -F -f -q -c 4096 " + file.path) == 0;
    }
    std::string tool(const std::string& command) const {
        return TestSupport::CaptureOutput(command + " " + file.path + " 2>/dev/null");
    }
    std::uint64_t freeClusters() const {
        const std::string info = tool("ntfsinfo -m");
        const std::size_t at = info.find("Free Clusters: ");
        return at == std::string::npos ? ~0ull : std::stoull(info.substr(at + 15));
    }
    bool checks() const { return TestSupport::RunQuietly("ntfsfix -n " + file.path) == 0; }

    TestSupport::ImageFile file;
    bool made = false;
};

// Bit `bit` of a bitmap that a tool printed.
bool BitOf(const std::string& bytes, std::uint64_t bit) {
    return bit / 8 < bytes.size() && (static_cast<unsigned char>(bytes[bit / 8]) >> (bit % 8) & 1) != 0;
}

std::uint64_t Total(const std::vector<BitRun>& runs) {
    std::uint64_t total = 0;
    for (const BitRun& run : runs) total += run.count;
    return total;
}

std::string RecordBits(const SmallVolume& volume) { return volume.tool("ntfscat -a 0xb0 -i 0"); }

TEST(NtfsBitmap, ClusterAllocationsAgreeWithTheTools) {
    SmallVolume image;
    ASSERT_TRUE(image.made);
    const std::uint64_t tools_free = image.freeClusters();
    std::vector<BitRun> kept;
    {
        Volume volume(image.file.path);
        ASSERT_NE(volume.driver, nullptr);
        NTFSDriver::ClusterAllocator& clusters = *volume.driver->cluster_allocator;
        std::uint64_t total = 0, free = 0, available = 0;
        volume.driver->space(total, free, available);
        EXPECT_EQ(free, tools_free * 4096);
        EXPECT_EQ(clusters.freeCount(), tools_free);

        // Within a run of seven: set, clear, clear, set, clear, clear, clear.
        std::vector<BitRun> first;
        std::uint64_t got = 0;
        clusters.allocate(first, 64, &got, false, true);
        ASSERT_EQ(got, 64u);
        std::uint64_t b = ~0ull;
        for (const BitRun& run : first) {
            if (run.count >= 7 && b == ~0ull) b = run.first;
        }
        ASSERT_NE(b, ~0ull);
        clusters.freeBits(b + 1, 2);
        clusters.freeBits(b + 4, 3);
        EXPECT_EQ(clusters.cursor(), b + 1);  // a freed bit below the cursor brings it back
        EXPECT_EQ(clusters.freeCount(), tools_free - 64 + 5);
        std::vector<BitRun> runs;
        clusters.allocate(runs, 5, &got, false, true);
        EXPECT_EQ(got, 5u);
        EXPECT_EQ(runs, (std::vector<BitRun>{{b + 1, 2}, {b + 4, 3}}));
        EXPECT_EQ(clusters.freeCount(), tools_free - 64);

        // The volume runs out: what's left comes, and no growth follows.
        std::vector<BitRun> rest;
        clusters.allocate(rest, tools_free, &got, false, true);
        EXPECT_EQ(got, tools_free - 64);
        EXPECT_EQ(Total(rest), got);
        EXPECT_EQ(clusters.freeCount(), 0u);
        for (const BitRun& run : rest) EXPECT_LT(run.first + run.count, 2304u);  // never the bit past the last cluster
        std::vector<BitRun> none;
        clusters.allocate(none, 1, &got, true, true);  // even when asked to, it doesn't grow
        EXPECT_EQ(got, 0u);
        EXPECT_TRUE(none.empty());
        clusters.freeList(rest);
        EXPECT_EQ(clusters.freeCount(), tools_free - 64);
        kept = first;
    }
    EXPECT_EQ(image.freeClusters(), tools_free - 64);
    const std::string bitmap = TestSupport::CaptureOutput("ntfscat " + image.file.path + " '$Bitmap' 2>/dev/null");
    EXPECT_EQ(bitmap.size(), 288u);
    for (const BitRun& run : kept) EXPECT_TRUE(BitOf(bitmap, run.first) && BitOf(bitmap, run.first + run.count - 1));
    EXPECT_TRUE(image.checks());
    {
        Volume volume(image.file.path);
        ASSERT_NE(volume.driver, nullptr);
        volume.driver->cluster_allocator->freeList(kept);
        EXPECT_EQ(volume.driver->cluster_allocator->freeCount(), tools_free);
    }
    EXPECT_EQ(image.freeClusters(), tools_free);
    EXPECT_TRUE(image.checks());
}

TEST(NtfsBitmap, RecordBitmapKeepsTheSystemRecordsAndTheReservedOne) {
    SmallVolume image;
    ASSERT_TRUE(image.made);
    // mkntfs leaves records 16 to 23 clear and uses 0 to 15 and 24 to 26.
    ASSERT_EQ(RecordBits(image).substr(0, 4), std::string("\xff\xff\x00\x07", 4));
    {
        Volume volume(image.file.path);
        ASSERT_NE(volume.driver, nullptr);
        ntfs::Mft::FileRecordAllocator records(volume.driver, &volume.driver->mft->recordZero());
        const std::uint64_t free_before = records.freeCount();
        std::vector<BitRun> runs;
        std::uint64_t got = 0;
        records.allocate(runs, 1, &got, true, true);
        EXPECT_EQ(runs, (std::vector<BitRun>{{27, 1}}));  // not 16: clear, but kept back
        std::vector<BitRun> picked;
        records.allocate(picked, 1, &got, true, false);
        ASSERT_EQ(picked, (std::vector<BitRun>{{28, 1}}));
        records.setReservedRecord(28);
        records.freeBits(27, 1);
        std::vector<BitRun> more;
        records.allocate(more, 2, &got, true, true);
        EXPECT_EQ(more, (std::vector<BitRun>{{27, 1}, {29, 1}}));  // the reserved record is passed
        EXPECT_EQ(records.freeCount(), free_before - 2);
    }
    // The reserved record is still clear on disk.
    EXPECT_EQ(RecordBits(image).substr(0, 4), std::string("\xff\xff\x00\x2f", 4));
    {
        Volume volume(image.file.path);
        ASSERT_NE(volume.driver, nullptr);
        ntfs::Mft::FileRecordAllocator records(volume.driver, &volume.driver->mft->recordZero());
        records.setBit(28);
        records.freeBits(0, 20);  // only 16 to 19, already clear
        records.freeBits(27, 1);
        records.freeBits(29, 1);
    }
    EXPECT_EQ(RecordBits(image).substr(0, 4), std::string("\xff\xff\x00\x17", 4));
    {
        Volume volume(image.file.path);
        ASSERT_NE(volume.driver, nullptr);
        ntfs::Mft::FileRecordAllocator records(volume.driver, &volume.driver->mft->recordZero());
        records.freeBits(8, 21);  // 8 to 15 stay, 16 to 28 go
    }
    EXPECT_EQ(RecordBits(image).substr(0, 4), std::string("\xff\xff\x00\x00", 4));
}

TEST(NtfsBitmap, RecordBitmapGrowsByOneWordWhenFull) {
    SmallVolume image;
    ASSERT_TRUE(image.made);
    ASSERT_EQ(RecordBits(image).size(), 8u);
    {
        Volume volume(image.file.path);
        ASSERT_NE(volume.driver, nullptr);
        ntfs::Mft::FileRecordAllocator records(volume.driver, &volume.driver->mft->recordZero());
        std::vector<BitRun> runs;
        std::uint64_t got = 0;
        records.allocate(runs, 37, &got, false, true);
        EXPECT_EQ(runs, (std::vector<BitRun>{{27, 37}}));
        runs.clear();
        records.allocate(runs, 1, &got, false, true);
        EXPECT_EQ(got, 0u);  // full, and not allowed to grow
        records.allocate(runs, 1, &got, true, true);
        EXPECT_EQ(runs, (std::vector<BitRun>{{64, 1}}));
    }
    const std::string bits = RecordBits(image);
    EXPECT_EQ(bits.size(), 16u);
    EXPECT_EQ(bits.substr(8), std::string("\x01\0\0\0\0\0\0\0", 8));
}

TEST(NtfsBitmap, IndexBufferBitmapIsFoundByItsName) {
    SmallVolume image;
    ASSERT_TRUE(image.made);
    const std::string bits = image.tool("ntfscat -a 0xb0 -n '$I30' -i 5");
    ASSERT_FALSE(bits.empty());
    std::uint64_t clear = 0;
    for (std::uint64_t bit = 0; bit < bits.size() * 8; ++bit) clear += BitOf(bits, bit) ? 0 : 1;
    Volume volume(image.file.path);
    ASSERT_NE(volume.driver, nullptr);
    {
        const ntfs::RecordRef root = volume.driver->record_cache->get(ntfs::kRootRecord);
        ntfs::IndexBufferAllocator missing(volume.driver, root, u"$I31", 1);
        EXPECT_EQ(RaisedCode([&] { missing.freeCount(); }), Common::FILE_CORRUPT);
        std::vector<BitRun> runs;
        EXPECT_EQ(RaisedCode([&] { missing.allocate(runs, 1, nullptr, true, true); }), Common::FILE_CORRUPT);
        // Each operation's allocator starts afresh and finds what the last one took.
        for (std::uint64_t expected : {1u, 2u}) {
            ntfs::IndexBufferAllocator buffers(volume.driver, root, u"$I30", 1);
            EXPECT_EQ(buffers.freeCount(), clear - (expected - 1));
            runs.clear();
            buffers.allocate(runs, 1, nullptr, true, true);
            EXPECT_EQ(runs, (std::vector<BitRun>{{expected, 1}}));
        }
    }
    volume.unmount();
    EXPECT_EQ(image.tool("ntfscat -a 0xb0 -n '$I30' -i 5").substr(0, 1), "\x07");
}

}  // namespace
