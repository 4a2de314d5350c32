// Backups of NTFS entries through the "BKUP" request, on a volume that
// mkntfs makes and ntfs-3g fills over FUSE: named streams, a sparse file,
// object ids (the volume's own too), a symbolic link, a directory with a
// stream of its own. The Win32 backup stream is parsed by its published
// layout and held against what ntfs-3g was told to write.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "fsdriver/backup_object.h"
#include "fsdriver/directory_object.h"
#include "loader/common/byte_order.h"
#include "loader/common/error_codes.h"
#include "ntfs/ntfs_driver.h"
#include "tests/support/ntfs_image.h"
#include "tests/support/raised_code.h"
#include "tests/support/shell.h"
#include "tests/support/volume_fixture.h"

namespace {

using ntfs::NTFSDriver;
using Volume = TestSupport::Volume<NTFSDriver, TryNTFSDriver>;

const std::string kVolumeId = "11111111222233334444555555555555";
const std::string kFileId = "a0a1a2a3a4a5a6a7a8a9aaabacadaeaf";
const std::string kEfs = "80000000" + std::string(248, 'a');  // its length, then 124 bytes
const std::string kLinkReparse = "0c0000a02000000000000a000a000a000100000070006c00610069006e0070006c00610069006e00";

std::vector<unsigned char> MakeBase() {
    return TestSupport::MakeNtfsImage(
        "truncate -s 32M volume.img; mkntfs -F -f -q -c 4096 volume.img; mkdir mnt; ntfs-3g volume.img mnt; cd mnt;"
        " head -c 150000 /dev/urandom > plain.bin; TZ=UTC touch -d '2001-02-03 04:05:06' plain.bin;"
        " printf 'main stream\\n' > streamed.txt; setfattr -n user.side -v 'the side stream' streamed.txt;"
        " setfattr -n user.other -v 'another' streamed.txt;"
        " printf 'data at start' > sparse.bin;"
        " printf middle | dd of=sparse.bin bs=1 seek=600000 conv=notrunc status=none;"
        " truncate -s 2000000 sparse.bin;"
        " mkdir dir; setfattr -n user.dstream -v 'dir stream' dir; printf x > dir/inner.txt;"
        " printf id > oid.txt; setfattr -n system.ntfs_object_id -v 0x" + kFileId + " oid.txt;"
        " setfattr -n system.ntfs_object_id -v 0x" + kVolumeId + " '$Volume';"
        " printf h > hidden.txt; setfattr -h -n system.ntfs_attrib_be -v 0x00000006 hidden.txt;"
        " : > link; setfattr -h -n system.ntfs_reparse_data -v 0x" + kLinkReparse + " link;"
        " setfattr -h -n system.ntfs_attrib_be -v 0x00000406 link; cd ..; umount mnt;"
        // An encrypted file as ntfs-3g restores one in its raw mode: the
        // $EFS value first, then the stored bytes.
        " ntfs-3g -o efs_raw volume.img mnt; : > mnt/enc.bin;"
        " setfattr -n system.ntfs_efsinfo -v 0x" + kEfs + " mnt/enc.bin;"
        " python3 -c 'import sys; sys.stdout.buffer.write(bytes((i * 7 + 3) & 255 for i in range(5000)))'"
        " > mnt/enc.bin;"
        " umount mnt");
}

const std::vector<unsigned char>& Base() {
    static const std::vector<unsigned char> base = MakeBase();
    return base;
}

std::string Hex(const std::string& hex) {
    std::string bytes;
    for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
        bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
    }
    return bytes;
}

struct Piece {
    std::uint32_t kind;
    std::string bytes;
};

// One piece per output stream, as the framework opens them.
class Collector : public BackupStreams {
public:
    class Output : public BackupOutputStream {
    public:
        explicit Output(std::string& into) : into_(into) {}
        unsigned char* reserve(std::uint64_t size) override {
            area_.assign(size, 0);
            return area_.data();
        }
        void send(const unsigned char* start, std::uint64_t size) override {
            into_.append(reinterpret_cast<const char*>(start), size);
        }

    private:
        std::string& into_;
        std::vector<unsigned char> area_;
    };
    Common::Error open_output(std::uint32_t type, BackupOutputStream*& stream) override {
        pieces.push_back({type, ""});
        stream = new Output(pieces.back().bytes);
        return Common::Error();
    }
    RestoreInputStream* next_input() override { return nullptr; }
    Common::Error error() override { return Common::Error(); }
    std::vector<Piece> pieces;
};

struct Win32Stream {
    std::uint32_t id, attributes;
    std::uint64_t size;
    std::u16string name;
    std::string data;
};

// The published layout: id, attributes, size, name size, the name, the data.
std::vector<Win32Stream> ParseWin32(const std::string& bytes) {
    std::vector<Win32Stream> streams;
    for (std::size_t at = 0; at < bytes.size();) {
        if (bytes.size() - at < 20) {
            ADD_FAILURE() << "a header cut short at " << at;
            break;
        }
        const char* head = bytes.data() + at;
        Win32Stream s{Common::LoadLE32(head), Common::LoadLE32(head + 4), Common::LoadLE64(head + 8), u"", ""};
        const std::uint32_t name_size = Common::LoadLE32(head + 16);
        if (bytes.size() - at - 20 < name_size + s.size) {
            ADD_FAILURE() << "a stream cut short at " << at;
            break;
        }
        for (std::uint32_t i = 0; i < name_size / 2; ++i) {
            s.name += static_cast<char16_t>(Common::LoadLE16(head + 20 + 2 * i));
        }
        s.data = bytes.substr(at + 20 + name_size, s.size);
        at += 20 + name_size + s.size;
        streams.push_back(s);
    }
    return streams;
}

class NtfsBackup : public ::testing::Test {
protected:
    void SetUp() override {
        if (Base().empty()) GTEST_SKIP() << "mkntfs or ntfs-3g over FUSE isn't available";
        image_.store(Base());
        volume_ = std::make_unique<Volume>(image_.path);
        ASSERT_NE(volume_->driver, nullptr);
    }

    // The pieces of `name` in `directory` ("" the root; a null name the directory itself).
    std::vector<Piece> backup(const char16_t* directory, const char16_t* name, std::uint32_t option,
                              std::uint32_t& code) {
        std::unique_ptr<rio_dir> opened(*directory == 0 ? nullptr : volume_->root->open_dir(directory));
        rio_dir* dir = *directory == 0 ? volume_->root.get() : opened.get();
        std::unique_ptr<i_dir::iterator> entry(name == nullptr ? nullptr : dir->find(name));
        Collector collector;
        BackupRequest request{0x50554B42, 0, {&collector, nullptr, option}, {entry.get()}};  // "BKUP"
        dir->control(&request);
        code = dir->failed() ? dir->error().Code() : 0;
        return collector.pieces;
    }
    std::vector<Piece> backup(const char16_t* name, std::uint32_t option = 0) {
        std::uint32_t code = 0;
        std::vector<Piece> pieces = backup(u"", name, option, code);
        EXPECT_EQ(code, 0u) << driver_test::NarrowText(name);
        return pieces;
    }
    static std::vector<std::uint32_t> Kinds(const std::vector<Piece>& pieces) {
        std::vector<std::uint32_t> kinds;
        for (const Piece& piece : pieces) kinds.push_back(piece.kind);
        return kinds;
    }
    static std::vector<Win32Stream> Streams(const std::vector<Piece>& pieces) {
        for (const Piece& piece : pieces) if (piece.kind == 2) return ParseWin32(piece.bytes);
        return {};
    }
    static std::vector<std::uint32_t> Ids(const std::vector<Piece>& pieces) {
        std::vector<std::uint32_t> ids;
        for (const Win32Stream& s : Streams(pieces)) ids.push_back(s.id);
        return ids;
    }

    // The size of the descriptor that the listing gives the entry.
    std::uint64_t descriptorSize(const char16_t* name) {
        std::unique_ptr<FileSystemDriver::IteratorObject> entry(volume_->driver->get_directory(u"")->find(name));
        return entry->security(nullptr);
    }

    TestSupport::ImageFile image_;
    std::unique_ptr<Volume> volume_;
};

TEST_F(NtfsBackup, OptionsChooseTheStreamsOfAFile) {
    struct Case {
        std::uint32_t option;
        std::vector<std::uint32_t> kinds, ids;
    } const cases[] = {
        {0, {1, 5, 2}, {3, 1, 4, 4}}, {1, {1, 5, 2}, {1, 4, 4}}, {2, {1, 5, 2}, {3, 1, 4, 4}},
        {4, {1, 5, 2}, {3, 4, 4}},    {5, {1, 5, 2}, {4, 4}},
    };
    for (const Case& c : cases) {
        const std::vector<Piece> pieces = backup(u"streamed.txt", c.option);
        EXPECT_EQ(Kinds(pieces), c.kinds) << c.option;
        EXPECT_EQ(Ids(pieces), c.ids) << c.option;
    }
    std::map<std::u16string, std::string> named;
    for (const Win32Stream& s : Streams(backup(u"streamed.txt"))) {
        if (s.id == 3) {
            EXPECT_EQ(s.attributes, 2u);
            EXPECT_EQ(s.size, descriptorSize(u"streamed.txt"));
            continue;
        }
        EXPECT_EQ(s.attributes, 0u);
        named.emplace(s.name, s.data);
    }
    EXPECT_EQ(named, (std::map<std::u16string, std::string>{
                         {u"", "main stream\n"}, {u"side", "the side stream"}, {u"other", "another"}}));
    // A file with only unnamed data and nothing else of kind 2 asked for.
    EXPECT_EQ(Kinds(backup(u"plain.bin", 5)), (std::vector<std::uint32_t>{1, 5}));
}

TEST_F(NtfsBackup, AttributesTimesAndContents) {
    const std::vector<Piece> pieces = backup(u"plain.bin");
    ASSERT_EQ(Kinds(pieces), (std::vector<std::uint32_t>{1, 5, 2}));
    std::unique_ptr<i_dir::iterator> entry(volume_->root->find(u"plain.bin"));
    EXPECT_EQ(Common::LoadLE32(pieces[0].bytes.data()), entry->attributes());
    ASSERT_EQ(pieces[1].bytes.size(), 16u);
    EXPECT_EQ(Common::LoadLE64(pieces[1].bytes.data()), 981173106000u);  // 2001-02-03 04:05:06 UTC
    EXPECT_EQ(static_cast<std::int64_t>(Common::LoadLE64(pieces[1].bytes.data() + 8)), entry->created());
    const std::vector<Win32Stream> streams = Streams(pieces);
    ASSERT_EQ(streams.size(), 2u);
    EXPECT_EQ(streams[1].size, 150000u);
    EXPECT_EQ(streams[1].data, volume_->read(u"plain.bin"));
    EXPECT_EQ(streams[1].data, TestSupport::CaptureOutput("ntfscat " + image_.path + " plain.bin"));

    // Hidden and system stay on a file; a symbolic link loses them.
    struct Case {
        const char16_t* name;
        std::uint32_t bits;
    } const cases[] = {{u"hidden.txt", 6}, {u"link", 0}};
    for (const Case& c : cases) {
        EXPECT_EQ(Common::LoadLE32(backup(c.name)[0].bytes.data()) & 6u, c.bits) << driver_test::NarrowText(c.name);
    }
    // The link's reparse point comes between the security and the data.
    const std::vector<Win32Stream> link = Streams(backup(u"link"));
    ASSERT_EQ(link.size(), 3u);
    EXPECT_EQ(link[1].id, 8u);
    EXPECT_EQ(link[1].data, Hex(kLinkReparse));
    EXPECT_EQ(link[2].id, 1u);
    EXPECT_EQ(link[2].size, 0u);
}

TEST_F(NtfsBackup, SparseFileGivesItsRangesAsBlocks) {
    const std::vector<Win32Stream> streams = Streams(backup(u"sparse.bin"));
    ASSERT_GE(streams.size(), 3u);
    EXPECT_EQ(streams[1].id, 1u);
    EXPECT_EQ(streams[1].attributes, 8u);
    EXPECT_EQ(streams[1].size, 0u);
    std::string rebuilt(2000000, '\0');
    std::uint64_t carried = 0;
    for (std::size_t i = 2; i < streams.size(); ++i) {
        const Win32Stream& block = streams[i];
        EXPECT_EQ(block.id, 9u);
        EXPECT_EQ(block.attributes, 8u);
        ASSERT_GE(block.size, 8u);
        const std::uint64_t at = Common::LoadLE64(block.data.data());
        ASSERT_LE(at + block.size - 8, rebuilt.size());
        rebuilt.replace(at, block.size - 8, block.data.substr(8));
        carried += block.size - 8;
    }
    std::string expected(2000000, '\0');
    expected.replace(0, 13, "data at start");
    expected.replace(600000, 6, "middle");
    EXPECT_EQ(rebuilt, expected);
    // One block for each of the two written clusters, and an empty one at
    // the size, which the trailing hole would otherwise lose.
    ASSERT_EQ(streams.size(), 5u);
    EXPECT_EQ(streams[4].size, 8u);
    EXPECT_EQ(Common::LoadLE64(streams[4].data.data()), 2000000u);
    EXPECT_LE(carried, 2u * 4096);
}

TEST_F(NtfsBackup, DirectoriesAndEntriesOfOtherKinds) {
    std::uint32_t code = 0;
    const std::vector<Piece> pieces = backup(u"dir", nullptr, 0, code);
    ASSERT_EQ(code, 0u);
    ASSERT_EQ(Kinds(pieces), (std::vector<std::uint32_t>{1, 5, 2}));
    const std::uint32_t attributes = Common::LoadLE32(pieces[0].bytes.data());
    EXPECT_EQ(attributes & 0x10000010u, 0x10u);
    const std::vector<Win32Stream> streams = Streams(pieces);
    ASSERT_EQ(streams.size(), 2u);
    EXPECT_EQ(streams[1].id, 4u);
    EXPECT_EQ(streams[1].name, u"dstream");
    EXPECT_EQ(streams[1].data, "dir stream");

    // A listed directory is backed up as itself.
    EXPECT_EQ(Kinds(backup(u"", u"dir", 0, code)), Kinds(pieces));
    EXPECT_EQ(code, 0u);
    // The directory object serves a symbolic link to a file, and nothing else.
    FileSystemDriver::DirectoryObject* root = volume_->driver->get_directory(u"");
    for (const char16_t* name : {u"link", u"plain.bin", u"dir"}) {
        std::unique_ptr<FileSystemDriver::IteratorObject> entry(root->find(name));
        const bool link = std::u16string(name) == u"link";
        std::unique_ptr<FileSystemDriver::BackupObject> object;
        EXPECT_EQ(TestSupport::RaisedCode([&] { object.reset(root->new_backup_object(entry.get(), 0)); }),
                  link ? 0u : Common::FILE_UNSUPPORTED);
        if (link) {
            EXPECT_EQ(object->stream_type, 1u);
        }
    }
}

TEST_F(NtfsBackup, SecurityAsksForItsSizeFirstAndDataComesInSteps) {
    FileSystemDriver::DirectoryObject* root = volume_->driver->get_directory(u"");
    std::unique_ptr<FileSystemDriver::FileObject> file(root->open_file(u"plain.bin"));
    std::unique_ptr<FileSystemDriver::BackupObject> object(file->new_backup_object(0));
    const std::uint64_t security = 0x14 + descriptorSize(u"plain.bin");
    std::vector<std::uint64_t> answers;
    while (object->stream_type != 0 && answers.size() < 20) {
        const std::uint64_t chunk = object->chunk, alignment = object->alignment;
        std::vector<unsigned char> area(chunk + alignment);
        const std::uintptr_t miss = reinterpret_cast<std::uintptr_t>(area.data()) % alignment;
        unsigned char* start = area.data() + (alignment - miss) % alignment;
        answers.push_back(object->read(start));
        EXPECT_LE(answers.back(), chunk);
        if (answers.size() == 3) {
            EXPECT_EQ(object->chunk, security);
        }
    }
    // Attributes, times, the security's 0 then its piece, the data's header and three steps.
    EXPECT_EQ(answers, (std::vector<std::uint64_t>{4, 16, 0, security, 20, 0x10000, 0x10000, 150000 - 0x20000}));
}

TEST_F(NtfsBackup, ObjectIdsAreCompletedWithTheVolumesId) {
    struct Case {
        const char16_t* name;
        std::string value;  // none: no object id stream
    } const cases[] = {
        {u"oid.txt", Hex(kFileId + kVolumeId + kFileId + std::string(32, '0'))},
        {u"plain.bin", ""},
    };
    for (const Case& c : cases) {
        std::string found;
        for (const Win32Stream& s : Streams(backup(c.name))) {
            if (s.id == 7) found = s.data;
        }
        EXPECT_EQ(found, c.value) << driver_test::NarrowText(c.name);
    }
}

TEST_F(NtfsBackup, ShortStandardInformationIsCorrupt) {
    volume_.reset();
    std::vector<unsigned char> bytes = Base();
    const std::string info = TestSupport::CaptureOutput("ntfsinfo -F plain.bin " + image_.path + " 2>/dev/null");
    const std::size_t at = info.find("Dumping Inode ");
    ASSERT_NE(at, std::string::npos);
    const std::size_t record = Common::LoadLE64(bytes.data() + 0x30) * 4096 + std::stoull(info.substr(at + 14)) * 1024;
    const std::size_t first = record + Common::LoadLE16(bytes.data() + record + 0x14);
    ASSERT_EQ(Common::LoadLE32(bytes.data() + first), 0x10u);
    Common::StoreLE32(bytes.data() + first + 0x10, 0x20);  // its value's length, far from a sector's end
    image_.store(bytes);
    volume_ = std::make_unique<Volume>(image_.path);
    EXPECT_EQ(volume_->read(u"plain.bin").size(), 150000u);  // the file itself still opens and reads
    std::uint32_t code = 0;
    backup(u"", u"plain.bin", 0, code);
    EXPECT_EQ(code, Common::FILE_CORRUPT);
}

TEST_F(NtfsBackup, EncryptedFileGoesOutInRawForm) {
    const std::vector<Piece> pieces = backup(u"enc.bin");
    ASSERT_EQ(Kinds(pieces), (std::vector<std::uint32_t>{1, 5, 2, 3}));
    EXPECT_EQ(Common::LoadLE32(pieces[0].bytes.data()) & 0x4000u, 0x4000u);
    EXPECT_EQ(Ids(pieces), std::vector<std::uint32_t>{3});
    const std::string& raw = pieces[3].bytes;
    const std::string marshaled = Hex("2a0000004e00540046005300000000000000000000000000"
                                      "0e0000003a003a0024004400410054004100");  // "NTFS", "::$DATA"
    ASSERT_EQ(raw.size(), 0x42 + 128 + marshaled.size() + 0x30 + 5120);
    EXPECT_EQ(raw.substr(0, 0x42), Hex("00010000" "52004f0042005300" "0000000000000000" "1e000000" "4e00540046005300"
                                       "000000000000000000000000" "02000000" "1019" "90000000" "4700550052004500"
                                       "00000000"));
    EXPECT_EQ(raw.substr(0x42, 128), Hex(kEfs));
    EXPECT_EQ(raw.substr(0x42 + 128, marshaled.size()), marshaled);
    const std::string segment = raw.substr(0x42 + 128 + marshaled.size());
    EXPECT_EQ(segment.substr(0, 0x30), Hex("30140000" "4700550052004500" "00000000" "0000000000000000" "20000000"
                                           "88130000" "88130000" "0000" "10" "10" "0c" "01" "0100" "00140000"));
    std::string stored;
    for (int i = 0; i < 5000; ++i) stored += static_cast<char>((i * 7 + 3) & 255);
    EXPECT_EQ(segment.substr(0x30, 5000), stored);

    // Offered as plain data, the contents must be decrypted: this $EFS,
    // holding no key entry of the published form, is refused as damaged.
    std::uint32_t code = 0;
    const std::vector<Piece> plain = backup(u"", u"enc.bin", 2, code);
    EXPECT_EQ(code, Common::FILE_CORRUPT);
    ASSERT_FALSE(plain.empty());
    EXPECT_EQ(Common::LoadLE32(plain[0].bytes.data()) & 0x4000u, 0u);
}

}  // namespace
