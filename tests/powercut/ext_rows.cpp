// The ext rows: mke2fs -d makes the images, e2fsck judges them. Small
// volumes keep each cut cheap to check; 1 KiB blocks make every file of the
// tree span several blocks, and the ext2 row's files past twelve blocks go
// through an indirect block.
#include <sstream>
#include <vector>

#include "extfs/extfs_driver.h"
#include "tests/powercut/driver_row.h"
#include "tests/support/shell.h"

namespace PowerCut {
namespace {

bool Has(const std::string& text, const char* part) { return text.find(part) != std::string::npos; }

// One finding of e2fsck, by the words its message starts or is told with.
// The kinds follow the passes: inodes, directories, connectivity, counts,
// group summaries.
std::string ExtKind(const std::string& text) {
    static const struct {
        const char* words;
        const char* kind;
    } kKinds[] = {
        {"i_size is", "i_size vs blocks"},
        {"i_blocks is", "i_blocks"},
        {"has zero dtime", "deleted inode without dtime"},
        {"illegal block", "illegal block"},
        {"block(s) claimed", "shared blocks"},
        {"extent tree", "extent tree"},
        {"has deleted/unused inode", "entry to a deleted/unused inode"},
        {"has an incorrect filetype", "entry file type"},
        {"should be at block", "directory block out of place"},
        {"has a hole", "directory hole"},
        {"directory corrupted", "directory block corrupted"},
        {"HTREE", "hash index"},
        {"'..' in", "'..' entry"},
        {"'.' in", "'.' entry"},
        {"Unconnected directory", "unconnected directory"},
        {"Unattached", "unattached inode"},
        {"ref count is", "link count"},
        {"lost+found", "lost+found"},
        {"orphan", "orphan list"},
        {"Block bitmap differences", "block bitmap differences"},
        {"Inode bitmap differences", "inode bitmap differences"},
        {"Free blocks count wrong", "free blocks count"},
        {"Free inodes count wrong", "free inodes count"},
        {"Directories count wrong", "directories count"},
        {"Padding at end", "bitmap padding"},
        {"journal", "journal"},
    };
    for (const auto& known : kKinds) {
        if (Has(text, known.words)) return known.kind;
    }
    std::string shape = text.substr(0, 48);
    for (char& c : shape) c = (c >= '0' && c <= '9') ? 'N' : c;
    return "other: " + shape;
}

// The banner, the passes, the prompts on lines of their own, the notes of
// writing and the closing count are no findings; indented lines go on the
// finding above them (a long bitmap difference, a list of illegal blocks).
bool ExtFrame(const std::string& line) {
    return line.empty() || line[0] == ' ' || line[0] == '\t' || line.rfind("e2fsck ", 0) == 0 ||
           line.rfind("Pass ", 0) == 0 || line.rfind("Fix? ", 0) == 0 || line.rfind("Clear? ", 0) == 0 ||
           line.rfind("Connect to ", 0) == 0 || line.rfind("Relocate? ", 0) == 0 || line.rfind("Salvage? ", 0) == 0 ||
           line.rfind("Restarting e2fsck", 0) == 0 || Has(line, "*****") || Has(line, " files (");
}

std::map<std::string, int> ExtFindings(const std::string& output) {
    std::map<std::string, int> kinds;
    std::istringstream in(output);
    for (std::string line; std::getline(in, line);) {
        if (!ExtFrame(line)) ++kinds[ExtKind(line)];
    }
    return kinds;
}

std::string Quoted(const std::string& path) { return "'" + path + "'"; }

DriverRow ExtRow(const std::string& name, const std::string& type, unsigned block, unsigned mib,
                 const std::string& features) {
    DriverRow row;
    row.name = name;
    row.sector_size = 512;
    row.make_image = [=](const std::string& folder, const std::string& image) {
        return TestSupport::RunQuietly("rm -f " + Quoted(image) + " && truncate -s " + std::to_string(mib) + "M " +
                                       Quoted(image)) == 0 &&
               TestSupport::RunQuietly("mke2fs -q -F -t " + type + " -b " + std::to_string(block) + " -m 0 " +
                                       features + " -L POWERCUT -E root_owner=0:0 -d " + Quoted(folder) + " " +
                                       Quoted(image)) == 0;
    };
    row.mount = [](Fdisk::SimpleDisk& disk) -> FileSystemDriver* {
        return new extfs::ExtfsDriver(&disk, 0, disk.GetLastSector() + 1, 0, nullptr, 0);
    };
    // -p would stop at what it may not fix alone; -y answers every question.
    row.checker = {"e2fsck -fy", "e2fsck -fn", ExtFindings};
    return row;
}

}  // namespace

std::vector<DriverRow> ExtRows() {
    return {
        ExtRow("ext2", "ext2", 1024, 2, ""),
        ExtRow("ext3", "ext3", 4096, 8, ""),
        ExtRow("ext4", "ext4", 4096, 4, "-O ^metadata_csum,^has_journal"),
    };
}

}  // namespace PowerCut
