#pragma once
// A bit array whose length is known only at run time, kept in whole 8-byte
// words so that users may scan it a word at a time. Bit n is bit n % 8 of
// byte n / 8. Users change bits on the bytes themselves, after check_index.
#include <cstdint>

namespace resizer {

class Bitmap {
public:
    Bitmap() = default;
    ~Bitmap();
    Bitmap(const Bitmap&) = delete;
    Bitmap& operator=(const Bitmap&) = delete;

    // The bytes that `bits` bits take: none for 0, else whole words.
    static std::uint64_t StorageBytes(std::uint64_t bits);

    // Drops the old bits and starts over with `bits` zero bits, in at
    // least `minimum_bytes` bytes of storage.
    void reset(std::uint64_t bits, std::uint64_t minimum_bytes);
    // Becomes a copy of `other`'s bits.
    void assign(const Bitmap& other);

    // Raises RESIZER_INTERNAL for a bit at or beyond the end.
    void check_index(std::uint64_t n) const;
    bool test(std::uint64_t n) const;
    void set(std::uint64_t n);
    void clear(std::uint64_t n);

    std::uint64_t size_in_bytes() const { return bytes_; }

    std::uint64_t bits = 0;
    unsigned char* storage = nullptr;

private:
    void release();
    std::uint64_t bytes_ = 0;
};

}  // namespace resizer
