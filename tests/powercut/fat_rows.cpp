// The FAT rows: mkfs.fat and mtools make the images, fsck.fat judges them.
// Clusters of one sector make every file of the tree span several clusters
// and every scenario write many sectors of the table and the data.
#include "fat/fat_driver.h"
#include "tests/powercut/driver_row.h"
#include "tests/support/shell.h"

namespace PowerCut {
namespace {

DriverRow FatRow(const std::string& name, const std::string& format, unsigned kib) {
    DriverRow row;
    row.name = name;
    row.sector_size = 512;
    row.make_image = [format, kib](const std::string& folder, const std::string& image) {
        return TestSupport::RunQuietly("rm -f '" + image + "' && mkfs.fat -C " + format + " -n POWERCUT '" + image +
                                       "' " + std::to_string(kib)) == 0 &&
               TestSupport::RunQuietly("MTOOLS_SKIP_CHECK=1 mcopy -s -i '" + image + "' '" + folder + "'/* ::/") == 0;
    };
    row.mount = [](Fdisk::SimpleDisk& disk) -> FileSystemDriver* {
        return new FATDriver(&disk, 0, disk.GetLastSector() + 1, 0, nullptr, nullptr, 0);
    };
    row.checker = {"fsck.fat -a", "fsck.fat -n", FatFindings};
    return row;
}

}  // namespace

std::vector<DriverRow> FatRows() {
    return {
        FatRow("FAT12", "-F 12 -s 1", 2048),
        FatRow("FAT16", "-F 16 -s 1", 8192),
        FatRow("FAT32", "-F 32 -s 1", 34000),
    };
}

}  // namespace PowerCut
