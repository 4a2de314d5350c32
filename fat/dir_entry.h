#pragma once
// The 32-byte directory entry in its two forms: the short entry, which names
// a file and holds its first cluster, size and times, and the long entry,
// which carries 13 UTF-16 units of a long name and stands in front of its
// short entry. The fields keep their published names and their disk byte
// order; the methods convert at each access, so an entry is used right
// where it lies in a cached block.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "loader/common/byte_order.h"

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

// The long form. Its 13 units lie in three pieces around the attribute byte
// and the cluster word, which must stay where the short form has them so
// that old systems skip the entry.
struct LongDirEntry {
    std::uint8_t LDIR_Ord;
    Common::le16 LDIR_Name1[5];
    std::uint8_t LDIR_Attr;
    std::uint8_t LDIR_Type;
    std::uint8_t LDIR_Chksum;
    Common::le16 LDIR_Name2[6];
    Common::le16 LDIR_FstClusLO;
    Common::le16 LDIR_Name3[2];

    // The place of this piece in its name, counted from 1, with kLastLong on
    // the piece that ends it.
    std::uint8_t order() const { return LDIR_Ord; }
    // The checksum of the short name this piece belongs to.
    std::uint8_t checksum() const { return LDIR_Chksum; }
    void set_checksum(std::uint8_t sum) { LDIR_Chksum = sum; }
    // Always 0 in a long entry; anything else is not one.
    std::uint16_t first_cluster() const { return LDIR_FstClusLO.get(); }
    // Makes this a long entry at `order` of the name whose short entry has
    // the checksum `sum`; the units are set one by one.
    void set_header(std::uint8_t order, std::uint8_t sum) {
        LDIR_Ord = order;
        LDIR_Attr = fat_entry::kLongName;
        LDIR_Type = 0;
        LDIR_Chksum = sum;
        LDIR_FstClusLO.set(0);
    }
    // Unit `k` of the 13, k below fat_entry::kUnitsPerLong.
    char16_t unit(std::uint32_t k) const { return static_cast<char16_t>(unit_field(k).get()); }
    void set_unit(std::uint32_t k, char16_t value) { unit_field(k).set(value); }

private:
    const Common::le16& unit_field(std::uint32_t k) const {
        return k < 5 ? LDIR_Name1[k] : k < 11 ? LDIR_Name2[k - 5] : LDIR_Name3[k - 11];
    }
    Common::le16& unit_field(std::uint32_t k) {
        return k < 5 ? LDIR_Name1[k] : k < 11 ? LDIR_Name2[k - 5] : LDIR_Name3[k - 11];
    }
};

static_assert(sizeof(LongDirEntry) == 32, "a long entry is 32 bytes");
static_assert(offsetof(LongDirEntry, LDIR_Ord) == 0, "LDIR_Ord");
static_assert(offsetof(LongDirEntry, LDIR_Name1) == 1, "LDIR_Name1");
static_assert(offsetof(LongDirEntry, LDIR_Attr) == 11, "LDIR_Attr");
static_assert(offsetof(LongDirEntry, LDIR_Type) == 12, "LDIR_Type");
static_assert(offsetof(LongDirEntry, LDIR_Chksum) == 13, "LDIR_Chksum");
static_assert(offsetof(LongDirEntry, LDIR_Name2) == 14, "LDIR_Name2");
static_assert(offsetof(LongDirEntry, LDIR_FstClusLO) == 26, "LDIR_FstClusLO");
static_assert(offsetof(LongDirEntry, LDIR_Name3) == 28, "LDIR_Name3");

// The short form, and the entry as the directory walks it: the first byte
// and the attributes tell which form and state an entry has.
struct DirEntry {
    unsigned char DIR_Name[11];
    std::uint8_t DIR_Attr;
    std::uint8_t DIR_NTRes;  // the case flags
    std::uint8_t DIR_CrtTimeTenth;
    Common::le16 DIR_CrtTime;
    Common::le16 DIR_CrtDate;
    Common::le16 DIR_LstAccDate;
    Common::le16 DIR_FstClusHI;
    Common::le16 DIR_WrtTime;
    Common::le16 DIR_WrtDate;
    Common::le16 DIR_FstClusLO;
    Common::le32 DIR_FileSize;

    // --- state, for either form ---
    unsigned char first_byte() const { return DIR_Name[0]; }
    bool is_end() const { return DIR_Name[0] == 0; }
    bool is_deleted() const { return DIR_Name[0] == fat_entry::kDeleted; }
    void mark_end() { DIR_Name[0] = 0; }
    void mark_deleted() { DIR_Name[0] = fat_entry::kDeleted; }
    bool is_long() const { return DIR_Attr == fat_entry::kLongName; }
    bool is_directory() const { return (DIR_Attr & fat_entry::kDirectory) != 0; }
    // Neither directory nor label: something that opens as a file.
    bool is_plain_file() const { return (DIR_Attr & (fat_entry::kDirectory | fat_entry::kVolumeLabel)) == 0; }

    // --- the short form ---
    // The 11 bytes of the short name: 8 of name, 3 of extension.
    const unsigned char* name() const { return DIR_Name; }
    unsigned char* name() { return DIR_Name; }
    std::uint8_t attributes() const { return DIR_Attr; }
    void set_attributes(std::uint8_t value) { DIR_Attr = value; }
    std::uint8_t case_flags() const { return DIR_NTRes; }
    void set_case_flags(std::uint8_t value) { DIR_NTRes = value; }
    // The high word counts only on FAT32, which alone has a root cluster.
    std::uint32_t cluster(bool wide) const {
        std::uint32_t low = DIR_FstClusLO.get();
        return wide ? low | std::uint32_t(DIR_FstClusHI.get()) << 16 : low;
    }
    void set_cluster(std::uint32_t value) {
        DIR_FstClusLO.set(static_cast<std::uint16_t>(value));
        DIR_FstClusHI.set(static_cast<std::uint16_t>(value >> 16));
    }
    std::uint32_t size() const { return DIR_FileSize.get(); }
    void set_size(std::uint32_t value) { DIR_FileSize.set(value); }
    std::uint8_t create_tenths() const { return DIR_CrtTimeTenth; }
    void set_create_tenths(std::uint8_t value) { DIR_CrtTimeTenth = value; }
    std::uint16_t create_time_value() const { return DIR_CrtTime.get(); }
    std::uint16_t create_date_value() const { return DIR_CrtDate.get(); }
    std::uint16_t access_date_value() const { return DIR_LstAccDate.get(); }
    std::uint16_t modify_time_value() const { return DIR_WrtTime.get(); }
    std::uint16_t modify_date_value() const { return DIR_WrtDate.get(); }
    void set_create_time(std::uint16_t value) { DIR_CrtTime.set(value); }
    void set_create_date(std::uint16_t value) { DIR_CrtDate.set(value); }
    void set_access_date(std::uint16_t value) { DIR_LstAccDate.set(value); }
    void set_modify_time(std::uint16_t value) { DIR_WrtTime.set(value); }
    void set_modify_date(std::uint16_t value) { DIR_WrtDate.set(value); }
    // Everything of `other` but its name: what a rename carries over.
    void copy_all_but_name(const DirEntry& other) {
        std::memcpy(&DIR_Attr, &other.DIR_Attr, sizeof(DirEntry) - offsetof(DirEntry, DIR_Attr));
    }

    // --- the long form: the same 32 bytes ---
    const LongDirEntry& long_form() const { return *reinterpret_cast<const LongDirEntry*>(this); }
    LongDirEntry& long_form() { return *reinterpret_cast<LongDirEntry*>(this); }
};

static_assert(sizeof(DirEntry) == 32, "a directory entry is 32 bytes");
static_assert(offsetof(DirEntry, DIR_Name) == 0, "DIR_Name");
static_assert(offsetof(DirEntry, DIR_Attr) == 11, "DIR_Attr");
static_assert(offsetof(DirEntry, DIR_NTRes) == 12, "DIR_NTRes");
static_assert(offsetof(DirEntry, DIR_CrtTimeTenth) == 13, "DIR_CrtTimeTenth");
static_assert(offsetof(DirEntry, DIR_CrtTime) == 14, "DIR_CrtTime");
static_assert(offsetof(DirEntry, DIR_CrtDate) == 16, "DIR_CrtDate");
static_assert(offsetof(DirEntry, DIR_LstAccDate) == 18, "DIR_LstAccDate");
static_assert(offsetof(DirEntry, DIR_FstClusHI) == 20, "DIR_FstClusHI");
static_assert(offsetof(DirEntry, DIR_WrtTime) == 22, "DIR_WrtTime");
static_assert(offsetof(DirEntry, DIR_WrtDate) == 24, "DIR_WrtDate");
static_assert(offsetof(DirEntry, DIR_FstClusLO) == 26, "DIR_FstClusLO");
static_assert(offsetof(DirEntry, DIR_FileSize) == 28, "DIR_FileSize");
// The long form shares the attribute byte and the low cluster word.
static_assert(offsetof(LongDirEntry, LDIR_Attr) == offsetof(DirEntry, DIR_Attr), "attributes shared");
static_assert(offsetof(LongDirEntry, LDIR_FstClusLO) == offsetof(DirEntry, DIR_FstClusLO), "cluster shared");
