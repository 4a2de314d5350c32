#pragma once
// A volume header as a metadata object of 512 bytes: the primary at byte
// 1024 of the volume, the alternate 1024 bytes before its end. Its bytes
// are read through the journal, so a header that a transaction changed is
// seen as changed.
//
// On a volume that takes changes the primary is stamped at mount, in
// memory: marked in use and inconsistent, with this system's version and a
// new write count. The first change marks it dirty, so the stamp reaches
// the disk with the change's flush; the unmount marks it consistent again
// and copies what changed to the alternate. A crash in between leaves the
// volume inconsistent, and the next mount serves it read only.
#include <cstdint>

#include "hfsplus/hfsplus_records.h"
#include "hfsplus/journaled_object.h"

namespace hfsplus {

// The signature, version and block size checks of a header copy.
bool IsHeaderSane(const VolumeHeader& header, std::uint32_t sector_size);
// Whether a special file's fork is plausible against its header: extents
// inside the volume, counts that add up (file ids 6, 3, 4, 8, 7).
bool IsForkSane(const VolumeHeader& header, const ForkData& fork, std::uint32_t file_id, std::uint32_t sector_size);

class HFSPlusVolumeHeader : public JournaledFileSystemObject {
public:
    static constexpr std::uint32_t kPrimary = 0;
    static constexpr std::uint32_t kAlternate = 1;

    // Reads and checks the header (index 0 or 1); FILE_CORRUPT for a bad
    // one, FILE_READ for a short read. A locked or unclean volume turns the
    // driver read only.
    HFSPlusVolumeHeader(HFSPlusDriver* driver, std::uint32_t index, std::uint64_t device_sectors);

    std::uint64_t size() override { return sizeof(VolumeHeader); }
    // The sector that holds byte `position` of the header (below 512), or
    // the two from sector 0 on, which alone would be no area.
    SectorArea Locate(std::uint64_t position) override;
    std::uint64_t OffsetInSector(std::uint64_t position) override;

    // Writes the 512 bytes if they are dirty, then the dirty areas; on a
    // read-only driver it only forgets the mark. FILE_WRITE for a short write.
    void FlushHeader();
    void flush_file() override { FlushHeader(); }
    // The unmount's copy to the alternate: counts, dates of change, the
    // finder words and the forks; not the attributes, the version, the
    // journal, the other dates, the geometry or the clump sizes.
    void CopyChangesTo(HFSPlusVolumeHeader& alternate) const;
    // The unmount's last word on a volume all of whose files reached the disk.
    void MarkConsistent();

    const VolumeHeader& header() const { return *reinterpret_cast<const VolumeHeader*>(bytes); }
    VolumeHeader& header() { return *reinterpret_cast<VolumeHeader*>(bytes); }

    alignas(8) unsigned char bytes[sizeof(VolumeHeader)] = {};
    std::uint32_t index;
    std::uint64_t device_sectors;
    std::uint64_t volume_byte = 0;  // where the header starts on the volume
    bool written = false;           // the header went to the disk in this mount

private:
    void check_forks() const;
    void note_state();
    void stamp();
};

}  // namespace hfsplus
