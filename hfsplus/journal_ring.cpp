#include "hfsplus/journal_ring.h"

#include "hfsplus/hfsplus_driver.h"
#include "loader/common/raise.h"

namespace hfsplus {

HFSPlusJournalCircularBuffer::HFSPlusJournalCircularBuffer(HFSPlusDriver* owner, std::uint64_t first,
                                                           std::uint64_t behind, std::uint64_t at,
                                                           std::uint32_t piece_limit)
    : driver(owner), begin(first), end(behind), position(at), chunk(piece_limit) {
    if (begin >= end || position < begin || position >= end || chunk == 0) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
}

void HFSPlusJournalCircularBuffer::Read(std::uint64_t bytes) {
    queue.clear();
    if (bytes >= Size()) Common::Raise(ERROR_TAG, Common::Failures::FILE_NO_MEMORY);
    const std::uint64_t first_part = bytes < end - position ? bytes : end - position;
    announce(first_part);
    if (bytes > first_part) announce(bytes - first_part);
}

void HFSPlusJournalCircularBuffer::announce(std::uint64_t bytes) {
    for (std::uint64_t done = 0; done < bytes;) {
        const std::uint64_t left = bytes - done;
        const std::uint32_t piece = left < chunk ? static_cast<std::uint32_t>(left) : chunk;
        queue.push_back({position + done, piece});
        done += piece;
    }
    move_on(bytes);
}

void HFSPlusJournalCircularBuffer::move_on(std::uint64_t bytes) {
    position += bytes;
    // Positions lie on whole sectors, so the last byte of the ring is never
    // one: reaching it is reaching the end.
    if (position >= end - 1) position = begin;
}

SectorArea HFSPlusJournalCircularBuffer::TakePiece(unsigned char* into, std::uint32_t& bytes) {
    if (queue.empty()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    const Piece piece = queue.front();
    queue.pop_front();
    const std::uint32_t sector = driver->sector_size;
    if (piece.offset % sector != 0 || piece.bytes % sector != 0 || piece.bytes == 0 || piece.bytes > chunk) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    const std::uint64_t first = piece.offset / sector;
    const std::uint64_t count = piece.bytes / sector;
    // Straight into the caller's buffer: no cached block of the journal's
    // own size is made that could sit across the grid of file data blocks.
    if (into != nullptr) driver->read_sectors(into, first, count, 1, first);
    bytes = piece.bytes;
    return SectorArea::FromCount(first, count);
}

void HFSPlusJournalCircularBuffer::MoveBack(std::uint64_t bytes) {
    queue.clear();
    if (bytes > Size()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    position = position - begin < bytes ? position + Size() - bytes : position - bytes;
}

}  // namespace hfsplus
