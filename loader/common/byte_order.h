#pragma once
// Loads and stores of on-disk numbers in a stated byte order. Disk formats
// fix their byte order (FAT, NTFS and ext little-endian, HFS+ big-endian),
// and the bytes may lie at any alignment, so every on-disk number goes
// through these, one byte at a time, whatever the host is.
#include <cstdint>

namespace Common {

template <typename T, int Bytes>
inline T LoadLittle(const void* where) {
    const auto* bytes = static_cast<const unsigned char*>(where);
    T value = 0;
    for (int i = Bytes - 1; i >= 0; --i) value = static_cast<T>(value << 8 | bytes[i]);
    return value;
}

template <typename T, int Bytes>
inline T LoadBig(const void* where) {
    const auto* bytes = static_cast<const unsigned char*>(where);
    T value = 0;
    for (int i = 0; i < Bytes; ++i) value = static_cast<T>(value << 8 | bytes[i]);
    return value;
}

template <typename T, int Bytes>
inline void StoreLittle(void* where, T value) {
    auto* bytes = static_cast<unsigned char*>(where);
    for (int i = 0; i < Bytes; ++i) bytes[i] = static_cast<unsigned char>(value >> (8 * i));
}

template <typename T, int Bytes>
inline void StoreBig(void* where, T value) {
    auto* bytes = static_cast<unsigned char*>(where);
    for (int i = 0; i < Bytes; ++i) bytes[i] = static_cast<unsigned char>(value >> (8 * (Bytes - 1 - i)));
}

inline std::uint16_t LoadLE16(const void* where) { return LoadLittle<std::uint16_t, 2>(where); }
inline std::uint32_t LoadLE32(const void* where) { return LoadLittle<std::uint32_t, 4>(where); }
inline std::uint64_t LoadLE64(const void* where) { return LoadLittle<std::uint64_t, 8>(where); }
inline std::uint16_t LoadBE16(const void* where) { return LoadBig<std::uint16_t, 2>(where); }
inline std::uint32_t LoadBE32(const void* where) { return LoadBig<std::uint32_t, 4>(where); }
inline std::uint64_t LoadBE64(const void* where) { return LoadBig<std::uint64_t, 8>(where); }

inline void StoreLE16(void* where, std::uint16_t value) { StoreLittle<std::uint16_t, 2>(where, value); }
inline void StoreLE32(void* where, std::uint32_t value) { StoreLittle<std::uint32_t, 4>(where, value); }
inline void StoreLE64(void* where, std::uint64_t value) { StoreLittle<std::uint64_t, 8>(where, value); }
inline void StoreBE16(void* where, std::uint16_t value) { StoreBig<std::uint16_t, 2>(where, value); }
inline void StoreBE32(void* where, std::uint32_t value) { StoreBig<std::uint32_t, 4>(where, value); }
inline void StoreBE64(void* where, std::uint64_t value) { StoreBig<std::uint64_t, 8>(where, value); }

// A number field of an on-disk record: its bytes exactly as the disk holds
// them, read and written only through get() and set(), which convert. Its
// alignment is 1, so a record of such fields has no padding, lies at any
// address in a cached block, and its layout can be pinned with offsetof.
template <typename T, int Bytes, bool BigEndian>
class DiskNumber {
public:
    T get() const { return BigEndian ? LoadBig<T, Bytes>(bytes_) : LoadLittle<T, Bytes>(bytes_); }
    void set(T value) {
        if (BigEndian) {
            StoreBig<T, Bytes>(bytes_, value);
        } else {
            StoreLittle<T, Bytes>(bytes_, value);
        }
    }

private:
    unsigned char bytes_[Bytes];
};

using le16 = DiskNumber<std::uint16_t, 2, false>;
using le32 = DiskNumber<std::uint32_t, 4, false>;
using le64 = DiskNumber<std::uint64_t, 8, false>;
using be16 = DiskNumber<std::uint16_t, 2, true>;
using be32 = DiskNumber<std::uint32_t, 4, true>;
using be64 = DiskNumber<std::uint64_t, 8, true>;

static_assert(sizeof(le64) == 8 && alignof(le64) == 1, "disk numbers are bare bytes");

}  // namespace Common
