// The NTFS driver's lower layers over volumes that mkntfs, ntfscp and
// ntfs-3g make: the mount's refusals, the run list codec and the fixups on
// hand-made bytes, and reads that must equal the files the tools were
// given: resident, contiguous, sparse, compressed, spread over extension
// records, and past 4 GiB. Nothing may reach the disk.
#include "ntfs/ntfs_driver.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "fsdriver/directory_object.h"
#include "fsdriver/driver_selection.h"
#include "fsdriver/file_object.h"
#include "loader/common/byte_order.h"
#include "loader/common/error_codes.h"
#include "ntfs/file_record.h"
#include "ntfs/fixups.h"
#include "ntfs/run_list.h"
#include "tests/support/raised_code.h"
#include "tests/support/shell.h"
#include "tests/support/temp_folder.h"
#include "tests/support/volume_fixture.h"

namespace {

using ntfs::NTFSDriver;
using TestSupport::DiskOf;
using TestSupport::Pattern;
using TestSupport::RaisedCode;
using TestSupport::TempFolder;
using Volume = TestSupport::Volume<NTFSDriver, TryNTFSDriver>;

constexpr std::uint64_t kKiB = 1024;
constexpr std::uint64_t kMiB = 1024 * kKiB;

int Shell(const std::string& command) { return TestSupport::RunQuietly(command); }

// Bytes that no compressor shrinks.
std::string Noise(std::size_t size, std::uint32_t seed) {
    std::string data(size, '\0');
    for (std::size_t i = 0; i < size; ++i) {
        seed = seed * 1664525u + 1013904223u;
        data[i] = static_cast<char>(seed >> 24);
    }
    return data;
}

std::string Text(std::size_t lines) {
    std::string text;
    for (std::size_t i = 0; i < lines; ++i) text += "line " + std::to_string(i) + " of a compressible text\n";
    return text;
}

// A volume made by mkntfs, files put by ntfscp.
struct Image {
    bool make(const std::string& options, std::uint64_t mib, const std::map<std::string, std::string>& files = {}) {
        if (Shell("truncate -s " + std::to_string(mib) + "M " + file.path + " && mkntfs -F -f -q " + options + " " +
                  file.path) != 0) {
            return false;
        }
        for (const auto& [name, data] : files) {
            file.folder.Write("src/" + name, data);
            if (Shell("ntfscp " + file.path + " " + file.folder.Path() + "/src/" + name + " /" + name) != 0) {
                return false;
            }
        }
        return true;
    }
    std::string info(const std::string& arguments) const {
        return TestSupport::CaptureOutput("ntfsinfo " + arguments + " " + file.path);
    }

    TestSupport::ImageFile file;
};

// The content volume of the read tests, made once: files written through
// ntfs-3g with compression, so that every kind of stream is there.
struct Content {
    Content() {
        const std::string mount = image.file.folder.Path() + "/mnt";
        const std::string host = image.file.folder.Path() + "/host";
        if (!image.make("-c 4096 -L CoreVol", 48)) return;
        image.file.folder.Write("host/big.bin", files["big.bin"] = Pattern(300 * kKiB + 7, 1));
        image.file.folder.Write("host/tiny.txt", files["tiny.txt"] = "ten bytes\n");
        image.file.folder.Write("host/z/text.txt", files["z/text.txt"] = Text(5000));
        image.file.folder.Write("host/z/noise.bin", files["z/noise.bin"] = Noise(200 * kKiB + 3, 7));
        files["z/mixed.bin"] = Text(900) + Noise(70 * kKiB, 9) + Text(2000);
        image.file.folder.Write("host/z/mixed.bin", files["z/mixed.bin"]);
        files["sparse.bin"] = std::string(10 * kMiB, '\0');
        files["sparse.bin"].replace(5000000, 6, "middle");
        std::string holes(8 * kMiB, '\0');
        for (std::uint64_t at = 0; at < holes.size(); at += 16 * kKiB) holes.replace(at, 100, Noise(100, at));
        files["holes.bin"] = holes;
        image.file.folder.Write("host/holes.bin", holes);
        // Writes at scattered places leave a run per place: more runs than
        // one record holds, so the stream spreads over extension records.
        const std::string script =
            "mkdir -p " + mount + " && ntfs-3g -o compression " + image.file.path + " " + mount + " && mkdir " + mount +
            "/z && setfattr -h -v 0x00000800 -n system.ntfs_attrib_be " + mount + "/z && cp " + host + "/big.bin " +
            host + "/tiny.txt " + mount + "/ && cp " + host + "/z/* " + mount + "/z/ && truncate -s " +
            std::to_string(10 * kMiB) + " " + mount + "/sparse.bin && printf middle | dd of=" + mount +
            "/sparse.bin bs=1 seek=5000000 conv=notrunc && truncate -s " + std::to_string(8 * kMiB) + " " + mount +
            "/holes.bin && for at in $(seq 0 16384 " + std::to_string(8 * kMiB - 1) + "); do dd if=" + host +
            "/holes.bin of=" + mount + "/holes.bin bs=1 count=100 skip=$at seek=$at conv=notrunc status=none; done" +
            " && truncate -s " + std::to_string(kHuge) + " " + mount + "/huge.bin && printf start | dd of=" + mount +
            "/huge.bin conv=notrunc && printf far-end | dd of=" + mount +
            "/huge.bin bs=1 seek=" + std::to_string(kHuge - 7) + " conv=notrunc; status=$?; umount " + mount +
            "; exit $status";
        made = Shell(script) == 0;
    }
    static constexpr std::uint64_t kHuge = 5 * 1024 * kMiB;
    Image image;
    std::map<std::string, std::string> files;
    bool made = false;
};

Content& SharedContent() {
    static Content content;
    return content;
}

TEST(NtfsDriver, ReadsEqualTheFilesTheToolsWereGiven) {
    Content& content = SharedContent();
    ASSERT_TRUE(content.made);
    // Without these kinds of stream in the image the reads below would prove less.
    ASSERT_NE(content.image.info("-F /holes.bin").find("$ATTRIBUTE_LIST"), std::string::npos);
    for (const char* name : {"/z/text.txt", "/z/noise.bin"}) {
        ASSERT_NE(content.image.info(std::string("-F ") + name).find("Attribute flags:\t 0x0001"), std::string::npos);
    }
    ASSERT_NE(content.image.info("-F /sparse.bin").find("Attribute flags:\t 0x8000"), std::string::npos);
    ASSERT_NE(content.image.info("-F /tiny.txt").find("Resident: \t\t Yes"), std::string::npos);
    Volume volume(DiskOf(content.image.file.path));
    ASSERT_NE(volume.driver, nullptr);
    for (const auto& [name, data] : content.files) {
        SCOPED_TRACE(name);
        const std::u16string path = u"/" + std::u16string(name.begin(), name.end());
        EXPECT_TRUE(volume.read(path) == data);
        EXPECT_TRUE(volume.read(path, 0, ~0ull, 3) == data);  // the caller's buffer off the sector grid
    }
    struct Piece {
        const char* name;
        std::uint64_t position, length;
    } pieces[] = {
        {"big.bin", 4093, 9000},      {"big.bin", 300 * kKiB, 7},     {"z/text.txt", 65530, 70000},
        {"z/mixed.bin", 70000, 1},    {"z/noise.bin", 131071, 513},   {"sparse.bin", 4999999, 4097},
        {"holes.bin", 16380, 100000}, {"holes.bin", 8 * kMiB - 5, 5}, {"tiny.txt", 3, 4},
    };
    for (const Piece& piece : pieces) {
        SCOPED_TRACE(std::string(piece.name) + " at " + std::to_string(piece.position));
        const std::string name = piece.name;
        EXPECT_TRUE(volume.read(u"/" + std::u16string(name.begin(), name.end()), piece.position, piece.length, 1) ==
                    content.files[name].substr(piece.position, piece.length));
    }
    // Past 4 GiB: data at both ends of a sparse file, zeros between.
    EXPECT_EQ(volume.read(u"/huge.bin", 0, 5), "start");
    EXPECT_EQ(volume.read(u"/huge.bin", Content::kHuge - 7), "far-end");
    EXPECT_EQ(volume.read(u"/huge.bin", (4ull << 30) - 8, 16), std::string(16, '\0'));
    EXPECT_EQ(volume.disk->writes(), 0u);
}

TEST(NtfsDriver, FileObjectAnswersSizesPlacesAndRanges) {
    Content& content = SharedContent();
    ASSERT_TRUE(content.made);
    Volume volume(DiskOf(content.image.file.path));
    ASSERT_NE(volume.driver, nullptr);
    FileSystemDriver::DirectoryObject* root = volume.driver->get_directory(u"/");
    std::unique_ptr<FileSystemDriver::FileObject> sparse(root->open_file(u"sparse.bin"));
    EXPECT_EQ(sparse->size(), 10 * kMiB);
    // One 4 KiB cluster holds the data; the rest is holes.
    std::unique_ptr<std::uint64_t[]> ranges(reinterpret_cast<std::uint64_t*>(sparse->allocated_ranges(0, 10 * kMiB)));
    ASSERT_EQ(ranges[0], 1u);
    EXPECT_EQ(ranges[1], 5000000u / 4096 * 4096);
    EXPECT_EQ(ranges[2], 4096u);
    EXPECT_EQ(RaisedCode([&] { sparse->sector_at(0); }), Common::FILE_CORRUPT);  // a hole has no sector
    std::uint64_t got = 1;
    char byte = 0;
    sparse->read(&byte, 10 * kMiB, 1, got);
    EXPECT_EQ(got, 0u);
    EXPECT_EQ(RaisedCode([&] { sparse->read(&byte, 10 * kMiB + 1, 1, got); }), Common::FILE_EOF);
    std::uint32_t read_through[2] = {0x49534249, 0};  // "IBSI"
    EXPECT_EQ(RaisedCode([&] { sparse->control(read_through); }), 0u);

    std::unique_ptr<FileSystemDriver::FileObject> big(root->open_file(u"big.bin"));
    // The file's sectors, as ntfsinfo gives its first cluster.
    const std::string runs = content.image.info("-v -F /big.bin");
    const std::size_t at = runs.find("Runlist:");
    ASSERT_NE(at, std::string::npos);
    const std::uint64_t lcn = std::stoull(runs.substr(runs.find("0x", runs.find("0x", at) + 2)), nullptr, 16);
    EXPECT_EQ(big->sector_at(0), lcn * 8);
    EXPECT_EQ(big->sector_at(4096 * 2 + 513), lcn * 8 + 16 + 1);
    // The volume is writable: the file takes a byte and a new size.
    std::uint64_t written = 0;
    EXPECT_EQ(RaisedCode([&] { big->write("x", 0, 1, written); }), 0u);
    EXPECT_EQ(written, 1u);
    EXPECT_EQ(RaisedCode([&] { big->set_size(1); }), 0u);
    EXPECT_EQ(big->size(), 1u);
}

struct Geometry {
    const char* options;
    std::uint32_t sector;
};

// Reads and changes in every geometry are the image matrix's; here the
// volume's space, its label, and how contiguous data reaches the device.
TEST(NtfsDriver, EveryGeometryMountsAndReads) {
    const std::string big = Pattern(1 * kMiB + 100, 3);
    const Geometry rows[] = {{"-c 512", 512}, {"-c 4096", 512}, {"-c 65536", 512}, {"-c 4096", 4096}};
    for (const Geometry& row : rows) {
        SCOPED_TRACE(row.options);
        Image image;
        ASSERT_TRUE(image.make(std::string(row.options) + " -s " + std::to_string(row.sector) + " -L Etiqueta", 40,
                               {{"big.bin", big}}));
        const std::vector<unsigned char> before = image.file.bytes();
        Volume volume(DiskOf(image.file.path, row.sector));
        ASSERT_NE(volume.driver, nullptr);
        EXPECT_STREQ(volume.driver->type_name(), "NTFS");
        char16_t label[6];
        volume.driver->label(label, 6);
        EXPECT_EQ(std::u16string(label), u"Etiqu");  // cut to the capacity less its ending 0
        std::uint64_t total = 0, free = 0, available = 0;
        volume.driver->space(total, free, available);
        const std::string info = image.info("-m");
        const std::size_t at = info.find("Free Clusters: ");
        ASSERT_NE(at, std::string::npos);
        EXPECT_EQ(free, std::stoull(info.substr(at + 15)) * volume.driver->cluster_size);
        EXPECT_EQ(available, free);
        EXPECT_EQ(total, Common::LoadLE64(before.data() + 0x28) * row.sector);

        // Contiguous data comes in one transfer, the tail's cluster in one more.
        std::unique_ptr<FileSystemDriver::FileObject> file(volume.driver->get_directory(u"/")->open_file(u"big.bin"));
        std::vector<char> buffer(big.size() + 4096);
        char* aligned = buffer.data() + (4096 - reinterpret_cast<std::uintptr_t>(buffer.data()) % 4096) % 4096;
        volume.disk->log.clear();
        std::uint64_t got = 0;
        file->read(aligned, 0, big.size(), got);
        EXPECT_TRUE(std::string(aligned, got) == big);
        EXPECT_LE(volume.disk->reads(), 2u);
        EXPECT_EQ(volume.disk->unaligned, 0);
    }
}

TEST(NtfsDriver, DriverHelpersFollowTheVolume) {
    Image image;
    ASSERT_TRUE(image.make("-c 4096", 16));
    Volume volume(DiskOf(image.file.path));
    ASSERT_NE(volume.driver, nullptr);
    NTFSDriver& driver = *volume.driver;
    EXPECT_GE(driver.version, 0x301);
    struct Names {
        std::u16string a, b;
        int order;
    } names[] = {
        {u"abc", u"ABC", 0},
        {u"abc", u"abd", -1},
        {u"ab", u"abc", -1},
        {u"b", u"A", 1},
        // Characters above the letters compare by value once mapped: '_' (0x5F) lies above 'Z'.
        {u"_", u"z", 1},
        {u"\u00e9", u"\u00c9", 0},
        {u"", u"", 0},
    };
    for (const Names& row : names) {
        EXPECT_EQ(driver.compare_names(row.a.data(), row.a.size(), row.b.data(), row.b.size()), row.order)
            << std::string(row.a.begin(), row.a.end());
    }
    std::u16string path = u"/Dir/\u00e9t\u00e9.txt";
    driver.normalize_path(path);
    EXPECT_EQ(path, u"/DIR/\u00c9T\u00c9.TXT");
    EXPECT_EQ(NTFSDriver::FrameworkTime(0x19DB1DED53E8000 + 12345 * 10000 + 9999), 12345);
    EXPECT_EQ(NTFSDriver::FrameworkTime(0x19DB1DED53E8000 - 20000), -2);

    unsigned char request[8] = {'S', 'Y', 'P', 'R', 0, 7};
    driver.control(request);
    EXPECT_EQ(request[5], 1);  // system records hidden after the mount
    EXPECT_TRUE(driver.entry_hidden(4, 5));
    EXPECT_TRUE(driver.entry_hidden(20, 11));  // under $Extend
    EXPECT_FALSE(driver.entry_hidden(20, 5));
    request[4] = 1;
    request[5] = 0;
    driver.control(request);
    EXPECT_FALSE(driver.entry_hidden(4, 5));
    EXPECT_EQ(RaisedCode([&] { driver.refuse_if_unchangeable(); }), 0u);

    // A record filter hides what it clears and holds the volume read only.
    const unsigned char filter[4] = {0xFF, 0xFF, 0xFF, 0x7F};  // record 31 hidden, 32 on past the bits
    Volume filtered(DiskOf(image.file.path), filter, 32);
    ASSERT_NE(filtered.driver, nullptr);
    EXPECT_TRUE(filtered.driver->record_hidden(31));
    EXPECT_TRUE(filtered.driver->record_hidden(32));
    EXPECT_FALSE(filtered.driver->record_hidden(30));
    EXPECT_EQ(RaisedCode([&] { filtered.driver->refuse_if_unchangeable(); }), Common::FILE_READ_ONLY);

    // Records: the shared object, and a number the MFT doesn't reach.
    ntfs::RecordRef root = driver.record_cache->get(5);
    ntfs::RecordRef again = driver.record_cache->get(5);
    EXPECT_EQ(root.get(), again.get());
    EXPECT_EQ(root->recordNumber(), 5u);
    EXPECT_TRUE(root.find(ntfs::kIndexRoot, u"$I30"));
    EXPECT_FALSE(root.find(ntfs::kIndexRoot, u"$i30"));  // attribute names are case-sensitive
    EXPECT_EQ(RaisedCode([&] { driver.record_cache->get(1u << 30); }), Common::FILE_READ);
}

// A boot sector patch: `offset`, its bytes, and whether the checks pass.
struct BootCase {
    const char* what;
    std::uint32_t offset;
    std::vector<unsigned char> bytes;
    bool passes;
};

TEST(NtfsDriver, MountRefusesDamagedBootSectorsBeforeReadingOn) {
    Image image;
    ASSERT_TRUE(image.make("-c 4096", 16));
    const std::vector<unsigned char> good = image.file.bytes();
    const std::uint64_t sectors = good.size() / 512;
    auto le64 = [](std::uint64_t value) {
        std::vector<unsigned char> bytes(8);
        Common::StoreLE64(bytes.data(), value);
        return bytes;
    };
    const std::uint64_t mft = Common::LoadLE64(good.data() + 0x30);
    const BootCase cases[] = {
        {"as made", 0, {}, true},
        {"end marker", 0x1FE, {0x55, 0x55}, false},
        {"oem", 3, {'N', 'T', 'F', 'Z'}, false},
        {"oem blanks", 7, {' ', ' ', ' ', 0}, false},
        {"3 sectors a cluster", 0x0D, {3}, false},
        {"0 sectors a cluster", 0x0D, {0}, false},
        {"mft cluster 0", 0x30, le64(0), false},
        {"mirror cluster 0", 0x38, le64(0), false},
        {"mirror on the mft", 0x38, le64(mft), false},
        {"record byte 0", 0x40, {0}, false},
        {"record byte -8", 0x40, {0xF8}, false},
        {"record byte -17", 0x40, {0xEF}, false},
        {"record byte -9", 0x40, {0xF7}, true},
        {"record byte -16", 0x40, {0xF0}, true},
        {"index byte 0", 0x44, {0}, false},
        {"index byte -1", 0x44, {0xFF}, true},
        {"a cluster past the device", 0x28, le64(sectors + 8), false},
        {"less than a cluster past the device", 0x28, le64(sectors + 7), true},
    };
    for (const BootCase& row : cases) {
        SCOPED_TRACE(row.what);
        std::vector<unsigned char> bytes = good;
        std::copy(row.bytes.begin(), row.bytes.end(), bytes.begin() + row.offset);
        auto disk = DiskOf(bytes);
        std::uint32_t code = RaisedCode([&] { NTFSDriver driver(disk.get(), 0, sectors, 0, nullptr, nullptr, 0); });
        // A refusal of the boot sector reads nothing behind it.
        const bool read_on = disk->reads() > 1;
        EXPECT_EQ(read_on, row.passes);
        if (!row.passes) {
            EXPECT_EQ(code, Common::FILE_CORRUPT);
        }
        EXPECT_EQ(disk->writes(), 0u);
    }
    // A record size that the boot sector changes makes the MFT unreadable:
    // a refusal, not a crash. The tool-made sector, and a sector of 256
    // bytes, refused before any read.
    auto small = std::make_unique<TestSupport::MemoryDisk>(256, sectors * 2);
    EXPECT_EQ(RaisedCode([&] { NTFSDriver driver(small.get(), 0, sectors * 2, 0, good.data(), nullptr, 0); }),
              Common::FILE_CORRUPT);
    EXPECT_EQ(small->reads(), 0u);
    auto whole = DiskOf(good);
    EXPECT_EQ(RaisedCode([&] { NTFSDriver driver(whole.get(), 0, sectors, 0, good.data(), nullptr, 0); }), 0u);
    // The trial finds it among the drivers.
    FileSystemDriver* found = TryAllDrivers(whole.get(), 0, sectors, 0, nullptr, 0, 0);
    ASSERT_NE(found, nullptr);
    EXPECT_STREQ(found->type_name(), "NTFS");
    ++found->references;
    release(found);
}

// Hand-made mapping pairs: what they decode to, or damage.
struct RunCase {
    const char* what;
    std::vector<unsigned char> bytes;
    std::uint64_t lowest, highest;
    std::vector<ntfs::RunEntry> runs;  // empty with `corrupt`
    bool corrupt;
};

TEST(NtfsDriver, RunListDecodesOnlyTheMinimalForm) {
    constexpr std::uint64_t S = ntfs::RunEntry::kSparse;
    const RunCase cases[] = {
        {"one run", {0x11, 0x08, 0x40, 0x00}, 0, 7, {{0x40, 0, 8}}, false},
        {"one-byte length, two-byte offset", {0x21, 0x10, 0x00, 0x01, 0x00}, 0, 15, {{0x100, 0, 16}}, false},
        {"negative delta", {0x11, 0x04, 0x40, 0x11, 0x04, 0xF0, 0x00}, 0, 7, {{0x40, 0, 4}, {0x30, 4, 4}}, false},
        {"sparse between",
         {0x11, 0x02, 0x20, 0x01, 0x03, 0x11, 0x02, 0x10, 0x00},
         4,
         10,
         {{0x20, 4, 2}, {S, 6, 3}, {0x30, 9, 2}},
         false},
        {"empty list", {0x00}, 0, ~0ull, {}, false},
        {"five bytes, sign 0x00", {0x51, 0x01, 0x00, 0x00, 0x00, 0x80, 0x00, 0x00}, 0, 0, {{0x80000000, 0, 1}}, false},
        // Down from 0xF0000000 to 0x10: the complement of the difference has
        // its top bit set, so the encoder writes five bytes and 0xFF.
        {"five bytes, sign 0xFF",
         {0x51, 0x01, 0x00, 0x00, 0x00, 0xF0, 0x00, 0x51, 0x01, 0x10, 0x00, 0x00, 0x10, 0xFF, 0x00},
         0,
         1,
         {{0xF0000000, 0, 1}, {0x10, 1, 1}},
         false},
        {"five bytes, sign 0x7F", {0x51, 0x01, 0x00, 0x00, 0x00, 0x80, 0x7F, 0x00}, 0, 0, {}, true},
        {"negative length", {0x11, 0x80, 0x40, 0x00}, 0, 0, {}, true},
        {"length size 0", {0x10, 0x40, 0x00}, 0, 0, {}, true},
        {"length size 6", {0x16, 1, 0, 0, 0, 0, 0, 0x40, 0x00}, 0, 0, {}, true},
        {"no end byte", {0x11, 0x08, 0x40}, 0, 7, {}, true},
        {"one short of the highest vcn", {0x11, 0x08, 0x40, 0x00}, 0, 8, {}, true},
        {"delta below the previous cluster", {0x11, 0x04, 0x40, 0x11, 0x04, 0xB0, 0x00}, 0, 7, {}, true},
        {"wider than needed", {0x31, 0x04, 0x40, 0x00, 0x00, 0x11, 0x04, 0x01, 0x00}, 0, 7, {}, true},
        {"past the volume", {0x51, 0x02, 0xFF, 0xFF, 0xFF, 0xFF, 0x00, 0x00}, 0, 1, {}, true},
    };
    for (const RunCase& row : cases) {
        SCOPED_TRACE(row.what);
        ntfs::RunList list;
        std::uint32_t code = RaisedCode([&] {
            list = ntfs::RunList::Decode(row.bytes.data(), static_cast<std::uint32_t>(row.bytes.size()), row.lowest,
                                         row.highest, std::uint64_t(1) << 32);
        });
        EXPECT_EQ(code, row.corrupt ? Common::FILE_CORRUPT : 0u);
        if (row.corrupt) continue;
        ASSERT_EQ(list.size(), row.runs.size());
        for (std::size_t i = 0; i < row.runs.size(); ++i) {
            EXPECT_EQ(list[i].cluster, row.runs[i].cluster);
            EXPECT_EQ(list[i].vcn, row.runs[i].vcn);
            EXPECT_EQ(list[i].length, row.runs[i].length);
        }
    }
}

// Two-stride blocks with a sound array: number 0x0102 at offset 48,
// each stride's tail carries it, the saved words are 0xAAAA and 0xBBBB.
std::vector<unsigned char> FixedBlock() {
    std::vector<unsigned char> block(1024, 0);
    Common::StoreLE16(block.data() + 4, 48);
    Common::StoreLE16(block.data() + 6, 3);
    Common::StoreLE16(block.data() + 48, 0x0102);
    Common::StoreLE16(block.data() + 50, 0xAAAA);
    Common::StoreLE16(block.data() + 52, 0xBBBB);
    Common::StoreLE16(block.data() + 510, 0x0102);
    Common::StoreLE16(block.data() + 1022, 0x0102);
    return block;
}

TEST(NtfsDriver, FixupsCheckTheArrayAndEveryStride) {
    struct Case {
        const char* what;
        std::uint32_t offset;
        std::uint16_t value;
        std::uint32_t minimum;
        bool corrupt;
    } cases[] = {
        {"sound", 0, 0, 42, false},
        {"count 2 for two strides", 6, 2, 42, true},
        {"count 4", 6, 4, 42, true},
        {"offset 41 in a record", 4, 41, 42, true},
        {"offset 40 in an index buffer", 4, 40, 40, false},
        {"update number 0", 48, 0, 42, true},
        {"second tail torn", 1022, 0x0103, 42, true},
        {"first tail torn", 510, 0x0000, 42, true},
        {"array past the first stride", 4, 508, 42, true},
    };
    for (const Case& row : cases) {
        SCOPED_TRACE(row.what);
        std::vector<unsigned char> block = FixedBlock();
        if (row.offset == 4 && row.value == 40) {
            // Move the sound array to offset 40.
            std::memmove(block.data() + 40, block.data() + 48, 6);
        }
        if (row.offset != 0) Common::StoreLE16(block.data() + row.offset, row.value);
        if (row.offset == 48 && row.value == 0) {
            Common::StoreLE16(block.data() + 510, 0);
            Common::StoreLE16(block.data() + 1022, 0);
        }
        std::uint32_t code = RaisedCode([&] { ntfs::ApplyReadFixups(block.data(), 1024, row.minimum); });
        EXPECT_EQ(code, row.corrupt ? Common::FILE_CORRUPT : 0u);
        if (!row.corrupt) {
            EXPECT_EQ(Common::LoadLE16(block.data() + 510), 0xAAAA);
            EXPECT_EQ(Common::LoadLE16(block.data() + 1022), 0xBBBB);
        }
    }
}

// The byte offset of record `number` in the image, for a contiguous MFT start.
std::uint64_t RecordOffset(const std::vector<unsigned char>& image, std::uint64_t number) {
    const std::uint64_t cluster = std::uint64_t(image[0x0B] | image[0x0C] << 8) * image[0x0D];
    return Common::LoadLE64(image.data() + 0x30) * cluster + number * 1024;
}

// The first list entry from `entries` on that names another record than the first.
std::uint64_t ExtensionEntry(const std::vector<unsigned char>& image, std::uint64_t entries) {
    const std::uint32_t base = Common::LoadLE32(image.data() + entries + 16);
    std::uint64_t at = entries;
    while (Common::LoadLE32(image.data() + at + 16) == base) at += Common::LoadLE16(image.data() + at + 4);
    return at;
}

TEST(NtfsDriver, DamagedRecordsAreCorruptNeverFollowed) {
    Content& content = SharedContent();
    ASSERT_TRUE(content.made);
    const std::vector<unsigned char> good = content.image.file.bytes();
    // The record of holes.bin and where its attributes start.
    const std::string info = content.image.info("-v -F /holes.bin");
    const std::size_t at = info.find("Dumping Inode ");
    ASSERT_NE(at, std::string::npos);
    const std::uint64_t number = std::stoull(info.substr(at + 14));
    const std::uint64_t record = RecordOffset(good, number);
    ASSERT_EQ(std::memcmp(good.data() + record, "FILE", 4), 0);
    const std::uint32_t first = Common::LoadLE16(good.data() + record + 20);
    // The first attribute is $STANDARD_INFORMATION, then the list.
    const std::uint32_t list = first + Common::LoadLE32(good.data() + record + first + 4);
    ASSERT_EQ(Common::LoadLE32(good.data() + record + list), ntfs::kAttributeList);
    // ntfs-3g keeps a list this long in a cluster of its own; ntfsinfo says which.
    ASSERT_EQ(good[record + list + 8], 1);
    const std::size_t runs = info.find("Runlist:", info.find("$ATTRIBUTE_LIST"));
    ASSERT_NE(runs, std::string::npos);
    const std::uint64_t list_value =
        std::stoull(info.substr(info.find("0x", info.find("0x", runs) + 2)), nullptr, 16) * 4096;
    struct Patch {
        const char* what;
        std::uint64_t offset;
        std::uint32_t value;
        int width;
    } patches[] = {
        {"bytes in use past the record", record + 24, 1028, 4},
        {"first attribute past bytes in use", record + 20, 1016, 2},
        {"attribute length 0", record + first + 4, 0, 4},
        {"attribute length past the record", record + first + 4, 2000, 4},
        {"name past the attribute", record + list + 9, 200, 1},
        {"value past the attribute", record + first + 16, 0x1000, 4},
        {"mapping pairs past the attribute", record + list + 32, 0x100, 2},
        {"list entry length 0", list_value + 4, 0, 2},
        {"list entry past the list", list_value + 4, 0x4000, 2},
        {"list entry names a record the MFT lacks", list_value + 16, 0xFFFFFF, 4},
        {"extension record of another file", ExtensionEntry(good, list_value) + 16, 5, 4},
    };
    // Every record of the file, its list and each extent of its data.
    auto read_all = [number](Volume& volume) {
        return RaisedCode([&] {
            ntfs::RecordRef file = volume.driver->record_cache->get(number);
            ntfs::AttributeRef data = file.find(ntfs::kData);
            std::vector<char> buffer(8 * kMiB);
            if (data) data->read(0, buffer.size(), buffer.data());
            file->readThrough();
        });
    };
    Volume sound(DiskOf(good));
    ASSERT_NE(sound.driver, nullptr);
    EXPECT_EQ(read_all(sound), 0u);
    for (const Patch& patch : patches) {
        SCOPED_TRACE(patch.what);
        std::vector<unsigned char> bytes = good;
        for (int i = 0; i < patch.width; ++i)
            bytes[patch.offset + i] = static_cast<unsigned char>(patch.value >> (8 * i));
        Volume volume(DiskOf(bytes));
        ASSERT_NE(volume.driver, nullptr);
        EXPECT_EQ(read_all(volume), Common::FILE_CORRUPT);
        EXPECT_EQ(volume.disk->writes(), 0u);
    }
}

TEST(NtfsDriver, EncryptedStreamsAreRefusedAfterTheirKeyStream) {
    Image image;
    ASSERT_TRUE(image.make("-c 4096", 16, {{"secret.bin", Pattern(20000, 5)}}));
    std::vector<unsigned char> bytes = image.file.bytes();
    // Mark the data attribute encrypted: without a $EFS stream that is damage.
    const std::string info = image.info("-F /secret.bin");
    const std::uint64_t number = std::stoull(info.substr(info.find("Dumping Inode ") + 14));
    const std::uint64_t record = RecordOffset(bytes, number);
    std::uint32_t offset = Common::LoadLE16(bytes.data() + record + 20);
    while (Common::LoadLE32(bytes.data() + record + offset) != ntfs::kData) {
        offset += Common::LoadLE32(bytes.data() + record + offset + 4);
    }
    Common::StoreLE16(bytes.data() + record + offset + 12, ntfs::kFlagEncrypted);
    Volume volume(DiskOf(bytes));
    ASSERT_NE(volume.driver, nullptr);
    ntfs::RecordRef file = volume.driver->record_cache->get(number);
    ntfs::AttributeRef data = file.find(ntfs::kData);
    ASSERT_TRUE(data);
    std::vector<char> buffer(24576);
    EXPECT_EQ(RaisedCode([&] { data->read(0, 100, buffer.data()); }), Common::FILE_CORRUPT);
    EXPECT_EQ(RaisedCode([&] { data->readSectors(1, 512, buffer.data()); }), Common::FILE_READ);
    // The stored bytes stay readable, whole sectors to the end.
    EXPECT_EQ(data->readWithTail(0, 20000, buffer.data(), true), 20480u);
    EXPECT_TRUE(std::string(buffer.data(), 20000) == Pattern(20000, 5));
}

}  // namespace
