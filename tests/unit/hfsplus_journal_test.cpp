// The journal of HFS+ as the reading driver sees it: the replay map's
// splitting and lookups on hand-made items, the published checksum, the
// refusals of journal info blocks and headers patched into a volume that
// mkfs.hfsplus -J made, and transactions that tests/images/hfs_journal_writer
// puts into such a volume, read through the mounted driver while the
// sectors in place keep the old contents and nothing is written.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "files/dir_object.h"
#include "hfsplus/hfsplus_driver.h"
#include "hfsplus/hfsplus_metadata.h"
#include "hfsplus/hfsplus_records.h"
#include "hfsplus/journal.h"
#include "hfsplus/replay_map.h"
#include "hfsplus/volume_header.h"
#include "loader/common/byte_order.h"
#include "loader/common/error_codes.h"
#include "tests/support/hfsplus_image.h"
#include "tests/support/raised_code.h"
#include "tests/support/shell.h"
#include "tests/support/temp_folder.h"

namespace {

using hfsplus::HFSPlusDriver;
using hfsplus::HFSPlusReplayItem;
using hfsplus::HFSPlusReplayItemsMap;
using hfsplus::SectorArea;
using TestSupport::RaisedCode;

constexpr std::uint32_t kSector = 512;
constexpr std::uint64_t kMiB = 1024 * 1024;

// ---------------------------------------------------------------------------
// The replay map.

struct Item {
    std::uint64_t first, last, source;
};

HFSPlusReplayItem Make(const Item& item) {
    return HFSPlusReplayItem(SectorArea(item.first, item.last),
                             SectorArea(item.source, item.source + item.last - item.first));
}

std::vector<Item> Contents(const HFSPlusReplayItemsMap& map) {
    std::vector<Item> items;
    for (const auto& [key, item] : map.items) {
        EXPECT_EQ(key, item.target.first);
        EXPECT_EQ(item.target.GetCount(), item.source.GetCount());
        items.push_back({item.target.first, item.target.last, item.source.first});
    }
    return items;
}

bool operator==(const Item& a, const Item& b) { return a.first == b.first && a.last == b.last && a.source == b.source; }

struct InsertCase {
    const char* what;
    std::vector<Item> inserted;
    std::vector<Item> expected;
};

TEST(HfsplusReplayMap, LaterItemsReplaceEarlierOnesForTheSectorsTheyShare) {
    const InsertCase cases[] = {
        {"one item", {{10, 17, 1000}}, {{10, 17, 1000}}},
        {"the same target twice: the later source", {{10, 17, 1000}, {10, 17, 2000}}, {{10, 17, 2000}}},
        {"an empty target is ignored", {{10, 17, 1000}, {0, 0, 0}}, {{10, 17, 1000}}},
        {"the old item's upper part stays, its source moved",
         {{10, 17, 1000}, {10, 13, 2000}},
         {{10, 13, 2000}, {14, 17, 1004}}},
        {"a new item over the start of a later one",
         {{14, 21, 1000}, {10, 15, 2000}},
         {{10, 13, 2000}, {14, 15, 2004}, {16, 21, 1002}}},
        {"a new item over two old ones and the gaps",
         {{12, 13, 1000}, {16, 17, 1100}, {10, 19, 2000}},
         {{10, 11, 2000}, {12, 13, 2002}, {14, 15, 2004}, {16, 17, 2006}, {18, 19, 2008}}},
        {"an old item that starts below isn't looked at",
         {{8, 15, 1000}, {10, 11, 2000}},
         {{8, 15, 1000}, {10, 11, 2000}}},
        {"an item inside one that starts below is replaced by a new one over both",
         {{10, 20, 1000}, {15, 17, 1100}, {10, 20, 2000}},
         {{10, 20, 2000}}},
        {"apart items stay apart", {{10, 11, 1000}, {20, 21, 1100}}, {{10, 11, 1000}, {20, 21, 1100}}},
    };
    for (const InsertCase& row : cases) {
        SCOPED_TRACE(row.what);
        HFSPlusReplayItemsMap map;
        for (const Item& item : row.inserted) map.Insert(Make(item));
        const std::vector<Item> got = Contents(map);
        ASSERT_EQ(got.size(), row.expected.size());
        for (std::size_t i = 0; i < got.size(); ++i) {
            EXPECT_TRUE(got[i] == row.expected[i]) << i << ": " << got[i].first << "-" << got[i].last << " from "
                                                   << got[i].source;
        }
    }
    EXPECT_EQ(RaisedCode([] { HFSPlusReplayItem(SectorArea(10, 12), SectorArea(100, 101)); }),
              Common::FILE_UNSUPPORTED);
}

struct LookupCase {
    const char* what;
    SectorArea area;
    std::uint64_t found_first;  // 0: none
    SectorArea cut;             // what Translate leaves of the area
};

TEST(HfsplusReplayMap, FindAndTranslateStartWhereItemsStart) {
    HFSPlusReplayItemsMap map;
    HFSPlusReplayItem none;
    SectorArea untouched(40, 47);
    EXPECT_TRUE(map.Translate(untouched).IsEmpty());  // an empty map
    EXPECT_EQ(untouched, SectorArea(40, 47));
    map.Insert(Make({10, 17, 1000}));
    map.Insert(Make({30, 33, 2000}));
    const LookupCase cases[] = {
        {"the item itself", {10, 17}, 10, {10, 17}},
        {"the item's start, more behind it", {10, 25}, 10, {10, 17}},
        {"sectors before the item, then the item", {5, 12}, 10, {5, 9}},
        {"inside an item that starts below: not found", {12, 15}, 30, {12, 15}},
        {"behind every item", {40, 47}, 0, {40, 47}},
        {"between items, touching none", {20, 25}, 0, {20, 25}},
        {"the empty area", {}, 0, {}},
    };
    for (const LookupCase& row : cases) {
        SCOPED_TRACE(row.what);
        const HFSPlusReplayItem found = map.Find(row.area);
        SectorArea area = row.area;
        const HFSPlusReplayItem translated = map.Translate(area);
        if (row.found_first == 0 || row.found_first == 30) {
            // The one that starts at 30 doesn't meet [12, 15]: none either way.
            EXPECT_TRUE(found.IsEmpty());
            EXPECT_TRUE(translated.IsEmpty());
        } else {
            EXPECT_EQ(found.target.first, row.found_first);
            EXPECT_EQ(translated.target.first, row.found_first);
        }
        EXPECT_EQ(area, row.cut);
    }
}

TEST(HfsplusJournal, ChecksumIsThePublishedOne) {
    const unsigned char one[] = {0x5A};
    const unsigned char two[] = {1, 2};
    EXPECT_EQ(hfsplus::JournalChecksum(nullptr, 0), 0xFFFFFFFFu);
    EXPECT_EQ(hfsplus::JournalChecksum(one, 1), ~0x5Au);                   // h = b
    EXPECT_EQ(hfsplus::JournalChecksum(two, 2), ~((1u << 8) ^ (1u + 2u)));  // h = (h << 8) ^ (h + b)
}

// ---------------------------------------------------------------------------
// Volumes with journals.

// An image file as a disk that keeps only its non-zero 64 KiB pieces, so a
// sparse volume of 1 GiB costs what mkfs.hfsplus wrote. It takes no write,
// and counts the attempts and any buffer not on a sector boundary.
class SparseDisk : public Fdisk::SimpleDisk {
public:
    static constexpr std::uint64_t kPiece = 64 * 1024;

    explicit SparseDisk(const std::string& path) {
        sector_size = kSector;
        const int fd = open(path.c_str(), O_RDONLY);
        const off_t size = fd < 0 ? 0 : lseek(fd, 0, SEEK_END);
        last_sector = size / kSector - 1;
        for (off_t at = fd < 0 ? -1 : lseek(fd, 0, SEEK_DATA); at >= 0 && at < size; at = lseek(fd, at, SEEK_DATA)) {
            std::vector<unsigned char> piece(kPiece);
            at = at / kPiece * kPiece;
            if (pread(fd, piece.data(), kPiece, at) <= 0) break;
            pieces.emplace(at / kPiece, piece);
            at += kPiece;
        }
        if (fd >= 0) close(fd);
    }

    Common::Error Transfer(std::uint32_t operation, std::uint64_t sector, void* buffer, std::uint64_t count) override {
        if (reinterpret_cast<std::uintptr_t>(buffer) % kSector != 0) ++unaligned;
        if (operation == Fdisk::kTransferWrite) {
            ++writes;
            return Common::Error(1, Common::DISK_DEVICE_ERROR);
        }
        if (operation != Fdisk::kTransferRead) return Common::Error();
        if (sector + count > last_sector + 1) return Common::Error(1, Common::DISK_DEVICE_ERROR);
        auto* out = static_cast<unsigned char*>(buffer);
        for (std::uint64_t byte = sector * kSector; byte < (sector + count) * kSector; byte += kSector) {
            auto found = pieces.find(byte / kPiece);
            if (found == pieces.end()) {
                std::memset(out, 0, kSector);
            } else {
                std::memcpy(out, found->second.data() + byte % kPiece, kSector);
            }
            out += kSector;
        }
        return Common::Error();
    }

    std::map<std::uint64_t, std::vector<unsigned char>> pieces;
    int writes = 0;
    int unaligned = 0;
};

// A mount by the driver's constructor, held as the loader holds one.
struct Mounted {
    explicit Mounted(const std::string& path) : disk(path) {
        code = RaisedCode([&] { driver = new HFSPlusDriver(&disk, 0, disk.GetLastSector() + 1, 0, nullptr, 0); });
        if (driver != nullptr) ++driver->references;
    }
    ~Mounted() {
        if (driver != nullptr) release(driver);
    }
    std::u16string label() const {
        char16_t text[64] = {};
        driver->label(text, 64);
        return text;
    }
    std::set<std::u16string> root_names() const {
        std::set<std::u16string> names;
        std::unique_ptr<rio_dir> root(driver->open_root());
        std::unique_ptr<i_dir::iterator> entry(root == nullptr ? nullptr : root->begin());
        while (entry != nullptr && !entry->failed()) {
            names.insert(entry->name());
            if (!entry->next()) break;
        }
        return names;
    }

    SparseDisk disk;
    HFSPlusDriver* driver = nullptr;
    std::uint32_t code = 0;
};

// The bytes of an image file at an offset.
struct ImageBytes {
    explicit ImageBytes(const std::string& image) : path(image) {}
    std::vector<unsigned char> read(std::uint64_t offset, std::size_t size) const {
        std::vector<unsigned char> bytes(size);
        const int fd = open(path.c_str(), O_RDONLY);
        EXPECT_EQ(pread(fd, bytes.data(), size, static_cast<off_t>(offset)), static_cast<ssize_t>(size));
        close(fd);
        return bytes;
    }
    void write(std::uint64_t offset, const std::vector<unsigned char>& bytes) const {
        const int fd = open(path.c_str(), O_WRONLY);
        EXPECT_EQ(pwrite(fd, bytes.data(), bytes.size(), static_cast<off_t>(offset)),
                  static_cast<ssize_t>(bytes.size()));
        close(fd);
    }
    std::string path;
};

int Shell(const std::string& command) { return TestSupport::RunQuietly(command); }

// A big-endian number into a patch of the volume, most significant byte first.
void PutBE(int bytes, unsigned char* where, std::uint64_t value) {
    for (int i = 0; i < bytes; ++i) where[i] = static_cast<unsigned char>(value >> (8 * (bytes - 1 - i)));
}

// A journaled volume of `mib` MiB made by mkfs.hfsplus -J (its journal
// 8 MiB from 128 MiB on), in a folder of its own.
struct JournaledVolume {
    explicit JournaledVolume(std::uint64_t mib) : path(folder.Path() + "/volume.img"), bytes(path) {
        made = Shell("truncate -s " + std::to_string(mib) + "M " + path + " && mkfs.hfsplus -J -v Jtest " + path) == 0;
        const std::vector<unsigned char> header = bytes.read(1024, sizeof(hfsplus::VolumeHeader));
        std::memcpy(&volume, header.data(), sizeof(volume));
        info_offset = std::uint64_t(volume.journalInfoBlock()) * volume.blockSize();
        const std::vector<unsigned char> info_bytes = bytes.read(info_offset, sizeof(info));
        std::memcpy(&info, info_bytes.data(), sizeof(info));
    }
    bool write(const std::string& arguments) const {
        return Shell(TestSupport::HfsJournalWriter() + " " + path + " " + arguments) == 0;
    }

    TestSupport::TempFolder folder;
    std::string path;
    ImageBytes bytes;
    bool made = false;
    hfsplus::VolumeHeader volume{};
    hfsplus::JournalInfoBlock info{};
    std::uint64_t info_offset = 0;
};

// A patch of the journal's info block or header; the header's checksum is
// made again unless the case is about it.
struct HeaderCase {
    const char* what;
    std::uint32_t info_flags;    // 0: as it is
    std::int64_t info_offset_delta;
    std::uint64_t journal_size;  // 0: as it is, else in the info block and the header
    std::map<std::size_t, std::uint64_t> header_fields;  // offset -> value, by the field's width
    bool keep_checksum;
    std::uint32_t code;
};

std::size_t FieldWidth(std::size_t offset) { return offset >= 8 && offset < 32 ? 8 : 4; }

TEST(HfsplusJournal, MountRefusesJournalsThatLie) {
    JournaledVolume base(1024);
    ASSERT_TRUE(base.made);
    ASSERT_TRUE(base.write("")) << "the writer initialises the journal: " << TestSupport::HfsJournalWriter();
    const std::uint64_t header_at = base.info.offset();
    const std::vector<unsigned char> good_header = base.bytes.read(header_at, kSector);
    const std::vector<unsigned char> good_info = base.bytes.read(base.info_offset, kSector);
    const std::uint64_t size = base.info.size();
    ASSERT_EQ(size, 8 * kMiB);
    const HeaderCase cases[] = {
        {"as initialised", 0, 0, 0, {}, false, 0},
        {"magic", 0, 0, 0, {{0, 0x4A4E4C79}}, false, Common::FILE_CORRUPT},
        {"written by a big-endian host", 0, 0, 0, {{0, 0x784C4E4A}, {4, 0x78563412}}, false, Common::FILE_CORRUPT},
        {"endian", 0, 0, 0, {{4, 0x12345679}}, false, Common::FILE_CORRUPT},
        {"checksum", 0, 0, 0, {{36, 0x12345678}}, true, Common::FILE_CORRUPT},
        {"blhdr_size 4095", 0, 0, 0, {{32, 4095}}, false, Common::FILE_CORRUPT},
        {"blhdr_size 4096", 0, 0, 0, {{32, 4096}}, false, 0},
        {"blhdr_size 32768", 0, 0, 0, {{32, 32768}}, false, 0},
        {"blhdr_size 32769", 0, 0, 0, {{32, 32769}}, false, Common::FILE_CORRUPT},
        {"jhdr_size 1024", 0, 0, 0, {{40, 1024}}, false, Common::FILE_CORRUPT},
        {"header size not the info's", 0, 0, 0, {{24, size + kSector}}, false, Common::FILE_CORRUPT},
        {"start inside the header", 0, 0, 0, {{8, 0}, {16, 0}}, false, Common::FILE_CORRUPT},
        {"end at the size", 0, 0, 0, {{8, size}, {16, size}}, false, Common::FILE_CORRUPT},
        {"start = end elsewhere", 0, 0, 0, {{8, size - kSector}, {16, size - kSector}}, false, 0},
        {"size below 8 MiB", 0, 0, 8 * kMiB - kSector, {}, false, Common::FILE_CORRUPT},
        {"size 512 MiB", 0, 0, 512 * kMiB, {}, false, 0},
        {"size 512 MiB and a byte", 0, 0, 512 * kMiB + 1, {}, false, Common::FILE_CORRUPT},
        {"journal on another device", 0x3, 0, 0, {}, false, Common::FILE_UNSUPPORTED},
        {"journal not in the file system", 0x8, 0, 0, {}, false, Common::FILE_CORRUPT},
        {"offset off a sector", 0, 1, 0, {}, false, Common::FILE_UNSUPPORTED},
        {"offset past the volume", 0, 2048 * std::int64_t(kMiB), 0, {}, false, Common::FILE_CORRUPT},
        {"needs initialisation: the header isn't read", 0x5, 0, 0, {{0, 0}}, false, 0},
    };
    for (const HeaderCase& row : cases) {
        SCOPED_TRACE(row.what);
        std::vector<unsigned char> info = good_info;
        std::vector<unsigned char> header = good_header;
        if (row.info_flags != 0) PutBE(4, info.data(), row.info_flags);
        PutBE(8, info.data() + 36, header_at + row.info_offset_delta);
        if (row.journal_size != 0) {
            PutBE(8, info.data() + 44, row.journal_size);
            Common::StoreLE64(header.data() + 24, row.journal_size);
        }
        for (const auto& [offset, value] : row.header_fields) {
            if (FieldWidth(offset) == 8) {
                Common::StoreLE64(header.data() + offset, value);
            } else {
                Common::StoreLE32(header.data() + offset, static_cast<std::uint32_t>(value));
            }
        }
        if (!row.keep_checksum) {
            Common::StoreLE32(header.data() + 36, 0);
            Common::StoreLE32(header.data() + 36, hfsplus::JournalChecksum(header.data(), 44));
        }
        base.bytes.write(base.info_offset, info);
        base.bytes.write(header_at, header);
        Mounted mounted(base.path);
        EXPECT_EQ(mounted.code, row.code);
        EXPECT_EQ(mounted.disk.writes, 0);
        if (row.code == 0 && mounted.driver != nullptr) {
            EXPECT_TRUE(mounted.driver->metadata().GetJournal().IsClean());
            EXPECT_TRUE(mounted.driver->metadata().GetReplayItems().empty());
        }
    }
}

// UTF-16 big-endian, as catalog names are stored.
std::string Utf16(const std::string& ascii) {
    std::string bytes;
    for (char c : ascii) bytes += std::string(1, '\0') + c;
    return bytes;
}

// Replaces every stored copy of a name of the same length.
int Rename(std::vector<unsigned char>& node, const std::string& from, const std::string& to) {
    const std::string old_name = Utf16(from), new_name = Utf16(to);
    int count = 0;
    std::string text(node.begin(), node.end());
    for (std::size_t at = text.find(old_name); at != std::string::npos; at = text.find(old_name, at + 1)) {
        std::memcpy(node.data() + at, new_name.data(), new_name.size());
        ++count;
    }
    return count;
}

// A transaction layout: the writer's options and blocks, and what the
// mounted volume must then show.
struct TransactionCase {
    const char* what;
    std::string arguments;  // {VH1} {VH2} {NODE}: the files of new contents
    std::uint32_t file_count_added;
    bool renamed;
    std::size_t least_items;
};

TEST(HfsplusJournal, TransactionsAreReadThroughTheDriverWhileThePlacesKeepTheOldSectors) {
    JournaledVolume made(128);
    ASSERT_TRUE(made.made);
    const std::string original = made.folder.Path() + "/original.img";
    ASSERT_EQ(Shell("cp --sparse=always " + made.path + " " + original), 0);

    // The catalog leaf that holds the root's records, found by the volume's
    // name in it.
    const std::uint32_t block = made.volume.blockSize();
    const hfsplus::ForkData& catalog_fork = *made.volume.fork(hfsplus::kCatalogFileId);
    const std::uint64_t catalog = std::uint64_t(catalog_fork.extent(0).startBlock()) * block;
    std::vector<unsigned char> node_zero = made.bytes.read(catalog, 512);
    const auto* tree =
        reinterpret_cast<const hfsplus::BTHeaderRec*>(node_zero.data() + sizeof(hfsplus::BTNodeDescriptor));
    const std::uint32_t node_size = tree->nodeSize();
    std::uint64_t leaf = 0;
    std::vector<unsigned char> node;
    for (std::uint32_t n = 1; n < tree->totalNodes() && leaf == 0; ++n) {
        node = made.bytes.read(catalog + std::uint64_t(n) * node_size, node_size);
        if (static_cast<std::int8_t>(node[8]) == hfsplus::kLeafNode && Rename(node, "Jtest", "Jxest") > 0) {
            leaf = catalog + std::uint64_t(n) * node_size;
        }
    }
    ASSERT_NE(leaf, 0u);
    ASSERT_GT(Rename(node, ".journal_info_block", ".journal_info_blocq"), 0);
    TestSupport::TempFolder files;
    auto store = [&](const std::string& name, const std::vector<unsigned char>& bytes) {
        files.Write(name, std::string(bytes.begin(), bytes.end()));
        return files.Path() + "/" + name;
    };
    std::vector<unsigned char> header = made.bytes.read(1024, kSector);
    const std::uint32_t files_before = made.volume.fileCount();
    PutBE(4, header.data() + 32, files_before + 5);
    const std::string vh1 = store("vh1", header);
    PutBE(4, header.data() + 32, files_before + 9);
    const std::string vh2 = store("vh2", header);
    const std::string leaf_file = store("node", node);
    const std::string filler = store("filler", std::vector<unsigned char>(8192, 0xA5));
    const std::string at_header = "2:", at_leaf = std::to_string(leaf / kSector) + ":";
    const std::string both = at_header + vh1 + " " + at_leaf + leaf_file;
    const TransactionCase cases[] = {
        {"one transaction", both, 5, true, 2},
        {"a 32 KiB block list", "--blhdr 32768 " + both, 5, true, 2},
        {"the node wraps at the ring's end: two items of it", "--wrap " + both, 5, true, 3},
        {"lists without checksums", "--no-checksums " + both, 5, true, 2},
        {"the same sector again later: the later wins", both + " --next " + at_header + vh2, 9, true, 2},
        {"a skipped block and an empty list between", both + " skip:" + filler + " --next --next " + at_header + vh2,
         9, true, 2},
        {"a bad block checksum ends the walk there", both + " --next --bad-last " + at_header + vh2, 5, true, 2},
        {"a bad first transaction maps nothing", "--bad-last " + both, 0, false, 0},
    };
    for (const TransactionCase& row : cases) {
        SCOPED_TRACE(row.what);
        ASSERT_EQ(Shell("cp --sparse=always " + original + " " + made.path), 0);
        ASSERT_TRUE(made.write(row.arguments));
        {
            Mounted mounted(made.path);
            ASSERT_EQ(mounted.code, 0u);
            const hfsplus::HFSPlusMetadata& metadata = mounted.driver->metadata();
            EXPECT_FALSE(metadata.GetJournal().IsClean());
            EXPECT_GE(metadata.GetReplayItems().size(), row.least_items);
            EXPECT_EQ(metadata.GetVolumeHeader().header().fileCount(), files_before + row.file_count_added);
            EXPECT_EQ(mounted.label(), row.renamed ? u"Jxest" : u"Jtest");
            const std::set<std::u16string> names = mounted.root_names();
            EXPECT_EQ(names.count(u".journal_info_blocq"), row.renamed ? 1u : 0u);
            // The journal's own files in the root don't show; under another name they do.
            EXPECT_EQ(names.count(u".journal_info_block"), 0u);
            EXPECT_EQ(mounted.disk.writes, 0);
            EXPECT_EQ(mounted.disk.unaligned, 0);
        }
        // In place, the old header and node still.
        EXPECT_EQ(made.bytes.read(1024 + 32, 4), ImageBytes(original).read(1024 + 32, 4));
        EXPECT_EQ(made.bytes.read(leaf, node_size), ImageBytes(original).read(leaf, node_size));
    }
}

}  // namespace
