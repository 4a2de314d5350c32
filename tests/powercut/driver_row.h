#pragma once
// One row of the harness per writing driver and image format: how the
// file system's own tools make the image from a host folder, how our driver
// mounts it, and which checker judges it. A driver joins the harness by
// adding rows here; the scenarios are shared.
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "firmware/simple_disk.h"
#include "fsdriver/file_system_driver.h"
#include "tests/powercut/checker.h"

namespace PowerCut {

struct DriverRow {
    std::string name;
    std::uint32_t sector_size;
    // Makes `image` holding what the host `folder` holds; false when a tool failed.
    std::function<bool(const std::string& folder, const std::string& image)> make_image;
    // Our driver's mount of the whole disk; raises Common::Error when it refuses.
    std::function<FileSystemDriver*(Fdisk::SimpleDisk& disk)> mount;
    CheckerRow checker;
    // A reader other than our driver, run on the repaired image: the SHA-256
    // of each of `paths` (from the root, no leading '/'), in their order, or
    // an empty string for one it could not read. Rows whose checker already
    // reads every file leave it empty.
    std::function<std::vector<std::string>(const std::string& image, const std::vector<std::string>& paths)>
        independent_reader;
    // The rows whose records and index buffers span several sectors: a cut
    // inside one of their writes leaves a block that can't be trusted, and
    // with no journal to replay nothing brings it back. Their cuts that left
    // such a block are counted, with the untouched files lost by it, instead
    // of failing; every other fault still fails.
    bool tolerates_torn_blocks = false;
    // The checker's kinds of finding that tell of a torn block.
    std::vector<std::string> torn_block_kinds;
};

std::vector<DriverRow> FatRows();
std::vector<DriverRow> ExtRows();
std::vector<DriverRow> NtfsRows();
// NTFS on 512-byte sectors. A cut inside the rewrite of a record or of a
// directory's index buffer leaves it torn (its update sequence unmatched);
// the driver writes in place without a journal, so nothing can prevent that,
// the whole directory then reads as corrupt until a full check disk runs,
// and ntfsfix neither sees nor mends it. These rows tolerate torn blocks.
std::vector<DriverRow> NtfsSmallSectorRows();
// HFS+ from xorriso's volumes on 512-byte sectors: one plain, one journaled
// whose journal holds a transaction that every scenario's first write
// replays. xorriso makes blocks of 512 or 2048 bytes only, and a catalog
// node spans several sectors of them: these rows tolerate torn blocks.
std::vector<DriverRow> HfsplusRows();

// Every row, in the order of the report; `strict` keeps only the rows that
// tolerate no torn block.
std::vector<DriverRow> DriverRows(bool strict = false);

}  // namespace PowerCut
