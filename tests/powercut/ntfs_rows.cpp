// The NTFS rows: mkntfs makes the volume, ntfs-3g fills it over FUSE, and
// ntfsfix judges it. On 4096-byte sectors every file record and index
// buffer is one sector, so a cut never falls inside one; clusters of 64 KiB
// make a single cluster write sixteen sectors that a cut may split. On 512-byte
// sectors a 4 KiB index buffer is eight sector writes and a 1 KiB record
// two; clusters of one sector there make every file of the tree span many
// clusters and long run lists. The volumes stay small so that each cut is
// cheap to repair and check.
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "ntfs/ntfs_driver.h"
#include "tests/powercut/driver_row.h"
#include "tests/support/shell.h"

namespace PowerCut {
namespace {

bool Has(const std::string& text, const char* part) { return text.find(part) != std::string::npos; }

bool StartsWith(const std::string& text, const char* start) { return text.rfind(start, 0) == 0; }

bool EndsWith(const std::string& text, const std::string& end) {
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

// One finding of ntfsfix or of the library it mounts with, by the words it
// is told in.
std::string NtfsKind(const std::string& text) {
    static const struct {
        const char* words;
        const char* kind;
    } kKinds[] = {
        {"$MFTMirr does not match", "$MFTMirr vs $MFT"},
        {"Correcting differences in $MFTMirr", "$MFTMirr vs $MFT"},
        {"$MFTMirr error", "$MFTMirr record"},
        {"$MFT error", "$MFT record"},
        {"Incomplete multi-sector transfer", "torn record (fixups)"},
        {"has no FILE magic", "record without FILE magic"},
        {"self-located MFT", "self-located MFT extent"},
        {"alternate boot sector", "alternate boot sector"},
        {"bootsector", "boot sector"},
        {"cluster map", "cluster bitmap size"},
        {"$Bitmap", "cluster bitmap"},
        {"$UpCase", "$UpCase"},
        {"VOLUME_INFORMATION", "$Volume"},
        {"$Volume", "$Volume"},
        {"$Secure", "$Secure"},
        {"$LogFile", "journal"},
        {"unclean", "journal"},
        {"index", "index"},
        {"Remount failed", "remount failed"},
    };
    for (const auto& known : kKinds) {
        if (Has(text, known.words)) return known.kind;
    }
    std::string shape = text.substr(0, 48);
    for (char& c : shape) c = (c >= '0' && c <= '9') ? 'N' : c;
    return "other: " + shape;
}

// The steps that went well, the banner of the repair path and its routine
// (the dirty flag and the emptied journal follow every failed mount), and
// the closing words are no findings: what failed is told on lines of its
// own or after "Mounting volume... ".
bool NtfsFrame(const std::string& line) {
    return line.empty() || EndsWith(line, "... OK") || line == "FAILED" ||
           StartsWith(line, "Attempting to correct errors") || line == "Processing $MFT and $MFTMirr..." ||
           StartsWith(line, "Processing of $MFT and $MFTMirr completed") || StartsWith(line, "NTFS volume version") ||
           (StartsWith(line, "NTFS partition ") && EndsWith(line, " was processed successfully.")) ||
           StartsWith(line, "Comparing $MFTMirr to $MFT... FAILED");
}

std::map<std::string, int> NtfsFindings(const std::string& output) {
    static const std::string kMounting = "Mounting volume... ";
    std::map<std::string, int> kinds;
    std::istringstream in(output);
    for (std::string line; std::getline(in, line);) {
        // The library's complaint about the first mount shares its line with the step.
        if (StartsWith(line, kMounting.c_str()) && line != kMounting + "OK") line.erase(0, kMounting.size());
        if (!NtfsFrame(line)) ++kinds[NtfsKind(line)];
    }
    return kinds;
}

std::string Quoted(const std::string& path) { return "'" + path + "'"; }

// ntfs-3g fills the volume as a host would, through a FUSE mount that is
// always taken down again, so that a failed copy leaves no busy image.
bool FillOverFuse(const std::string& folder, const std::string& image) {
    const std::string mount_point = Quoted(image + ".mnt");
    return TestSupport::RunQuietly("mkdir -p " + mount_point + " && ntfs-3g " + Quoted(image) + " " + mount_point +
                                   " && { cp -a " + Quoted(folder) + "/. " + mount_point + "/; copied=$?; umount " +
                                   mount_point + " && rmdir " + mount_point + " && [ $copied -eq 0 ]; }") == 0;
}

bool IsSha256(const std::string& line) {
    return line.size() >= 64 && line.find_first_not_of("0123456789abcdef") >= 64;
}

// ntfscat reads each file from the image as ntfs-3g's library sees it, with
// -f as ntfsfix leaves the volume marked for a check disk. One shell runs
// them all, printing one line per path: the sum, or the word "unreadable".
std::vector<std::string> NtfsCatSums(const std::string& image, const std::vector<std::string>& paths) {
    const std::string copy = Quoted(image + ".cat");
    std::string script;
    for (const std::string& path : paths) {
        script += "if ntfscat -f " + Quoted(image) + " " + Quoted("/" + path) + " > " + copy + "; then sha256sum < " +
                  copy + "; else echo unreadable; fi; ";
    }
    std::istringstream lines(TestSupport::CaptureOutput(script + "rm -f " + copy));
    std::vector<std::string> sums;
    for (std::string line; sums.size() < paths.size() && std::getline(lines, line);) {
        sums.push_back(IsSha256(line) ? line.substr(0, 64) : std::string());
    }
    sums.resize(paths.size());
    return sums;
}

DriverRow NtfsRow(const std::string& name, unsigned sector, unsigned cluster, unsigned mib) {
    DriverRow row;
    row.name = name;
    row.sector_size = sector;
    row.make_image = [=](const std::string& folder, const std::string& image) {
        return TestSupport::RunQuietly("rm -f " + Quoted(image) + " && truncate -s " + std::to_string(mib) + "M " +
                                       Quoted(image)) == 0 &&
               TestSupport::RunQuietly("mkntfs -F -f -q -s " + std::to_string(sector) + " -c " +
                                       std::to_string(cluster) + " -L POWERCUT " + Quoted(image)) == 0 &&
               FillOverFuse(folder, image);
    };
    row.mount = [](Fdisk::SimpleDisk& disk) -> FileSystemDriver* {
        return new ntfs::NTFSDriver(&disk, 0, disk.GetLastSector() + 1, 0, nullptr, nullptr, 0);
    };
    row.checker = {"ntfsfix", "ntfsfix -n", NtfsFindings};
    row.independent_reader = NtfsCatSums;
    row.torn_block_kinds = {"torn record (fixups)", "index"};
    return row;
}

}  // namespace

std::vector<DriverRow> NtfsRows() {
    return {
        NtfsRow("NTFS4Kn", 4096, 4096, 16),
        NtfsRow("NTFS4Kn64K", 4096, 65536, 32),
    };
}

std::vector<DriverRow> NtfsSmallSectorRows() {
    std::vector<DriverRow> rows = {
        NtfsRow("NTFS512", 512, 512, 8),
        NtfsRow("NTFS512c4K", 512, 4096, 16),
    };
    for (DriverRow& row : rows) row.tolerates_torn_blocks = true;
    return rows;
}

}  // namespace PowerCut
