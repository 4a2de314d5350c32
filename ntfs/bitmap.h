#pragma once
// A bit array that lies in an attribute and is read and written through
// that attribute, never copied whole into memory: the volume's cluster
// bitmap, the MFT's record bitmap and an index's buffer bitmap. Allocation
// is first-fit from a remembered cursor, below which no bit is clear, so a
// run of allocations doesn't search the used front of the array again.
// Bit n is bit (n & 7) of byte (n >> 3), least significant first.
#include <cstdint>
#include <string>
#include <vector>

#include "ntfs/attribute.h"
#include "ntfs/file_record.h"

namespace ntfs {

class NTFSDriver;

// `count` bits from bit `first`.
struct BitRun {
    std::uint64_t first;
    std::uint64_t count;

    bool operator==(const BitRun& other) const { return first == other.first && count == other.count; }
};

class Bitmap {
public:
    virtual ~Bitmap() = default;
    Bitmap(const Bitmap&) = delete;
    Bitmap& operator=(const Bitmap&) = delete;

    // Takes up to `count` clear bits, appending them to `runs` in the order
    // found; `got` (when given) tells how many came, a shortfall is no
    // error. `extend`: the stream grows by 8 bytes at a time at its end when
    // the clear bits run out. `commit`: the taken bits are written; without
    // it only the cursor passes them, and the caller stores them later with
    // setBit. FILE_CORRUPT without the attribute, FILE_NO_MEMORY without a
    // chunk buffer.
    void allocate(std::vector<BitRun>& runs, std::uint64_t count, std::uint64_t* got, bool extend, bool commit);
    virtual void freeList(const std::vector<BitRun>& runs);
    // Clears `count` bits from `first`; the cursor comes back to `first`
    // when it lies below. Without memory for the bytes nothing is freed.
    virtual void freeBits(std::uint64_t first, std::uint64_t count);
    // The clear bits, counted once and then kept up to date.
    std::uint64_t freeCount();
    // Sets one bit and nothing else.
    void setBit(std::uint64_t bit);
    // The bit the next scan starts from.
    std::uint64_t cursor() const { return (chunk_ + byte_) * 8 + bit_; }

protected:
    // The attribute (`type`, `name`) of `record`, which the object holds.
    Bitmap(NTFSDriver* driver, RecordRef record, std::uint32_t type, std::u16string name);
    // The same on a record that its owner keeps alive longer than this object.
    Bitmap(NTFSDriver* driver, BaseFileRecord* record, std::uint32_t type, std::u16string name);
    // Told of each region of clear bits that freeCount meets.
    virtual void onFreeRun(std::uint64_t, std::uint64_t) {}
    // A clear bit that allocate must pass.
    virtual bool isReserved(std::uint64_t) { return false; }
    // Bits from `bits` on are no part of the array although the stream
    // holds them (the tail of the last byte of the cluster bitmap).
    void limitBits(std::uint64_t bits) { bit_limit_ = bits; }
    // The stream's size in bytes, checked so that its bits can be counted.
    std::uint64_t streamSize();

    NTFSDriver* driver_;

private:
    Attribute& stream();
    std::uint64_t limitOf(std::uint64_t size) const;
    void moveCursor(std::uint64_t bit);
    // One pass from the cursor up to `limit`, chunk by chunk.
    void scan(std::vector<unsigned char>& chunk, std::vector<BitRun>& runs, std::size_t first_new_run,
              std::uint64_t& wanted, std::uint64_t limit, bool commit);
    // Takes clear bits of a chunk of `length` bytes, from the cursor on.
    std::uint64_t takeBits(unsigned char* chunk, std::uint64_t length, std::uint64_t limit,
                           std::vector<BitRun>& runs, std::size_t first_new_run, std::uint64_t& wanted);
    // The clear bits from the cursor to `limit`, each region reported.
    std::uint64_t countClear(std::uint64_t limit);
    // The regions of clear bits of a count, bit by bit.
    struct FreeRegions {
        bool move_cursor;
        bool open = false;
        std::uint64_t start = 0;
        std::uint64_t count = 0;
        void pass(Bitmap& bitmap, std::uint64_t at, bool clear);
    };

    RecordRef record_guard_;
    BaseFileRecord* record_;
    AttributeRef attribute_guard_;
    std::uint32_t type_;
    std::u16string name_;
    std::uint64_t chunk_ = 0;
    std::uint32_t byte_ = 0;
    std::uint8_t bit_ = 0;
    std::uint64_t free_count_ = 0;
    bool free_count_known_ = false;
    std::uint64_t bit_limit_ = ~std::uint64_t(0);
};

}  // namespace ntfs
