#include "hfsplus/btree_factory.h"

#include "hfsplus/attributes_file.h"
#include "hfsplus/catalog_file.h"
#include "hfsplus/extents_overflow.h"
#include "hfsplus/hfsplus_driver.h"
#include "hfsplus/node_block.h"
#include "hfsplus/special_file.h"
#include "loader/common/byte_order.h"
#include "loader/common/raise.h"

namespace hfsplus {

namespace {

constexpr std::uint32_t kProbeSize = 512;

bool IsNodeSize(std::uint32_t size) { return size >= 512 && size <= 32768 && (size & (size - 1)) == 0; }

}  // namespace

std::uint16_t SpecialFileWithBTreeFactory::CheckHeaderNode(std::uint32_t fork_id) {
    // The special file is the way to the fork's bytes that sees the
    // journal's newer copies, as the tree's own reads will.
    SpecialFile probe(driver, fork_id);
    const ExtentDescriptor& first = probe.fork().extent(0);
    if (first.startBlock() == 0 || first.blockCount() == 0 || probe.fork().logicalSize() < kProbeSize) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    AlignedBuffer scratch(kProbeSize);
    std::uint64_t got = 0;
    probe.Read(scratch.data(), 0, kProbeSize, got);
    if (got < kProbeSize) Common::Raise(ERROR_TAG, Common::Failures::FILE_READ);
    const auto& descriptor = *reinterpret_cast<const BTNodeDescriptor*>(scratch.data());
    // The forward link is the first map node's in a tree that has outgrown
    // its header's map record; the map's load follows and checks it.
    if (descriptor.bLink() != 0 || descriptor.kind() != kHeaderNode ||
        descriptor.height() != 0 || descriptor.numRecords() != 3) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    const auto& header = *reinterpret_cast<const BTHeaderRec*>(scratch.data() + sizeof(BTNodeDescriptor));
    if (!IsNodeSize(header.nodeSize())) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    return header.nodeSize();
}

std::unique_ptr<ExtentsOverflowFile> SpecialFileWithBTreeFactory::MakeExtentsOverflowFile() {
    auto file = std::make_unique<ExtentsOverflowFile>(driver, CheckHeaderNode(kExtentsFileId));
    driver->open_status |= HFSPlusDriver::kExtentsClean;
    return file;
}

std::unique_ptr<CatalogFile> SpecialFileWithBTreeFactory::MakeCatalogFile(ExtentsOverflowFile& extents) {
    auto file = std::make_unique<CatalogFile>(driver, CheckHeaderNode(kCatalogFileId), extents);
    driver->open_status |= HFSPlusDriver::kCatalogClean;
    return file;
}

std::unique_ptr<AttributesFile> SpecialFileWithBTreeFactory::MakeAttributesFile(ExtentsOverflowFile& extents) {
    // A volume without attributes is normal, and its (absent) file clean.
    driver->open_status |= HFSPlusDriver::kAttributesClean;
    if (SpecialFile(driver, kAttributesFileId).fork().logicalSize() == 0) return nullptr;
    return std::make_unique<AttributesFile>(driver, CheckHeaderNode(kAttributesFileId), extents);
}

}  // namespace hfsplus
