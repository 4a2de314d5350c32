#pragma once
// Opens the three trees at mount: checks the header node of each fork
// (read through the journal) and its node size, then constructs the file.
#include <cstdint>
#include <memory>

namespace hfsplus {

class HFSPlusDriver;
class ExtentsOverflowFile;
class CatalogFile;
class AttributesFile;

class SpecialFileWithBTreeFactory {
public:
    explicit SpecialFileWithBTreeFactory(HFSPlusDriver* driver) : driver(driver) {}

    // Each sets its bit of the driver's open status.
    std::unique_ptr<ExtentsOverflowFile> MakeExtentsOverflowFile();
    std::unique_ptr<CatalogFile> MakeCatalogFile(ExtentsOverflowFile& extents);
    // Null when the attributes fork's logicalSize is 0.
    std::unique_ptr<AttributesFile> MakeAttributesFile(ExtentsOverflowFile& extents);

private:
    // The node size from the header node of a fork; FILE_CORRUPT for a bad one.
    std::uint16_t CheckHeaderNode(std::uint32_t fork_id);

    HFSPlusDriver* driver;
};

}  // namespace hfsplus
