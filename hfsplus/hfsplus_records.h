#pragma once
// The on-disk records of HFS+ and HFSX, as the published volume format lays
// them out: big-endian, packed, one struct per record. The journal's own
// structures (header, block lists) are little-endian; its info block is
// big-endian like the rest of the volume.
//
// Naming: a field is its published name with a trailing underscore
// (`startBlock_`) and holds the bytes as the disk does; the method of the
// published name converts at each access. Every value a method answers is
// as the disk holds it: the caller range-checks it before it indexes or
// sizes anything with it.
#include <cstddef>
#include <cstdint>

#include "loader/common/byte_order.h"

namespace hfsplus {

// Catalog node ids with a meaning of their own.
constexpr std::uint32_t kRootParentId = 1;
constexpr std::uint32_t kRootFolderId = 2;
constexpr std::uint32_t kExtentsFileId = 3;
constexpr std::uint32_t kCatalogFileId = 4;
constexpr std::uint32_t kBadBlocksFileId = 5;
constexpr std::uint32_t kAllocationFileId = 6;
constexpr std::uint32_t kStartupFileId = 7;
constexpr std::uint32_t kAttributesFileId = 8;
constexpr std::uint32_t kFirstUserCatalogId = 16;

// Volume signatures and their versions.
constexpr std::uint16_t kSignatureHFSPlus = 0x482B;  // "H+"
constexpr std::uint16_t kSignatureHFSX = 0x4858;     // "HX"
constexpr std::uint16_t kVersionHFSPlus = 4;
constexpr std::uint16_t kVersionHFSX = 5;

// Volume attribute bits.
constexpr std::uint32_t kVolumeHardwareLock = 0x80;
constexpr std::uint32_t kVolumeUnmounted = 0x100;
constexpr std::uint32_t kVolumeInconsistent = 0x800;
constexpr std::uint32_t kVolumeCatalogIdsReused = 0x1000;
constexpr std::uint32_t kVolumeJournaled = 0x2000;
constexpr std::uint32_t kVolumeSoftwareLock = 0x8000;

// Byte offsets of the two volume headers: 1024 from the start, and 1024
// from the end of the volume.
constexpr std::uint64_t kVolumeHeaderOffset = 1024;

// Catalog record types.
constexpr std::uint16_t kFolderRecord = 1;
constexpr std::uint16_t kFileRecord = 2;
constexpr std::uint16_t kFolderThreadRecord = 3;
constexpr std::uint16_t kFileThreadRecord = 4;

// File type bits of fileMode.
constexpr std::uint16_t kModeTypeMask = 0xF000;
constexpr std::uint16_t kModeFifo = 0x1000;
constexpr std::uint16_t kModeCharacter = 0x2000;
constexpr std::uint16_t kModeDirectory = 0x4000;
constexpr std::uint16_t kModeBlock = 0x6000;
constexpr std::uint16_t kModeRegular = 0x8000;
constexpr std::uint16_t kModeSymlink = 0xA000;
constexpr std::uint16_t kModeSocket = 0xC000;

// Catalog file record flags, and Finder flags.
constexpr std::uint16_t kFileLocked = 0x0001;
constexpr std::uint16_t kThreadExists = 0x0002;
constexpr std::uint16_t kFinderInvisible = 0x4000;

// Four-character codes of Finder info.
constexpr std::uint32_t kHardLinkType = 0x686C6E6B;     // "hlnk"
constexpr std::uint32_t kHardLinkCreator = 0x6866732B;  // "hfs+"
constexpr std::uint32_t kSymlinkType = 0x736C6E6B;      // "slnk"
constexpr std::uint32_t kSymlinkCreator = 0x72686170;   // "rhap"

// Fork types of an extents overflow key.
constexpr std::uint8_t kDataFork = 0x00;
constexpr std::uint8_t kResourceFork = 0xFF;

// B-tree node kinds.
constexpr std::int8_t kLeafNode = -1;
constexpr std::int8_t kIndexNode = 0;
constexpr std::int8_t kHeaderNode = 1;
constexpr std::int8_t kMapNode = 2;

// Attribute record types.
constexpr std::uint32_t kAttrInlineData = 0x10;
constexpr std::uint32_t kAttrForkData = 0x20;
constexpr std::uint32_t kAttrExtents = 0x30;

// Seconds from 1904-01-01 to 1970-01-01.
constexpr std::uint32_t kMacEpochOffset = 2082844800u;

struct ExtentDescriptor {
    Common::be32 startBlock_;
    Common::be32 blockCount_;

    std::uint32_t startBlock() const { return startBlock_.get(); }
    std::uint32_t blockCount() const { return blockCount_.get(); }
    bool empty() const { return startBlock() == 0 && blockCount() == 0; }
};
static_assert(sizeof(ExtentDescriptor) == 8, "HFSPlusExtentDescriptor is 8 bytes");

constexpr unsigned kExtentsPerRecord = 8;

struct ForkData {
    Common::be64 logicalSize_;
    Common::be32 clumpSize_;
    Common::be32 totalBlocks_;
    ExtentDescriptor extents_[kExtentsPerRecord];

    std::uint64_t logicalSize() const { return logicalSize_.get(); }
    std::uint32_t clumpSize() const { return clumpSize_.get(); }
    std::uint32_t totalBlocks() const { return totalBlocks_.get(); }
    const ExtentDescriptor& extent(unsigned index) const { return extents_[index]; }
};
static_assert(sizeof(ForkData) == 80, "HFSPlusForkData is 80 bytes");

struct VolumeHeader {
    Common::be16 signature_;
    Common::be16 version_;
    Common::be32 attributes_;
    unsigned char lastMountedVersion_[4];
    Common::be32 journalInfoBlock_;
    Common::be32 createDate_;
    Common::be32 modifyDate_;
    Common::be32 backupDate_;
    Common::be32 checkedDate_;
    Common::be32 fileCount_;
    Common::be32 folderCount_;
    Common::be32 blockSize_;
    Common::be32 totalBlocks_;
    Common::be32 freeBlocks_;
    Common::be32 nextAllocation_;
    Common::be32 rsrcClumpSize_;
    Common::be32 dataClumpSize_;
    Common::be32 nextCatalogID_;
    Common::be32 writeCount_;
    Common::be64 encodingsBitmap_;
    Common::be32 finderInfo_[8];
    ForkData allocationFile_;
    ForkData extentsFile_;
    ForkData catalogFile_;
    ForkData attributesFile_;
    ForkData startupFile_;

    std::uint16_t signature() const { return signature_.get(); }
    std::uint16_t version() const { return version_.get(); }
    std::uint32_t attributes() const { return attributes_.get(); }
    std::uint32_t journalInfoBlock() const { return journalInfoBlock_.get(); }
    std::uint32_t createDate() const { return createDate_.get(); }
    std::uint32_t modifyDate() const { return modifyDate_.get(); }
    std::uint32_t fileCount() const { return fileCount_.get(); }
    std::uint32_t folderCount() const { return folderCount_.get(); }
    std::uint32_t blockSize() const { return blockSize_.get(); }
    std::uint32_t totalBlocks() const { return totalBlocks_.get(); }
    std::uint32_t freeBlocks() const { return freeBlocks_.get(); }
    std::uint32_t nextCatalogID() const { return nextCatalogID_.get(); }
    std::uint32_t writeCount() const { return writeCount_.get(); }
    std::uint32_t finderInfo(unsigned index) const { return finderInfo_[index].get(); }
    // The fork of a special file by its catalog node id (6, 3, 4, 8, 7);
    // null for any other id.
    const ForkData* fork(std::uint32_t file_id) const {
        switch (file_id) {
            case kAllocationFileId: return &allocationFile_;
            case kExtentsFileId: return &extentsFile_;
            case kCatalogFileId: return &catalogFile_;
            case kAttributesFileId: return &attributesFile_;
            case kStartupFileId: return &startupFile_;
            default: return nullptr;
        }
    }
};
static_assert(sizeof(VolumeHeader) == 512, "HFSPlusVolumeHeader is 512 bytes");
static_assert(offsetof(VolumeHeader, encodingsBitmap_) == 72, "encodingsBitmap at 72");
static_assert(offsetof(VolumeHeader, allocationFile_) == 112, "allocationFile at 112");
static_assert(offsetof(VolumeHeader, startupFile_) == 432, "startupFile at 432");

struct BTNodeDescriptor {
    Common::be32 fLink_;
    Common::be32 bLink_;
    std::int8_t kind_;
    std::uint8_t height_;
    Common::be16 numRecords_;
    Common::be16 reserved_;

    std::uint32_t fLink() const { return fLink_.get(); }
    std::uint32_t bLink() const { return bLink_.get(); }
    std::int8_t kind() const { return kind_; }
    std::uint8_t height() const { return height_; }
    std::uint16_t numRecords() const { return numRecords_.get(); }
};
static_assert(sizeof(BTNodeDescriptor) == 14, "BTNodeDescriptor is 14 bytes");

// Record 0 of the header node.
struct BTHeaderRec {
    Common::be16 treeDepth_;
    Common::be32 rootNode_;
    Common::be32 leafRecords_;
    Common::be32 firstLeafNode_;
    Common::be32 lastLeafNode_;
    Common::be16 nodeSize_;
    Common::be16 maxKeyLength_;
    Common::be32 totalNodes_;
    Common::be32 freeNodes_;
    Common::be16 reserved1_;
    Common::be32 clumpSize_;
    std::uint8_t btreeType_;
    std::uint8_t keyCompareType_;
    Common::be32 attributes_;
    Common::be32 reserved3_[16];

    std::uint16_t treeDepth() const { return treeDepth_.get(); }
    std::uint32_t rootNode() const { return rootNode_.get(); }
    std::uint32_t leafRecords() const { return leafRecords_.get(); }
    std::uint32_t firstLeafNode() const { return firstLeafNode_.get(); }
    std::uint32_t lastLeafNode() const { return lastLeafNode_.get(); }
    std::uint16_t nodeSize() const { return nodeSize_.get(); }
    std::uint16_t maxKeyLength() const { return maxKeyLength_.get(); }
    std::uint32_t totalNodes() const { return totalNodes_.get(); }
    std::uint32_t freeNodes() const { return freeNodes_.get(); }
    std::uint32_t clumpSize() const { return clumpSize_.get(); }
    std::uint8_t keyCompareType() const { return keyCompareType_; }
    std::uint32_t attributes() const { return attributes_.get(); }
};
static_assert(sizeof(BTHeaderRec) == 106, "BTHeaderRec is 106 bytes");

constexpr unsigned kMaxNameLength = 255;  // characters of an HFSUniStr255

struct HFSUniStr255 {
    Common::be16 length_;
    Common::be16 unicode_[kMaxNameLength];

    std::uint16_t length() const { return length_.get(); }
    char16_t unicode(unsigned index) const { return static_cast<char16_t>(unicode_[index].get()); }
};
static_assert(sizeof(HFSUniStr255) == 512, "HFSUniStr255 is 512 bytes");

// The key of a catalog record; on disk only keyLength + 2 bytes of it stand.
struct HFSPlusCatalogKey {
    Common::be16 keyLength_;
    Common::be32 parentID_;
    HFSUniStr255 nodeName_;

    std::uint16_t keyLength() const { return keyLength_.get(); }
    std::uint32_t parentID() const { return parentID_.get(); }
    const HFSUniStr255& nodeName() const { return nodeName_; }
};
static_assert(sizeof(HFSPlusCatalogKey) == 518, "the largest catalog key is 518 bytes");
constexpr unsigned kCatalogKeyMinLength = 6;  // keyLength of an empty name

// Unix ownership and mode of a catalog record (HFSPlusBSDInfo).
struct BSDInfo {
    Common::be32 ownerID_;
    Common::be32 groupID_;
    std::uint8_t adminFlags_;
    std::uint8_t ownerFlags_;
    Common::be16 fileMode_;
    Common::be32 special_;  // iNodeNum, linkCount or rawDevice

    std::uint32_t ownerID() const { return ownerID_.get(); }
    std::uint32_t groupID() const { return groupID_.get(); }
    std::uint16_t fileMode() const { return fileMode_.get(); }
    std::uint32_t special() const { return special_.get(); }
};
static_assert(sizeof(BSDInfo) == 16, "HFSPlusBSDInfo is 16 bytes");

struct HFSPlusCatalogFolder {
    Common::be16 recordType_;
    Common::be16 flags_;
    Common::be32 valence_;
    Common::be32 folderID_;
    Common::be32 createDate_;
    Common::be32 contentModDate_;
    Common::be32 attributeModDate_;
    Common::be32 accessDate_;
    Common::be32 backupDate_;
    BSDInfo permissions_;
    unsigned char userInfo_[16];
    unsigned char finderInfo_[16];
    Common::be32 textEncoding_;
    Common::be32 folderCount_;

    std::uint16_t recordType() const { return recordType_.get(); }
    std::uint16_t flags() const { return flags_.get(); }
    std::uint32_t valence() const { return valence_.get(); }
    std::uint32_t folderID() const { return folderID_.get(); }
    std::uint32_t createDate() const { return createDate_.get(); }
    std::uint32_t contentModDate() const { return contentModDate_.get(); }
    std::uint32_t attributeModDate() const { return attributeModDate_.get(); }
    std::uint32_t accessDate() const { return accessDate_.get(); }
    const BSDInfo& permissions() const { return permissions_; }
    std::uint16_t frFlags() const { return Common::LoadBE16(userInfo_ + 8); }
};
static_assert(sizeof(HFSPlusCatalogFolder) == 88, "HFSPlusCatalogFolder is 88 bytes");

struct HFSPlusCatalogFile {
    Common::be16 recordType_;
    Common::be16 flags_;
    Common::be32 reserved1_;
    Common::be32 fileID_;
    Common::be32 createDate_;
    Common::be32 contentModDate_;
    Common::be32 attributeModDate_;
    Common::be32 accessDate_;
    Common::be32 backupDate_;
    BSDInfo permissions_;
    Common::be32 fdType_;
    Common::be32 fdCreator_;
    Common::be16 fdFlags_;
    unsigned char fdLocationAndOpaque_[6];
    unsigned char finderInfo_[16];
    Common::be32 textEncoding_;
    Common::be32 reserved2_;
    ForkData dataFork_;
    ForkData resourceFork_;

    std::uint16_t recordType() const { return recordType_.get(); }
    std::uint16_t flags() const { return flags_.get(); }
    std::uint32_t fileID() const { return fileID_.get(); }
    std::uint32_t createDate() const { return createDate_.get(); }
    std::uint32_t contentModDate() const { return contentModDate_.get(); }
    std::uint32_t attributeModDate() const { return attributeModDate_.get(); }
    std::uint32_t accessDate() const { return accessDate_.get(); }
    const BSDInfo& permissions() const { return permissions_; }
    std::uint32_t fdType() const { return fdType_.get(); }
    std::uint32_t fdCreator() const { return fdCreator_.get(); }
    std::uint16_t fdFlags() const { return fdFlags_.get(); }
    const ForkData& dataFork() const { return dataFork_; }
    const ForkData& resourceFork() const { return resourceFork_; }
};
static_assert(sizeof(HFSPlusCatalogFile) == 248, "HFSPlusCatalogFile is 248 bytes");
static_assert(offsetof(HFSPlusCatalogFile, permissions_) == 32, "permissions at 32");
static_assert(offsetof(HFSPlusCatalogFile, fdFlags_) == 56, "Finder flags at 56");
static_assert(offsetof(HFSPlusCatalogFile, dataFork_) == 88, "dataFork at 88");

// A thread record; on disk it ends behind the name's characters.
struct HFSPlusCatalogThread {
    Common::be16 recordType_;
    Common::be16 reserved_;
    Common::be32 parentID_;
    HFSUniStr255 nodeName_;

    std::uint16_t recordType() const { return recordType_.get(); }
    std::uint32_t parentID() const { return parentID_.get(); }
    const HFSUniStr255& nodeName() const { return nodeName_; }
};
constexpr unsigned kCatalogThreadMinSize = 10;  // a thread with an empty name

struct ExtentKey {
    Common::be16 keyLength_;
    std::uint8_t forkType_;
    std::uint8_t pad_;
    Common::be32 fileID_;
    Common::be32 startBlock_;

    std::uint16_t keyLength() const { return keyLength_.get(); }
    std::uint8_t forkType() const { return forkType_; }
    std::uint32_t fileID() const { return fileID_.get(); }
    std::uint32_t startBlock() const { return startBlock_.get(); }
};
static_assert(sizeof(ExtentKey) == 12, "HFSPlusExtentKey is 12 bytes");
constexpr std::uint16_t kExtentKeyLength = 10;

constexpr unsigned kMaxAttrNameLength = 127;

struct AttrKey {
    Common::be16 keyLength_;
    Common::be16 pad_;
    Common::be32 fileID_;
    Common::be32 startBlock_;
    Common::be16 attrNameLen_;
    Common::be16 attrName_[kMaxAttrNameLength];

    std::uint16_t keyLength() const { return keyLength_.get(); }
    std::uint32_t fileID() const { return fileID_.get(); }
    std::uint32_t startBlock() const { return startBlock_.get(); }
    std::uint16_t attrNameLen() const { return attrNameLen_.get(); }
    char16_t attrName(unsigned index) const { return static_cast<char16_t>(attrName_[index].get()); }
};
static_assert(sizeof(AttrKey) == 268, "the largest attribute key is 268 bytes");

struct AttrInlineData {
    Common::be32 recordType_;
    Common::be32 reserved_[2];
    Common::be32 attrSize_;
    // attrSize bytes of data follow

    std::uint32_t recordType() const { return recordType_.get(); }
    std::uint32_t attrSize() const { return attrSize_.get(); }
};
static_assert(sizeof(AttrInlineData) == 16, "HFSPlusAttrData header is 16 bytes");

struct AttrForkData {
    Common::be32 recordType_;
    Common::be32 reserved_;
    ForkData theFork_;

    std::uint32_t recordType() const { return recordType_.get(); }
    const ForkData& theFork() const { return theFork_; }
};
static_assert(sizeof(AttrForkData) == 88, "HFSPlusAttrForkData is 88 bytes");

struct AttrExtents {
    Common::be32 recordType_;
    Common::be32 reserved_;
    ExtentDescriptor extents_[kExtentsPerRecord];

    std::uint32_t recordType() const { return recordType_.get(); }
    const ExtentDescriptor& extent(unsigned index) const { return extents_[index]; }
};
static_assert(sizeof(AttrExtents) == 72, "HFSPlusAttrExtents is 72 bytes");

// The journal info block, big-endian as the volume.
struct JournalInfoBlock {
    static constexpr std::uint32_t kInFS = 0x1;
    static constexpr std::uint32_t kOnOtherDevice = 0x2;
    static constexpr std::uint32_t kNeedInit = 0x4;

    Common::be32 flags_;
    Common::be32 device_signature_[8];
    Common::be64 offset_;
    Common::be64 size_;
    Common::be32 reserved_[32];

    std::uint32_t flags() const { return flags_.get(); }
    std::uint64_t offset() const { return offset_.get(); }
    std::uint64_t size() const { return size_.get(); }
};
static_assert(sizeof(JournalInfoBlock) == 180, "JournalInfoBlock is 180 bytes");
static_assert(offsetof(JournalInfoBlock, offset_) == 36, "offset at 36");

// The journal header, little-endian: only a journal written by a
// little-endian host is read.
struct JournalHeader {
    static constexpr std::uint32_t kMagic = 0x4A4E4C78;
    static constexpr std::uint32_t kEndian = 0x12345678;

    Common::le32 magic_;
    Common::le32 endian_;
    Common::le64 start_;
    Common::le64 end_;
    Common::le64 size_;
    Common::le32 blhdr_size_;
    Common::le32 checksum_;
    Common::le32 jhdr_size_;

    std::uint32_t magic() const { return magic_.get(); }
    std::uint32_t endian() const { return endian_.get(); }
    std::uint64_t start() const { return start_.get(); }
    std::uint64_t end() const { return end_.get(); }
    std::uint64_t size() const { return size_.get(); }
    std::uint32_t blhdr_size() const { return blhdr_size_.get(); }
    std::uint32_t checksum() const { return checksum_.get(); }
    std::uint32_t jhdr_size() const { return jhdr_size_.get(); }
};
static_assert(sizeof(JournalHeader) == 44, "journal_header is 44 bytes");

// The header of one block list (one transaction) in the journal's ring.
struct BlockListHeader {
    static constexpr std::uint32_t kCheckChecksums = 0x1;

    Common::le16 max_blocks_;
    Common::le16 num_blocks_;
    Common::le32 bytes_used_;
    Common::le32 checksum_;
    Common::le32 flags_;

    std::uint16_t max_blocks() const { return max_blocks_.get(); }
    std::uint16_t num_blocks() const { return num_blocks_.get(); }
    std::uint32_t bytes_used() const { return bytes_used_.get(); }
    std::uint32_t checksum() const { return checksum_.get(); }
    std::uint32_t flags() const { return flags_.get(); }
};
static_assert(sizeof(BlockListHeader) == 16, "block_list_header is 16 bytes");

struct BlockInfo {
    static constexpr std::uint64_t kSkipped = ~std::uint64_t(0);  // takes room, isn't applied

    Common::le64 bnum_;
    Common::le32 bsize_;
    Common::le32 checksum_;

    std::uint64_t bnum() const { return bnum_.get(); }
    std::uint32_t bsize() const { return bsize_.get(); }
    std::uint32_t checksum() const { return checksum_.get(); }
};
static_assert(sizeof(BlockInfo) == 16, "block_info is 16 bytes");

}  // namespace hfsplus
