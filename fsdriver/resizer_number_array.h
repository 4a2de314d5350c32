#pragma once
// Many small unsigned numbers packed side by side, each in just the bits its
// largest allowed value needs. Element i lies at bit width * i; the area
// ends with slack of at least 9 bytes behind the last element's first byte,
// so an element that straddles bytes is always inside it.
#include <cstdint>

namespace resizer {

class NumberArray {
public:
    NumberArray() = default;
    ~NumberArray();
    NumberArray(const NumberArray&) = delete;
    NumberArray& operator=(const NumberArray&) = delete;

    // The bytes that `count` elements of `width` bits take.
    static std::uint64_t StorageBytes(std::uint64_t count, std::uint8_t width);

    // `count` elements, all 0, each able to hold up to `largest`. A count or
    // a largest of 0 leaves the array empty.
    void reset(std::uint64_t count, std::uint64_t largest);

    // Raise RESIZER_INTERNAL for an empty array, an index at or beyond
    // `count`, or a value above `largest`.
    std::uint64_t get(std::uint64_t index) const;
    void set(std::uint64_t index, std::uint64_t value);

    std::uint64_t size_in_bytes() const { return storage == nullptr ? 0 : StorageBytes(count, width); }

    std::uint64_t count = 0;
    std::uint8_t width = 0;
    std::uint64_t mask = 0;
    std::uint64_t largest = 0;
    unsigned char* storage = nullptr;

private:
    void release();
};

}  // namespace resizer
