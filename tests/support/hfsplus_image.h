#pragma once
// HFS+ volumes made by mkfs.hfsplus and judged by fsck.hfsplus, and the
// free space of a mounted volume held back so that a test decides where
// the next allocation lands.
#include <unistd.h>

#include <sstream>
#include <string>
#include <vector>

#include "hfsplus/allocation_file.h"
#include "hfsplus/area_limits.h"
#include "hfsplus/extents_array.h"
#include "tests/support/shell.h"

namespace TestSupport {

// Empty when fsck.hfsplus finds the volume clean, else what it says.
inline std::string HfsplusFsckComplaints(const std::string& image) {
    if (RunQuietly("fsck.hfsplus -fn " + image) == 0) return "";
    return CaptureOutput("fsck.hfsplus -fn " + image + " 2>&1") + "(unclean)";
}

// A volume of `size` (as truncate takes it) by mkfs.hfsplus with `options`;
// false when a tool failed or the new volume isn't clean.
inline bool MakeHfsplusVolume(const std::string& path, const std::string& size, const std::string& options) {
    if (RunQuietly("truncate -s " + size + " " + path + " && mkfs.hfsplus " + options + " -v Test " + path) != 0) {
        return false;
    }
    // mkfs.hfsplus leaves the root of a case-sensitive volume without its
    // folder-count flag; fsck.hfsplus sets it, so that the volume starts clean.
    RunQuietly("fsck.hfsplus -fy " + path);
    return HfsplusFsckComplaints(path).empty();
}

// The HFS+ volume of an ISO image made by xorriso -hfsplus, which lies in
// the Apple_HFS partition of its Apple partition map, cut out to `image`
// as mmls finds it; false when there is none or a tool failed.
inline bool CutHfsplusPartition(const std::string& iso, const std::string& image) {
    std::istringstream map(CaptureOutput("mmls " + iso));
    std::string start, length;
    for (std::string line; std::getline(map, line);) {
        if (line.find("Apple_HFS") == std::string::npos) continue;
        std::istringstream fields(line);
        std::string slot, slot_name, end;
        fields >> slot >> slot_name >> start >> end >> length;
    }
    if (start.empty()) return false;
    return RunQuietly("dd if=" + iso + " of=" + image + " bs=512 skip=" + std::to_string(std::stoull(start)) +
                      " count=" + std::to_string(std::stoull(length)) + " status=none") == 0;
}

// Our journal writer for tests, built beside the test binary.
inline std::string HfsJournalWriter() {
    char self[4096] = {};
    const ssize_t length = readlink("/proc/self/exe", self, sizeof(self) - 1);
    const std::string path(self, length > 0 ? static_cast<std::size_t>(length) : 0);
    return path.substr(0, path.rfind('/') + 1) + "hfs_journal_writer";
}

using BlockAreas = std::vector<hfsplus::BlockArea>;

inline hfsplus::ExtentsDescriptorArray ListOf(const BlockAreas& areas) {
    hfsplus::ExtentsDescriptorArray list;
    for (const hfsplus::BlockArea& area : areas) list.AddArea(area);
    return list;
}

inline BlockAreas AreasOf(const hfsplus::ExtentsDescriptorArray& list) {
    BlockAreas areas;
    for (std::uint32_t i = 0; i < list.extent_count(); ++i) {
        const hfsplus::ExtentDescriptor& extent = list.GetExtent(i);
        areas.emplace_back(extent.startBlock(), extent.startBlock() + extent.blockCount() - 1);
    }
    return areas;
}

// Every free block held by a holder file, largest runs first as the search
// finds them. Answers the runs held.
inline BlockAreas HoldAllFree(hfsplus::AllocationFile& allocation) {
    BlockAreas held;
    while (allocation.bitmap().clear_count() != 0) {
        hfsplus::ExtentsDescriptorArray list;
        if (!allocation.ExtendFile(16, allocation.bitmap().FindFirstClearRun().GetCount(), list)) break;
        for (const hfsplus::BlockArea& area : AreasOf(list)) held.push_back(area);
    }
    return held;
}

inline void GiveBack(hfsplus::AllocationFile& allocation, const BlockAreas& held) {
    for (const hfsplus::BlockArea& area : held) allocation.FreeExtents(ListOf({area}));
}

}  // namespace TestSupport
