#include "hfsplus/journal.h"

#include <cstring>

#include "hfsplus/hfsplus_driver.h"
#include "hfsplus/journal_transaction.h"
#include "hfsplus/journaled_object.h"
#include "hfsplus/replay_map.h"
#include "loader/common/raise.h"

namespace hfsplus {

namespace {

constexpr std::uint64_t kSmallestJournal = 0x800000;   // 8 MiB
constexpr std::uint64_t kLargestJournal = 0x20000000;  // 512 MiB
constexpr std::uint32_t kSmallestBlockList = 4096;
constexpr std::uint32_t kLargestBlockList = HFSPlusJournalBuffer::kBufferBytes;

}  // namespace

std::uint32_t JournalChecksum(const void* bytes, std::size_t size) {
    const unsigned char* byte = static_cast<const unsigned char*>(bytes);
    std::uint32_t sum = 0;
    for (std::size_t i = 0; i < size; ++i) sum = (sum << 8) ^ (sum + byte[i]);
    return ~sum;
}

HFSPlusJournal::HFSPlusJournal(HFSPlusDriver* owner, const VolumeHeader& header, HFSPlusReplayItemsMap& items)
    : driver(owner),
      attributes(header.attributes()),
      info_block(header.journalInfoBlock()),
      block_size(header.blockSize()),
      total_blocks(header.totalBlocks()),
      replay_items(&items) {
    if ((attributes & kVolumeJournaled) == 0 || info_block == 0) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
    }
    read_info();
    check_info();
    // A journal that was never initialised holds nothing to replay. Making
    // its header is a change, the write path's; until then nothing of it is
    // read, and reads are plain.
    if ((journal_info.flags() & JournalInfoBlock::kNeedInit) != 0) {
        clean = true;
        needs_init = true;
        return;
    }
    read_header();
    check_header();
    if (journal_header.start() == journal_header.end()) {
        clean = true;
        return;
    }
    Replay(false);
}

HFSPlusJournal::~HFSPlusJournal() = default;

void HFSPlusJournal::read_info() {
    const std::uint32_t sector = driver->sector_size;
    if (sector == 0 || block_size < sector || block_size % sector != 0) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    const std::uint64_t first = std::uint64_t(info_block) * (block_size / sector);
    driver->read_volume_bytes(first * sector, &journal_info, sizeof(journal_info));
}

void HFSPlusJournal::check_info() const {
    const std::uint32_t flags = journal_info.flags();
    if ((flags & JournalInfoBlock::kOnOtherDevice) != 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
    if ((flags & JournalInfoBlock::kInFS) == 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    // Both below 2^64: block size and block count are 32-bit each.
    const std::uint64_t volume_bytes = std::uint64_t(total_blocks) * block_size;
    const std::uint64_t offset = journal_info.offset();
    const std::uint64_t size = journal_info.size();
    if (offset < block_size || offset >= volume_bytes) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    if (size < kSmallestJournal || size > kLargestJournal || size >= volume_bytes || offset + size >= volume_bytes) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
}

void HFSPlusJournal::read_header() {
    if (journal_info.offset() % driver->sector_size != 0) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
    }
    driver->read_volume_bytes(journal_info.offset(), &journal_header, sizeof(journal_header));
}

void HFSPlusJournal::check_header() const {
    const JournalHeader& header = journal_header;
    // A journal written by a big-endian host shows both words swapped; it
    // isn't converted.
    if (header.magic() != JournalHeader::kMagic || header.endian() != JournalHeader::kEndian) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    if (header.size() != journal_info.size()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    if (header.blhdr_size() < kSmallestBlockList || header.blhdr_size() > kLargestBlockList) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    if (header.jhdr_size() != driver->sector_size) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    if (header.start() < header.jhdr_size() || header.start() >= header.size()) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    if (header.end() < header.jhdr_size() || header.end() >= header.size()) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    JournalHeader summed = header;
    summed.checksum_.set(0);
    if (JournalChecksum(&summed, sizeof(summed)) != header.checksum()) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
}

void HFSPlusJournal::Replay(bool commit) {
    const bool holds_transactions = (attributes & kVolumeJournaled) != 0 && info_block != 0 &&
                                    journal_header.start() != journal_header.end();
    if (!holds_transactions || (!commit && !replay_items->empty())) return;
    if (commit && driver->read_only != 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_READ_ONLY);
    HFSPlusJournalBuffer buffer(driver, journal_header, journal_info, block_size);
    const std::uint32_t sector = driver->sector_size;
    buffer.info_sectors = SectorArea::FromCount(std::uint64_t(info_block) * (block_size / sector), block_size / sector);
    buffer.journal_sectors = SectorArea::FromCount(journal_info.offset() / sector, journal_info.size() / sector);
    HFSPlusTransactionLightIterator walk_end(journal_info.offset() + journal_header.end());
    HFSPlusTransactionIterator transaction(buffer, walk_end.GetPosition(), replay_items, commit, &dirty_areas);
    while (transaction.GetPosition() != walk_end.GetPosition()) {
        transaction.Transaction()->Apply();
        transaction.Step();
    }
    if (commit) mark_empty();
}

SectorArea HFSPlusJournal::header_area() const {
    const std::uint64_t offset = journal_info.offset();
    if (offset % driver->sector_size != 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
    return SectorArea::FromCount(offset / driver->sector_size, 1);
}

// The rest of the header's sector is zero, as a fresh journal's is.
void HFSPlusJournal::write_header() {
    journal_header.checksum_.set(0);
    journal_header.checksum_.set(JournalChecksum(&journal_header, sizeof(journal_header)));
    GetBuffer sector(driver);
    sector.SetArea(header_area());
    sector.SetSize(sizeof(journal_header));
    sector.Write(&journal_header, sizeof(journal_header));
    dirty_areas.insert(header_area());
}

void HFSPlusJournal::mark_empty() {
    journal_header.start_.set(journal_header.end());
    write_header();
    clean = true;
}

void HFSPlusJournal::Initialise() {
    if (driver->read_only != 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
    const std::uint32_t sector = driver->sector_size;
    JournalHeader fresh{};
    fresh.magic_.set(JournalHeader::kMagic);
    fresh.endian_.set(JournalHeader::kEndian);
    fresh.start_.set(sector);
    fresh.end_.set(sector);
    fresh.blhdr_size_.set(HFSPlusJournalBuffer::kBufferBytes);
    fresh.size_.set(journal_info.size());
    fresh.jhdr_size_.set(sector);
    journal_header = fresh;
    write_header();
    journal_info.flags_.set(journal_info.flags() & ~JournalInfoBlock::kNeedInit);
    const SectorArea info_area = SectorArea::FromCount(std::uint64_t(info_block) * (block_size / sector), 1);
    GetBuffer info(driver);
    info.SetArea(info_area);
    info.SetSize(sizeof(journal_info));
    info.Write(&journal_info, sizeof(journal_info));
    dirty_areas.insert(info_area);
    needs_init = false;
    clean = true;
}

void HFSPlusJournal::FlushDirtyAreas() {
    std::set<SectorArea> header_areas;
    const SectorArea header = header_area();
    for (auto it = dirty_areas.begin(); it != dirty_areas.end();) {
        if (SectorArea::Intersect(*it, header).IsEmpty()) {
            ++it;
        } else {
            header_areas.insert(*it);
            it = dirty_areas.erase(it);
        }
    }
    driver->FlushAreas(dirty_areas);
    // What the device holds back in its own cache goes out before the
    // header that says the journal is empty.
    driver->device->Transfer(Fdisk::kTransferFlush, 0, nullptr, 0);
    driver->FlushAreas(header_areas);
}

}  // namespace hfsplus
