#include "fsdriver/resizer_number_array.h"

#include <cstring>

#include "loader/common/raise.h"
#include "loader/common/error_codes.h"
#include "loader/common/resizer_errors.h"

namespace resizer {

namespace {

std::uint8_t WidthOf(std::uint64_t largest) {
    std::uint8_t width = 0;
    for (; largest != 0; largest >>= 1) ++width;
    return width;
}

}  // namespace

NumberArray::~NumberArray() { release(); }

std::uint64_t NumberArray::StorageBytes(std::uint64_t count, std::uint8_t width) {
    return (width * (count - 1) / 8 + 16) / 8 * 8;
}

void NumberArray::release() {
    delete[] storage;
    storage = nullptr;
}

void NumberArray::reset(std::uint64_t new_count, std::uint64_t new_largest) {
    if (new_count == 0 || new_largest == 0) {
        release();
        count = 0;
        width = 0;
        mask = 0;
        largest = 0;
        return;
    }
    std::uint8_t new_width = WidthOf(new_largest);
    // The bit offset of the last element must not wrap.
    if (new_count - 1 > (UINT64_MAX - 128) / new_width) throw NotEnoughMemory(ERROR_TAG);
    if (storage == nullptr || new_count != count || new_width != width) {
        release();
        storage = new unsigned char[StorageBytes(new_count, new_width)];
    }
    count = new_count;
    width = new_width;
    mask = width == 64 ? UINT64_MAX : (std::uint64_t{1} << width) - 1;
    largest = new_largest;
    std::memset(storage, 0, StorageBytes(count, width));
}

std::uint64_t NumberArray::get(std::uint64_t index) const {
    if (count == 0) Common::Raise(ERROR_TAG, Common::RESIZER_INTERNAL, "Internal error: attempt to get element from empty array");
    if (index >= count) Common::Raise(ERROR_TAG, Common::RESIZER_INTERNAL, "Internal error: invalid array index to get");
    std::uint64_t bit = width * index;
    const unsigned char* at = storage + bit / 8;
    unsigned shift = bit % 8;
    // Gather the bytes the element touches, lowest first.
    std::uint64_t value = at[0] >> shift;
    for (unsigned taken = 8 - shift, i = 1; taken < width; taken += 8, ++i) {
        value |= static_cast<std::uint64_t>(at[i]) << taken;
    }
    return value & mask;
}

void NumberArray::set(std::uint64_t index, std::uint64_t value) {
    if (count == 0) Common::Raise(ERROR_TAG, Common::RESIZER_INTERNAL, "Internal error: attempt to set element in empty array");
    if (index >= count) Common::Raise(ERROR_TAG, Common::RESIZER_INTERNAL, "Internal error: invalid array index to set");
    if (value > largest) Common::Raise(ERROR_TAG, Common::RESIZER_INTERNAL, "Internal error: invalid array value to set");
    std::uint64_t bit = width * index;
    unsigned char* at = storage + bit / 8;
    unsigned shift = bit % 8;
    // Byte by byte: keep the bits outside the element, replace those inside.
    unsigned done = 0;
    for (unsigned i = 0; done < width; ++i) {
        unsigned low = i == 0 ? shift : 0;
        unsigned room = 8 - low;
        unsigned part = width - done < room ? width - done : room;
        unsigned field = ((1u << part) - 1) << low;
        unsigned bits = static_cast<unsigned>((value >> done) << low) & field;
        at[i] = static_cast<unsigned char>((at[i] & ~field) | bits);
        done += part;
    }
}

}  // namespace resizer
