#pragma once
// A bit array that lies in an attribute and is read and written through
// that attribute, never copied whole into memory: the volume's cluster
// bitmap, the MFT's record bitmap and an index's buffer bitmap. Allocation
// is first-fit from a remembered cursor, below which no bit is clear.
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
};

class Bitmap {
public:
    virtual ~Bitmap() = default;
    Bitmap(const Bitmap&) = delete;
    Bitmap& operator=(const Bitmap&) = delete;

    // Takes up to `count` clear bits, appending them to `runs` in the order
    // found; `got` (when given) tells how many came. `extend`: the stream
    // grows at its end when the clear bits run out. `commit`: the taken
    // bits are written; without it only the cursor passes them.
    void allocate(std::vector<BitRun>& runs, std::uint64_t count, std::uint64_t* got, bool extend, bool commit);
    virtual void freeList(const std::vector<BitRun>& runs);
    virtual void freeBits(std::uint64_t first, std::uint64_t count);
    std::uint64_t freeCount();
    // Sets one bit and nothing else.
    void setBit(std::uint64_t bit);

protected:
    // The attribute (`type`, `name`) of `record`.
    Bitmap(NTFSDriver* driver, RecordRef record, std::uint32_t type, std::u16string name);
    virtual void onFreeRun(std::uint64_t, std::uint64_t) {}
    virtual bool isReserved(std::uint64_t) { return false; }

    NTFSDriver* driver_;
};

}  // namespace ntfs
