// What must hold before the first change of a mount, since the changes
// trust it: the allocation file marks in use every block that the volume's
// own structures take, and its free count is the header's; each tree's map
// marks in use the nodes the tree stands on, and its free count is the
// tree header's. A volume where either fails would hand out blocks or nodes
// that hold data, so it takes no change at all; found before anything is
// written, the refusal leaves the volume as it was.
#include "hfsplus/allocation_file.h"
#include "hfsplus/attributes_file.h"
#include "hfsplus/btree_map.h"
#include "hfsplus/catalog_file.h"
#include "hfsplus/extents_overflow.h"
#include "hfsplus/free_runs.h"
#include "hfsplus/hfsplus_driver.h"
#include "hfsplus/hfsplus_metadata.h"
#include "hfsplus/journal.h"
#include "hfsplus/volume_header.h"
#include "loader/common/raise.h"

namespace hfsplus {

namespace {

[[noreturn]] void Unsound() { Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT); }

// Blocks by first and count: block 0 alone is no area.
void CheckUsed(const Bitmap& bitmap, std::uint64_t first, std::uint64_t count) {
    if (first >= bitmap.bit_count() || count > bitmap.bit_count() - first) Unsound();
    for (std::uint64_t block = first; block < first + count; ++block) {
        if (!bitmap.GetBit(static_cast<std::uint32_t>(block))) Unsound();
    }
}

void CheckUsed(const Bitmap& bitmap, const ExtentsDescriptorArray& extents) {
    for (std::uint32_t i = 0; i < extents.extent_count(); ++i) {
        const ExtentDescriptor& extent = extents.GetExtent(i);
        CheckUsed(bitmap, extent.startBlock(), extent.blockCount());
    }
}

// The eight extents that the header holds of a fork without a file object
// of its own (the startup file).
void CheckUsed(const Bitmap& bitmap, const ForkData& fork) {
    for (const ExtentDescriptor& extent : fork.extents_) {
        CheckUsed(bitmap, extent.startBlock(), extent.blockCount());
    }
}

void CheckTree(const SpecialFileWithBTree& tree) {
    if (tree.IsEmpty()) return;
    const BTreeMap& map = tree.GetMap();
    const std::uint32_t total = tree.total_nodes();
    if (map.covered_nodes() < total) Unsound();
    std::uint32_t used = 0;
    for (std::uint32_t node = 0; node < total; ++node) used += map.IsAllocated(node) ? 1 : 0;
    if (tree.free_nodes() != total - used) Unsound();
    for (std::uint32_t node : {0u, tree.root(), tree.first_leaf(), tree.last_leaf()}) {
        if (node >= total || !map.IsAllocated(node)) Unsound();
    }
}

}  // namespace

void HFSPlusMetadata::CheckSoundForChanges(const HFSPlusDriver& driver) const {
    const VolumeHeader& header = GetVolumeHeader().header();
    const Bitmap& bitmap = GetAllocationFile().bitmap();
    if (bitmap.bit_count() != header.totalBlocks() || bitmap.clear_count() != header.freeBlocks()) Unsound();
    const std::uint32_t block = driver.block_size();
    // The blocks of the two headers: 1,024 bytes in, and 1,024 bytes
    // before the volume's end when that lies inside the blocks counted.
    CheckUsed(bitmap, 0, 1024 / block + 1);
    const std::uint64_t alternate = (driver.volume_sectors * driver.sector_size - 1024) / block;
    if (alternate < header.totalBlocks()) CheckUsed(bitmap, alternate, 1);
    CheckUsed(bitmap, GetAllocationFile().extents);
    CheckUsed(bitmap, GetExtentsOverflowFile().extents);
    CheckUsed(bitmap, GetCatalogFile().extents);
    if (attributes_file) CheckUsed(bitmap, attributes_file->extents);
    CheckUsed(bitmap, *header.fork(kStartupFileId));
    if (journal && (header.attributes() & kVolumeJournaled) != 0 && header.journalInfoBlock() != 0) {
        CheckUsed(bitmap, header.journalInfoBlock(), 1);
        const JournalInfoBlock& info = journal->journal_info;
        if (info.size() != 0) {
            const std::uint64_t first = info.offset() / block;
            CheckUsed(bitmap, first, (info.offset() + info.size() - 1) / block - first + 1);
        }
    }
    CheckTree(GetExtentsOverflowFile());
    CheckTree(GetCatalogFile());
    if (attributes_file) CheckTree(*attributes_file);
}

}  // namespace hfsplus
