// The HFS+ driver's mount, its driver operations and file content over
// volumes that mkfs.hfsplus and xorriso make: every layout the tools give
// mounts and reports what fsstat reports, every patched header is refused
// with its code, locked and unclean volumes turn read only, and files read
// as they were given, by whole runs. Nothing may reach the disk.
#include "hfsplus/hfsplus_driver.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "files/file_object.h"
#include "fsdriver/driver_selection.h"
#include "hfsplus/extents_array.h"
#include "hfsplus/hfsplus_metadata.h"
#include "loader/common/byte_order.h"
#include "loader/common/error_codes.h"
#include "tests/support/hfsplus_image.h"
#include "tests/support/raised_code.h"
#include "tests/support/shell.h"
#include "tests/support/temp_folder.h"
#include "tests/support/volume_fixture.h"

namespace {

using hfsplus::HFSPlusDriver;
using TestSupport::DiskOf;
using TestSupport::Pattern;
using TestSupport::RaisedCode;
using TestSupport::TempFolder;
using Bytes = std::vector<unsigned char>;
using Volume = TestSupport::Volume<HFSPlusDriver, TryHFSPlusDriver>;

constexpr std::uint64_t kKiB = 1024;
constexpr std::uint64_t kMiB = 1024 * kKiB;

// Offsets of the published volume header, and of a fork inside it.
constexpr std::size_t kHeader = 1024;
constexpr std::size_t kVersion = 2;
constexpr std::size_t kAttributes = 4;
constexpr std::size_t kJournalInfoBlock = 12;
constexpr std::size_t kBlockSize = 40;
constexpr std::size_t kTotalBlocks = 44;
constexpr std::size_t kExtentsFork = 192;
constexpr std::size_t kCatalogFork = 272;
constexpr std::size_t kAttributesFork = 352;
constexpr std::size_t kForkTotalBlocks = 12;
constexpr std::size_t kForkExtents = 16;

std::uint32_t Get32(const Bytes& bytes, std::size_t at) { return Common::LoadBE32(bytes.data() + at); }
void Put32(Bytes& bytes, std::size_t at, std::uint32_t value) {
    for (int i = 0; i < 4; ++i) bytes[at + i] = static_cast<unsigned char>(value >> (24 - 8 * i));
}
void Put16(Bytes& bytes, std::size_t at, std::uint16_t value) {
    bytes[at] = static_cast<unsigned char>(value >> 8);
    bytes[at + 1] = static_cast<unsigned char>(value);
}

// A volume made by mkfs.hfsplus in an image of `size` ("8M").
Bytes MakeVolume(const std::string& options, const std::string& size) {
    TestSupport::ImageFile image;
    const std::string make = "truncate -s " + size + " " + image.path + " && mkfs.hfsplus " + options + " " + image.path;
    EXPECT_EQ(TestSupport::RunQuietly(make), 0) << make;
    return image.bytes();
}

// What sleuthkit's fsstat says of a volume.
std::map<std::string, std::string> FsStat(const Bytes& bytes) {
    TestSupport::ImageFile image;
    image.store(bytes);
    std::istringstream lines(TestSupport::CaptureOutput("fsstat -f hfs " + image.path));
    std::map<std::string, std::string> facts;
    for (std::string line; std::getline(lines, line);) {
        const std::size_t colon = line.find(": ");
        if (colon != std::string::npos) facts.emplace(line.substr(0, colon), line.substr(colon + 2));
    }
    return facts;
}

std::uint32_t MountCode(const Bytes& bytes, std::uint32_t sector = 512) {
    auto disk = DiskOf(bytes, sector);
    const std::uint32_t code = RaisedCode([&] { HFSPlusDriver driver(disk.get(), 0, disk->GetLastSector() + 1, 0, nullptr, 0); });
    EXPECT_EQ(disk->writes(), 0u);
    return code;
}

// Applies a change to both volume headers, the primary and the alternate.
void PatchHeaders(Bytes& bytes, const std::function<void(Bytes&, std::size_t)>& patch) {
    patch(bytes, kHeader);
    patch(bytes, bytes.size() - kHeader);
}

std::u16string Label(HFSPlusDriver& driver) {
    char16_t buffer[64] = {};
    driver.label(buffer, 64);
    return buffer;
}

TEST(HFSPlusMount, ToolMadeVolumesMountAsFsstatSeesThem) {
    struct Case {
        const char* options;
        const char* size;
        std::uint32_t sector;
        const char16_t* label;
        bool journaled;
    };
    const Case cases[] = {
        {"-v Plain", "8M", 512, u"Plain", false},
        {"-J -v Journaled", "256M", 512, u"Journaled", true},  // the smallest that gets an 8 MiB journal
        {"-s -v Sensitive", "8M", 512, u"Sensitive", false},
        {"-b 512 -v Small", "8M", 512, u"Small", false},
        {"-b 65536 -v Large", "64M", 512, u"Large", false},
        {"-v Wide", "8M", 4096, u"Wide", false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.options + std::string(" sector ") + std::to_string(c.sector));
        const Bytes original = MakeVolume(c.options, c.size);
        auto facts = FsStat(original);
        Volume volume(DiskOf(original, c.sector));
        ASSERT_NE(volume.driver, nullptr);
        HFSPlusDriver& driver = *volume.driver;
        EXPECT_STREQ(driver.type_name(), "HFS+");
        EXPECT_EQ(Label(driver), c.label);
        std::uint64_t total = 0, free = 0, available = 0;
        driver.space(total, free, available);
        const std::uint64_t block = std::stoull(facts["Allocation Block Size"]);
        EXPECT_EQ(total, original.size() / block * block);
        EXPECT_EQ(free, std::stoull(facts["Number of Free Blocks"]) * block);
        EXPECT_EQ(available, free);
        EXPECT_EQ(driver.read_only, 0);
        EXPECT_EQ(driver.metadata().HasComponent(1), c.journaled);
        EXPECT_EQ(driver.metadata().HasComponent(5), Get32(original, kHeader + kAttributesFork + 4) != 0);
        EXPECT_TRUE(driver.metadata().HasComponent(0) && driver.metadata().HasComponent(2) &&
                    driver.metadata().HasComponent(4));
        // A fresh volume's root shows nothing: the journal's files are hidden.
        EXPECT_TRUE(volume.list(u"").kinds().empty());
        EXPECT_EQ(RaisedCode([&] { driver.refuse_if_unchangeable(); }), 0);
        volume.unmount();
        EXPECT_EQ(volume.disk->writes(), 0u);
        EXPECT_TRUE(volume.disk->bytes == original);
    }
    // The trial reaches HFS+ after the other drivers, and its row serves it.
    const Bytes plain = MakeVolume("-v Tried", "8M");
    for (DriverFactory factory : {kDriverTable[0].factory, kDriverTable[3].factory}) {
        auto disk = DiskOf(plain);
        FileSystemDriver* found = factory(disk.get(), 0, disk->GetLastSector() + 1, 0, nullptr, 0, 0);
        ASSERT_NE(found, nullptr);
        EXPECT_STREQ(found->type_name(), "HFS+");
        ++found->references;
        release(found);
    }
}

TEST(HFSPlusMount, DamagedHeadersAreRefused) {
    const Bytes plain = MakeVolume("-v Plain", "8M");
    const std::uint32_t total = Get32(plain, kHeader + kTotalBlocks);
    using Patch = std::function<void(Bytes&)>;
    struct Case {
        const char* what;
        Patch patch;
        std::uint32_t code;
    };
    auto both = [](std::function<void(Bytes&, std::size_t)> patch) { return [patch](Bytes& b) { PatchHeaders(b, patch); }; };
    const Case cases[] = {
        {"H+ with version 5", both([](Bytes& b, std::size_t h) { Put16(b, h + kVersion, 5); }), Common::FILE_CORRUPT},
        {"HX with version 4", both([](Bytes& b, std::size_t h) { b[h + 1] = 'X'; }), Common::FILE_CORRUPT},
        {"a wrapper's signature", both([](Bytes& b, std::size_t h) { b[h] = 'B'; b[h + 1] = 'D'; }), Common::FILE_CORRUPT},
        {"block size 0", both([](Bytes& b, std::size_t h) { Put32(b, h + kBlockSize, 0); }), Common::FILE_CORRUPT},
        {"block size 1536", both([](Bytes& b, std::size_t h) { Put32(b, h + kBlockSize, 1536); }), Common::FILE_CORRUPT},
        {"block size 128 KiB", both([](Bytes& b, std::size_t h) { Put32(b, h + kBlockSize, 128 * 1024); }),
         Common::FILE_UNSUPPORTED},
        {"one block more than the device holds",
         both([total](Bytes& b, std::size_t h) { Put32(b, h + kTotalBlocks, total + 1); }), Common::FILE_CORRUPT},
        {"an extents fork beyond its eight extents",
         both([](Bytes& b, std::size_t h) {
             const std::size_t at = h + kExtentsFork + kForkTotalBlocks;
             Put32(b, at, Get32(b, at) + 1);
         }),
         Common::FILE_CORRUPT},
        {"a catalog extent at block 0", both([](Bytes& b, std::size_t h) { Put32(b, h + kCatalogFork + kForkExtents, 0); }),
         Common::FILE_CORRUPT},
        {"a catalog extent past the last block",
         both([total](Bytes& b, std::size_t h) { Put32(b, h + kCatalogFork + kForkExtents, total - 1); }),
         Common::FILE_CORRUPT},
        {"an empty catalog fork", both([](Bytes& b, std::size_t h) { std::memset(&b[h + kCatalogFork], 0, 80); }),
         Common::FILE_CORRUPT},
        {"a journal info block past the device",
         both([total](Bytes& b, std::size_t h) {
             Put32(b, h + kAttributes, Get32(b, h + kAttributes) | 0x2000);
             Put32(b, h + kJournalInfoBlock, total);
         }),
         Common::FILE_CORRUPT},
        {"a damaged alternate header only", [](Bytes& b) { Put32(b, b.size() - kHeader, 0); }, Common::FILE_CORRUPT},
        {"a damaged primary header only", [](Bytes& b) { Put32(b, kHeader, 0); }, Common::FILE_CORRUPT},
        {"nothing", [](Bytes&) {}, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Bytes bytes = plain;
        c.patch(bytes);
        EXPECT_EQ(MountCode(bytes), c.code);
    }
    // Blocks smaller than the device's sectors can't be read.
    EXPECT_EQ(MountCode(MakeVolume("-b 512", "8M"), 4096), Common::FILE_CORRUPT);
    // An image cut short loses its alternate header and what the primary counts.
    Bytes cut(plain.begin(), plain.end() - 4096);
    EXPECT_EQ(MountCode(cut), Common::FILE_CORRUPT);
}

TEST(HFSPlusMount, LockedUncleanAndBitmapMountsAreReadOnly) {
    const Bytes plain = MakeVolume("-v Plain", "8M");
    struct Case {
        const char* what;
        std::uint32_t set;
        std::uint32_t clear;
        bool read_only;
    };
    const Case cases[] = {
        {"clean", 0, 0, false},
        {"software lock", 0x8000, 0, true},
        {"hardware lock", 0x80, 0, true},
        {"not unmounted, inconsistent", 0x800, 0x100, true},
        {"not unmounted, consistent", 0, 0x100, false},
        {"unmounted, inconsistent", 0x800, 0, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Bytes bytes = plain;
        PatchHeaders(bytes, [&](Bytes& b, std::size_t h) {
            Put32(b, h + kAttributes, (Get32(b, h + kAttributes) | c.set) & ~c.clear);
        });
        Volume volume(DiskOf(bytes));
        ASSERT_NE(volume.driver, nullptr);
        EXPECT_EQ(volume.driver->read_only != 0, c.read_only);
        EXPECT_EQ(RaisedCode([&] { volume.driver->refuse_if_unchangeable(); }),
                  c.read_only ? Common::FILE_READ_ONLY : 0);
        volume.unmount();
        EXPECT_EQ(volume.disk->writes(), 0u);
    }
    // A bitmap given for the allocation file holds the volume read only,
    // and the driver keeps its own copy.
    std::vector<unsigned char> bitmap((Get32(plain, kHeader + kTotalBlocks) + 7) / 8, 0xFF);
    bitmap[1] = 0x0F;
    const std::vector<unsigned char> given_bits = bitmap;
    Volume given(DiskOf(plain), bitmap.data(), bitmap.size());
    ASSERT_NE(given.driver, nullptr);
    EXPECT_EQ(given.driver->read_only, 1);
    bitmap[0] = 0;
    EXPECT_EQ(given.driver->given_bitmap, given_bits);
}

// A volume that xorriso's HFS+ writer makes of a folder, cut out of the
// Apple partition map and repaired by fsck.hfsplus until it is clean.
struct XorrisoVolume {
    XorrisoVolume() {
        files[u"empty"] = "";
        files[u"one"] = "1";
        files[u"block"] = Pattern(2048, 1);
        files[u"block+1"] = Pattern(2049, 2);
        files[u"odd.bin"] = Pattern(100 * kKiB + 7, 3);
        files[u"big.bin"] = Pattern(3 * kMiB + 513, 4);
        files[u"sub/inner.txt"] = "inside a folder\n";
        files[u"damaged.bin"] = Pattern(5000, 5);
        for (const auto& [name, data] : files) folder.Write("src/" + std::string(name.begin(), name.end()), data);
        const std::string iso = folder.Path() + "/x.iso";
        const std::string image = folder.Path() + "/hfs.img";
        if (TestSupport::RunQuietly("xorriso -as mkisofs -hfsplus -o " + iso + " " + folder.Path() + "/src") != 0) return;
        if (!TestSupport::CutHfsplusPartition(iso, image)) return;
        for (int round = 0; round < 3 && TestSupport::RunQuietly("fsck.hfsplus -fn " + image) != 0; ++round) {
            TestSupport::RunQuietly("fsck.hfsplus -fy " + image);
        }
        if (TestSupport::RunQuietly("fsck.hfsplus -fn " + image) != 0) return;
        bytes = TestSupport::LoadFile(image);
    }
    TempFolder folder;
    std::map<std::u16string, std::string> files;
    Bytes bytes;
};

const XorrisoVolume& Content() {
    static const XorrisoVolume volume;
    return volume;
}

TEST(HFSPlusContent, FilesReadAsGivenAtAnyPlaceAndAlignment) {
    const XorrisoVolume& content = Content();
    ASSERT_FALSE(content.bytes.empty());
    Volume volume(DiskOf(content.bytes));
    ASSERT_NE(volume.driver, nullptr);
    EXPECT_EQ(Label(*volume.driver), u"ISOIMAGE");
    for (const auto& [name, data] : content.files) {
        SCOPED_TRACE(std::string(name.begin(), name.end()));
        for (std::size_t misalign : {0, 1, 512}) EXPECT_EQ(volume.read(u"/" + name, 0, ~0ull, misalign) == data, true);
        // Pieces that start and end inside blocks, span block edges, or reach the end.
        for (std::uint64_t at : {1ull, 511ull, 2047ull, 2048ull, 4097ull}) {
            if (at >= data.size()) continue;
            EXPECT_TRUE(volume.read(u"/" + name, at, 3000, 3) == data.substr(at, 3000));
            EXPECT_TRUE(volume.read(u"/" + name, at) == data.substr(at));
        }
    }
    volume.unmount();
    EXPECT_EQ(volume.disk->writes(), 0u);
    EXPECT_TRUE(volume.disk->bytes == content.bytes);
}

TEST(HFSPlusContent, WholeBlocksOfAContiguousFileComeInOneTransfer) {
    const XorrisoVolume& content = Content();
    ASSERT_FALSE(content.bytes.empty());
    Volume volume(DiskOf(content.bytes));
    ASSERT_NE(volume.driver, nullptr);
    const std::string& data = content.files.at(u"big.bin");
    std::unique_ptr<ri_file> big(volume.root->open_file(u"big.bin", false));
    ASSERT_NE(big, nullptr);
    std::vector<char> buffer(data.size() + 4096);
    char* aligned = buffer.data() + (4096 - reinterpret_cast<std::uintptr_t>(buffer.data()) % 4096) % 4096;
    const std::size_t before = volume.disk->reads();
    std::uint64_t got = 0;
    big->read(aligned, data.size(), got);
    EXPECT_EQ(got, data.size());
    // The partial last block is the only other transfer.
    EXPECT_LE(volume.disk->reads() - before, 2u);
    EXPECT_EQ(std::memcmp(aligned, data.data(), data.size()), 0);
}

TEST(HFSPlusContent, ASizeBeyondTheExtentsIsDamageAtTheReadThatNeedsIt) {
    Bytes bytes = Content().bytes;
    ASSERT_FALSE(bytes.empty());
    // The catalog key of "damaged.bin": its name in big-endian UTF-16 behind
    // its length, followed by a file record (type 2).
    const std::string name = "damaged.bin";
    Bytes key = {0, static_cast<unsigned char>(name.size())};
    for (char c : name) key.insert(key.end(), {0, static_cast<unsigned char>(c)});
    std::size_t record = 0;
    for (auto at = bytes.begin(); (at = std::search(at, bytes.end(), key.begin(), key.end())) != bytes.end(); ++at) {
        const std::size_t behind = static_cast<std::size_t>(at - bytes.begin()) + key.size();
        if (bytes[behind] == 0 && bytes[behind + 1] == 2) record = behind;
    }
    ASSERT_NE(record, 0u);
    // The data fork's logicalSize (at 88) grows by 20 blocks of 2 KiB; its
    // extents stay.
    const std::size_t size_at = record + 88 + 4;
    Put32(bytes, size_at, Get32(bytes, size_at) + 20 * 2048);
    Volume volume(DiskOf(bytes));
    ASSERT_NE(volume.driver, nullptr);
    const std::string data = Content().files.at(u"damaged.bin");
    EXPECT_TRUE(volume.read(u"/damaged.bin", 0, data.size()) == data);
    EXPECT_EQ(volume.read(u"/damaged.bin"), "<read failed " + std::to_string(Common::FILE_CORRUPT) + ">");
    // A size that no fork of this volume could have is damage as soon as
    // the size is asked: 4 GiB more on a volume of a few MiB.
    Put32(bytes, record + 88, 1);
    Volume larger(DiskOf(bytes));
    ASSERT_NE(larger.driver, nullptr);
    EXPECT_EQ(larger.read(u"/damaged.bin", 0, 1), "<read failed " + std::to_string(Common::FILE_CORRUPT) + ">");
}

// A descriptor from its published bytes: start, then count, big-endian.
hfsplus::ExtentDescriptor Extent(std::uint32_t start, std::uint32_t count) {
    Bytes bytes(8);
    Put32(bytes, 0, start);
    Put32(bytes, 4, count);
    hfsplus::ExtentDescriptor extent{};
    std::memcpy(&extent, bytes.data(), sizeof(extent));
    return extent;
}

TEST(HFSPlusExtents, ArraysAppendLocateAndGroup) {
    using hfsplus::ExtentsDescriptorArray;
    struct Case {
        const char* what;
        std::vector<hfsplus::ExtentDescriptor> extents;
        std::uint32_t code;
        std::uint32_t extent_count;
    };
    const Case cases[] = {
        {"stops at 0/0", {Extent(10, 5), Extent(0, 0), Extent(40, 1)}, 0, 1},
        {"a count of 0 alone", {Extent(10, 5), Extent(20, 0)}, Common::FILE_CORRUPT, 1},
        {"a start of 0 alone", {Extent(0, 3)}, Common::FILE_CORRUPT, 0},
        {"past the last block number", {Extent(0xFFFFFFF0u, 0x20)}, Common::FILE_CORRUPT, 0},
        {"a sum past 2^32 - 1", {Extent(1, 0xFFFFFFF0u), Extent(2, 0x20)}, Common::FILE_CORRUPT, 1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        ExtentsDescriptorArray array;
        EXPECT_EQ(RaisedCode([&] { array.Append(c.extents.data(), static_cast<unsigned>(c.extents.size())); }), c.code);
        EXPECT_EQ(array.extent_count(), c.extent_count);
    }

    // Seventeen extents of 1, 2, 3... blocks at 100, 200, 300...
    ExtentsDescriptorArray array;
    for (std::uint32_t i = 1; i <= 17; ++i) {
        const hfsplus::ExtentDescriptor extent = Extent(100 * i, i);
        array.Append(&extent, 1);
    }
    const hfsplus::ExtentDescriptor* first = &array.GetExtent(0);
    array.AddArea(hfsplus::BlockArea::FromCount(5000, 4));
    EXPECT_EQ(&array.GetExtent(0), first);
    EXPECT_EQ(array.extent_count(), 18u);
    EXPECT_EQ(array.block_count(), 17u * 18 / 2 + 4);
    // File block 0 is extent 1's first; block 1 starts extent 2; block 4 is
    // the second of extent 3; the last is the added area's.
    EXPECT_EQ(array.Locate(0), hfsplus::BlockArea(100, 100));
    EXPECT_EQ(array.Locate(1), hfsplus::BlockArea(200, 201));
    EXPECT_EQ(array.Locate(4), hfsplus::BlockArea(301, 302));
    EXPECT_EQ(array.Locate(array.block_count() - 1), hfsplus::BlockArea(5003, 5003));
    EXPECT_EQ(RaisedCode([&] { array.Locate(array.block_count()); }), Common::FILE_CORRUPT);
    // Group 2 holds extents 17 and 18 and six zeros; it starts behind 1..16.
    hfsplus::ExtentDescriptor group[hfsplus::kExtentsPerRecord];
    array.GetGroup(2, group);
    EXPECT_EQ(group[0].startBlock(), 1700u);
    EXPECT_EQ(group[1].startBlock(), 5000u);
    EXPECT_TRUE(group[2].empty() && group[7].empty());
    EXPECT_EQ(array.GetBlocksBefore(2), 16u * 17 / 2);
    EXPECT_EQ(RaisedCode([&] { array.GetGroup(3, group); }), Common::FILE_CORRUPT);
    EXPECT_EQ(RaisedCode([&] { array.GetExtent(18); }), Common::FILE_CORRUPT);
    // A copy owns its extents.
    ExtentsDescriptorArray copy = array;
    array.Clear();
    EXPECT_EQ(copy.extent_count(), 18u);
    EXPECT_EQ(copy.Locate(4), hfsplus::BlockArea(301, 302));
    EXPECT_EQ(RaisedCode([&] { array.Locate(0); }), Common::FILE_CORRUPT);
}

}  // namespace
