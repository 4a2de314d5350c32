// The changes of the extents overflow tree: the records of a fork taken
// out and put back as its list of extents changes.
#include <algorithm>

#include "hfsplus/extents_overflow.h"
#include "hfsplus/hfsplus_driver.h"
#include "hfsplus/node_block.h"
#include "hfsplus/special_file.h"
#include "loader/common/raise.h"

namespace hfsplus {

void ExtentsOverflowFile::CheckChange() const {
    if (driver->read_only != 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_READ_ONLY);
}

RecordPosition ExtentsOverflowFile::FindFirstRecord(std::uint32_t file_id, std::uint8_t fork_type) {
    unsigned char key[sizeof(ExtentKey)];
    const std::size_t key_size = BuildKey(key, fork_type, file_id, 0);
    RecordPosition position = FindPosition(key, key_size, 1);
    // The first key not below the wanted one may open the next leaf.
    if (position.IsValid() && position.index >= GetNodeDescription(position.node).record_count) {
        position = GetNextLeafPosition(position);
    }
    if (!position.IsValid()) return position;
    NodeBlock& node = GetLeafAt(position);
    if (node.GetKeySize(position.index) < sizeof(ExtentKey)) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    const auto& found = *reinterpret_cast<const ExtentKey*>(node.GetKey(position.index));
    if (found.fileID() != file_id || found.forkType() != fork_type) return RecordPosition();
    return position;
}

// Each record goes by a search of its own: a deletion may merge the leaf
// into its neighbour or shrink the root, and a new search never follows a
// link that the change has made stale. A fork has few records.
void ExtentsOverflowFile::DeleteRecords(std::uint32_t file_id, std::uint8_t fork_type) {
    CheckChange();
    if (file_id == kExtentsFileId || IsEmpty()) return;
    const std::uint32_t most = leaf_records();
    for (std::uint32_t deleted = 0;; ++deleted) {
        const RecordPosition position = FindFirstRecord(file_id, fork_type);
        if (!position.IsValid()) break;
        if (deleted >= most) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        NodeBlock& node = GetLeafAt(position);
        unsigned char key[sizeof(ExtentKey)];
        std::copy(node.GetKey(position.index), node.GetKey(position.index) + sizeof(key), key);
        DeleteRecord(key, sizeof(key), position);
    }
    MarkDirty();
}

void ExtentsOverflowFile::AddRecord(std::uint32_t file_id, std::uint32_t start_block,
                                    const ExtentDescriptor (&extents)[kExtentsPerRecord]) {
    CheckChange();
    if (file_id == kExtentsFileId) Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
    unsigned char key[sizeof(ExtentKey)];
    const std::size_t key_size = BuildKey(key, kDataFork, file_id, start_block);
    InsertRecord(key, key_size, reinterpret_cast<const unsigned char*>(extents), sizeof(extents), 1);
    MarkDirty();
}

void ExtentsOverflowFile::WriteRecords(std::uint32_t file_id, const ExtentsDescriptorArray& extents) {
    const std::uint32_t groups = (extents.extent_count() + kExtentsPerRecord - 1) / kExtentsPerRecord;
    ExtentDescriptor group[kExtentsPerRecord];
    for (std::uint32_t g = 1; g < groups; ++g) {
        extents.GetGroup(g, group);
        AddRecord(file_id, extents.GetBlocksBefore(g), group);
    }
}

void ExtentsOverflowFile::WriteOverflowExtents(SpecialFile& file) {
    CheckChange();
    if (file.extents.extent_count() == 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    if (file.extents.extent_count() <= kExtentsPerRecord) return;
    // This tree's own fork can't be looked up in itself.
    if (file.fork_id == kExtentsFileId) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    DeleteRecords(file.fork_id, kDataFork);
    WriteRecords(file.fork_id, file.extents);
    MarkDirty();
}

}  // namespace hfsplus
