#pragma once
// Mounting a whole device (a partition's own device, as a rule) with the
// driver trial, and keeping nothing but its root directory.
#include <memory>

#include "files/dir_object.h"
#include "firmware/simple_disk.h"
#include "fsdriver/driver_selection.h"

namespace EfiLoader {

// The root directory of the volume that fills `disk`, or null when no
// driver accepts it. On success the driver owns the device and `disk` is
// left empty; on failure `disk` stays with the caller. The root keeps the
// driver alive; the caller deletes it.
rio_dir* MountVolume(DriverFactory factory, std::unique_ptr<Fdisk::SimpleDisk>& disk);

}  // namespace EfiLoader
