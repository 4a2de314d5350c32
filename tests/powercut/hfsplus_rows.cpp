// The HFS+ rows: xorriso's HFS+ writer makes each volume from the host
// folder (tests/images/hfsplus_from_folder.sh), fsck.hfsplus judges it and
// sleuthkit's icat reads its files apart from our driver.
//
// xorriso packs its volume full and marks it software-locked, so the volume
// is made writable by byte edits that no file's bytes depend on: the lock
// bit cleared, and room added at the end (the block count raised within
// what the allocation file's one block already maps, the alternate header
// moved to the new end), and mkfs.hfsplus's empty attributes file put
// into that room; fsck.hfsplus then sets the bitmap and the free count.
// For the journaled row the folder also carries the two journal files,
// which xorriso lays out contiguous; the edits name the
// first as the journal info block and point it at the second, and
// hfs_journal_writer (ours, from the published journal format) leaves a
// transaction pending in it, so that the first write of every scenario
// replays it and cuts also fall inside that replay.
#include <unistd.h>

#include <algorithm>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "hfsplus/hfsplus_driver.h"
#include "tests/powercut/driver_row.h"
#include "tests/support/shell.h"
#include "tests/support/volume_fixture.h"

namespace PowerCut {
namespace {

using Bytes = std::vector<unsigned char>;

// The volume header and the fields the edits touch, by their offsets in it.
constexpr std::uint64_t kHeader = 1024;
constexpr std::uint64_t kAttributes = 4;
constexpr std::uint64_t kJournalInfoBlock = 12;
constexpr std::uint64_t kBlockSize = 40;
constexpr std::uint64_t kTotalBlocks = 44;
constexpr std::uint64_t kWriteCount = 68;
constexpr std::uint64_t kAllocationFork = 112;
constexpr std::uint64_t kExtentsFork = 192;
constexpr std::uint64_t kCatalogFork = 272;
constexpr std::uint64_t kAttributesFork = 352;
constexpr std::uint64_t kForkBytes = 80;
// In a fork: logical size, then after the clump size the block count, then the extents.
constexpr std::uint64_t kForkBlocks = 12;
constexpr std::uint64_t kForkSecondExtent = 24;
constexpr std::uint64_t kForkFirstStart = 16;

constexpr std::uint32_t kJournaledBit = 0x2000;
constexpr std::uint32_t kSoftwareLockBit = 0x8000;
// The journal info block: flags (in the volume, not yet initialised), offset, size.
constexpr std::uint32_t kJournalInFsNeedsInit = 0x5;
constexpr std::uint64_t kInfoOffset = 36;
constexpr std::uint64_t kInfoSize = 44;
constexpr std::uint64_t kJournalBytes = 8 << 20;  // the smallest journal a mount takes
constexpr std::uint64_t kNodeSizeInHeaderNode = 32;

bool Has(const std::string& text, const char* part) { return text.find(part) != std::string::npos; }

std::string Quoted(const std::string& path) { return "'" + path + "'"; }

// Big-endian numbers of the image, every offset checked against its size.
bool Get(const Bytes& image, std::uint64_t at, int bytes, std::uint64_t& value) {
    if (at > image.size() || image.size() - at < static_cast<std::uint64_t>(bytes)) return false;
    value = 0;
    for (int i = 0; i < bytes; ++i) value = value << 8 | image[at + i];
    return true;
}

bool Put(Bytes& image, std::uint64_t at, int bytes, std::uint64_t value) {
    if (at > image.size() || image.size() - at < static_cast<std::uint64_t>(bytes)) return false;
    for (int i = 0; i < bytes; ++i) image[at + i] = static_cast<unsigned char>(value >> (8 * (bytes - 1 - i)));
    return true;
}

std::uint64_t HeaderField(const Bytes& image, std::uint64_t field, int bytes) {
    std::uint64_t value = 0;
    return Get(image, kHeader + field, bytes, value) ? value : 0;
}

// The source tree, from where this file lies in it.
std::string SourceFile(const std::string& path) {
    const std::string here = __FILE__;
    return here.substr(0, here.rfind("tests/powercut/")) + path;
}

// A tool built beside the harness.
std::string BuiltTool(const std::string& name) {
    char self[4096] = {};
    const ssize_t length = readlink("/proc/self/exe", self, sizeof(self) - 1);
    const std::string path(self, length > 0 ? static_cast<std::size_t>(length) : 0);
    return path.substr(0, path.rfind('/') + 1) + name;
}

// One finding of fsck.hfsplus, by the words it is told in.
std::string HfsplusKind(const std::string& text) {
    static const struct {
        const char* words;
        const char* kind;
    } kKinds[] = {
        {"Segmentation fault", "checker crashed"},
        {"free block count", "free block count"},
        {"bitmap", "volume bitmap"},
        {"Volume header", "volume header"},
        {"file count", "file count"},
        {"folder count", "folder count"},
        {"directory count", "folder count"},
        {"valence", "folder valence"},
        {"thread", "thread record"},
        {"Overlapped extent", "overlapped extents"},
        {"xtent", "extent record"},
        {"out of order", "B-tree keys"},
        {"sibling", "B-tree links"},
        {"node", "B-tree node"},
        {"record count", "B-tree record count"},
        {"key length", "B-tree key length"},
        {"B-tree", "B-tree"},
        {"ard link", "hard link"},
        {"ournal", "journal"},
        {"not found", "missing record"},
    };
    for (const auto& known : kKinds) {
        if (Has(text, known.words)) return known.kind;
    }
    std::string shape = text.substr(0, 48);
    for (char& c : shape) c = (c >= '0' && c <= '9') ? 'N' : c;
    return "other: " + shape;
}

// What fsck.hfsplus says of a journal that holds a transaction. It checks
// the volume in place but replays nothing, and calls the volume corrupt for
// that alone; the next mount of our driver replays it.
constexpr const char* kPending = "Journal need to be replayed";

// fsck.hfsplus -fn, clean also when the pending journal is all it tells of.
const char* const kCheckBesidePendingJournal =
    "sh -c 'out=$(fsck.hfsplus -fn \"$0\" 2>&1); status=$?; printf \"%s\\n\" \"$out\"; "
    "case $out in *\"Journal need to be replayed\"*) ! printf \"%s\\n\" \"$out\" | grep -v -e \"^\\*\\*\" "
    "-e \"Executing fsck_hfs\" -e \"The volume name is\" -e \"Journal need to be replayed\" ;; "
    "*) exit $status ;; esac'";

// The steps ("** ..."), the banner, the pending journal, the volume's name, and the lines below
// a finding (the figure it should have, or the node and record it is in,
// "(4, 1)") are no findings.
bool HfsplusFrame(const std::string& line) {
    const std::size_t text = line.find_first_not_of(' ');
    if (text == std::string::npos) return true;
    const std::string said = line.substr(text);
    return said.rfind("**", 0) == 0 || said.rfind("Executing fsck_hfs", 0) == 0 ||
           said.rfind("The volume name is", 0) == 0 || said[0] == '(' || said.rfind(kPending, 0) == 0;
}

std::map<std::string, int> HfsplusFindings(const std::string& output) {
    std::map<std::string, int> kinds;
    std::istringstream in(output);
    for (std::string line; std::getline(in, line);) {
        if (!HfsplusFrame(line)) ++kinds[HfsplusKind(line.substr(line.find_first_not_of(' ')))];
    }
    return kinds;
}

// sleuthkit's view of each path: fls lists the tree with inode numbers,
// icat reads the file. One line per path: the sum, or "unreadable".
std::vector<std::string> IcatSums(const std::string& image, const std::vector<std::string>& paths) {
    const std::string list = Quoted(image + ".fls"), copy = Quoted(image + ".cat");
    std::string script = "fls -r -p -f hfs " + Quoted(image) + " > " + list + " 2>/dev/null; ";
    for (const std::string& path : paths) {
        script += "inode=$(awk -F '\\t' -v p=" + Quoted(path) +
                  " '$2 == p && $1 ~ /^r\\/r [0-9]+:$/ { sub(/:$/, \"\", $1); sub(/^r\\/r /, \"\", $1); print $1; "
                  "exit }' " + list + "); if [ -n \"$inode\" ] && icat -f hfs " + Quoted(image) +
                  " \"$inode\" > " + copy + "; then sha256sum < " + copy + "; else echo unreadable; fi; ";
    }
    std::istringstream lines(TestSupport::CaptureOutput(script + "rm -f " + list + " " + copy));
    std::vector<std::string> sums;
    for (std::string line; sums.size() < paths.size() && std::getline(lines, line);) {
        const bool sum = line.size() >= 64 && line.find_first_not_of("0123456789abcdef") >= 64;
        sums.push_back(sum ? line.substr(0, 64) : std::string());
    }
    sums.resize(paths.size());
    return sums;
}

// The first block of a root file, as sleuthkit finds it, when the file
// lies in one run of `blocks` blocks; 0 otherwise.
std::uint64_t OneRunAt(const std::string& image, const std::string& name, std::uint64_t blocks) {
    const std::string run = TestSupport::CaptureOutput(
        "istat -f hfs " + Quoted(image) + " $(fls -f hfs " + Quoted(image) + " | awk -F '\\t' '$2 == \"" + name +
        "\" { sub(/:$/, \"\", $1); sub(/^r\\/r /, \"\", $1); print $1 }') | awk '/^Data Fork Blocks/ { getline; print $1 }'");
    std::uint64_t first = 0, last = 0;
    char dash = 0;
    std::istringstream in(run);
    if (!(in >> first)) return 0;
    if (!(in >> dash >> last)) last = first;
    return dash != 0 && dash != '-' ? 0 : (last + 1 - first == blocks ? first : 0);
}

// Room at the end: the block count raised by up to `extra`, no further than
// the allocation file's blocks map, and the alternate header moved there.
bool AddRoom(Bytes& image, std::uint64_t extra) {
    const std::uint64_t block = HeaderField(image, kBlockSize, 4);
    const std::uint64_t total = HeaderField(image, kTotalBlocks, 4);
    const std::uint64_t mapped = HeaderField(image, kAllocationFork + kForkBlocks, 4) * block * 8;
    if (block < 512 || block % 512 != 0 || total == 0 || mapped <= total || image.size() < total * block) return false;
    const std::uint64_t grown = std::min(total + extra, mapped);
    image.resize(grown * block);
    Bytes header(image.begin() + kHeader, image.begin() + kHeader + 512);
    std::copy(header.begin(), header.end(), image.end() - 1024);
    return Put(image, kHeader + kTotalBlocks, 4, grown) && Put(image, image.size() - 1024 + kTotalBlocks, 4, grown) &&
           Put(image, kHeader + kAllocationFork, 8, (grown + 7) / 8) &&
           Put(image, image.size() - 1024 + kAllocationFork, 8, (grown + 7) / 8);
}

// Both headers' attributes: the software lock off, the journaled bit as asked.
bool SetAttributes(Bytes& image, bool journaled, std::uint64_t info_block) {
    std::uint64_t attributes = HeaderField(image, kAttributes, 4) & ~std::uint64_t(kSoftwareLockBit);
    if (journaled) attributes |= kJournaledBit;
    for (std::uint64_t header : {kHeader, image.size() - 1024}) {
        if (!Put(image, header + kAttributes, 4, attributes) || !Put(image, header + kJournalInfoBlock, 4, info_block)) {
            return false;
        }
    }
    return true;
}

// fsck.hfsplus -fy until -fn finds nothing, as the folder script does.
bool RepairUntilClean(const std::string& image) {
    for (int pass = 0; pass < 3; ++pass) {
        if (TestSupport::RunQuietly("fsck.hfsplus -fn " + Quoted(image)) == 0) return true;
        TestSupport::RunQuietly("fsck.hfsplus -fy " + Quoted(image));
    }
    return TestSupport::RunQuietly("fsck.hfsplus -fn " + Quoted(image)) == 0;
}

// The journal files in the folder's copy, then named in the image.
bool AddJournal(const std::string& image, Bytes& bytes, std::uint64_t& info_block) {
    const std::uint64_t block = HeaderField(bytes, kBlockSize, 4);
    info_block = OneRunAt(image, ".journal_info_block", 1);
    const std::uint64_t journal = OneRunAt(image, ".journal", kJournalBytes / (block == 0 ? 1 : block));
    return info_block != 0 && journal != 0 && Put(bytes, info_block * block, 4, kJournalInFsNeedsInit) &&
           Put(bytes, info_block * block + kInfoOffset, 8, journal * block) &&
           Put(bytes, info_block * block + kInfoSize, 8, kJournalBytes);
}

// A special file's bytes and the sector they start at, when it lies in one extent.
bool SpecialFile(const Bytes& image, std::uint64_t fork, Bytes& file, std::uint64_t& sector) {
    const std::uint64_t block = HeaderField(image, kBlockSize, 4);
    const std::uint64_t start = HeaderField(image, fork + kForkFirstStart, 4);
    const std::uint64_t blocks = HeaderField(image, fork + kForkBlocks, 4);
    if (block == 0 || blocks == 0 || HeaderField(image, fork + kForkSecondExtent, 4) != 0) return false;
    if ((start + blocks) * block > image.size()) return false;
    file.assign(image.begin() + start * block, image.begin() + (start + blocks) * block);
    sector = start * block / 512;
    return true;
}

// xorriso makes no attributes file, and fsck.hfsplus crashes (a null
// tree) whenever it rebuilds the catalog of a volume without one, which is
// what most damage to the catalog asks of it. mkfs.hfsplus's own empty
// attributes file, made for a volume of the same size and block, goes into
// the room at the end, block `at` on; fsck then marks its blocks in use.
bool AddAttributesFile(const std::string& image, Bytes& bytes, std::uint64_t at) {
    const std::uint64_t block = HeaderField(bytes, kBlockSize, 4);
    const std::string made = image + ".mkfs";
    const bool formatted = TestSupport::RunQuietly("rm -f " + Quoted(made) + " && truncate -s " +
                                                   std::to_string(bytes.size()) + " " + Quoted(made) +
                                                   " && mkfs.hfsplus -b " + std::to_string(block) + " " +
                                                   Quoted(made)) == 0;
    const Bytes source = formatted ? TestSupport::LoadFile(made) : Bytes();
    TestSupport::RunQuietly("rm -f " + Quoted(made));
    Bytes tree;
    std::uint64_t sector = 0;
    if (!SpecialFile(source, kAttributesFork, tree, sector) || HeaderField(source, kBlockSize, 4) != block) return false;
    // The new blocks end before the block of the alternate header.
    if (block == 0 || at * block + tree.size() + 1024 > bytes.size()) return false;
    std::copy(tree.begin(), tree.end(), bytes.begin() + static_cast<std::ptrdiff_t>(at * block));
    for (std::uint64_t header : {kHeader, bytes.size() - 1024}) {
        const auto from = source.begin() + static_cast<std::ptrdiff_t>(kHeader + kAttributesFork);
        std::copy(from, from + kForkBytes, bytes.begin() + static_cast<std::ptrdiff_t>(header + kAttributesFork));
        if (!Put(bytes, header + kAttributesFork + kForkFirstStart, 4, at)) return false;
    }
    return true;
}

// The catalog record of /README.TXT (key: length 26, parent 2, ten
// UTF-16BE characters, then file record type 2) gets a new modification
// time, 16 bytes into the record.
bool RetimeReadme(Bytes& catalog) {
    static const std::string kName = "README.TXT";
    Bytes key = {0, 26, 0, 0, 0, 2, 0, static_cast<unsigned char>(kName.size())};
    for (char c : kName) key.insert(key.end(), {0, static_cast<unsigned char>(c)});
    key.insert(key.end(), {0, 2});
    auto at = std::search(catalog.begin(), catalog.end(), key.begin(), key.end());
    if (at == catalog.end()) return false;
    const std::uint64_t record = static_cast<std::uint64_t>(at - catalog.begin()) + key.size() - 2;
    return Put(catalog, record + 16, 4, 0xDC000000);
}

// The pending transaction: every node of the catalog (README.TXT retimed),
// the extents tree and the allocation file as they are, and the volume
// header's sector with one more write counted. Each piece is a file beside
// the image, in pieces of one catalog node.
bool AddTransaction(const std::string& image) {
    Bytes bytes = TestSupport::LoadFile(image), catalog, extents, bitmap;
    std::uint64_t catalog_at = 0, extents_at = 0, bitmap_at = 0, node = 0;
    if (!SpecialFile(bytes, kCatalogFork, catalog, catalog_at) || !SpecialFile(bytes, kExtentsFork, extents, extents_at) ||
        !SpecialFile(bytes, kAllocationFork, bitmap, bitmap_at) || !Get(catalog, kNodeSizeInHeaderNode, 2, node) ||
        node < 512 || node % 512 != 0 || catalog.size() % node != 0 || !RetimeReadme(catalog)) {
        return false;
    }
    Bytes header(bytes.begin() + kHeader, bytes.begin() + kHeader + 512);
    if (!Put(header, kWriteCount, 4, HeaderField(bytes, kWriteCount, 4) + 1)) return false;
    std::vector<std::pair<std::uint64_t, Bytes>> pieces = {{extents_at, extents}, {bitmap_at, bitmap}, {2, header}};
    for (std::uint64_t at = 0; at < catalog.size(); at += node) {
        pieces.emplace_back(catalog_at + at / 512, Bytes(catalog.begin() + at, catalog.begin() + at + node));
    }
    std::string arguments;
    for (std::size_t i = 0; i < pieces.size(); ++i) {
        const std::string piece = image + ".piece" + std::to_string(i);
        TestSupport::StoreFile(piece, pieces[i].second);
        arguments += " " + std::to_string(pieces[i].first) + ":" + Quoted(piece);
    }
    const bool written = TestSupport::RunQuietly(BuiltTool("hfs_journal_writer") + " " + Quoted(image) + arguments) == 0;
    TestSupport::RunQuietly("rm -f " + Quoted(image) + ".piece*");
    return written;
}

// xorriso gives the catalog a clump smaller than its node, so that it
// could never grow: both headers get a clump of four nodes instead.
bool SetCatalogClump(Bytes& image) {
    Bytes catalog;
    std::uint64_t at = 0, node = 0;
    if (!SpecialFile(image, kCatalogFork, catalog, at) || !Get(catalog, kNodeSizeInHeaderNode, 2, node) || node == 0) {
        return false;
    }
    constexpr std::uint64_t kClumpInFork = 8;
    return Put(image, kHeader + kCatalogFork + kClumpInFork, 4, 4 * node) &&
           Put(image, image.size() - 1024 + kCatalogFork + kClumpInFork, 4, 4 * node);
}

// xorriso's volume of `folder` (a copy with the journal files for the
// journaled row), made writable as said above.
bool MakeVolume(const std::string& folder, const std::string& image, unsigned block, std::uint64_t room,
                bool journaled) {
    const std::string tree = image + ".tree";
    const bool made =
        TestSupport::RunQuietly("rm -rf " + Quoted(tree) + " && cp -a " + Quoted(folder) + " " + Quoted(tree)) == 0 &&
        (!journaled || TestSupport::RunQuietly("truncate -s " + std::to_string(block) + " " + Quoted(tree) +
                                               "/.journal_info_block && truncate -s " + std::to_string(kJournalBytes) +
                                               " " + Quoted(tree) + "/.journal") == 0) &&
        TestSupport::RunQuietly(SourceFile("tests/images/hfsplus_from_folder.sh") + " " + Quoted(tree) + " " +
                                Quoted(image) + " " + std::to_string(block) + " POWERCUT") == 0;
    TestSupport::RunQuietly("rm -rf " + Quoted(tree));
    if (!made) return false;
    Bytes bytes = TestSupport::LoadFile(image);
    const std::uint64_t made_blocks = HeaderField(bytes, kTotalBlocks, 4);
    std::uint64_t info_block = 0;
    if (journaled && !AddJournal(image, bytes, info_block)) return false;
    if (!AddRoom(bytes, room) || !AddAttributesFile(image, bytes, made_blocks) ||
        !SetAttributes(bytes, journaled, info_block) || !SetCatalogClump(bytes)) {
        return false;
    }
    TestSupport::StoreFile(image, bytes);
    return RepairUntilClean(image) && (!journaled || AddTransaction(image));
}

DriverRow HfsplusRow(const std::string& name, unsigned block, std::uint64_t room, bool journaled) {
    DriverRow row;
    row.name = name;
    row.sector_size = 512;
    row.make_image = [=](const std::string& folder, const std::string& image) {
        return MakeVolume(folder, image, block, room, journaled);
    };
    row.mount = [](Fdisk::SimpleDisk& disk) -> FileSystemDriver* {
        return new hfsplus::HFSPlusDriver(&disk, 0, disk.GetLastSector() + 1, 0, nullptr, 0);
    };
    // -y answers every question; -f checks a volume marked clean too.
    row.checker = {"fsck.hfsplus -fy", journaled ? kCheckBesidePendingJournal : "fsck.hfsplus -fn", HfsplusFindings};
    row.independent_reader = IcatSums;
    // A node spans several sectors here and is written in place, without
    // a journal of our own: a cut inside it leaves its descriptor and its
    // record offsets (at the two ends) out of step, which the checker tells
    // as these findings and cannot repair.
    row.tolerates_torn_blocks = true;
    row.torn_block_kinds = {"B-tree node", "B-tree record count", "B-tree key length"};
    return row;
}

}  // namespace

std::vector<DriverRow> HfsplusRows() {
    return {
        // 512-byte blocks: every file of the tree spans several, and the
        // allocation file's one block maps 2 MiB.
        HfsplusRow("HFS+", 512, 4096, false),
        // 2 KiB blocks, 2 MiB of room behind the journal.
        HfsplusRow("HFS+jrnl", 2048, 1024, true),
    };
}

}  // namespace PowerCut
