#pragma once
// One walk over the transactions of a journal. Each transaction is one
// block list: a header with the place and checksum of each block, followed
// in the ring by the blocks' data. Its blocks are checked first (when the
// list asks for checksums), then mapped: each block becomes an item of the
// replay map that says where on the volume it belongs and where in the
// journal its newest copy lies. A commit copies the blocks to their places
// in the cache instead.
#include <cstdint>
#include <memory>
#include <set>
#include <vector>

#include "fsdriver/aligned_buffer.h"
#include "hfsplus/area_limits.h"
#include "hfsplus/hfsplus_records.h"
#include "hfsplus/journal_ring.h"

namespace hfsplus {

class HFSPlusDriver;
class HFSPlusReplayItemsMap;

// What a walk needs, alive only while it runs: the ring, the journal's
// header and info block, and two buffers of 32 KiB, one for a block list
// and one to gather a block for its checksum.
class HFSPlusJournalBuffer {
public:
    static constexpr std::uint32_t kBufferBytes = 0x8000;

    HFSPlusJournalBuffer(HFSPlusDriver* driver, const JournalHeader& header, const JournalInfoBlock& info,
                         std::uint32_t block_size);

    unsigned char* list() { return list_storage.data(); }
    unsigned char* gather() { return gather_storage.data(); }

    HFSPlusDriver* driver;  // not owned
    const JournalHeader* journal_header;
    const JournalInfoBlock* journal_info;
    HFSPlusJournalCircularBuffer ring;
    // The journal's own sectors, its info block's and its header and ring:
    // a transaction may not put a block there.
    SectorArea info_sectors;
    SectorArea journal_sectors;

private:
    // The device takes only buffers on sector boundaries.
    AlignedBuffer list_storage;
    AlignedBuffer gather_storage;
};

class HFSPlusTransaction {
public:
    // Reads and checks the block list at the ring's position. FILE_CORRUPT
    // for a bad checksum of the list, or sizes that don't add up.
    HFSPlusTransaction(HFSPlusJournalBuffer& buffer, HFSPlusReplayItemsMap* replay_items, bool commit,
                       std::set<SectorArea>* dirty_areas);

    // Checks the blocks, then maps them; a block whose data doesn't match
    // its checksum makes the transaction bad and maps nothing of it.
    void Apply();
    bool IsBad() const { return bad; }
    // The bytes of the ring that the transaction takes: list and blocks.
    std::uint64_t Length() const { return header().bytes_used(); }

private:
    const BlockListHeader& header() const { return *reinterpret_cast<const BlockListHeader*>(list); }
    const BlockInfo& entry(unsigned index) const {
        return *reinterpret_cast<const BlockInfo*>(list + (index + 1) * sizeof(BlockInfo));
    }
    unsigned count() const { return header().num_blocks(); }
    void read_list();
    void check_sizes() const;
    // FILE_CORRUPT for a block whose sectors leave the volume or fall on
    // the journal itself: replayed, it would overwrite what the walk reads.
    void check_target(const BlockInfo& block) const;
    void check_pass();
    void map_pass();
    std::uint32_t gather_block(std::uint32_t bsize);
    unsigned char* piece_buffer();

    HFSPlusDriver* driver;  // not owned
    const JournalHeader* journal_header;
    HFSPlusJournalCircularBuffer* ring;
    const HFSPlusJournalBuffer* walk;
    unsigned char* list;
    HFSPlusReplayItemsMap* replay_items;  // not owned
    bool commit;
    std::set<SectorArea>* dirty_areas;
    bool bad = false;
    unsigned char* gather;
    std::vector<std::uint32_t> checksums;  // by entry, from the check pass
    std::unique_ptr<AlignedBuffer> piece;   // a commit's copy of one piece
};

// Positions of a walk, as volume byte offsets of a block list.
class HFSPlusTransactionBaseIterator {
public:
    virtual ~HFSPlusTransactionBaseIterator() = default;
    virtual std::uint64_t GetPosition() const = 0;
};

class HFSPlusTransactionLightIterator : public HFSPlusTransactionBaseIterator {
public:
    explicit HFSPlusTransactionLightIterator(std::uint64_t at) : position(at) {}
    std::uint64_t GetPosition() const override { return position; }

    std::uint64_t position;
};

// Walks from the ring's position to the end of the walk (the light
// iterator's position), one transaction at a time. The walk ends early,
// silently, at a bad transaction. It can't go on past the bytes that lie
// between the journal's start and end: a list whose sizes would carry it
// further is FILE_CORRUPT, so every walk ends.
class HFSPlusTransactionIterator : public HFSPlusTransactionLightIterator {
public:
    HFSPlusTransactionIterator(HFSPlusJournalBuffer& buffer, std::uint64_t walk_end, HFSPlusReplayItemsMap* items,
                               bool commit, std::set<SectorArea>* dirty_areas);
    std::uint64_t GetPosition() const override { return current; }
    HFSPlusTransaction* Transaction() const { return transaction.get(); }
    void Step();

private:
    void read_transaction();

    HFSPlusJournalBuffer& buffer;
    HFSPlusReplayItemsMap* replay_items;
    bool commit;
    std::set<SectorArea>* dirty_areas;
    std::uint64_t current;
    std::uint64_t walk_length;  // bytes from the start of the walk to its end
    std::uint64_t walked = 0;
    std::unique_ptr<HFSPlusTransaction> transaction;
};

}  // namespace hfsplus
