#pragma once
// The FSInfo sector of FAT32: a hint of the free cluster count, kept in one
// of the reserved sectors so that a mount need not scan the whole table.
// It is believed only with all three signatures in place, and only while
// its count is below the volume's clusters. The "next free" hint is not
// used: the free search starts from cluster 2 on each mount.
#include <cstddef>
#include <cstdint>

#include "loader/common/byte_order.h"

struct FATFSInfoSector {
    Common::le32 FSI_LeadSig;
    unsigned char FSI_Reserved1[480];
    Common::le32 FSI_StrucSig;
    Common::le32 FSI_Free_Count;
    Common::le32 FSI_Nxt_Free;
    unsigned char FSI_Reserved2[12];
    Common::le32 FSI_TrailSig;

    static constexpr std::uint32_t kLeadSignature = 0x41615252;
    static constexpr std::uint32_t kStructSignature = 0x61417272;
    static constexpr std::uint32_t kTrailSignature = 0xAA55;  // the upper half of FSI_TrailSig

    bool has_signatures() const {
        return FSI_LeadSig.get() == kLeadSignature && FSI_StrucSig.get() == kStructSignature &&
               (FSI_TrailSig.get() >> 16) == kTrailSignature;
    }
    std::uint32_t free_count() const { return FSI_Free_Count.get(); }
    void set_free_count(std::uint32_t count) { FSI_Free_Count.set(count); }
};

static_assert(sizeof(FATFSInfoSector) == 512, "an FSInfo sector is 512 bytes");
static_assert(offsetof(FATFSInfoSector, FSI_LeadSig) == 0, "FSI_LeadSig");
static_assert(offsetof(FATFSInfoSector, FSI_Reserved1) == 4, "FSI_Reserved1");
static_assert(offsetof(FATFSInfoSector, FSI_StrucSig) == 484, "FSI_StrucSig");
static_assert(offsetof(FATFSInfoSector, FSI_Free_Count) == 488, "FSI_Free_Count");
static_assert(offsetof(FATFSInfoSector, FSI_Nxt_Free) == 492, "FSI_Nxt_Free");
static_assert(offsetof(FATFSInfoSector, FSI_Reserved2) == 496, "FSI_Reserved2");
static_assert(offsetof(FATFSInfoSector, FSI_TrailSig) == 508, "FSI_TrailSig");
