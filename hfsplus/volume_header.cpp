#include "hfsplus/volume_header.h"

#include <cstdint>
#include <cstring>

#include "hfsplus/hfsplus_driver.h"
#include "loader/common/raise.h"

namespace hfsplus {

namespace {

bool PowerOfTwo(std::uint32_t value) { return value != 0 && (value & (value - 1)) == 0; }

// What a volume last mounted here says in lastMountedVersion.
constexpr unsigned char kMountedVersion[4] = {'M', 'O', 'R', 'V'};

// The special files' forks in the order they are checked.
constexpr std::uint32_t kCheckedForks[] = {kAllocationFileId, kExtentsFileId, kCatalogFileId, kAttributesFileId,
                                           kStartupFileId};

}  // namespace

bool IsHeaderSane(const VolumeHeader& header, std::uint32_t sector_size) {
    // A wrapped volume ("BD") is refused here too: it isn't served.
    const bool plus = header.signature() == kSignatureHFSPlus && header.version() == kVersionHFSPlus;
    const bool extended = header.signature() == kSignatureHFSX && header.version() == kVersionHFSX;
    if (!plus && !extended) return false;
    return PowerOfTwo(header.blockSize()) && header.blockSize() >= sector_size;
}

bool IsForkSane(const VolumeHeader& header, const ForkData& fork, std::uint32_t file_id, std::uint32_t sector_size) {
    if (fork.logicalSize() == 0) {
        return file_id != kExtentsFileId && file_id != kCatalogFileId && file_id != kAllocationFileId;
    }
    // The block that holds the primary header is never a fork's: a start
    // at or below it is damage.
    const std::uint64_t header_block = kVolumeHeaderOffset / sector_size / header.blockSize();
    std::uint64_t sum = 0;
    for (unsigned i = 0; i < kExtentsPerRecord; ++i) {
        const ExtentDescriptor& extent = fork.extent(i);
        if (extent.blockCount() == 0) return fork.totalBlocks() == sum;
        if (extent.startBlock() <= header_block) return false;
        if (std::uint64_t(extent.startBlock()) + extent.blockCount() > header.totalBlocks()) return false;
        sum += extent.blockCount();
    }
    if (fork.totalBlocks() == sum) return true;
    // The rest of a fork lies in the extents overflow tree, except for that
    // tree's own fork, which has nowhere else to be.
    return fork.totalBlocks() > sum && file_id != kExtentsFileId;
}

HFSPlusVolumeHeader::HFSPlusVolumeHeader(HFSPlusDriver* driver, std::uint32_t index, std::uint64_t device_sectors)
    : JournaledFileSystemObject(driver), index(index), device_sectors(device_sectors) {
    const std::uint32_t sector = driver->sector_size;
    if (index == kPrimary) {
        volume_byte = kVolumeHeaderOffset;
    } else {
        if (device_sectors == 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
        if (device_sectors > UINT64_MAX / sector) Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
        const std::uint64_t volume_bytes = device_sectors * sector;
        if (volume_bytes < 2 * kVolumeHeaderOffset) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        volume_byte = volume_bytes - kVolumeHeaderOffset;
    }
    std::uint64_t got = 0;
    Read(bytes, 0, sizeof(bytes), got);
    if (got < sizeof(bytes)) Common::Raise(ERROR_TAG, Common::Failures::FILE_READ);
    const VolumeHeader& copy = header();
    if (!IsHeaderSane(copy, sector)) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    if (std::uint64_t(copy.blockSize() / sector) * copy.totalBlocks() > device_sectors) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    check_forks();
    note_state();
    if (driver->read_only == 0 && index == kPrimary) stamp();
}

// Boot folders in the finder words make the system that set them keep the
// in-use bit as it is; other volumes show it cleared while mounted here.
void HFSPlusVolumeHeader::stamp() {
    VolumeHeader& copy = header();
    std::uint32_t attributes = copy.attributes();
    if (copy.finderInfo(0) == 0 && copy.finderInfo(1) == 0 && copy.finderInfo(5) == 0) {
        attributes &= ~kVolumeUnmounted;
    }
    copy.attributes_.set(attributes | kVolumeInconsistent);
    std::memcpy(copy.lastMountedVersion_, kMountedVersion, sizeof(copy.lastMountedVersion_));
    copy.modifyDate_.set(MacLocalTimeNow());
    copy.writeCount_.set(copy.writeCount() + 1);
}

void HFSPlusVolumeHeader::FlushHeader() {
    if (dirty != 0 && driver->read_only == 0) {
        std::uint64_t count = 0;
        Write(bytes, 0, sizeof(bytes), count);
        if (count < sizeof(bytes)) Common::Raise(ERROR_TAG, Common::Failures::FILE_WRITE);
        JournaledFileSystemObject::Flush();
        written = true;
    }
    dirty = 0;
}

void HFSPlusVolumeHeader::CopyChangesTo(HFSPlusVolumeHeader& alternate) const {
    const VolumeHeader& from = header();
    VolumeHeader& to = alternate.header();
    to.modifyDate_ = from.modifyDate_;
    to.fileCount_ = from.fileCount_;
    to.folderCount_ = from.folderCount_;
    to.freeBlocks_ = from.freeBlocks_;
    to.nextAllocation_ = from.nextAllocation_;
    to.nextCatalogID_ = from.nextCatalogID_;
    to.writeCount_ = from.writeCount_;
    to.encodingsBitmap_ = from.encodingsBitmap_;
    std::memcpy(to.finderInfo_, from.finderInfo_, sizeof(to.finderInfo_));
    to.allocationFile_ = from.allocationFile_;
    to.extentsFile_ = from.extentsFile_;
    to.catalogFile_ = from.catalogFile_;
    to.attributesFile_ = from.attributesFile_;
    to.startupFile_ = from.startupFile_;
}

void HFSPlusVolumeHeader::MarkConsistent() {
    VolumeHeader& copy = header();
    copy.attributes_.set((copy.attributes() | kVolumeUnmounted) & ~kVolumeInconsistent);
}

SectorArea HFSPlusVolumeHeader::Locate(std::uint64_t position) {
    if (position >= sizeof(VolumeHeader)) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    const std::uint64_t sector = (volume_byte + position) / driver->sector_size;
    if (sector >= device_sectors) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    if (sector != 0) return SectorArea::FromCount(sector, 1);
    if (device_sectors < 2) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    return SectorArea::FromCount(0, 2);
}

std::uint64_t HFSPlusVolumeHeader::OffsetInSector(std::uint64_t position) {
    return (volume_byte + position) % driver->sector_size;
}

void HFSPlusVolumeHeader::check_forks() const {
    for (std::uint32_t id : kCheckedForks) {
        if (!IsForkSane(header(), *header().fork(id), id, driver->sector_size)) {
            Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        }
    }
}

// A locked volume, and one that wasn't unmounted cleanly, is served read
// only. The mount goes on either way.
void HFSPlusVolumeHeader::note_state() {
    const std::uint32_t attributes = header().attributes();
    const bool locked = (attributes & (kVolumeHardwareLock | kVolumeSoftwareLock)) != 0;
    const bool unclean = (attributes & kVolumeUnmounted) == 0 && (attributes & kVolumeInconsistent) != 0;
    if (locked || unclean) driver->read_only = 1;
}

}  // namespace hfsplus
