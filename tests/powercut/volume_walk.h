#pragma once
// Our driver's look at an image after a cut: mount it, walk every folder
// and read every file, in a child process with a time limit, so that a
// crash or a hang is reported as one instead of ending the harness.
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "tests/powercut/driver_row.h"

namespace PowerCut {

struct WalkResult {
    enum Outcome { kMounted, kRefused, kCrashed, kHung };
    Outcome outcome = kCrashed;
    // Path to the SHA-256 of its bytes, or to "<error CODE>" when reading failed.
    std::map<std::string, std::string> files;
    // Codes other than FILE_CORRUPT met on the way (or given by a refusal), with
    // where; FILE_OPEN of one entry whose object is gone is not among them.
    std::vector<std::string> wrong_codes;
    std::uint32_t refusal = 0;

    // Mounted or refused as corrupt, with no other code anywhere.
    bool acceptable() const { return (outcome == kMounted || outcome == kRefused) && wrong_codes.empty(); }
};

WalkResult WalkVolume(const DriverRow& row, const std::vector<unsigned char>& image, unsigned seconds);

}  // namespace PowerCut
