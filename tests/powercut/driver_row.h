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
};

std::vector<DriverRow> FatRows();
std::vector<DriverRow> ExtRows();
std::vector<DriverRow> NtfsRows();
// NTFS on 512-byte sectors, kept out of DriverRows(): a cut inside the
// rewrite of a directory's index buffer leaves it torn (its update sequence
// unmatched), the whole directory then reads as corrupt until a check disk
// runs, and ntfsfix neither sees nor mends that.
std::vector<DriverRow> NtfsSmallSectorRows();

// Every row, in the order of the report.
std::vector<DriverRow> DriverRows();

}  // namespace PowerCut
