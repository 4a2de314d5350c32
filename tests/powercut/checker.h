#pragma once
// The independent checker of a file system, run on an image file: first in
// repair mode, then read-only to see whether the repair left it clean.
// What the repair reports is counted by kind, so that the harness can say
// what the cuts did to the volume.
#include <functional>
#include <map>
#include <string>

namespace PowerCut {

struct CheckerRow {
    std::string repair;  // the command, the image path appended
    std::string check;   // read-only; status 0 is clean
    // The kinds of finding in the repair's output, each with its count.
    std::function<std::map<std::string, int>(const std::string& output)> kinds;
};

struct CheckerVerdict {
    bool repaired = false;        // the repair changed the volume
    std::map<std::string, int> kinds;
    bool clean_after = false;     // the read-only run found nothing
    std::string check_output;     // kept for the report when not clean
    int passes = 0;               // repair runs it took, at most kMostRepairPasses
};

// A checker may need a second run for what its first repair uncovers (a
// folder whose start it set to 0 is only deleted by the next run).
constexpr int kMostRepairPasses = 3;

CheckerVerdict RepairThenCheck(const CheckerRow& checker, const std::string& image);

// What fsck.fat -a reports, by kind.
std::map<std::string, int> FatFindings(const std::string& output);

}  // namespace PowerCut
