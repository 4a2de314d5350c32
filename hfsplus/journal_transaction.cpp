#include "hfsplus/journal_transaction.h"

#include <cstring>

#include "hfsplus/hfsplus_driver.h"
#include "hfsplus/journal.h"
#include "hfsplus/journaled_object.h"
#include "hfsplus/replay_map.h"
#include "loader/common/raise.h"

namespace hfsplus {

namespace {

// The list header's checksum covers the header and the entry behind it.
constexpr std::size_t kListChecksumBytes = 32;
constexpr std::size_t kListChecksumOffset = 8;

}  // namespace

HFSPlusJournalBuffer::HFSPlusJournalBuffer(HFSPlusDriver* owner, const JournalHeader& header,
                                           const JournalInfoBlock& info, std::uint32_t block_size)
    : driver(owner),
      journal_header(&header),
      journal_info(&info),
      ring(owner, info.offset() + header.jhdr_size(), info.offset() + info.size(), info.offset() + header.start(),
           block_size),
      list_storage(kBufferBytes, owner->sector_size),
      gather_storage(kBufferBytes, owner->sector_size) {}

HFSPlusTransaction::HFSPlusTransaction(HFSPlusJournalBuffer& buffer, HFSPlusReplayItemsMap* items, bool commit_blocks,
                                       std::set<SectorArea>* areas)
    : driver(buffer.driver),
      journal_header(buffer.journal_header),
      ring(&buffer.ring),
      walk(&buffer),
      list(buffer.list()),
      replay_items(items),
      commit(commit_blocks),
      dirty_areas(areas),
      gather(buffer.gather()) {
    read_list();
    check_sizes();
}

void HFSPlusTransaction::read_list() {
    const std::uint32_t list_bytes = journal_header->blhdr_size();
    std::memset(list, 0, list_bytes);
    ring->Read(list_bytes);
    std::uint32_t filled = 0;
    ring->TakePiece(list, filled);
    unsigned char summed[kListChecksumBytes];
    std::memcpy(summed, list, sizeof(summed));
    std::memset(summed + kListChecksumOffset, 0, sizeof(std::uint32_t));
    if (JournalChecksum(summed, sizeof(summed)) != header().checksum()) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    const std::uint64_t needed = (std::uint64_t(count()) + 1) * sizeof(BlockInfo);
    if (needed > list_bytes) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    while (filled < needed) {
        std::uint32_t bytes = 0;
        ring->TakePiece(list + filled, bytes);
        filled += bytes;
    }
    ring->DropPieces();
}

// The list's sizes must describe exactly the bytes it takes in the ring,
// and every block must belong inside the volume: the walk relies on both
// to end where the journal's header says, and the map to hold only places
// that a read can ask for.
void HFSPlusTransaction::check_sizes() const {
    const std::uint32_t sector = driver->sector_size;
    const std::uint64_t used = header().bytes_used();
    if (used < journal_header->blhdr_size() || used >= ring->Size()) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    std::uint64_t blocks = 0;
    for (unsigned i = 1; i < count(); ++i) {
        const BlockInfo& block = entry(i);
        if (block.bsize() % sector != 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        blocks += block.bsize();
        if (block.bnum() != BlockInfo::kSkipped) check_target(block);
    }
    if (journal_header->blhdr_size() + blocks != used) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
}

void HFSPlusTransaction::check_target(const BlockInfo& block) const {
    const std::uint64_t sectors = block.bsize() / driver->sector_size;
    if (sectors == 0) return;
    if (block.bnum() >= driver->volume_sectors || sectors > driver->volume_sectors - block.bnum()) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    const SectorArea target = SectorArea::FromCount(block.bnum(), sectors);
    if (!SectorArea::Intersect(target, walk->info_sectors).IsEmpty() ||
        !SectorArea::Intersect(target, walk->journal_sectors).IsEmpty()) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
}

void HFSPlusTransaction::Apply() {
    if ((header().flags() & BlockListHeader::kCheckChecksums) != 0) {
        check_pass();
        if (bad) return;
        ring->MoveBack(header().bytes_used() - journal_header->blhdr_size());
    }
    map_pass();
}

void HFSPlusTransaction::check_pass() {
    checksums.assign(count(), 0);
    for (unsigned i = 1; i < count(); ++i) {
        const BlockInfo& block = entry(i);
        ring->Read(block.bsize());
        if (block.bnum() == BlockInfo::kSkipped) {
            checksums[i] = block.checksum();
            continue;
        }
        checksums[i] = JournalChecksum(gather, gather_block(block.bsize()));
        // A block that doesn't match was never completely written: the
        // transaction didn't finish, and neither it nor any behind it counts.
        if (checksums[i] != block.checksum()) {
            bad = true;
            return;
        }
    }
}

std::uint32_t HFSPlusTransaction::gather_block(std::uint32_t bsize) {
    std::uint32_t filled = 0;
    while (ring->HasPiece()) {
        const std::uint32_t piece = ring->queue.front().bytes;
        if (filled > HFSPlusJournalBuffer::kBufferBytes - 1 || piece > HFSPlusJournalBuffer::kBufferBytes - filled) {
            Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        }
        std::uint32_t bytes = 0;
        ring->TakePiece(gather + filled, bytes);
        filled += bytes;
    }
    if (filled < bsize) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    return filled;
}

void HFSPlusTransaction::map_pass() {
    const bool checked = (header().flags() & BlockListHeader::kCheckChecksums) != 0;
    for (unsigned i = 1; i < count(); ++i) {
        const BlockInfo& block = entry(i);
        ring->Read(block.bsize());
        if (checked && block.checksum() != checksums[i]) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        if (block.bnum() == BlockInfo::kSkipped) continue;
        std::uint64_t done = 0;
        while (ring->HasPiece()) {
            std::uint32_t bytes = 0;
            const SectorArea source = ring->TakePiece(commit ? piece_buffer() : nullptr, bytes);
            const SectorArea target = SectorArea::FromCount(block.bnum() + done, source.GetCount());
            if (commit) {
                GetBuffer place(driver);
                place.SetArea(target);
                place.Write(piece_buffer(), bytes);
                dirty_areas->insert(target);
            } else {
                replay_items->Insert(HFSPlusReplayItem(target, source));
            }
            done += source.GetCount();
        }
    }
}

// A piece is at most one allocation block, which may be larger than the
// walk's buffers.
unsigned char* HFSPlusTransaction::piece_buffer() {
    if (!piece) piece = std::make_unique<AlignedBuffer>(ring->chunk, driver->sector_size);
    return piece->data();
}

HFSPlusTransactionIterator::HFSPlusTransactionIterator(HFSPlusJournalBuffer& walk_buffer, std::uint64_t walk_end,
                                                       HFSPlusReplayItemsMap* items, bool commit_blocks,
                                                       std::set<SectorArea>* areas)
    : HFSPlusTransactionLightIterator(walk_end),
      buffer(walk_buffer),
      replay_items(items),
      commit(commit_blocks),
      dirty_areas(areas),
      current(walk_buffer.ring.position),
      walk_length(walk_buffer.ring.Distance(walk_buffer.ring.position, walk_end)) {
    read_transaction();
}

void HFSPlusTransactionIterator::read_transaction() {
    transaction = std::make_unique<HFSPlusTransaction>(buffer, replay_items, commit, dirty_areas);
    walked += transaction->Length();
    if (walked > walk_length) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
}

void HFSPlusTransactionIterator::Step() {
    const std::uint64_t walk_end = position;
    if (current == walk_end || buffer.ring.position == walk_end ||
        (transaction != nullptr && transaction->IsBad())) {
        current = walk_end;
        transaction.reset();
        return;
    }
    current = buffer.ring.position;
    read_transaction();
}

}  // namespace hfsplus
