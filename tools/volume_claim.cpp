#include "tools/volume_claim.h"

#include "extfs/ext_records.h"
#include "fat/boot_sector.h"
#include "hfsplus/hfsplus_records.h"
#include "hfsplus/volume_header.h"
#include "ntfs/ntfs_records.h"

namespace MorvaneTool {
namespace {

// A FAT boot sector: the signature, a power-of-two sector size from 512 to
// 4096, and a total as the FAT driver reads it.
bool FatClaim(const std::vector<unsigned char>& start, VolumeClaim& claim) {
    if (start.size() < sizeof(FATBootSector)) return false;
    const auto& boot = *reinterpret_cast<const FATBootSector*>(start.data());
    std::uint32_t sector = boot.BPB_BytsPerSec.get();
    if (boot.Signature_word.get() != 0xAA55 || sector < 512 || sector > 4096 || (sector & (sector - 1)) != 0) {
        return false;
    }
    if (boot.total_sectors() == 0) return false;
    claim.header = "boot sector";
    claim.bytes = boot.total_sectors() * sector;
    return true;
}

// An ext superblock at byte 1024: its magic, block count and block size.
bool ExtClaim(const std::vector<unsigned char>& start, VolumeClaim& claim) {
    constexpr std::uint32_t kLargestLogBlock = 6;
    if (start.size() < extfs::Superblock::kOffset + sizeof(extfs::Superblock)) return false;
    const auto& super = *reinterpret_cast<const extfs::Superblock*>(start.data() + extfs::Superblock::kOffset);
    if (super.s_magic() != extfs::Superblock::kMagic || super.s_log_block_size() > kLargestLogBlock) return false;
    claim.header = "superblock";
    claim.bytes = super.blocks_count() * (1024ull << super.s_log_block_size());
    return true;
}

// An NTFS boot sector: the end marker, the OEM name, a power-of-two sector
// size from 512 to 4096 and the volume's sector count. Its count leaves out
// the backup boot sector behind the volume, which the claim need not reach.
bool NtfsClaim(const std::vector<unsigned char>& start, VolumeClaim& claim) {
    if (start.size() < sizeof(ntfs::BootSector)) return false;
    const auto& boot = *reinterpret_cast<const ntfs::BootSector*>(start.data());
    std::uint32_t sector = boot.bytes_per_sector();
    if (boot.end_of_sector_marker() != ntfs::BootSector::kEndMarker || boot.oem_low() != ntfs::BootSector::kOemLow ||
        boot.oem_high() != ntfs::BootSector::kOemHigh || sector < 512 || sector > 4096 || (sector & (sector - 1)) != 0) {
        return false;
    }
    claim.header = "boot sector";
    claim.bytes = boot.number_of_sectors() * sector;
    return true;
}

// An HFS+ or HFSX volume header at byte 1024: its signature and version,
// a power-of-two block size, and the blocks it counts.
bool HfsPlusClaim(const std::vector<unsigned char>& start, VolumeClaim& claim) {
    constexpr std::uint32_t kSmallestSector = 512;
    if (start.size() < hfsplus::kVolumeHeaderOffset + sizeof(hfsplus::VolumeHeader)) return false;
    const auto& header = *reinterpret_cast<const hfsplus::VolumeHeader*>(start.data() + hfsplus::kVolumeHeaderOffset);
    if (!hfsplus::IsHeaderSane(header, kSmallestSector)) return false;
    claim.header = "volume header";
    claim.bytes = std::uint64_t(header.totalBlocks()) * header.blockSize();
    return true;
}

}  // namespace

VolumeClaim ClaimedLength(const std::vector<unsigned char>& start) {
    VolumeClaim claim;
    if (!ExtClaim(start, claim) && !NtfsClaim(start, claim) && !HfsPlusClaim(start, claim)) FatClaim(start, claim);
    return claim;
}

}  // namespace MorvaneTool
