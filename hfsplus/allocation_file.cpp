#include "hfsplus/allocation_file.h"

#include <vector>

#include "hfsplus/hfsplus_driver.h"
#include "hfsplus/volume_header.h"
#include "loader/common/raise.h"

namespace hfsplus {

namespace {

constexpr std::uint32_t kNoUnit = 0xFFFFFFFFu;
constexpr std::uint32_t kOverflowExtents = kExtentsPerRecord;  // the extents overflow file's own limit

// The special files grow by their own rules; the startup file (7) and the
// bad block file (5) are files as any other here.
void RefuseSpecialFile(std::uint32_t file_id) {
    if (file_id == kExtentsFileId || file_id == kCatalogFileId || file_id == kAllocationFileId ||
        file_id == kAttributesFileId) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
    }
}

BlockArea AreaOf(const ExtentDescriptor& extent) {
    return BlockArea::FromCount(extent.startBlock(), extent.blockCount());
}

}  // namespace

AllocationFile::AllocationFile(HFSPlusDriver* driver)
    : AllocationFile(driver, driver->given_bitmap.empty() ? nullptr : driver->given_bitmap.data(),
                     driver->given_bitmap.size()) {}

AllocationFile::AllocationFile(HFSPlusDriver* driver, const unsigned char* bitmap, std::uint64_t length)
    : SpecialFile(driver, kAllocationFileId), open_status(&driver->open_status) {
    if (bitmap != nullptr) bitmap_ = std::make_unique<Bitmap>(bitmap, length, volume_header->header().totalBlocks());
    *open_status |= HFSPlusDriver::kAllocationClean;
}

AllocationFile::~AllocationFile() = default;

Bitmap& AllocationFile::bitmap() const {
    if (!bitmap_) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    return *bitmap_;
}

// The extents, completed from the overflow tree, hold the fork's blocks,
// and those its bytes.
bool AllocationFile::IsValid() const {
    const ForkData& data = fork();
    return data.logicalSize() != 0 && extents.block_count() == data.totalBlocks() &&
           data.logicalSize() <= std::uint64_t(data.totalBlocks()) * driver->block_size();
}

void AllocationFile::CheckUsable() const {
    if (driver->read_only != 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_READ_ONLY);
    if (!IsValid() || !loaded()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
}

void AllocationFile::LoadBitmap() {
    if (!IsValid()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    if (loaded()) return;
    const std::uint32_t bits = volume_header->header().totalBlocks();
    const std::uint64_t byte_count = (std::uint64_t(bits) + 7) / 8;
    if (bits == 0 || size() < byte_count) Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
    std::vector<unsigned char> bytes(static_cast<std::size_t>(byte_count));
    std::uint64_t got = 0;
    Read(bytes.data(), 0, byte_count, got);
    if (got != byte_count) Common::Raise(ERROR_TAG, Common::Failures::FILE_READ);
    bitmap_ = std::make_unique<Bitmap>(bytes.data(), byte_count, bits);
}

void AllocationFile::MarkDirty() {
    dirty = 1;
    *open_status = static_cast<std::uint8_t>(*open_status & ~HFSPlusDriver::kAllocationClean);
    // The free count and the next allocation live in the header.
    volume_header->MarkDirty();
}

bool AllocationFile::Allocate(std::uint32_t blocks, const ExtentsDescriptorArray& start, std::uint32_t unit) {
    found.Clear();
    SearchFreeSpace search(blocks, *this, start, areas);
    search.Run(unit);
    if (search.missing() == 0) return true;
    GiveBackFound();
    return false;
}

void AllocationFile::GiveBackFound() {
    for (std::uint32_t i = 0; i < found.extent_count(); ++i) bitmap_->SetRange(AreaOf(found.GetExtent(i)), false);
    found.Clear();
}

// The header's count must cover what the bits gave, else the two disagree.
void AllocationFile::TakeFreeBlocks(std::uint32_t count) {
    VolumeHeader& header = volume_header->header();
    if (header.freeBlocks() < count) {
        GiveBackFound();
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    header.freeBlocks_.set(header.freeBlocks() - count);
}

bool AllocationFile::ExtendFile(std::uint32_t file_id, std::uint32_t blocks, ExtentsDescriptorArray& extents) {
    CheckUsable();
    RefuseSpecialFile(file_id);
    found.Clear();
    if (blocks == 0 || blocks > bitmap_->clear_count()) return false;
    if (!Allocate(blocks, extents, kNoUnit)) return false;
    TakeFreeBlocks(found.block_count());
    extents.AddAll(found);
    extents.MergeLastPairs();
    MarkDirty();
    return true;
}

bool AllocationFile::ExtendTreeFile(SpecialFile& file) {
    CheckUsable();
    if (file.fork_id == kAllocationFileId) Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
    const bool overflow_tree = file.fork_id == kExtentsFileId;
    if (overflow_tree && file.extents.extent_count() >= kOverflowExtents) return false;
    const std::uint32_t blocks = file.fork().clumpSize() / driver->block_size();
    if (blocks == 0 || blocks > bitmap_->clear_count()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    if (!Allocate(blocks, file.extents, file.GetAllocationUnit())) return false;
    ExtentsDescriptorArray grown(file.extents);
    grown.AddAll(found);
    grown.MergeLastPairs();
    if (overflow_tree && grown.extent_count() > kOverflowExtents) {
        GiveBackFound();
        return false;
    }
    TakeFreeBlocks(found.block_count());
    file.extents = grown;
    MarkDirty();
    return true;
}

const ExtentsDescriptorArray& AllocationFile::AllocateWholeFile(std::uint32_t file_id, std::uint32_t blocks,
                                                                const ExtentsDescriptorArray& extents) {
    CheckUsable();
    RefuseSpecialFile(file_id);
    return Relocate(blocks, extents, kNoUnit, 0xFFFFFFFFu);
}

const ExtentsDescriptorArray& AllocationFile::RelocateTreeFile(SpecialFile& file) {
    CheckUsable();
    if (file.fork_id == kAllocationFileId) Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
    const std::uint32_t most = file.fork_id == kExtentsFileId ? kOverflowExtents : 0xFFFFFFFFu;
    return Relocate(file.fork().clumpSize() / driver->block_size(), file.extents, file.GetAllocationUnit(), most);
}

// The new list comes from the whole volume: the search starts from the
// empty list. The old blocks are freed, not overwritten.
const ExtentsDescriptorArray& AllocationFile::Relocate(std::uint32_t blocks, const ExtentsDescriptorArray& extents,
                                                       std::uint32_t unit, std::uint32_t most_extents) {
    const ExtentsDescriptorArray old(extents);  // the caller may hand in the last answer
    found.Clear();
    answer.Clear();
    const std::uint64_t total = std::uint64_t(blocks) + old.block_count();
    if (total == 0 || total > bitmap_->clear_count()) return answer;
    if (!Allocate(static_cast<std::uint32_t>(total), answer, unit)) return answer;
    ExtentsDescriptorArray list(found);
    list.MergeLastPairs();
    if (list.extent_count() > most_extents) {
        GiveBackFound();
        return answer;
    }
    TakeFreeBlocks(found.block_count());
    answer = list;
    FreeExtents(old);
    MarkDirty();
    return answer;
}

void AllocationFile::FreeExtents(const ExtentsDescriptorArray& extents) {
    CheckUsable();
    if (extents.extent_count() == 0) return;
    VolumeHeader& header = volume_header->header();
    const std::uint64_t free_blocks = std::uint64_t(header.freeBlocks()) + extents.block_count();
    if (free_blocks > header.totalBlocks()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    for (std::uint32_t i = 0; i < extents.extent_count(); ++i) bitmap_->SetRange(AreaOf(extents.GetExtent(i)), false);
    header.freeBlocks_.set(static_cast<std::uint32_t>(free_blocks));
    MarkDirty();
}

// A flush on a read-only driver does nothing but forget the mark. A failed
// write keeps it, so that the next flush tries again.
void AllocationFile::Flush() {
    if (dirty == 0) return;
    if (driver->read_only == 0 && loaded()) {
        VolumeHeader& header = volume_header->header();
        const std::uint32_t next = bitmap_->FindFirstClear();
        header.nextAllocation_.set(next == 0xFFFFFFFFu ? bitmap_->bit_count() : next);
        header.modifyDate_.set(MacLocalTimeNow());
        std::uint64_t written = 0;
        write(bitmap_->data(), 0, bitmap_->byte_count(), written);
        if (written != bitmap_->byte_count()) Common::Raise(ERROR_TAG, Common::Failures::FILE_WRITE);
        JournaledFileSystemObject::Flush();
        *open_status |= HFSPlusDriver::kAllocationClean;
    }
    dirty = 0;
}

AllocationFile::SearchFreeSpace::SearchFreeSpace(std::uint32_t missing, AllocationFile& file,
                                                 const ExtentsDescriptorArray& extents, std::deque<BlockArea>& queue)
    : needed(missing), file(file), areas(queue) {
    const Bitmap& bitmap = file.bitmap();
    if (needed == 0 || needed > bitmap.clear_count()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    areas.clear();
    const std::uint32_t last_block = bitmap.bit_count() - 1;
    const std::uint32_t count = extents.extent_count();
    if (count == 0) {
        areas.emplace_back(0, last_block);
        return;
    }
    for (std::uint32_t i = 0; i < count; ++i) {
        const ExtentDescriptor& extent = extents.GetExtent(i);
        if (extent.startBlock() == 0 || extent.blockCount() == 0 ||
            std::uint64_t(extent.startBlock()) + extent.blockCount() > bitmap.bit_count()) {
            Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        }
    }
    const ExtentDescriptor& last = extents.GetExtent(count - 1);
    const BlockArea behind(last.startBlock() + last.blockCount(), last_block);
    if (!behind.IsEmpty()) areas.push_back(behind);
    const BlockArea before(0, extents.GetExtent(0).startBlock() - 1);
    if (!before.IsEmpty()) areas.push_back(before);
}

void AllocationFile::SearchFreeSpace::Step(std::uint32_t unit) {
    if (needed == 0 || areas.empty()) return;
    Bitmap& bitmap = file.bitmap();
    result = bitmap.FindFree(needed, areas.front());
    if (result.IsEmpty()) return;
    result = result.KeepFirst(needed);
    if (unit != kNoUnit && unit != 0) result = result.KeepFirst(result.GetCount() - result.GetCount() % unit);
    bitmap.SetRange(result, true);
    // A run shorter than the unit is no allocation at all.
    if (result.IsEmpty()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    file.found.AddArea(result);
    needed -= result.GetCount();
}

void AllocationFile::SearchFreeSpace::NextArea() {
    if (needed == 0 || areas.empty()) return;
    if (result.IsEmpty()) {
        areas.pop_front();
        return;
    }
    const BlockArea taken = BlockArea::Intersect(result, areas.front());
    if (taken.IsEmpty()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    const BlockArea rest(taken.last + 1, areas.front().last);
    if (rest.IsEmpty() || taken.last == areas.front().last) {
        areas.pop_front();
    } else {
        areas.front() = rest;
    }
    result = BlockArea();
}

void AllocationFile::SearchFreeSpace::Run(std::uint32_t unit) {
    while (needed != 0 && !areas.empty()) {
        Step(unit);
        NextArea();
    }
}

}  // namespace hfsplus
