#pragma once
// A special file (allocation, extents overflow, catalog, attributes): a
// metadata object over one fork of the volume header, with the fork's
// extent list, completed from the extents overflow tree at mount.
#include <cstdint>

#include "hfsplus/extents_array.h"
#include "hfsplus/journaled_object.h"

namespace hfsplus {

class HFSPlusVolumeHeader;

class SpecialFile : public JournaledFileSystemObject {
public:
    // Takes the fork of `fork_id` from the primary header and its eight extents.
    SpecialFile(HFSPlusDriver* driver, std::uint32_t fork_id);

    // The fork's logicalSize.
    std::uint64_t size() override;
    // FILE_CORRUPT at a position at or past the size, off the sector grid,
    // or outside the extents.
    SectorArea Locate(std::uint64_t position) override;
    // The blocks of which a grown file's extents must be a multiple; none here.
    virtual std::uint32_t GetAllocationUnit() const { return 0xFFFFFFFFu; }

    const ForkData& fork() const;

    std::uint32_t fork_id;
    HFSPlusVolumeHeader* volume_header;  // not owned
    ExtentsDescriptorArray extents;
};

}  // namespace hfsplus
