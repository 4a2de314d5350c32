// The mount and the unmount. The trial of drivers hands this constructor
// volumes of every kind, and damaged ones too: the header is checked before
// anything is sized or placed by it, and nothing is written. A refusal
// unwinds what was built so far through the owning members. The unmount of
// a volume that was changed brings the alternate header up to date and
// marks the volume consistent again.
#include <cstring>

#include "fsdriver/directory_object.h"
#include "hfsplus/allocation_file.h"
#include "hfsplus/attributes_file.h"
#include "hfsplus/btree_factory.h"
#include "hfsplus/catalog_file.h"
#include "hfsplus/extents_overflow.h"
#include "hfsplus/hfsplus_directory.h"
#include "hfsplus/hfsplus_driver.h"
#include "hfsplus/hfsplus_metadata.h"
#include "hfsplus/journal.h"
#include "hfsplus/opened_files_map.h"
#include "hfsplus/replay_map.h"
#include "hfsplus/volume_header.h"
#include "loader/common/raise.h"

namespace hfsplus {

namespace {

constexpr std::uint32_t kSmallestSector = 512;
// The largest allocation block served: the cache holds partial blocks of
// files whole, so the block size bounds what one cached block costs.
constexpr std::uint32_t kLargestBlock = 65536;

}  // namespace

HFSPlusDriver::HFSPlusDriver(Fdisk::SimpleDisk* device, std::uint64_t first_sector, std::uint64_t volume_sectors,
                             std::uint32_t cache_group, const unsigned char* bitmap, std::uint64_t bitmap_length)
    : FileSystemDriverPosix(device, first_sector, volume_sectors, cache_group) {
    if (bitmap_length != 0) {
        if (bitmap == nullptr) Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
        read_only = 1;
        given_bitmap.assign(bitmap, bitmap + bitmap_length);
    }
    metadata_holder = std::make_unique<HFSPlusMetadata>();
    metadata_holder->replay_items = std::make_unique<HFSPlusReplayItemsMap>();
    if (sector_size == 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
    if (sector_size < kSmallestSector || (sector_size & (sector_size - 1)) != 0) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
    }
    VolumeHeader copy{};
    probe_header(copy);
    open_journal(copy);
    open_volume_headers();
    metadata_holder->allocation_file = std::make_unique<AllocationFile>(this);
    open_trees();
    opened_files_map = std::make_unique<OpenedFilesInDirectoriesMap>();
}

// The header at byte 1024 as it stands on the disk, before the journal is
// known: enough to find the journal and the block size.
void HFSPlusDriver::probe_header(VolumeHeader& copy) {
    read_volume_bytes(kVolumeHeaderOffset, &copy, sizeof(copy));
    if (!IsHeaderSane(copy, sector_size)) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    if (copy.blockSize() > kLargestBlock) Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
    block_bytes = copy.blockSize();
}

void HFSPlusDriver::open_journal(const VolumeHeader& copy) {
    if ((copy.attributes() & kVolumeJournaled) == 0) return;
    if (volume_sectors <= std::uint64_t(block_bytes / sector_size) * copy.journalInfoBlock()) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    HFSPlusMetadata& held = metadata();
    held.journal = std::make_unique<HFSPlusJournal>(this, copy, held.GetReplayItems());
}

// Both headers as the journal shows them. A bad alternate refuses the mount
// as a bad primary does: there is no falling back from one to the other.
void HFSPlusDriver::open_volume_headers() {
    HFSPlusMetadata& held = metadata();
    held.volume_header = std::make_unique<HFSPlusVolumeHeader>(this, HFSPlusVolumeHeader::kPrimary, volume_sectors);
    held.alternate_volume_header =
        std::make_unique<HFSPlusVolumeHeader>(this, HFSPlusVolumeHeader::kAlternate, volume_sectors);
    // The journal was opened with the block size on the disk; a header in
    // the journal that says otherwise can't be the same volume's.
    if (held.volume_header->header().blockSize() != block_bytes) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
}

void HFSPlusDriver::open_trees() {
    HFSPlusMetadata& held = metadata();
    SpecialFileWithBTreeFactory factory(this);
    held.extents_overflow_file = factory.MakeExtentsOverflowFile();
    open_allocation_file();
    held.catalog_file = factory.MakeCatalogFile(*held.extents_overflow_file);
    held.attributes_file = factory.MakeAttributesFile(*held.extents_overflow_file);
    // No attributes file: nothing of it can be out of date on the disk.
    if (!held.attributes_file) open_status |= kAttributesClean;
    // The trees take their growth from the allocation file.
    held.extents_overflow_file->SetAllocationFile(held.allocation_file.get());
    held.catalog_file->SetAllocationFile(held.allocation_file.get());
    if (held.attributes_file) held.attributes_file->SetAllocationFile(held.allocation_file.get());
}

// Its extents behind the header's eight come from the overflow tree, and
// only then can the bits be read whole.
void HFSPlusDriver::open_allocation_file() {
    HFSPlusMetadata& held = metadata();
    held.extents_overflow_file->CompleteExtents(*held.allocation_file);
    held.allocation_file->LoadBitmap();
}

// The unmount of a volume that takes changes: the files' last changes, the
// alternate brought up to the primary, and the primary marked consistent
// when every file reached the disk. An error here has nobody to go to: what
// went out stays, and the volume is left marked inconsistent.
void HFSPlusDriver::close_volume() {
    HFSPlusMetadata& held = metadata();
    if (!held.HasComponent(0)) return;
    flush_files();
    HFSPlusVolumeHeader& primary = held.GetVolumeHeader();
    HFSPlusVolumeHeader& alternate = held.GetAlternateVolumeHeader();
    primary.CopyChangesTo(alternate);
    // A header that went to the disk in this mount carries the stamp, which
    // the unmount takes back.
    const bool changed = primary.dirty != 0 || primary.written;
    if (changed) alternate.MarkDirty();
    constexpr std::uint8_t kAllClean = kAllocationClean | kExtentsClean | kCatalogClean | kAttributesClean;
    if (changed && (open_status & kAllClean) == kAllClean) {
        primary.MarkConsistent();
        primary.MarkDirty();
    }
    alternate.FlushHeader();
    flush_metadata();
}

HFSPlusDriver::~HFSPlusDriver() {
    if (read_only == 0 && metadata_holder) {
        try {
            close_volume();
        } catch (const Common::Error&) {
        }
    }
    try {
        dismount();
    } catch (const Common::Error&) {
    }
    // Directory objects use the catalog and the open files, so they go
    // before the metadata, the private directory with them.
    if (private_directory != nullptr) {
        bool listed = false;
        for (const auto& entry : directories) listed = listed || entry.second == private_directory;
        if (private_directory->references != 0) --private_directory->references;
        if (!listed) delete private_directory;
        private_directory = nullptr;
    }
    for (auto& entry : directories) delete entry.second;
    directories.clear();
    opened_files_map.reset();
    metadata_holder.reset();
}

}  // namespace hfsplus
