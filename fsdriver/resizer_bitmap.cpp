#include "fsdriver/resizer_bitmap.h"

#include <algorithm>
#include <cstring>

#include "loader/common/raise.h"
#include "loader/common/error_codes.h"

namespace resizer {

Bitmap::~Bitmap() { release(); }

std::uint64_t Bitmap::StorageBytes(std::uint64_t bits) {
    if (bits == 0) return 0;
    return ((bits - 1) / 8) / 8 * 8 + 8;
}

void Bitmap::release() {
    delete[] storage;
    storage = nullptr;
    bytes_ = 0;
}

void Bitmap::reset(std::uint64_t new_bits, std::uint64_t minimum_bytes) {
    release();
    bits = 0;
    std::uint64_t wanted = std::max(StorageBytes(new_bits), minimum_bytes);
    if (wanted != 0) {
        storage = new unsigned char[wanted];
        std::memset(storage, 0, wanted);
        bytes_ = wanted;
    }
    bits = new_bits;
}

void Bitmap::assign(const Bitmap& other) {
    if (&other == this) return;
    reset(other.bits, other.bytes_);
    if (bytes_ != 0) std::memcpy(storage, other.storage, bytes_);
}

void Bitmap::check_index(std::uint64_t n) const {
    if (n >= bits) Common::Raise(ERROR_TAG, Common::RESIZER_INTERNAL, "Internal error: invalid bitmap index");
}

bool Bitmap::test(std::uint64_t n) const {
    check_index(n);
    return (storage[n / 8] >> (n % 8) & 1) != 0;
}

void Bitmap::set(std::uint64_t n) {
    check_index(n);
    storage[n / 8] = static_cast<unsigned char>(storage[n / 8] | 1u << (n % 8));
}

void Bitmap::clear(std::uint64_t n) {
    check_index(n);
    storage[n / 8] = static_cast<unsigned char>(storage[n / 8] & ~(1u << (n % 8)));
}

}  // namespace resizer
