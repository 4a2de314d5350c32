#pragma once
// What a mounted HFS+ volume keeps of its metadata: the journal and its map
// of replayed sectors, the two volume headers and the special files. A
// plain holder; each accessor raises FILE_CORRUPT when its object is
// absent, so a caller tests HasComponent first where absence is normal
// (the journal, the attributes file).
#include <cstdint>
#include <memory>

namespace hfsplus {

class HFSPlusReplayItemsMap;
class HFSPlusJournal;
class HFSPlusVolumeHeader;
class AllocationFile;
class ExtentsOverflowFile;
class CatalogFile;
class AttributesFile;

class HFSPlusDriver;

class HFSPlusMetadata {
public:
    HFSPlusMetadata();
    // Destroys in the reverse order of the members: attributes file first,
    // replay items last.
    ~HFSPlusMetadata();

    HFSPlusReplayItemsMap& GetReplayItems() const;
    HFSPlusJournal& GetJournal() const;
    HFSPlusVolumeHeader& GetVolumeHeader() const;
    HFSPlusVolumeHeader& GetAlternateVolumeHeader() const;
    AllocationFile& GetAllocationFile() const;
    ExtentsOverflowFile& GetExtentsOverflowFile() const;
    CatalogFile& GetCatalogFile() const;
    AttributesFile& GetAttributesFile() const;
    // 0 both headers, 1 journal, 2 allocation file, 3 extents overflow file,
    // 4 catalog, 5 attributes file; any other number answers false.
    bool HasComponent(unsigned component) const;
    // FILE_CORRUPT when the allocation file or a tree's map doesn't mark in
    // use what the volume's structures take, or its free count disagrees.
    void CheckSoundForChanges(const HFSPlusDriver& driver) const;

    std::unique_ptr<HFSPlusReplayItemsMap> replay_items;
    std::unique_ptr<HFSPlusJournal> journal;
    std::unique_ptr<HFSPlusVolumeHeader> volume_header;
    std::unique_ptr<HFSPlusVolumeHeader> alternate_volume_header;
    std::unique_ptr<AllocationFile> allocation_file;
    std::unique_ptr<ExtentsOverflowFile> extents_overflow_file;
    std::unique_ptr<CatalogFile> catalog_file;
    std::unique_ptr<AttributesFile> attributes_file;
};

}  // namespace hfsplus
