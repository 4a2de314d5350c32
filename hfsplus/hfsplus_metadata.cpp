#include "hfsplus/hfsplus_metadata.h"

#include "hfsplus/allocation_file.h"
#include "hfsplus/attributes_file.h"
#include "hfsplus/catalog_file.h"
#include "hfsplus/extents_overflow.h"
#include "hfsplus/journal.h"
#include "hfsplus/replay_map.h"
#include "hfsplus/volume_header.h"
#include "loader/common/raise.h"

namespace hfsplus {

namespace {

template <typename T>
T& Present(const std::unique_ptr<T>& member, std::uint64_t tag) {
    if (!member) Common::Raise(tag, Common::Failures::FILE_CORRUPT);
    return *member;
}

}  // namespace

HFSPlusMetadata::HFSPlusMetadata() = default;

HFSPlusMetadata::~HFSPlusMetadata() {
    // The trees read through the headers and the headers through the
    // journal's map: each goes before what it reads through.
    attributes_file.reset();
    catalog_file.reset();
    extents_overflow_file.reset();
    allocation_file.reset();
    alternate_volume_header.reset();
    volume_header.reset();
    journal.reset();
    replay_items.reset();
}

HFSPlusReplayItemsMap& HFSPlusMetadata::GetReplayItems() const { return Present(replay_items, ERROR_TAG); }
HFSPlusJournal& HFSPlusMetadata::GetJournal() const { return Present(journal, ERROR_TAG); }
HFSPlusVolumeHeader& HFSPlusMetadata::GetVolumeHeader() const { return Present(volume_header, ERROR_TAG); }
HFSPlusVolumeHeader& HFSPlusMetadata::GetAlternateVolumeHeader() const {
    return Present(alternate_volume_header, ERROR_TAG);
}
AllocationFile& HFSPlusMetadata::GetAllocationFile() const { return Present(allocation_file, ERROR_TAG); }
ExtentsOverflowFile& HFSPlusMetadata::GetExtentsOverflowFile() const {
    return Present(extents_overflow_file, ERROR_TAG);
}
CatalogFile& HFSPlusMetadata::GetCatalogFile() const { return Present(catalog_file, ERROR_TAG); }
AttributesFile& HFSPlusMetadata::GetAttributesFile() const { return Present(attributes_file, ERROR_TAG); }

bool HFSPlusMetadata::HasComponent(unsigned component) const {
    switch (component) {
    case 0: return volume_header != nullptr && alternate_volume_header != nullptr;
    case 1: return journal != nullptr;
    case 2: return allocation_file != nullptr;
    case 3: return extents_overflow_file != nullptr;
    case 4: return catalog_file != nullptr;
    case 5: return attributes_file != nullptr;
    default: return false;
    }
}

}  // namespace hfsplus
