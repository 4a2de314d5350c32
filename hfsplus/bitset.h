#pragma once
// A plain array of bits, most significant bit first in each byte, as the
// allocation file and the B-tree maps lay them out on the disk. It counts
// its set bits, so that the free count needs no scan.
#include <cstdint>
#include <vector>

#include "hfsplus/area_limits.h"

namespace hfsplus {

class Bitset {
public:
    // `bits` clear bits.
    explicit Bitset(std::uint32_t bits);
    virtual ~Bitset() = default;

    // FILE_CORRUPT for a bit at or past the count.
    virtual void SetBit(std::uint32_t index, bool value);
    // Every bit of the area; FILE_CORRUPT for an area that leaves the bits.
    virtual void SetRange(const BlockArea& area, bool value);
    // The lowest clear bit; none gives 0xFFFFFFFF.
    virtual std::uint32_t FindFirstClear();
    // The run of clear bits from the lowest one; none gives the empty area.
    virtual BlockArea FindFirstClearRun();

    bool GetBit(std::uint32_t index) const;  // FILE_CORRUPT past the count
    std::uint32_t bit_count() const { return bits; }
    std::uint32_t byte_count() const { return bytes_count; }
    std::uint32_t set_count() const { return set_bits; }
    std::uint32_t clear_count() const { return bits - set_bits; }
    const unsigned char* data() const { return bytes.data(); }

protected:
    // The mask of the bits of byte `byte` that lie in `area` and inside the count.
    unsigned char MaskIn(std::uint32_t byte, const BlockArea& area) const;
    void CheckArea(const BlockArea& area) const;  // FILE_CORRUPT outside [0, bits - 1]

    std::vector<unsigned char> bytes;
    std::uint32_t bytes_count;
    std::uint32_t set_bits = 0;
    std::uint32_t bits;
    std::uint32_t first_clear = 0;  // no clear bit lies below it; 0xFFFFFFFF when unknown
};

// The number of set bits of a byte.
unsigned CountBits(unsigned char byte);

}  // namespace hfsplus
