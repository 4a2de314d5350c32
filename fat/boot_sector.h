#pragma once
// Sector 0 of a FAT volume: the jump, the BIOS parameter block that every
// width shares, then one of two extensions. FAT12 and FAT16 go straight on
// to the drive number and label; FAT32 first puts its table size, root
// cluster and FSInfo place there, and its label lies further on. Which one
// stands is told by BPB_FATSz16: 0 only on FAT32. The fields keep their
// published names and their disk byte order; the methods convert, and the
// mount checks what they yield before it believes it.
#include <cstddef>
#include <cstdint>

#include "loader/common/byte_order.h"

// Fewer clusters than this make a volume FAT12, more FAT16, whatever the
// boot sector's type text says.
constexpr std::uint32_t kFAT12Line = 0xFF6;

// The part behind the shared block on FAT12 and FAT16.
struct FAT16BootExtension {
    std::uint8_t BS_DrvNum;
    std::uint8_t BS_Reserved1;
    std::uint8_t BS_BootSig;
    Common::le32 BS_VolID;
    unsigned char BS_VolLab[11];
    unsigned char BS_FilSysType[8];
    unsigned char BS_BootCode[448];
};

// The part behind the shared block on FAT32.
struct FAT32BootExtension {
    Common::le32 BPB_FATSz32;
    Common::le16 BPB_ExtFlags;
    Common::le16 BPB_FSVer;
    Common::le32 BPB_RootClus;
    Common::le16 BPB_FSInfo;
    Common::le16 BPB_BkBootSec;
    unsigned char BPB_Reserved[12];
    std::uint8_t BS_DrvNum;
    std::uint8_t BS_Reserved1;
    std::uint8_t BS_BootSig;
    Common::le32 BS_VolID;
    unsigned char BS_VolLab[11];
    unsigned char BS_FilSysType[8];
    unsigned char BS_BootCode32[420];

    // Sectors of one table.
    std::uint32_t fat_size() const { return BPB_FATSz32.get(); }
    // The only version there is, 0.0; anything else is not ours to read.
    std::uint16_t version() const { return BPB_FSVer.get(); }
    std::uint32_t root_cluster() const { return BPB_RootClus.get(); }
    // The table in use, when not every table is kept alike.
    std::uint32_t active_fat() const { return BPB_ExtFlags.get() & 0x0F; }
    // Whether every table is kept as a copy of the active one.
    bool mirrored() const { return (BPB_ExtFlags.get() & 0x80) == 0; }
    // Within the reserved sectors, or not there at all.
    std::uint32_t fsinfo_sector() const { return BPB_FSInfo.get(); }
};

struct FATBootSector {
    unsigned char BS_jmpBoot[3];
    unsigned char BS_OEMName[8];
    Common::le16 BPB_BytsPerSec;
    std::uint8_t BPB_SecPerClus;
    Common::le16 BPB_RsvdSecCnt;
    std::uint8_t BPB_NumFATs;
    Common::le16 BPB_RootEntCnt;
    Common::le16 BPB_TotSec16;
    std::uint8_t BPB_Media;
    Common::le16 BPB_FATSz16;
    Common::le16 BPB_SecPerTrk;
    Common::le16 BPB_NumHeads;
    Common::le32 BPB_HiddSec;
    Common::le32 BPB_TotSec32;
    union {
        FAT16BootExtension fat16;
        FAT32BootExtension fat32;
    };
    Common::le16 Signature_word;

    // A jump to boot code and the signature at the end: what every FAT
    // boot sector has, whatever else it says.
    bool has_boot_marks() const {
        return Signature_word.get() == 0xAA55 && (BS_jmpBoot[0] == 0xEB || BS_jmpBoot[0] == 0xE9);
    }
    std::uint32_t sectors_per_cluster() const { return BPB_SecPerClus; }
    std::uint32_t reserved_sectors() const { return BPB_RsvdSecCnt.get(); }
    std::uint32_t fat_count() const { return BPB_NumFATs; }
    // Entries of the fixed root of FAT12 and FAT16.
    std::uint32_t root_entries() const { return BPB_RootEntCnt.get(); }
    // The 32-bit count, or the 16-bit one where that is 0.
    std::uint64_t total_sectors() const {
        std::uint64_t total = BPB_TotSec32.get();
        return total != 0 ? total : BPB_TotSec16.get();
    }
    bool is_fat32() const { return BPB_FATSz16.get() == 0; }
    // Sectors of one table on FAT12 and FAT16.
    std::uint32_t fat_size16() const { return BPB_FATSz16.get(); }
    // The 11 bytes of the label, in whichever extension stands.
    const unsigned char* volume_label() const { return is_fat32() ? fat32.BS_VolLab : fat16.BS_VolLab; }
};

static_assert(sizeof(FAT16BootExtension) == 474, "the FAT12/16 extension runs from 36 to 510");
static_assert(sizeof(FAT32BootExtension) == 474, "the FAT32 extension runs from 36 to 510");
static_assert(sizeof(FATBootSector) == 512, "a boot sector is 512 bytes");
static_assert(offsetof(FATBootSector, BS_jmpBoot) == 0, "BS_jmpBoot");
static_assert(offsetof(FATBootSector, BS_OEMName) == 3, "BS_OEMName");
static_assert(offsetof(FATBootSector, BPB_BytsPerSec) == 11, "BPB_BytsPerSec");
static_assert(offsetof(FATBootSector, BPB_SecPerClus) == 13, "BPB_SecPerClus");
static_assert(offsetof(FATBootSector, BPB_RsvdSecCnt) == 14, "BPB_RsvdSecCnt");
static_assert(offsetof(FATBootSector, BPB_NumFATs) == 16, "BPB_NumFATs");
static_assert(offsetof(FATBootSector, BPB_RootEntCnt) == 17, "BPB_RootEntCnt");
static_assert(offsetof(FATBootSector, BPB_TotSec16) == 19, "BPB_TotSec16");
static_assert(offsetof(FATBootSector, BPB_Media) == 21, "BPB_Media");
static_assert(offsetof(FATBootSector, BPB_FATSz16) == 22, "BPB_FATSz16");
static_assert(offsetof(FATBootSector, BPB_SecPerTrk) == 24, "BPB_SecPerTrk");
static_assert(offsetof(FATBootSector, BPB_NumHeads) == 26, "BPB_NumHeads");
static_assert(offsetof(FATBootSector, BPB_HiddSec) == 28, "BPB_HiddSec");
static_assert(offsetof(FATBootSector, BPB_TotSec32) == 32, "BPB_TotSec32");
static_assert(offsetof(FATBootSector, fat16) == 36, "the extensions start at 36");
static_assert(offsetof(FATBootSector, fat32) == 36, "the extensions start at 36");
static_assert(offsetof(FATBootSector, Signature_word) == 510, "Signature_word");
// The extensions, at their offsets in the sector.
constexpr std::size_t kFATBootExtensionAt = offsetof(FATBootSector, fat32);
static_assert(kFATBootExtensionAt + offsetof(FAT16BootExtension, BS_DrvNum) == 36, "BS_DrvNum (FAT12/16)");
static_assert(kFATBootExtensionAt + offsetof(FAT16BootExtension, BS_BootSig) == 38, "BS_BootSig (FAT12/16)");
static_assert(kFATBootExtensionAt + offsetof(FAT16BootExtension, BS_VolID) == 39, "BS_VolID (FAT12/16)");
static_assert(kFATBootExtensionAt + offsetof(FAT16BootExtension, BS_VolLab) == 0x2B, "BS_VolLab (FAT12/16)");
static_assert(kFATBootExtensionAt + offsetof(FAT16BootExtension, BS_FilSysType) == 54, "BS_FilSysType (FAT12/16)");
static_assert(kFATBootExtensionAt + offsetof(FAT32BootExtension, BPB_FATSz32) == 36, "BPB_FATSz32");
static_assert(kFATBootExtensionAt + offsetof(FAT32BootExtension, BPB_ExtFlags) == 40, "BPB_ExtFlags");
static_assert(kFATBootExtensionAt + offsetof(FAT32BootExtension, BPB_FSVer) == 42, "BPB_FSVer");
static_assert(kFATBootExtensionAt + offsetof(FAT32BootExtension, BPB_RootClus) == 44, "BPB_RootClus");
static_assert(kFATBootExtensionAt + offsetof(FAT32BootExtension, BPB_FSInfo) == 48, "BPB_FSInfo");
static_assert(kFATBootExtensionAt + offsetof(FAT32BootExtension, BPB_BkBootSec) == 50, "BPB_BkBootSec");
static_assert(kFATBootExtensionAt + offsetof(FAT32BootExtension, BS_DrvNum) == 64, "BS_DrvNum (FAT32)");
static_assert(kFATBootExtensionAt + offsetof(FAT32BootExtension, BS_BootSig) == 66, "BS_BootSig (FAT32)");
static_assert(kFATBootExtensionAt + offsetof(FAT32BootExtension, BS_VolID) == 67, "BS_VolID (FAT32)");
static_assert(kFATBootExtensionAt + offsetof(FAT32BootExtension, BS_VolLab) == 0x47, "BS_VolLab (FAT32)");
static_assert(kFATBootExtensionAt + offsetof(FAT32BootExtension, BS_FilSysType) == 82, "BS_FilSysType (FAT32)");
