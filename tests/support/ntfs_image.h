#pragma once
// NTFS volumes made by the independent tools (mkntfs, ntfscp, ntfs-3g over
// FUSE) through a shell script, for the driver to work on.
#include <string>
#include <utility>
#include <vector>

#include "tests/support/shell.h"
#include "tests/support/temp_folder.h"
#include "tests/support/volume_fixture.h"

namespace TestSupport {

// Runs `script` with bash in a fresh folder that holds `files` (name,
// contents); the script leaves its volume in "volume.img" and mounts, if it
// mounts at all, on "mnt". Answers the image, or nothing when a step
// failed: the tools or FUSE are missing, and the caller skips.
inline std::vector<unsigned char> MakeNtfsImage(const std::string& script,
                                                const std::vector<std::pair<std::string, std::string>>& files = {}) {
    TempFolder folder;
    const std::string root = folder.Path();
    for (const auto& [name, contents] : files) folder.Write(name, contents);
    folder.Write("make.sh", "set -e; cd '" + root + "'; " + script);
    if (RunQuietly("bash '" + root + "/make.sh'") != 0) {
        RunQuietly("umount '" + root + "/mnt' 2>/dev/null");
        return {};
    }
    return LoadFile(root + "/volume.img");
}

}  // namespace TestSupport
