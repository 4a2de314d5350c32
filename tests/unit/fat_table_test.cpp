// The allocation table: the three entry widths read and written through the
// handlers, chain runs, the next-fit search, the allocator, the free count
// with the FSInfo sector, and the copies of the table at flush. The tables
// are laid out here with the published encoding, independently of the
// handlers' own code.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "fat/fat12_handler.h"
#include "fat/fat_driver.h"
#include "fat/fatxx_handler.h"
#include "loader/common/error.h"
#include "loader/common/error_codes.h"
#include "tests/support/raised_code.h"
#include "tests/support/shell.h"
#include "tests/support/volume_fixture.h"
#include "tests/unit/driver_test_disk.h"

namespace {

using driver_test::MemoryDisk;

constexpr std::uint32_t kSector = 512;
constexpr std::uint32_t kReserved = 2;  // boot sector, then FSInfo
constexpr std::uint32_t kFSInfo = 1;

class TableDriver : public FATDriver {
public:
    TableDriver(MemoryDisk* disk, std::uint64_t sectors) : FATDriver(disk, 0, sectors, 0) {}
    void space(std::uint64_t& total, std::uint64_t& free, std::uint64_t& available) override {
        total = free = available = 0;
    }
    void label(char16_t* buffer, std::uint32_t) override { buffer[0] = 0; }
    int compare_identifiers(const file_identifier&, const file_identifier&) override { return 0; }
    DirectoryObject* open_directory(std::uint32_t) override { return nullptr; }
    const char* type_name() override { return root_cluster != 0 ? "FAT32" : "FAT16"; }
};

FATDriver::FATHandler* NewHandler(int bits, FATDriver* driver) {
    if (bits == 12) return new FAT12Handler(driver);
    if (bits == 16) return new FAT16Handler(driver);
    return new FAT32Handler(driver);
}

std::uint32_t TableSectors(int bits, std::uint32_t clusters) {
    if (bits == 12) return FAT12Handler::table_sectors(clusters, kSector);
    std::uint64_t bytes = std::uint64_t(clusters + 2) * (bits / 8);
    return static_cast<std::uint32_t>((bytes + kSector - 1) / kSector);
}

// A volume of one sector per cluster: boot sector, FSInfo, the tables, data.
struct Volume {
    Volume(int width, std::uint32_t clusters, std::uint32_t fats = 2, bool mirror = true)
        : bits(width), spf(TableSectors(width, clusters)), disk(kSector, kReserved + fats * spf + clusters) {
        driver.reset(new TableDriver(&disk, disk.GetLastSector() + 1));
        driver->cluster_count = clusters;
        driver->root_cluster = bits == 32 ? 2 : 0;
        driver->reserved_sectors = kReserved;
        driver->sectors_per_fat = spf;
        driver->fat_count = fats;
        driver->active_fat_first = kReserved;
        driver->first_data_sector = kReserved + fats * spf;
        driver->mirror_fats = mirror && fats > 1;
        for (std::uint32_t copy = 0; copy < fats; ++copy) {
            std::memset(disk.sector(kReserved + copy * spf), 0, spf * kSector);
            // Media byte and the flags of entry 1, which must survive.
            Put(0, bits == 12 ? 0xFF8 : bits == 16 ? 0xFFF8 : 0x0FFFFFF8, copy);
            Put(1, bits == 12 ? 0xFFF : bits == 16 ? 0xFFFF : 0x0FFFFFFF, copy);
        }
        driver->handler = NewHandler(bits, driver.get());
    }

    unsigned char* table(std::uint32_t copy = 0) { return disk.sector(kReserved + copy * spf); }

    // The raw entry on the disk, all bits of it.
    void Put(std::uint32_t cluster, std::uint32_t value, std::uint32_t copy = 0) {
        unsigned char* t = table(copy);
        if (bits == 12) {
            std::uint32_t at = cluster + cluster / 2;
            if (cluster % 2 == 1) {
                t[at] = static_cast<unsigned char>((t[at] & 0x0F) | ((value & 0xF) << 4));
                t[at + 1] = static_cast<unsigned char>(value >> 4);
            } else {
                t[at] = static_cast<unsigned char>(value);
                t[at + 1] = static_cast<unsigned char>((t[at + 1] & 0xF0) | ((value >> 8) & 0xF));
            }
        } else {
            for (int i = 0; i < bits / 8; ++i) t[cluster * (bits / 8) + i] = static_cast<unsigned char>(value >> (8 * i));
        }
    }
    std::uint32_t Get(std::uint32_t cluster, std::uint32_t copy = 0) {
        const unsigned char* t = table(copy);
        if (bits == 12) {
            std::uint32_t at = cluster + cluster / 2;
            std::uint32_t pair = t[at] | t[at + 1] << 8;
            return cluster % 2 == 1 ? pair >> 4 : pair & 0xFFF;
        }
        std::uint32_t value = 0;
        for (int i = 0; i < bits / 8; ++i) value |= std::uint32_t(t[cluster * (bits / 8) + i]) << (8 * i);
        return value;
    }
    void Chain(const std::vector<std::uint32_t>& clusters, std::uint32_t last) {
        for (std::size_t i = 0; i < clusters.size(); ++i) {
            Put(clusters[i], i + 1 < clusters.size() ? clusters[i + 1] : last);
        }
    }
    void FillUsed() {
        for (std::uint32_t c = 2; c < driver->cluster_count + 2; ++c) Put(c, 0xFFFFFFFF);
    }
    void WriteFSInfo(std::uint32_t free, bool good = true) {
        unsigned char* s = disk.sector(kFSInfo);
        std::memset(s, 0, kSector);
        auto put32 = [&](std::uint32_t at, std::uint32_t v) {
            for (int i = 0; i < 4; ++i) s[at + i] = static_cast<unsigned char>(v >> (8 * i));
        };
        put32(0, good ? 0x41615252 : 0x41615253);
        put32(484, 0x61417272);
        put32(488, free);
        put32(492, 0xFFFFFFFF);
        s[510] = 0x55;
        s[511] = 0xAA;
        driver->fsinfo_sector = kFSInfo;
    }
    std::uint32_t FSInfoCount() {
        const unsigned char* s = disk.sector(kFSInfo);
        return s[488] | s[489] << 8 | s[490] << 16 | std::uint32_t(s[491]) << 24;
    }
    FATDriver::FATHandler& handler() { return *driver->handler; }

    int bits;
    std::uint32_t spf;
    MemoryDisk disk;
    std::unique_ptr<TableDriver> driver;
};

std::uint32_t CodeOf(const std::function<void()>& action) { return TestSupport::RaisedCode(action); }

class FatTable : public ::testing::TestWithParam<int> {};

INSTANTIATE_TEST_SUITE_P(Widths, FatTable, ::testing::Values(12, 16, 32),
                         [](const ::testing::TestParamInfo<int>& info) { return "FAT" + std::to_string(info.param); });

TEST_P(FatTable, EveryNonClusterValueEndsAChain) {
    const int bits = GetParam();
    const std::uint32_t mask = bits == 12 ? 0xFFF : bits == 16 ? 0xFFFF : 0x0FFFFFFF;
    // End of chain, bad cluster, free, reserved 1, beyond the volume.
    const std::uint32_t clusters = 100;
    for (std::uint32_t last : {mask, mask - 8, 0u, 1u, clusters + 2, mask - 15}) {
        Volume v(bits, clusters);
        v.Chain({5, 6, 7}, last);
        ClusterRun run{0, 0, 5};
        ASSERT_TRUE(v.handler().next_run(run)) << last;
        EXPECT_EQ(run.first, 5u);
        EXPECT_EQ(run.end, 8u);
        EXPECT_EQ(run.next, last);
        EXPECT_FALSE(v.handler().next_run(run)) << last;
    }
}

TEST_P(FatTable, ScatteredChainGivesOneRunPerStretch) {
    Volume v(GetParam(), 60);
    v.Chain({10, 11, 40, 41, 42, 3, 20}, 0xFFFFFFFF);
    std::vector<std::vector<std::uint32_t>> runs;
    ClusterRun run{0, 0, 10};
    while (v.handler().next_run(run)) runs.push_back({run.first, run.end});
    EXPECT_EQ(runs, (std::vector<std::vector<std::uint32_t>>{{10, 12}, {40, 43}, {3, 4}, {20, 21}}));
}

TEST_P(FatTable, RunStopsAtTheLastValidCluster) {
    // The next cluster number of the last one would be outside the volume.
    Volume v(GetParam(), 20);
    v.Chain({19, 20, 21}, 22);
    ClusterRun run{0, 0, 19};
    ASSERT_TRUE(v.handler().next_run(run));
    EXPECT_EQ(run.end, 22u);
    EXPECT_EQ(run.next, 22u);
    EXPECT_FALSE(v.handler().next_run(run));
}

TEST_P(FatTable, LoopingChainIsBoundedPerRun) {
    Volume v(GetParam(), 30);
    v.Chain({4, 5, 6}, 4);
    ClusterRun run{0, 0, 4};
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(v.handler().next_run(run));
        EXPECT_EQ(run.first, 4u);
        EXPECT_EQ(run.end, 7u);
        EXPECT_EQ(run.next, 4u);
    }
}

TEST_P(FatTable, NextRunRefusesNonClusters) {
    Volume v(GetParam(), 30);
    for (std::uint32_t start : {0u, 1u, 32u, 0xFFFFFFFFu}) {
        ClusterRun run{7, 8, start};
        EXPECT_FALSE(v.handler().next_run(run)) << start;
    }
}

TEST_P(FatTable, SetEntryWritesWidthAndKeepsEntriesZeroAndOne) {
    const int bits = GetParam();
    Volume v(bits, 40);
    const std::uint32_t r0 = v.Get(0), r1 = v.Get(1);
    v.handler().set_entry(2, 0xFFFFFFFF);
    v.handler().set_entry(3, 0x12345);
    v.handler().set_entry(4, 9);
    v.handler().set_entry(41, 0xFFFFFFFF);
    v.driver->commit();
    const std::uint32_t mask = bits == 12 ? 0xFFF : bits == 16 ? 0xFFFF : 0x0FFFFFFF;
    EXPECT_EQ(v.Get(2), mask);
    EXPECT_EQ(v.Get(3), 0x12345u & mask);
    EXPECT_EQ(v.Get(4), 9u);
    EXPECT_EQ(v.Get(41), mask);
    EXPECT_EQ(v.Get(5), 0u);
    EXPECT_EQ(v.Get(0), r0);
    EXPECT_EQ(v.Get(1), r1);
}

TEST_P(FatTable, EntriesOutsideTheVolumeAndDeviceRefusalsRaise) {
    Volume v(GetParam(), 40);
    for (std::uint32_t cluster : {0u, 1u, 42u, 0xFFFFFFFFu}) {
        EXPECT_EQ(CodeOf([&] { v.handler().set_entry(cluster, 0); }), Common::FILE_CORRUPT) << cluster;
    }
    v.disk.read_only = true;
    EXPECT_EQ(CodeOf([&] { v.handler().set_entry(5, 0); }), Common::FILE_READ_ONLY);
    Volume unreadable(GetParam(), 40);
    unreadable.disk.refuse_reads = true;
    ClusterRun run{0, 0, 2};
    EXPECT_EQ(CodeOf([&] { unreadable.handler().next_run(run); }), Common::FILE_READ);
}

TEST_P(FatTable, FindFreeOnAFullTableFailsAndWrapsToTheOnlyFreeCluster) {
    Volume v(GetParam(), 50);
    v.FillUsed();
    for (std::uint32_t start : {2u, 30u, 51u, 52u, 0u, 0xFFFFFFFFu}) {
        ClusterRun run{0, 0, start};
        EXPECT_FALSE(v.handler().find_free(run)) << start;
    }
    Volume one(GetParam(), 50);
    one.FillUsed();
    one.Put(2, 0);
    ClusterRun run{0, 0, 51};
    ASSERT_TRUE(one.handler().find_free(run));
    EXPECT_EQ(run.first, 2u);
    EXPECT_EQ(run.end, 3u);
}

TEST_P(FatTable, FindFreeGivesTheFreeStretchAndWhereToGoOn) {
    const int bits = GetParam();
    Volume v(bits, 50);
    v.FillUsed();
    for (std::uint32_t c : {10u, 11u, 12u, 15u, 30u}) v.Put(c, 0);
    ClusterRun run{0, 0, 8};
    ASSERT_TRUE(v.handler().find_free(run));
    EXPECT_EQ(run.first, 10u);
    EXPECT_EQ(run.end, 13u);
    // FAT12 goes on behind the used entry; the sector handlers at the next
    // free entry of the sector. Both lead to 15 next.
    EXPECT_EQ(run.next, bits == 12 ? 14u : 15u);
    ASSERT_TRUE(v.handler().find_free(run));
    EXPECT_EQ(run.first, 15u);
    EXPECT_EQ(run.end, 16u);
    ASSERT_TRUE(v.handler().find_free(run));
    EXPECT_EQ(run.first, 30u);
    ASSERT_TRUE(v.handler().find_free(run));
    EXPECT_EQ(run.first, 10u);
}

TEST_P(FatTable, FindFreeStopsAtTheTableEnd) {
    Volume v(GetParam(), 50);
    v.FillUsed();
    v.Put(50, 0);
    v.Put(51, 0);
    v.Put(2, 0);
    ClusterRun run{0, 0, 40};
    ASSERT_TRUE(v.handler().find_free(run));
    EXPECT_EQ(run.first, 50u);
    EXPECT_EQ(run.end, 52u);
    EXPECT_EQ(run.next, 52u);
    ASSERT_TRUE(v.handler().find_free(run));
    EXPECT_EQ(run.first, 2u);
}

TEST_P(FatTable, CountFreeMatchesTheTable) {
    // Sizes around the packing of 12-bit pairs and sector borders.
    for (std::uint32_t clusters : {1u, 2u, 3u, 4u, 255u, 256u, 341u, 342u, 1000u}) {
        Volume v(GetParam(), clusters);
        std::uint32_t expected = 0;
        for (std::uint32_t c = 2; c < clusters + 2; ++c) {
            bool used = (c * 7 + clusters) % 3 == 0;
            v.Put(c, used ? c + 1 : 0);
            expected += !used;
        }
        EXPECT_EQ(v.handler().count_free(), expected) << clusters;
    }
}

TEST_P(FatTable, CountFreeIgnoresWhatLiesBehindTheTable) {
    // The entry of a cluster 3 that doesn't exist is not counted.
    for (std::uint32_t second : {0u, 5u}) {
        Volume v(GetParam(), 1);
        v.Put(2, second);
        v.Put(3, 0);
        EXPECT_EQ(v.handler().count_free(), second == 0 ? 1u : 0u) << second;
    }
}

TEST_P(FatTable, AllocationsAreConsecutiveEndsOfChain) {
    const int bits = GetParam();
    Volume v(bits, 40);
    v.FillUsed();
    for (std::uint32_t c = 20; c < 30; ++c) v.Put(c, 0);
    v.driver->free_count = 10;
    for (std::uint32_t expected = 20; expected < 23; ++expected) EXPECT_EQ(v.driver->alloc_cluster(), expected);
    EXPECT_EQ(v.driver->free_count, 7u);
    v.driver->commit();
    const std::uint32_t end_mark = bits == 12 ? 0xFFF : bits == 16 ? 0xFFFF : 0x0FFFFFFF;
    for (std::uint32_t c = 20; c < 23; ++c) EXPECT_EQ(v.Get(c), end_mark);
    EXPECT_EQ(v.Get(23), 0u);
}

TEST_P(FatTable, FullVolumeRaisesDiskFullAndKeepsTheCount) {
    Volume v(GetParam(), 40);
    v.FillUsed();
    v.Put(7, 0);
    v.driver->free_count = 1;
    EXPECT_EQ(v.driver->alloc_cluster(), 7u);
    EXPECT_EQ(v.driver->free_count, 0u);
    EXPECT_EQ(CodeOf([&] { v.driver->alloc_cluster(); }), Common::FILE_DISK_FULL);
    EXPECT_EQ(v.driver->free_count, 0u);
}

TEST_P(FatTable, FreeChainFreesEveryClusterAndForgetsItsData) {
    Volume v(GetParam(), 60);
    v.FillUsed();
    v.Chain({10, 11, 12, 30, 31}, 0xFFFFFFFF);
    {
        // Cached, changed data of a cluster of the chain must never reach the disk.
        BlockHandle data = v.driver->get_block(v.driver->first_data_sector + 11 - 2, 1, false);
        v.driver->prepare_block_write(data);
        std::memset(data.data(), 0xEE, kSector);
        data.set_dirty();
    }
    v.driver->free_count = 0;
    v.driver->free_chain(10);
    EXPECT_EQ(v.driver->free_count, 5u);
    v.driver->commit();
    for (std::uint32_t c : {10u, 11u, 12u, 30u, 31u}) EXPECT_EQ(v.Get(c), 0u) << c;
    EXPECT_NE(v.Get(13), 0u);
    const unsigned char* freed = v.disk.sector(v.driver->first_data_sector + 9);
    EXPECT_LT(std::count(freed, freed + kSector, 0xEE), 64);
}

TEST_P(FatTable, FreeChainOfALoopEnds) {
    Volume v(GetParam(), 60);
    v.FillUsed();
    v.Chain({10, 20, 21}, 20);
    v.driver->free_chain(10);
    v.driver->commit();
    for (std::uint32_t c : {10u, 20u, 21u}) EXPECT_EQ(v.Get(c), 0u) << c;
}

TEST_P(FatTable, MirroredTablesAllChangeAtFlush) {
    for (bool mirror : {true, false}) {
        Volume v(GetParam(), 300, 2, mirror);
        v.handler().set_entry(280, 0x123);
        v.driver->commit();
        EXPECT_EQ(v.Get(280, 0), 0x123u) << mirror;
        EXPECT_EQ(v.Get(280, 1), mirror ? 0x123u : 0u) << mirror;
        // The data area behind the tables is untouched by the copies.
        EXPECT_EQ(v.disk.log.back().sector + v.disk.log.back().count <= v.driver->first_data_sector, true);
    }
}

TEST(FatTableSectors, MirroringStartsAtTheFirstChangedTableBlock) {
    // Only the sector handlers cache the table in more than one block.
    for (int bits : {16, 32}) {
        Volume v(bits, 1000, 3, true);
        // Cache two table sectors; change only the later one.
        ClusterRun run{0, 0, 2};
        v.handler().next_run(run);
        v.handler().set_entry(900, 0x77);
        v.disk.log.clear();
        v.driver->commit();
        for (std::uint32_t copy = 0; copy < 3; ++copy) {
            EXPECT_EQ(v.Get(900, copy), 0x77u) << bits;
            EXPECT_EQ(v.Get(2, copy), 0u) << bits;
        }
        // The first table sector was not dirty and lies before the changed
        // one: it is written nowhere.
        std::size_t writes = 0;
        for (const auto& record : v.disk.log) {
            if (record.operation != Fdisk::kTransferWrite) continue;
            ++writes;
            for (std::uint32_t copy = 0; copy < 3; ++copy) EXPECT_NE(record.sector, kReserved + copy * v.spf) << bits;
        }
        EXPECT_EQ(writes, 3u) << bits;
    }
}

TEST_P(FatTable, FreeCountWithoutFSInfoIsCountedOnce) {
    Volume v(GetParam(), 80);
    v.FillUsed();
    for (std::uint32_t c = 40; c < 52; ++c) v.Put(c, 0);
    EXPECT_EQ(v.driver->free_cluster_count(true), 12u);
    v.Put(60, 0);  // behind the driver's back: the count is kept
    EXPECT_EQ(v.driver->free_cluster_count(true), 12u);
    v.driver->alloc_cluster();
    EXPECT_EQ(v.driver->free_cluster_count(true), 11u);
}

TEST_P(FatTable, FSInfoCountKeepsAllocationsAndIsWrittenAtTheEnd) {
    for (bool asked : {true, false}) {
        Volume v(GetParam(), 200);
        v.WriteFSInfo(100);
        for (int i = 0; i < 3; ++i) v.driver->alloc_cluster();
        if (asked) {
            EXPECT_EQ(v.driver->free_cluster_count(false), 97u);
        }
        v.driver.reset();
        EXPECT_EQ(v.FSInfoCount(), 97u) << asked;
        EXPECT_EQ(v.disk.sector(kFSInfo)[492], 0xFF);  // the rest of the sector stays
    }
}

TEST_P(FatTable, UnchangedCountLeavesFSInfoAlone) {
    Volume v(GetParam(), 200);
    v.WriteFSInfo(150);
    EXPECT_EQ(v.driver->free_cluster_count(true), 150u);
    v.disk.log.clear();
    v.driver.reset();
    EXPECT_EQ(v.disk.writes(), 0u);
}

TEST_P(FatTable, BadFSInfoIsCountedOrRefused) {
    for (bool strict : {false, true}) {
        Volume v(GetParam(), 200);
        v.WriteFSInfo(100, false);
        for (std::uint32_t c = 2; c < 12; ++c) v.Put(c, 0xFFFFFFFF);
        if (strict) {
            EXPECT_EQ(CodeOf([&] { v.driver->free_cluster_count(true); }), Common::FILE_CORRUPT);
            EXPECT_EQ(v.driver->fsinfo_sector, 0u);
        }
        EXPECT_EQ(v.driver->free_cluster_count(false), 190u);
        EXPECT_EQ(v.driver->fsinfo_sector, 0u);
        v.driver->alloc_cluster();
        v.driver.reset();
        EXPECT_EQ(v.FSInfoCount(), 100u);  // a bad sector is never written
    }
    // A count beyond the volume is recounted.
    Volume v(GetParam(), 200);
    v.WriteFSInfo(200);
    for (std::uint32_t c = 2; c < 52; ++c) v.Put(c, 0xFFFFFFFF);
    EXPECT_EQ(v.driver->free_cluster_count(false), 150u);
}

TEST(FatTable12, PairsShareTheirMiddleByte) {
    Volume v(12, 10);
    v.handler().set_entry(2, 0x123);
    v.handler().set_entry(3, 0xABC);
    v.driver->commit();
    const unsigned char* t = v.table();
    EXPECT_EQ(t[3], 0x23);
    EXPECT_EQ(t[4], 0xC1);
    EXPECT_EQ(t[5], 0xAB);
    v.handler().set_entry(2, 0x456);
    v.driver->commit();
    EXPECT_EQ(v.Get(3), 0xABCu);
    EXPECT_EQ(v.Get(2), 0x456u);
}

TEST(FatTable12, ContiguousChainOverASectorBorderIsOneRun) {
    Volume v(12, 1000);
    std::vector<std::uint32_t> chain;
    for (std::uint32_t c = 330; c < 700; ++c) chain.push_back(c);  // spans table sectors 0 to 2
    v.Chain(chain, 0xFFF);
    ClusterRun run{0, 0, 330};
    ASSERT_TRUE(v.handler().next_run(run));
    EXPECT_EQ(run.first, 330u);
    EXPECT_EQ(run.end, 700u);
    EXPECT_EQ(run.next, 0xFFFu);
}

TEST(FatTable12, EntryAcrossASectorBorderReadsAndWrites) {
    // Cluster 341 starts at byte 511: its two bytes lie in two sectors.
    Volume v(12, 1000);
    v.Put(341, 0x9A5);
    v.Put(340, 341);
    ClusterRun run{0, 0, 340};
    ASSERT_TRUE(v.handler().next_run(run));
    EXPECT_EQ(run.end, 342u);
    EXPECT_EQ(run.next, 0x9A5u);
    v.handler().set_entry(341, 0x5C3);
    v.driver->commit();
    EXPECT_EQ(v.Get(341), 0x5C3u);
    EXPECT_EQ(v.Get(340), 341u);
}

TEST(FatTable32, UpperBitsAreIgnoredOnReadAndClearedOnWrite) {
    Volume v(32, 100);
    v.FillUsed();
    v.Put(10, 0xF000000B);
    v.Put(11, 0xA0000000);  // free in its 28 bits
    v.Put(12, 0x50000000);
    ClusterRun run{0, 0, 10};
    ASSERT_TRUE(v.handler().next_run(run));
    EXPECT_EQ(run.end, 12u);
    EXPECT_EQ(run.next, 0u);
    ClusterRun search{0, 0, 2};
    ASSERT_TRUE(v.handler().find_free(search));
    EXPECT_EQ(search.first, 11u);
    EXPECT_EQ(search.end, 13u);
    EXPECT_EQ(v.handler().count_free(), 2u);
    v.handler().set_entry(10, 0xFFFFFFFF);
    v.handler().set_entry(11, 0);
    v.driver->commit();
    EXPECT_EQ(v.Get(10), 0x0FFFFFFFu);
    EXPECT_EQ(v.Get(11), 0u);
}

TEST(FatTable32, ContiguousChainOverASectorBorderIsTwoRuns) {
    Volume v(32, 400);
    std::vector<std::uint32_t> chain;
    for (std::uint32_t c = 120; c < 141; ++c) chain.push_back(c);  // 128 entries a sector
    v.Chain(chain, 0x0FFFFFFF);
    ClusterRun run{0, 0, 120};
    ASSERT_TRUE(v.handler().next_run(run));
    EXPECT_EQ(run.first, 120u);
    EXPECT_EQ(run.end, 128u);
    EXPECT_EQ(run.next, 128u);
    ASSERT_TRUE(v.handler().next_run(run));
    EXPECT_EQ(run.first, 128u);
    EXPECT_EQ(run.end, 141u);
    EXPECT_EQ(run.next, 0x0FFFFFFFu);
}

// A chain walked from sector to sector of the table reads it ahead in a few
// transfers, and a sector changed in the cache but not yet written is not
// replaced by the disk's older copy.
TEST(FatTableReadAhead, LongWalkTakesFewTransfersAndKeepsChangedSectors) {
    for (int bits : {16, 32}) {
        SCOPED_TRACE(bits);
        const std::uint32_t per_sector = kSector / (bits / 8);
        const std::uint32_t clusters = std::min<std::uint32_t>(300 * per_sector, 0xFFF0) - 2;
        Volume v(bits, clusters);
        std::vector<std::uint32_t> chain;
        for (std::uint32_t c = 2; c < clusters + 2; ++c) chain.push_back(c);
        v.Chain(chain, 0x0FFFFFFF & ((1ull << bits) - 1));
        // The end moves to a cluster in the table's 150th sector, in the cache only.
        const std::uint32_t new_end = 150 * per_sector + 7;
        v.handler().set_entry(new_end, 0x0FFFFFFF);
        v.disk.log.clear();
        ClusterRun run{0, 0, 2};
        std::uint32_t expected_first = 2, walked = 0;
        while (v.handler().next_run(run)) {
            ASSERT_EQ(run.first, expected_first);
            walked += run.end - run.first;
            expected_first = run.end;
            if (!v.driver->valid_cluster(run.next)) break;
        }
        EXPECT_EQ(walked, new_end - 1);
        const std::size_t sectors_walked = new_end / per_sector + 1;
        EXPECT_LE(v.disk.count_of(Fdisk::kTransferRead), sectors_walked / 32 + 2);
        EXPECT_GT(v.disk.count_of(Fdisk::kTransferRead), 0u);
        EXPECT_EQ(v.disk.unaligned, 0u);
    }
}

TEST(FatTable32, FreeRunEndsAtTheSectorEnd) {
    Volume v(32, 400);
    v.FillUsed();
    for (std::uint32_t c = 120; c < 140; ++c) v.Put(c, 0);
    ClusterRun run{0, 0, 100};
    ASSERT_TRUE(v.handler().find_free(run));
    EXPECT_EQ(run.first, 120u);
    EXPECT_EQ(run.end, 128u);
    EXPECT_EQ(run.next, 128u);
    ASSERT_TRUE(v.handler().find_free(run));
    EXPECT_EQ(run.first, 128u);
    EXPECT_EQ(run.end, 140u);
}

TEST(FatTable16, AllSixteenBitsCount) {
    Volume v(16, 100);
    v.FillUsed();
    v.Put(10, 0xF000);  // a cluster number beyond the volume: not free, ends the chain
    ClusterRun run{0, 0, 10};
    ASSERT_TRUE(v.handler().next_run(run));
    EXPECT_EQ(run.next, 0xF000u);
    EXPECT_EQ(v.handler().count_free(), 0u);
}

// Volumes made by mkfs.fat and filled by mtools: the handlers must agree
// with those tools on chains and free space, and what the driver writes
// must read back right with them.
struct ToolVolume {
    int bits;
    const char* size;
    int sectors_per_cluster;
};

std::uint32_t Le(const std::vector<unsigned char>& b, std::size_t at, int bytes) {
    std::uint32_t value = 0;
    for (int i = 0; i < bytes; ++i) value |= std::uint32_t(b[at + i]) << (8 * i);
    return value;
}

std::uint64_t ToolFreeBytes(const std::string& image) {
    std::string digits = TestSupport::CaptureOutput("mdir -i '" + image + "' :: | grep 'bytes free' | tr -cd 0-9");
    return digits.empty() ? ~0ull : std::stoull(digits);
}

TEST(FatTableTools, ChainsAndFreeSpaceAgreeWithMtools) {
    const ToolVolume cases[] = {{12, "2M", 1}, {12, "4M", 4}, {16, "16M", 1}, {16, "64M", 8}, {32, "40M", 1}, {32, "72M", 2}};
    const std::string dir = ::testing::TempDir();
    for (const ToolVolume& c : cases) {
        SCOPED_TRACE(std::to_string(c.bits) + " " + c.size);
        const std::string image = dir + "fat_table_" + std::to_string(c.bits) + "_" + c.size + ".img";
        const std::string a = dir + "fat_table_a", b = dir + "fat_table_b", big = dir + "fat_table_c";
        // A and B sit side by side; freeing A and writing C fragments C.
        const std::string make =
            "rm -f '" + image + "' && truncate -s " + c.size + " '" + image + "' && mkfs.fat -F " +
            std::to_string(c.bits) + " -S 512 -s " + std::to_string(c.sectors_per_cluster) + " '" + image +
            "' >/dev/null && head -c 7000 /dev/urandom > '" + a + "' && head -c 3000 /dev/urandom > '" + b +
            "' && head -c 40000 /dev/urandom > '" + big + "' && mcopy -i '" + image + "' '" + a + "' ::A && mcopy -i '" +
            image + "' '" + b + "' ::B && mdel -i '" + image + "' ::A && mcopy -i '" + image + "' '" + big + "' ::C";
        ASSERT_EQ(std::system(make.c_str()), 0) << make;
        std::vector<unsigned char> raw = TestSupport::LoadFile(image);
        ASSERT_GT(raw.size(), 512u);

        // The geometry, from the boot sector as the published format lays it out.
        const std::uint32_t sector = Le(raw, 11, 2), spc = raw[13], reserved = Le(raw, 14, 2), fats = raw[16];
        const std::uint32_t root_entries = Le(raw, 17, 2);
        const std::uint32_t total = Le(raw, 19, 2) != 0 ? Le(raw, 19, 2) : Le(raw, 32, 4);
        const std::uint32_t spf = Le(raw, 22, 2) != 0 ? Le(raw, 22, 2) : Le(raw, 36, 4);
        const std::uint32_t root_sectors = root_entries * 32 / sector;
        const std::uint32_t data = reserved + fats * spf + root_sectors;
        const std::uint32_t clusters = (total - data) / spc;
        const std::uint32_t cluster_bytes = sector * spc;
        ASSERT_EQ(sector, 512u);
        ASSERT_EQ(spc, std::uint32_t(c.sectors_per_cluster));

        MemoryDisk disk(sector, raw.size() / sector);
        std::memcpy(disk.bytes.data(), raw.data(), raw.size());
        auto driver = std::make_unique<TableDriver>(&disk, raw.size() / sector);
        driver->cluster_count = clusters;
        driver->root_cluster = c.bits == 32 ? Le(raw, 44, 4) : 0;
        driver->sectors_per_cluster = spc;
        driver->reserved_sectors = reserved;
        driver->sectors_per_fat = spf;
        driver->fat_count = fats;
        driver->active_fat_first = reserved;
        driver->root_dir_sectors = root_sectors;
        driver->first_data_sector = data;
        driver->mirror_fats = fats > 1;
        driver->fsinfo_sector = c.bits == 32 ? Le(raw, 48, 2) : 0;
        driver->handler = NewHandler(c.bits, driver.get());

        // The directory entry of C, in the root's first sector.
        const std::uint32_t root = c.bits == 32 ? data + (driver->root_cluster - 2) * spc : reserved + fats * spf;
        std::uint32_t first = 0, size = 0;
        for (std::uint32_t at = root * sector; at < (root + 1) * sector; at += 32) {
            if (std::memcmp(&raw[at], "C          ", 11) == 0) {
                first = Le(raw, at + 26, 2) | Le(raw, at + 20, 2) << 16;
                size = Le(raw, at + 28, 4);
            }
        }
        ASSERT_EQ(size, 40000u);

        // C's chain has as many clusters as its size needs, none twice.
        std::vector<bool> seen(clusters + 2, false);
        std::uint32_t in_chain = 0;
        ClusterRun run{0, 0, first};
        while (driver->handler->next_run(run)) {
            for (std::uint32_t cl = run.first; cl != run.end; ++cl) {
                ASSERT_LT(cl, clusters + 2);
                ASSERT_FALSE(seen[cl]) << cl;
                seen[cl] = true;
                ++in_chain;
            }
        }
        const std::uint32_t needed = (size + cluster_bytes - 1) / cluster_bytes;
        EXPECT_EQ(in_chain, needed);

        const std::uint64_t tool_free = ToolFreeBytes(image);
        EXPECT_EQ(std::uint64_t(driver->handler->count_free()) * cluster_bytes, tool_free);
        EXPECT_EQ(std::uint64_t(driver->free_cluster_count(false)) * cluster_bytes, tool_free);

        // Free C, take two clusters for a new chain, and let the tools count.
        driver->free_chain(first);
        std::uint32_t one = driver->alloc_cluster();
        std::uint32_t two = driver->alloc_cluster();
        driver->handler->set_entry(one, two);
        const std::uint32_t expected_free = static_cast<std::uint32_t>(tool_free / cluster_bytes) + needed - 2;
        EXPECT_EQ(driver->free_cluster_count(true), expected_free);
        driver.reset();

        TestSupport::StoreFile(image, disk.bytes);
        raw = disk.bytes;
        EXPECT_EQ(std::uint64_t(ToolFreeBytes(image)), std::uint64_t(expected_free) * cluster_bytes);
        // Every copy of the table is the same.
        for (std::uint32_t copy = 1; copy < fats; ++copy) {
            EXPECT_EQ(std::memcmp(&raw[reserved * sector], &raw[(reserved + copy * spf) * sector], spf * sector), 0)
                << copy;
        }
        if (c.bits == 32) {
            EXPECT_EQ(Le(raw, Le(raw, 48, 2) * sector + 488, 4), expected_free);
        }
        std::remove(image.c_str());
    }
}

}  // namespace
