#include "hfsplus/extents_overflow.h"

#include "hfsplus/node_block.h"
#include "hfsplus/special_file.h"
#include "loader/common/byte_order.h"
#include "loader/common/raise.h"

namespace hfsplus {

namespace {

constexpr std::uint16_t kForkId = kExtentsFileId;
constexpr std::uint32_t kMaxKeySize = sizeof(ExtentKey);
constexpr std::uint32_t kMaxDataSize = kExtentsPerRecord * sizeof(ExtentDescriptor);

// The key of an extents record, once its bytes are known to hold one.
const ExtentKey& KeyOf(const unsigned char* key, std::size_t size) {
    if (size < sizeof(ExtentKey) || Common::LoadBE16(key) < kExtentKeyLength) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    return *reinterpret_cast<const ExtentKey*>(key);
}

template <typename T>
int Order(T a, T b) {
    return a == b ? 0 : (a < b ? -1 : 1);
}

}  // namespace

ExtentsOverflowFile::ExtentsOverflowFile(HFSPlusDriver* driver, std::uint16_t node_size)
    : SpecialFileWithBTree(driver, kForkId, node_size, kMaxKeySize, kMaxDataSize) {
    // Its own fork never overflows into itself, so its extents are complete.
    if (!IsEmpty()) LoadMap();
}

ExtentsOverflowFile::~ExtentsOverflowFile() = default;

std::size_t ExtentsOverflowFile::BuildKey(unsigned char* out, std::uint8_t fork_type, std::uint32_t file_id,
                                          std::uint32_t start_block) {
    Common::StoreBE16(out, kExtentKeyLength);
    out[2] = fork_type;
    out[3] = 0;
    Common::StoreBE32(out + 4, file_id);
    Common::StoreBE32(out + 8, start_block);
    return sizeof(ExtentKey);
}

int ExtentsOverflowFile::CompareKeys(const unsigned char* a, std::size_t a_size, const unsigned char* b,
                                     std::size_t b_size) const {
    const ExtentKey& x = KeyOf(a, a_size);
    const ExtentKey& y = KeyOf(b, b_size);
    if (int order = Order(x.fileID(), y.fileID())) return order;
    if (int order = Order(x.forkType(), y.forkType())) return order;
    return Order(x.startBlock(), y.startBlock());
}

void ExtentsOverflowFile::LoadExtents(std::uint32_t file_id, std::uint8_t fork_type, ExtentsDescriptorArray& array) {
    if (file_id == kExtentsFileId || IsEmpty()) return;
    unsigned char key[sizeof(ExtentKey)];
    const std::size_t key_size = BuildKey(key, fork_type, file_id, 0);
    RecordPosition position = FindPosition(key, key_size, 1);
    // Every record read adds at least one block (else it would be refused
    // below), and the tree holds no more records than its header counts.
    for (std::uint32_t records = 0; position.IsValid(); ++records) {
        const NodeBlockDescription& description = GetNodeDescription(position.node);
        if (position.index >= description.record_count) {
            position = GetNextLeafPosition(position);
            continue;
        }
        if (records > leaf_records()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        NodeBlock& node = GetLeafAt(position);
        const ExtentKey& found = KeyOf(node.GetKey(position.index), node.GetKeySize(position.index));
        if (found.fileID() != file_id || found.forkType() != fork_type) return;
        std::size_t size = 0;
        const unsigned char* data = node.GetRecordData(position.index, size);
        const std::uint32_t before = array.block_count();
        if (size < kMaxDataSize || found.startBlock() != before) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        array.Append(reinterpret_cast<const ExtentDescriptor*>(data), kExtentsPerRecord);
        if (array.block_count() == before) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        position = GetNextLeafPosition(position);
    }
}

void ExtentsOverflowFile::CompleteExtents(SpecialFile& file) {
    if (file.fork_id == kExtentsFileId) return;
    const std::uint32_t total_blocks = file.fork().totalBlocks();
    std::uint64_t own = 0;
    for (unsigned i = 0; i < kExtentsPerRecord; ++i) own += file.fork().extent(i).blockCount();
    if (total_blocks <= own || total_blocks == file.extents.block_count()) return;
    if (total_blocks < file.extents.block_count()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    LoadExtents(file.fork_id, kDataFork, file.extents);
    // A special file shorter than its fork would fail at some later read
    // far from the cause; refuse it here.
    if (file.extents.block_count() != total_blocks) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
}

}  // namespace hfsplus
