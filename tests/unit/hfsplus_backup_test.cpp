// The HFS+ backup objects through the directory's "BKUP" request, over a
// volume that xorriso's HFS+ writer makes: the streams of each kind of
// entry in their order, the data cut at the fork's size, option bit 2,
// symbolic link targets at the limit, and the refusals of the pieces and
// their containers.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "fsdriver/backup_object.h"
#include "fsdriver/driver_selection.h"
#include "hfsplus/backup_records.h"
#include "hfsplus/hfsplus_driver.h"
#include "hfsplus/memory_allocator.h"
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
using Volume = TestSupport::Volume<HFSPlusDriver, TryHFSPlusDriver>;

constexpr std::uint32_t kBlock = 2048;  // xorriso's HFS+ block size
constexpr std::int64_t kModified = 946684798;  // 1999-12-31 23:59:58 UTC

// One output stream of a backup: its type, its bytes, and whether every
// area it got was aligned as the object asked.
struct Stream {
    std::uint32_t type;
    std::string bytes;
    std::size_t sends = 0;
    bool block_aligned = true;
};

class Collector : public BackupStreams {
public:
    class Output : public BackupOutputStream {
    public:
        explicit Output(Stream& stream) : stream_(stream) {}
        unsigned char* reserve(std::uint64_t size) override {
            area_.assign(size, 0);
            return area_.data();
        }
        void send(const unsigned char* start, std::uint64_t size) override {
            if (size == 0) return;
            ++stream_.sends;
            if (reinterpret_cast<std::uintptr_t>(start) % kBlock != 0) stream_.block_aligned = false;
            stream_.bytes.append(reinterpret_cast<const char*>(start), size);
        }

    private:
        Stream& stream_;
        std::vector<unsigned char> area_;
    };
    Common::Error open_output(std::uint32_t type, BackupOutputStream*& stream) override {
        streams.push_back({type, ""});
        stream = new Output(streams.back());
        return Common::Error();
    }
    RestoreInputStream* next_input() override { return nullptr; }
    Common::Error error() override { return Common::Error(); }
    std::vector<Stream> streams;
};

// The symbolic link targets at the limit: five components of 99 characters
// and a last one, 512 and 513 characters in all (a single component may
// not pass 255 in xorriso's Rock Ridge tree).
std::string LinkTarget(std::size_t length) {
    std::string target;
    for (int i = 0; i < 5; ++i) target += std::string(99, 'a') + "/";
    return target + std::string(length - target.size(), 'b');
}

struct BackupVolume {
    BackupVolume() {
        const std::string src = folder.Path() + "/src";
        folder.Write("src/empty", "");
        folder.Write("src/data.bin", data);
        folder.Write("src/typed", "typed\n");
        folder.Write("src/sub/inner", "inner\n");
        const std::string make =
            "cd " + src + " && chmod 0640 data.bin && chmod 0751 sub && touch -d @" + std::to_string(kModified) +
            " data.bin && ln -s " + LinkTarget(512) + " l512 && ln -s " + LinkTarget(513) + " l513 && cd .. && " +
            "xorriso -as mkisofs -hfsplus --hfsplus-file-creator-type ttxt TEXT /typed -o x.iso src";
        if (TestSupport::RunQuietly(make) != 0) return;
        const std::string image = folder.Path() + "/hfs.img";
        if (!TestSupport::CutHfsplusPartition(folder.Path() + "/x.iso", image)) return;
        bytes = TestSupport::LoadFile(image);
    }
    TestSupport::TempFolder folder;
    std::string data = Pattern(0x10000 + 3 * kBlock + 77, 9);  // a full chunk, then a cut one
    std::vector<unsigned char> bytes;
};

const BackupVolume& Content() {
    static const BackupVolume volume;
    return volume;
}

// The streams of `name` in the root (empty: the root itself), or the code
// that refused it.
struct Answer {
    std::vector<Stream> streams;
    std::uint32_t code = 0;
    std::vector<std::uint32_t> types() const {
        std::vector<std::uint32_t> types;
        for (const Stream& stream : streams) types.push_back(stream.type);
        return types;
    }
    const Stream& of(std::uint32_t type) const {
        for (const Stream& stream : streams) {
            if (stream.type == type) return stream;
        }
        static const Stream none{0, "<none>"};
        return none;
    }
};

Answer Backup(Volume& volume, const std::u16string& name, std::uint32_t option) {
    Collector collector;
    std::unique_ptr<i_dir::iterator> entry(name.empty() ? nullptr : volume.root->find(name.c_str()));
    BackupRequest request{0x50554B42, 0, {&collector, nullptr, option}, {entry.get()}};  // "BKUP"
    volume.root->control(&request);
    Answer answer;
    answer.code = volume.root->failed() ? volume.root->error().Code() : 0;
    volume.root->set_error(Common::Error());
    answer.streams = collector.streams;
    return answer;
}

std::uint32_t U32(const std::string& bytes, std::size_t at) {
    std::uint32_t value = 0;
    for (int i = 3; i >= 0; --i) value = value << 8 | static_cast<unsigned char>(bytes.at(at + i));
    return value;
}
std::uint64_t U64(const std::string& bytes, std::size_t at) {
    return std::uint64_t(U32(bytes, at + 4)) << 32 | U32(bytes, at);
}

// The extended attribute head of a name and a value size, as a reader of
// the stream would parse it.
std::string Head(const std::string& name, std::uint64_t size) {
    std::string out;
    out += static_cast<char>(name.size() & 0xFF);
    out += static_cast<char>(name.size() >> 8);
    for (int i = 0; i < 8; ++i) out += static_cast<char>((size >> (8 * i)) & 0xFF);
    return out + name + '\0';
}

TEST(HFSPlusBackup, EachEntryGivesItsStreamsInOrder) {
    const BackupVolume& content = Content();
    ASSERT_FALSE(content.bytes.empty());
    Volume volume(DiskOf(content.bytes));
    ASSERT_NE(volume.driver, nullptr);
    struct Case {
        const char16_t* name;
        std::uint32_t option;
        std::vector<std::uint32_t> types;
        std::uint32_t attributes;
        std::uint32_t kind;
        std::uint32_t mode;  // 0: not looked at
    } const cases[] = {
        {u"empty", 0, {1, 6, 5, 7}, 0, 0, 0},
        {u"data.bin", 0, {1, 4, 6, 5, 7}, 0, 0, 0100640},
        {u"data.bin", 4, {1, 6, 5, 7}, 0, 0, 0100640},
        {u"sub", 0, {1, 6, 5, 7}, 0x10, 128, 040751},
        {u"", 0, {1, 6, 5, 7}, 0x10, 128, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.name, c.name + std::char_traits<char16_t>::length(c.name)) + " option " +
                     std::to_string(c.option));
        const Answer answer = Backup(volume, c.name, c.option);
        ASSERT_EQ(answer.code, 0u);
        EXPECT_EQ(answer.types(), c.types);
        EXPECT_EQ(answer.of(1).bytes.size(), 4u);
        EXPECT_EQ(U32(answer.of(1).bytes, 0), c.attributes);
        const std::string& posix = answer.of(6).bytes;
        ASSERT_EQ(posix.size(), 20u);
        EXPECT_EQ(U32(posix, 0), 20u);
        EXPECT_EQ(U32(posix, 4), c.kind);
        if (c.mode != 0) {
            EXPECT_EQ(U32(posix, 16), c.mode);
        }
        EXPECT_EQ(answer.of(5).bytes.size(), 16u);
        // Finder information, given as an extended attribute.
        const std::string& finder = answer.of(7).bytes;
        EXPECT_EQ(finder.size(), 31u + 32u);
        EXPECT_EQ(finder.substr(0, 31), Head("com.apple.FinderInfo", 32));
    }
    // The data fork, whole, in chunks of 64 KiB at most into block-aligned
    // areas, the last cut at the file's size; the times are the file's.
    const Answer data = Backup(volume, u"data.bin", 0);
    EXPECT_TRUE(data.of(4).bytes == content.data);
    EXPECT_EQ(data.of(4).sends, 2u);
    EXPECT_TRUE(data.of(4).block_aligned);
    EXPECT_EQ(U64(data.of(5).bytes, 0), std::uint64_t(kModified) * 1000);
    // Finder type and creator as xorriso was told them.
    const Answer typed = Backup(volume, u"typed", 0);
    EXPECT_EQ(typed.of(7).bytes.substr(31, 8), "TEXTttxt");
    EXPECT_EQ(typed.of(4).bytes, "typed\n");
}

TEST(HFSPlusBackup, SymbolicLinkTargetsUpTo512Characters) {
    const BackupVolume& content = Content();
    ASSERT_FALSE(content.bytes.empty());
    Volume volume(DiskOf(content.bytes));
    ASSERT_NE(volume.driver, nullptr);
    const Answer link = Backup(volume, u"l512", 0);
    ASSERT_EQ(link.code, 0u);
    EXPECT_EQ(link.types(), (std::vector<std::uint32_t>{1, 6, 5, 7}));
    const std::string& record = link.of(6).bytes;
    ASSERT_EQ(record.size(), 24u + 1024u);
    EXPECT_EQ(U32(record, 0), 24u + 1024u);
    EXPECT_EQ(U32(record, 4), 5u);
    EXPECT_EQ(U32(record, 20) & 0xFFFF, 1024u);
    std::string target;
    for (std::size_t i = 0; i < 512; ++i) target += record.at(22 + 2 * i);
    EXPECT_EQ(target, LinkTarget(512));
    EXPECT_EQ(record.substr(22 + 1024), std::string(2, '\0'));
    // 513 characters are refused although 513 bytes would fit the read.
    EXPECT_EQ(Backup(volume, u"l513", 0).code, Common::FILE_BACKUP);
    // Nothing restores on this volume, and nothing was written.
    EXPECT_FALSE(volume.driver->supports_restore());
    volume.unmount();
    EXPECT_EQ(volume.disk->writes(), 0u);
}

std::uint64_t BE(const std::vector<unsigned char>& bytes, std::size_t at, unsigned width) {
    std::uint64_t value = 0;
    for (unsigned i = 0; i < width; ++i) value = value << 8 | bytes.at(at + i);
    return value;
}

// Where the catalog file record of `name` starts in the image, 0 when none:
// its key found by the name as the published leaf layout holds it (key
// length, parent id, name length, UTF-16 big-endian characters), with a
// record of type 2 (a file) right behind the key.
std::size_t FileRecordOf(const std::vector<unsigned char>& image, const std::string& name) {
    std::string pattern{'\0', static_cast<char>(name.size())};
    for (char c : name) pattern += std::string{'\0', c};
    const std::string text(image.begin(), image.end());
    for (std::size_t at = text.find(pattern); at != std::string::npos; at = text.find(pattern, at + 1)) {
        if (at < 6 || BE(image, at - 6, 2) != 6 + 2 * name.size()) continue;
        if (BE(image, at + 2 * name.size() + 2, 2) == 2) return at + 2 * name.size() + 2;
    }
    return 0;
}

// No tool here writes a resource fork, so one is made by hand: "typed"
// gets as its resource fork the extents of data.bin's data fork (the data
// fork at 88 of a file record, the resource fork at 168), with a size 50
// bytes short of data.bin's, so that its last chunk is cut.
TEST(HFSPlusBackup, ResourceForkFollowsTheFinderInformation) {
    const BackupVolume& content = Content();
    ASSERT_FALSE(content.bytes.empty());
    std::vector<unsigned char> image = content.bytes;
    const std::size_t typed = FileRecordOf(image, "typed"), data = FileRecordOf(image, "data.bin");
    ASSERT_NE(typed, 0u);
    ASSERT_NE(data, 0u);
    ASSERT_EQ(BE(image, data + 88, 8), content.data.size());
    ASSERT_EQ(BE(image, typed + 168 + 12, 4), 0u);  // no resource fork yet
    std::copy_n(image.begin() + data + 88, 80, image.begin() + typed + 168);
    const std::uint64_t size = content.data.size() - 50;
    for (unsigned i = 0; i < 8; ++i) image.at(typed + 168 + i) = static_cast<unsigned char>(size >> (56 - 8 * i));
    const std::string resource = Head("com.apple.ResourceFork", size) + content.data.substr(0, size);
    Volume volume(DiskOf(image));
    ASSERT_NE(volume.driver, nullptr);
    // Option 4 drops the data fork only; the resource fork still comes,
    // after the Finder information and in the same stream of type 7.
    for (std::uint32_t option : {0u, 4u}) {
        SCOPED_TRACE(option);
        const Answer answer = Backup(volume, u"typed", option);
        ASSERT_EQ(answer.code, 0u);
        const std::vector<std::uint32_t> types =
            option == 0 ? std::vector<std::uint32_t>{1, 4, 6, 5, 7} : std::vector<std::uint32_t>{1, 6, 5, 7};
        EXPECT_EQ(answer.types(), types);
        EXPECT_EQ(answer.of(4).bytes, option == 0 ? "typed\n" : "<none>");
        const std::string& attributes = answer.of(7).bytes;
        EXPECT_EQ(attributes.substr(0, 31), Head("com.apple.FinderInfo", 32));
        EXPECT_EQ(attributes.substr(31, 8), "TEXTttxt");
        EXPECT_TRUE(attributes.substr(63) == resource) << attributes.size() - 63 << " of " << resource.size();
        EXPECT_EQ(answer.of(7).sends, 5u);  // two heads, the Finder bytes, a full chunk and a cut one
    }
    // Extents that don't add up to the fork's block count.
    ++image.at(typed + 168 + 15);
    Volume counted(DiskOf(image));
    ASSERT_NE(counted.driver, nullptr);
    EXPECT_EQ(Backup(counted, u"typed", 0).code, Common::FILE_BACKUP);
}

TEST(HFSPlusBackup, PiecesAndContainersRefuseWhatDoesNotFit) {
    using hfsplus::HFSPlusBackupPosixExtendedAttributes;
    // Names of an extended attribute: 127 UTF-8 bytes pass, 128 don't,
    // whatever their characters ("é" is two bytes).
    struct Case {
        std::string name;
        std::uint32_t code;
    } const cases[] = {
        {std::string(127, 'n'), 0},
        {std::string(128, 'n'), Common::FILE_BACKUP},
        {std::string(125, 'n') + "\xC3\xA9", 0},
        {std::string(126, 'n') + "\xC3\xA9", Common::FILE_BACKUP},
        {"", 0},
    };
    for (const Case& c : cases) {
        std::optional<HFSPlusBackupPosixExtendedAttributes> head;
        EXPECT_EQ(RaisedCode([&] { head.emplace(c.name, 5); }), c.code) << c.name.size();
        if (!head) continue;
        std::vector<unsigned char> area(head->chunk);
        EXPECT_EQ(head->chunk, c.name.empty() ? 10u : c.name.size() + 11);
        EXPECT_EQ(head->read(area.data()), area.size());
        EXPECT_EQ(std::string(area.begin(), area.end()), Head(c.name, 5).substr(0, area.size()));
        EXPECT_EQ(head->stream_type, 0u);
    }

    struct Pair {
        std::optional<int> first;
        std::optional<int> second;
    };
    hfsplus::AggregateMemoryAllocator<Pair> aggregate;
    aggregate.aggregate.second.emplace(7);
    aggregate.Place(3, &*aggregate.aggregate.second);
    EXPECT_EQ(*static_cast<int*>(aggregate.GetItem(3)), 7);
    for (unsigned missing : {0u, 2u, 11u, 12u}) {
        EXPECT_EQ(RaisedCode([&] { aggregate.GetItem(missing); }), Common::FILE_BACKUP) << missing;
    }
    int outside = 0;
    EXPECT_EQ(RaisedCode([&] { aggregate.Place(1, &outside); }), Common::FILE_BACKUP);

    hfsplus::SequenceMemoryAllocator<Pair> sequence(2);
    EXPECT_EQ(RaisedCode([&] { sequence.GetItem(0); }), Common::FILE_BACKUP);  // none taken yet
    for (int i = 0; i < 2; ++i) {
        Pair& element = sequence.Take();
        element.first.emplace(i);
        sequence.Place(0, &*element.first);
        EXPECT_EQ(*static_cast<int*>(sequence.GetItem(0)), i);
        EXPECT_EQ(RaisedCode([&] { sequence.GetItem(1); }), Common::FILE_BACKUP);
    }
    EXPECT_EQ(RaisedCode([&] { sequence.Take(); }), Common::FILE_BACKUP);
}

}  // namespace
