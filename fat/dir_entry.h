#pragma once
// One 32-byte directory entry as it stands on the disk, short or long form.
// The fields keep their disk byte order; every access converts, so the
// struct can lie anywhere in a cached block.
#include <cstdint>
#include <cstring>

namespace fat_entry {

constexpr unsigned char kDeleted = 0xE5;
constexpr unsigned char kKanjiE5 = 0x05;  // a first byte 0xE5 that is a real character
constexpr std::uint8_t kReadOnly = 0x01;
constexpr std::uint8_t kHidden = 0x02;
constexpr std::uint8_t kSystem = 0x04;
constexpr std::uint8_t kVolumeLabel = 0x08;
constexpr std::uint8_t kDirectory = 0x10;
constexpr std::uint8_t kArchive = 0x20;
constexpr std::uint8_t kLongName = 0x0F;
constexpr std::uint8_t kLastLong = 0x40;  // order byte of the long entry that ends the name
constexpr std::uint8_t kLowerBase = 0x08;  // case flags
constexpr std::uint8_t kLowerExtension = 0x10;
constexpr std::uint32_t kUnitsPerLong = 13;

}  // namespace fat_entry

struct DirEntry {
    unsigned char name[11];
    unsigned char attr;
    unsigned char case_flags;
    unsigned char create_tenths;
    unsigned char create_time[2];
    unsigned char create_date[2];
    unsigned char access_date[2];
    unsigned char cluster_high[2];
    unsigned char modify_time[2];
    unsigned char modify_date[2];
    unsigned char cluster_low[2];
    unsigned char file_size[4];

    static std::uint16_t get16(const unsigned char* at) { return std::uint16_t(at[0] | at[1] << 8); }
    static void put16(unsigned char* at, std::uint32_t value) {
        at[0] = static_cast<unsigned char>(value);
        at[1] = static_cast<unsigned char>(value >> 8);
    }

    unsigned char first_byte() const { return name[0]; }
    bool is_end() const { return name[0] == 0; }
    bool is_deleted() const { return name[0] == fat_entry::kDeleted; }
    bool is_long() const { return attr == fat_entry::kLongName; }
    bool is_directory() const { return (attr & fat_entry::kDirectory) != 0; }
    // Neither directory nor label: something that opens as a file.
    bool is_plain_file() const { return (attr & (fat_entry::kDirectory | fat_entry::kVolumeLabel)) == 0; }

    // The high word counts only on FAT32, which alone has a root cluster.
    std::uint32_t cluster(bool wide) const {
        std::uint32_t low = get16(cluster_low);
        return wide ? low | std::uint32_t(get16(cluster_high)) << 16 : low;
    }
    void set_cluster(std::uint32_t value) {
        put16(cluster_low, value);
        put16(cluster_high, value >> 16);
    }
    std::uint32_t size() const {
        return std::uint32_t(file_size[0]) | std::uint32_t(file_size[1]) << 8 | std::uint32_t(file_size[2]) << 16 |
               std::uint32_t(file_size[3]) << 24;
    }
    void set_size(std::uint32_t value) {
        for (int i = 0; i < 4; ++i) file_size[i] = static_cast<unsigned char>(value >> (8 * i));
    }
    std::uint16_t create_time_value() const { return get16(create_time); }
    std::uint16_t create_date_value() const { return get16(create_date); }
    std::uint16_t access_date_value() const { return get16(access_date); }
    std::uint16_t modify_time_value() const { return get16(modify_time); }
    std::uint16_t modify_date_value() const { return get16(modify_date); }

    // --- the long form ---
    std::uint8_t order() const { return name[0]; }
    std::uint8_t long_checksum() const { return create_tenths; }
    // Unit `k` (0 to 12) of the 13 that a long entry carries.
    char16_t long_unit(std::uint32_t k) const {
        const unsigned char* base = reinterpret_cast<const unsigned char*>(this);
        return static_cast<char16_t>(get16(base + unit_offset(k)));
    }
    void set_long_unit(std::uint32_t k, char16_t unit) {
        put16(reinterpret_cast<unsigned char*>(this) + unit_offset(k), unit);
    }
    static std::uint32_t unit_offset(std::uint32_t k) { return k < 5 ? 1 + 2 * k : k < 11 ? 14 + 2 * (k - 5) : 28 + 2 * (k - 11); }
};

static_assert(sizeof(DirEntry) == 32, "a directory entry is 32 bytes");
