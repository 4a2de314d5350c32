#pragma once
// The allocation file: one bit per allocation block, set when the block is
// in use. The whole bitmap is read at mount and stays in memory with its
// index of free runs; allocations change the bits and the volume header's
// free count at once, and the file goes back to the disk in one piece at
// flush. Files get contiguous runs where they exist, next to their last
// extent if there is room there.
#include <cstdint>
#include <deque>
#include <memory>

#include "hfsplus/free_runs.h"
#include "hfsplus/special_file.h"

namespace hfsplus {

class AllocationFile : public SpecialFile {
public:
    class SearchFreeSpace;

    // The bitmap that the mount was handed, if any, stands for the file's
    // bytes; else LoadBitmap reads them.
    explicit AllocationFile(HFSPlusDriver* driver);
    // `bitmap` (`length` bytes), when not null, stands for the file's bytes.
    AllocationFile(HFSPlusDriver* driver, const unsigned char* bitmap, std::uint64_t length);
    ~AllocationFile() override;

    // Reads the file whole once its extents are complete. FILE_CORRUPT for
    // a file whose extents don't hold it, FILE_UNSUPPORTED for one too
    // short for the volume's blocks, FILE_READ for a short read.
    void LoadBitmap();

    // The operations below raise FILE_READ_ONLY on a read-only driver and
    // FILE_CORRUPT before the bitmap is loaded.

    // Adds `blocks` to a file's extents, behind its last extent first, then
    // before its first one. False, with nothing changed, when they aren't there.
    bool ExtendFile(std::uint32_t file_id, std::uint32_t blocks, ExtentsDescriptorArray& extents);
    // A new list for the file's present blocks and `blocks` more, from the
    // whole volume; the old blocks are freed (the caller copies from them
    // first). The empty list when the space isn't there. Valid until the next call.
    const ExtentsDescriptorArray& AllocateWholeFile(std::uint32_t file_id, std::uint32_t blocks,
                                                    const ExtentsDescriptorArray& extents);
    // The same for a tree, by its clump and in whole nodes. A tree's clump
    // that can't be had is FILE_CORRUPT; the extents overflow file never
    // takes more than its eight extents.
    bool ExtendTreeFile(SpecialFile& file);
    const ExtentsDescriptorArray& RelocateTreeFile(SpecialFile& file);
    void FreeExtents(const ExtentsDescriptorArray& extents);

    // Stores the first free block as the next allocation, stamps the volume
    // header and writes the bitmap whole; nothing on a read-only driver.
    void Flush();
    void flush_file() override { Flush(); }
    void MarkDirty() override;

    bool loaded() const { return bitmap_ != nullptr; }
    Bitmap& bitmap() const;  // FILE_CORRUPT before the load

private:
    void CheckUsable() const;
    bool IsValid() const;
    // Runs the allocation loop for `blocks` from `start`, in multiples of `unit`.
    bool Allocate(std::uint32_t blocks, const ExtentsDescriptorArray& start, std::uint32_t unit);
    void GiveBackFound();
    void TakeFreeBlocks(std::uint32_t count);
    // What AllocateWholeFile and RelocateTreeFile share once their checks pass.
    const ExtentsDescriptorArray& Relocate(std::uint32_t blocks, const ExtentsDescriptorArray& extents,
                                           std::uint32_t unit, std::uint32_t most_extents);

    std::unique_ptr<Bitmap> bitmap_;
    ExtentsDescriptorArray found;
    ExtentsDescriptorArray answer;
    std::deque<BlockArea> areas;
    std::uint8_t* open_status;  // the driver's; not owned
};

// One allocation in progress: what is still missing, and the areas left to
// search, behind the file's last extent first, then before its first.
// Blocks between the file's first and last extent aren't searched.
class AllocationFile::SearchFreeSpace {
public:
    // FILE_CORRUPT for `needed` 0 or above the free blocks, and for an
    // extent with a 0 start or count, or outside the volume.
    SearchFreeSpace(std::uint32_t needed, AllocationFile& file, const ExtentsDescriptorArray& extents,
                    std::deque<BlockArea>& areas);

    // Allocates what the front area gives, cut to `unit` (0xFFFFFFFF: none).
    void Step(std::uint32_t unit);
    // Drops what the front area has given up to the last result.
    void NextArea();
    void Run(std::uint32_t unit);
    std::uint32_t missing() const { return needed; }

private:
    std::uint32_t needed;
    AllocationFile& file;
    std::deque<BlockArea>& areas;
    BlockArea result;
};

}  // namespace hfsplus
