// NTFS restore objects driven through the "RSTR" directory request on
// volumes made by mkntfs and ntfs-3g; the Win32 backup streams are built
// here from the published layout. What the driver wrote is read back by
// ntfscat, ntfsinfo and an ntfs-3g mount (getfattr), and judged by ntfsfix.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "fsdriver/backup_object.h"
#include "fsdriver/directory_object.h"
#include "fsdriver/file_object.h"
#include "loader/common/error_codes.h"
#include "ntfs/ntfs_driver.h"
#include "tests/support/ntfs_image.h"
#include "tests/support/raised_code.h"
#include "tests/support/shell.h"
#include "tests/support/volume_fixture.h"

namespace {

using TestSupport::CaptureOutput;
using TestSupport::Pattern;
using Volume = TestSupport::Volume<ntfs::NTFSDriver, TryNTFSDriver>;

constexpr std::uint32_t kRestoreWord = 0x52545352;  // "RSTR"

std::string Le(std::uint64_t value, int bytes) {
    std::string out;
    for (int i = 0; i < bytes; ++i) out.push_back(static_cast<char>((value >> (8 * i)) & 0xFF));
    return out;
}

// A Win32 stream header: id, attributes, size, name size, the name.
std::string Header(std::uint32_t id, std::uint32_t attributes, std::uint64_t size, const std::u16string& name) {
    std::string out = Le(id, 4) + Le(attributes, 4) + Le(size, 8) + Le(name.size() * 2, 4);
    for (char16_t c : name) out += Le(c, 2);
    return out;
}
std::string Stream(std::uint32_t id, const std::string& data, const std::u16string& name = u"") {
    return Header(id, 0, data.size(), name) + data;
}
std::string SparseBlock(const std::u16string& name, std::uint64_t position, const std::string& data) {
    return Header(9, 8, data.size() + 8, name) + Le(position, 8) + data;
}
std::string Times(std::int64_t modified_ms, std::int64_t created_ms) {
    return Le(static_cast<std::uint64_t>(modified_ms), 8) + Le(static_cast<std::uint64_t>(created_ms), 8);
}

// A self-relative descriptor from the published layout: owner and group
// S-1-5-18, a DACL that allows everyone everything.
std::string Descriptor() {
    const std::string system_sid = "\x01\x01" + std::string(5, '\0') + "\x05\x12" + std::string(3, '\0');
    const std::string everyone = "\x01\x01" + std::string(5, '\0') + "\x01" + std::string(4, '\0');
    const std::string ace = std::string("\x00\x00\x14\x00", 4) + Le(0x1F01FF, 4) + everyone;
    const std::string dacl = std::string("\x02\x00\x1c\x00\x01\x00\x00\x00", 8) + ace;
    return std::string("\x01\x00\x04\x80", 4) + Le(20, 4) + Le(32, 4) + Le(0, 4) + Le(44, 4) + system_sid +
           system_sid + dacl;
}

struct Piece {
    std::uint32_t type;
    std::string data;
};

// Hands out the pieces as input streams, each read `step` bytes at most.
class Pieces : public BackupStreams {
public:
    Pieces(std::vector<Piece> pieces, std::uint64_t step) : pieces_(std::move(pieces)), step_(step) {}
    class Input : public RestoreInputStream {
    public:
        Input(const Piece& piece, std::uint64_t step) : piece_(piece), step_(step) {}
        std::uint32_t type() override { return piece_.type; }
        Common::Error read(void* buffer, std::uint64_t size, std::uint64_t& got) override {
            got = std::min({size, step_, piece_.data.size() - at_});
            std::memcpy(buffer, piece_.data.data() + at_, got);
            at_ += got;
            return Common::Error();
        }

    private:
        const Piece& piece_;
        std::uint64_t step_;
        std::size_t at_ = 0;
    };
    Common::Error open_output(std::uint32_t, BackupOutputStream*&) override { return Common::Error(); }
    RestoreInputStream* next_input() override {
        return next_ == pieces_.size() ? nullptr : new Input(pieces_[next_++], step_);
    }
    Common::Error error() override { return Common::Error(); }

private:
    std::vector<Piece> pieces_;
    std::uint64_t step_;
    std::size_t next_ = 0;
};

// A volume with an empty directory "d" and a file "keep" of ntfs-3g.
const std::vector<unsigned char>& Base() {
    static const std::vector<unsigned char> base = TestSupport::MakeNtfsImage(
        "truncate -s 16M volume.img; mkntfs -F -f -q volume.img; mkdir mnt; ntfs-3g volume.img mnt;"
        " mkdir mnt/d; printf kept > mnt/keep; umount mnt");
    return base;
}

class NtfsRestore : public ::testing::Test {
protected:
    void SetUp() override {
        if (Base().empty()) GTEST_SKIP() << "mkntfs or ntfs-3g over FUSE isn't available";
        image_.store(Base());
    }
    // The code the request ends with, 0 when it succeeds.
    std::uint32_t restore(const char16_t* path, std::vector<Piece> pieces, std::uint32_t option = 0,
                          std::uint64_t step = 0x40000) {
        Volume volume(image_.path);
        if (volume.driver == nullptr) return ~0u;
        Pieces streams(std::move(pieces), step);
        BackupRequest request{kRestoreWord, 0, {&streams, nullptr, option}, {nullptr}};
        request.path = path;
        volume.root->control(&request);
        return volume.root->failed() ? volume.root->error().Code() : 0;
    }
    // Runs `commands` (with "M" the mount point) over an ntfs-3g mount.
    std::string mounted(const std::string& commands) const {
        const std::string mount = image_.folder.Path() + "/mnt";
        return CaptureOutput("mkdir -p " + mount + " && ntfs-3g " + image_.path + " " + mount + " && (M=" + mount +
                             "; " + commands + "); umount " + mount);
    }
    // The raw value of an extended attribute that ntfs-3g shows.
    std::string xattr(const std::string& path, const std::string& name) const {
        return mounted("getfattr --only-values -h -n " + name + " \"$M/" + path + "\" 2>/dev/null");
    }
    std::string cat(const std::string& path, const std::string& stream = "") const {
        return CaptureOutput("ntfscat " + (stream.empty() ? "" : "-a 0x80 -n " + stream + " ") + image_.path + " /" +
                             path);
    }
    bool exists(const std::string& path) const {
        return CaptureOutput("ntfsinfo -F /" + path + " " + image_.path).find("Dumping Inode") != std::string::npos;
    }
    bool sound() const {
        return CaptureOutput("ntfsfix -n " + image_.path + "; echo status=$?").find("status=0") != std::string::npos;
    }

    TestSupport::ImageFile image_;
};

constexpr std::int64_t kModified = 981173106000;  // 2001-02-03 04:05:06 UTC
constexpr std::int64_t kCreated = 915152400000;   // 1999-01-01 01:00:00 UTC
// The same in the volume's units, 100 ns from 1601.
constexpr std::uint64_t kModifiedNtfs = 126256467060000000;
constexpr std::uint64_t kCreatedNtfs = 125596260000000000;

TEST_F(NtfsRestore, FileComesBackWithEveryStream) {
    const std::string data = Pattern(70000, 1);
    const std::string kind2 = Stream(3, Descriptor()) + Stream(1, data) + Stream(4, "named one", u":s1:$DATA") +
                              Stream(0x12345, Pattern(3000, 2)) + Stream(7, std::string(64, 'o')) +
                              Stream(4, Pattern(5000, 3), u"after");
    // Odd steps cut headers, names and data across the framework's writes.
    ASSERT_EQ(restore(u"f", {{1, Le(0x22, 4)}, {5, Times(kModified, kCreated)}, {2, kind2}}, 0, 4093), 0u);
    EXPECT_EQ(cat("f"), data);
    EXPECT_EQ(cat("f", "s1"), "named one");
    EXPECT_EQ(cat("f", "after"), Pattern(5000, 3));  // the header behind the unknown ids still counts
    EXPECT_EQ(xattr("f", "system.ntfs_attrib"), Le(0x22, 4));
    // system.ntfs_times: creation, modification, access, change, each 100 ns from 1601.
    EXPECT_EQ(xattr("f", "system.ntfs_times").substr(0, 16), Le(kCreatedNtfs, 8) + Le(kModifiedNtfs, 8));
    EXPECT_EQ(xattr("f", "system.ntfs_acl"), Descriptor());
    EXPECT_TRUE(sound());

    // Options: no descriptor (bit 0), no times (bit 1); the plain piece (kind 4) is the data.
    ASSERT_EQ(restore(u"g", {{1, Le(0x20, 4)}, {5, Times(kModified, kCreated)}, {2, Stream(3, Descriptor())},
                             {4, "plain bytes"}},
                      3),
              0u);
    EXPECT_EQ(cat("g"), "plain bytes");
    EXPECT_NE(xattr("g", "system.ntfs_acl"), Descriptor());
    const std::string times = xattr("g", "system.ntfs_times");
    EXPECT_EQ(times.size(), 32u);
    EXPECT_EQ(times.find(Le(kCreatedNtfs, 8)), std::string::npos);
    EXPECT_TRUE(sound());
}

TEST_F(NtfsRestore, SparseBlocksLandAtTheirPositions) {
    const std::string block = Pattern(5000, 4);
    const std::string kind2 = Header(1, 8, 0, u"") + SparseBlock(u"", 0x30000, block) + Header(4, 8, 0, u"s") +
                              SparseBlock(u"s", 0x1000, "xyz") + SparseBlock(u"", 0x50000, "");
    ASSERT_EQ(restore(u"sp", {{1, Le(0x20, 4)}, {2, kind2}}), 0u);
    std::string expected(0x50000, '\0');
    expected.replace(0x30000, block.size(), block);
    EXPECT_EQ(cat("sp"), expected);
    EXPECT_EQ(cat("sp", "s"), std::string(0x1000, '\0') + "xyz");
    EXPECT_TRUE(sound());
}

TEST_F(NtfsRestore, DirectoryTakesItsAttributesAndNamedStreams) {
    ASSERT_EQ(restore(u"d", {{1, Le(0x12, 4)}, {5, Times(kModified, kCreated)},
                             {2, Stream(4, "on a directory", u"ds") + Stream(3, Descriptor())}}),
              0u);
    EXPECT_EQ(cat("d", "ds"), "on a directory");
    EXPECT_EQ(xattr("d", "system.ntfs_attrib"), Le(0x12, 4));
    EXPECT_EQ(xattr("d", "system.ntfs_acl"), Descriptor());
    // A directory has no unnamed data, and no plain piece.
    EXPECT_EQ(restore(u"d", {{1, Le(0x10, 4)}, {2, Stream(1, "x")}}), Common::FILE_CORRUPT);
    EXPECT_EQ(restore(u"d", {{1, Le(0x10, 4)}, {4, "x"}}), Common::FILE_UNSUPPORTED);
    EXPECT_TRUE(sound());
}

TEST_F(NtfsRestore, RefusalsLeaveNothingHalfWritten) {
    const std::string head = Stream(4, "whole", u"w");
    std::string garbage_header = Header(4, 0, 5, u"");
    garbage_header[16] = 3;  // an odd name size
    struct Case {
        const char* what;
        std::vector<Piece> pieces;
        std::uint32_t code;
    } const cases[] = {
        {"cut inside a header", {{1, Le(0x20, 4)}, {2, head + Header(4, 0, 9, u"x").substr(0, 11)}}, Common::FILE_CORRUPT},
        {"cut inside the data", {{1, Le(0x20, 4)}, {2, head + Header(1, 0, 100, u"") + "half"}}, Common::FILE_CORRUPT},
        {"3 bytes past the size begin a header", {{1, Le(0x20, 4)}, {2, Stream(1, "hello") + "XYZ"}}, Common::FILE_CORRUPT},
        {"a header past the size with an odd name", {{1, Le(0x20, 4)}, {2, Stream(1, "hello") + garbage_header}},
         Common::FILE_CORRUPT},
        {"cut header, then another kind", {{1, Le(0x20, 4)}, {2, head.substr(0, 7)}, {4, "data"}},
         Common::FILE_CORRUPT},
        {"a kind that nothing serves", {{1, Le(0x20, 4)}, {2, head}, {9, "what"}}, Common::FILE_UNSUPPORTED},
        {"the raw encrypted form", {{1, Le(0x20, 4)}, {3, std::string(64, 'e')}}, Common::FILE_DECRYPT},
        {"five bytes of attributes", {{1, Le(0x20, 5)}}, Common::FILE_CORRUPT},
        {"a name of 256 characters", {{1, Le(0x20, 4)}, {2, Stream(4, "x", std::u16string(256, u'n'))}},
         Common::FILE_CORRUPT},
        {"a name with a colon", {{1, Le(0x20, 4)}, {2, Stream(4, "x", u"a:b")}}, Common::FILE_CORRUPT},
        {"named data without a name", {{1, Le(0x20, 4)}, {2, Stream(4, "x")}}, Common::FILE_CORRUPT},
        {"a size no stream has", {{1, Le(0x20, 4)}, {2, Header(1, 0, 1ull << 63, u"")}}, Common::FILE_CORRUPT},
        {"a named stream larger than the free space",
         {{1, Le(0x20, 4)}, {2, head + Header(4, 0, 64 << 20, u"big") + Pattern(100, 5)}}, Common::FILE_DISK_FULL},
        {"a damaged descriptor", {{1, Le(0x20, 4)}, {2, Stream(3, Descriptor().substr(0, 30))}},
         Common::FILE_CORRUPT},
        {"reparse data of a wrong length", {{1, Le(0x20, 4)}, {2, Stream(8, Le(0xA000000C, 4) + Le(50, 4))}},
         Common::FILE_CORRUPT},
        {"a time before 1601", {{1, Le(0x20, 4)}, {5, Times(-12000000000000, 0)}}, Common::FILE_CORRUPT},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(restore(u"r", c.pieces), c.code) << c.what;
        EXPECT_FALSE(exists("r")) << c.what;
        EXPECT_EQ(cat("keep"), "kept") << c.what;
        EXPECT_TRUE(sound()) << c.what;
    }
    // On a directory only the named stream that was cut goes.
    EXPECT_EQ(restore(u"d", {{1, Le(0x12, 4)}, {2, head + Header(4, 0, 50, u"cut") + "part"}}), Common::FILE_CORRUPT);
    EXPECT_EQ(cat("d", "w"), "whole");
    EXPECT_EQ(cat("d", "cut"), "");
    EXPECT_EQ(xattr("d", "system.ntfs_attrib"), Le(0x12, 4));
    EXPECT_TRUE(sound());
}

}  // namespace
