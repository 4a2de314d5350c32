#pragma once
// The extents overflow tree over fork 3: the extents of a fork behind the
// eight that its catalog record (or the volume header) holds, eight to a
// record, keyed by (file id, fork type, start block).
#include <cstdint>

#include "hfsplus/btree.h"
#include "hfsplus/extents_array.h"

namespace hfsplus {

class SpecialFile;

class ExtentsOverflowFile : public SpecialFileWithBTree {
public:
    ExtentsOverflowFile(HFSPlusDriver* driver, std::uint16_t node_size);
    ~ExtentsOverflowFile() override;

    // Appends the overflow extents of (file id, fork type) to `array`, in
    // order. FILE_CORRUPT for a record whose start block isn't the array's
    // block count so far, and for a walk longer than the tree's records.
    void LoadExtents(std::uint32_t file_id, std::uint8_t fork_type, ExtentsDescriptorArray& array);
    // Completes a special file's extents at mount when its fork holds more
    // blocks than its eight extents.
    void CompleteExtents(SpecialFile& file);

    // --- changes (FILE_READ_ONLY on a read-only driver) ---
    // Removes every record of (file id, fork type); the tree's own id has none.
    void DeleteRecords(std::uint32_t file_id, std::uint8_t fork_type);
    // Puts in the data fork record of `file_id` that starts at file block
    // `start_block`. FILE_UNSUPPORTED for the tree's own id.
    void AddRecord(std::uint32_t file_id, std::uint32_t start_block, const ExtentDescriptor (&extents)[kExtentsPerRecord]);
    // Stores what a tree file's list holds past its first eight extents,
    // after the list has changed. FILE_CORRUPT for an empty list, and for
    // this tree's own fork past eight.
    void WriteOverflowExtents(SpecialFile& file);
    // Writes the data fork records of `file_id` from group 1 of `extents` on.
    void WriteRecords(std::uint32_t file_id, const ExtentsDescriptorArray& extents);

    int CompareKeys(const unsigned char* a, std::size_t a_size, const unsigned char* b, std::size_t b_size) const override;
    static std::size_t BuildKey(unsigned char* out, std::uint8_t fork_type, std::uint32_t file_id, std::uint32_t start_block);

private:
    // The first record of (file id, fork type), or the invalid position.
    RecordPosition FindFirstRecord(std::uint32_t file_id, std::uint8_t fork_type);
    void CheckChange() const;
};

}  // namespace hfsplus
