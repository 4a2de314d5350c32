#pragma once
// The on-disk records of NTFS, as the published format lays them out:
// little-endian, packed, one struct per record.
//
// Naming: a field is its published name with a trailing underscore
// (`bytes_in_use_`) and holds the bytes as the disk does; the method of the
// published name converts at each access. Every value a method answers is
// as the disk holds it: the caller checks it against the record's or the
// buffer's size before it indexes or sizes anything with it.
#include <cstddef>
#include <cstdint>

#include "loader/common/byte_order.h"

namespace ntfs {

// Attribute types.
constexpr std::uint32_t kStandardInformation = 0x10;
constexpr std::uint32_t kAttributeList = 0x20;
constexpr std::uint32_t kFileName = 0x30;
constexpr std::uint32_t kObjectId = 0x40;
constexpr std::uint32_t kSecurityDescriptor = 0x50;
constexpr std::uint32_t kVolumeName = 0x60;
constexpr std::uint32_t kVolumeInformation = 0x70;
constexpr std::uint32_t kData = 0x80;
constexpr std::uint32_t kIndexRoot = 0x90;
constexpr std::uint32_t kIndexAllocation = 0xA0;
constexpr std::uint32_t kBitmap = 0xB0;
constexpr std::uint32_t kReparsePoint = 0xC0;
constexpr std::uint32_t kLoggedUtilityStream = 0x100;
constexpr std::uint32_t kAttributeEnd = 0xFFFFFFFF;

// System records.
constexpr std::uint64_t kMftRecord = 0;
constexpr std::uint64_t kMftMirrorRecord = 1;
constexpr std::uint64_t kVolumeRecord = 3;
constexpr std::uint64_t kAttrDefRecord = 4;
constexpr std::uint64_t kRootRecord = 5;
constexpr std::uint64_t kBitmapRecord = 6;
constexpr std::uint64_t kSecureRecord = 9;
constexpr std::uint64_t kUpCaseRecord = 10;
constexpr std::uint64_t kExtendRecord = 11;
constexpr std::uint64_t kFirstUserRecord = 16;

// File attribute bits (of $STANDARD_INFORMATION and $FILE_NAME).
constexpr std::uint32_t kAttributeHidden = 0x2;
constexpr std::uint32_t kAttributeDirectoryBit = 0x10;
constexpr std::uint32_t kAttributeReparse = 0x400;
constexpr std::uint32_t kAttributeIndexed = 0x10000000;  // bit 28: a directory in an index key

// Attribute header flags of a non-resident attribute.
constexpr std::uint16_t kCompressionMask = 0x00FF;
constexpr std::uint16_t kFlagEncrypted = 0x4000;
constexpr std::uint16_t kFlagSparse = 0x8000;

// Reparse tags the driver reads.
constexpr std::uint32_t kTagMountPoint = 0xA0000003;
constexpr std::uint32_t kTagSymlink = 0xA000000C;
constexpr std::uint32_t kTagDedup = 0x80000009;

// Index entry flags.
constexpr std::uint16_t kEntrySubNode = 0x1;
constexpr std::uint16_t kEntryLast = 0x2;
// Index header flag: the node's entries have sub-nodes.
constexpr std::uint8_t kNodeHasSubNodes = 0x1;

// File record flags.
constexpr std::uint16_t kRecordInUse = 0x1;
constexpr std::uint16_t kRecordIsDirectory = 0x2;

// The low 48 bits of a file reference are the record number.
constexpr std::uint64_t RecordNumberOf(std::uint64_t reference) { return reference & 0xFFFFFFFFFFFFull; }

// The boot sector: sector 0 of the volume.
struct BootSector {
    static constexpr std::uint16_t kEndMarker = 0xAA55;
    static constexpr std::uint32_t kOemLow = 0x5346544E;   // "NTFS"
    static constexpr std::uint32_t kOemHigh = 0x20202020;  // four blanks

    unsigned char jump_[3];
    Common::le32 oem_low_;
    Common::le32 oem_high_;
    Common::le16 bytes_per_sector_;
    std::uint8_t sectors_per_cluster_;
    unsigned char unused_0e_[0x28 - 0x0E];
    Common::le64 number_of_sectors_;
    Common::le64 mft_lcn_;
    Common::le64 mftmirr_lcn_;
    std::int8_t clusters_per_mft_record_;
    unsigned char unused_41_[3];
    std::int8_t clusters_per_index_record_;
    unsigned char unused_45_[3];
    Common::le64 volume_serial_number_;
    Common::le32 checksum_;
    unsigned char bootstrap_[0x1FE - 0x54];
    Common::le16 end_of_sector_marker_;

    std::uint32_t oem_low() const { return oem_low_.get(); }
    std::uint32_t oem_high() const { return oem_high_.get(); }
    std::uint16_t bytes_per_sector() const { return bytes_per_sector_.get(); }
    std::uint8_t sectors_per_cluster() const { return sectors_per_cluster_; }
    std::uint64_t number_of_sectors() const { return number_of_sectors_.get(); }
    std::uint64_t mft_lcn() const { return mft_lcn_.get(); }
    std::uint64_t mftmirr_lcn() const { return mftmirr_lcn_.get(); }
    std::int8_t clusters_per_mft_record() const { return clusters_per_mft_record_; }
    std::int8_t clusters_per_index_record() const { return clusters_per_index_record_; }
    std::uint16_t end_of_sector_marker() const { return end_of_sector_marker_.get(); }
};
static_assert(sizeof(BootSector) == 512, "boot sector");
static_assert(offsetof(BootSector, oem_low_) == 3, "oem id");
static_assert(offsetof(BootSector, sectors_per_cluster_) == 0x0D, "sectors per cluster");
static_assert(offsetof(BootSector, number_of_sectors_) == 0x28, "total sectors");
static_assert(offsetof(BootSector, mft_lcn_) == 0x30, "mft cluster");
static_assert(offsetof(BootSector, mftmirr_lcn_) == 0x38, "mirror cluster");
static_assert(offsetof(BootSector, clusters_per_mft_record_) == 0x40, "record size");
static_assert(offsetof(BootSector, clusters_per_index_record_) == 0x44, "index buffer size");
static_assert(offsetof(BootSector, end_of_sector_marker_) == 0x1FE, "end marker");

// The head of every block protected by an update sequence array: file
// records, index buffers, log pages.
struct MultiSectorHeader {
    unsigned char magic_[4];
    Common::le16 usa_ofs_;
    Common::le16 usa_count_;

    std::uint16_t usa_ofs() const { return usa_ofs_.get(); }
    std::uint16_t usa_count() const { return usa_count_.get(); }
};
static_assert(sizeof(MultiSectorHeader) == 8, "multi-sector header");

// A file record of the MFT.
struct FileRecordHeader {
    MultiSectorHeader multi_sector_;
    Common::le64 lsn_;
    Common::le16 sequence_number_;
    Common::le16 link_count_;
    Common::le16 attrs_offset_;
    Common::le16 flags_;
    Common::le32 bytes_in_use_;
    Common::le32 bytes_allocated_;
    Common::le64 base_mft_record_;
    Common::le16 next_attr_instance_;
    Common::le16 reserved_;
    Common::le32 mft_record_number_;

    std::uint16_t sequence_number() const { return sequence_number_.get(); }
    std::uint16_t link_count() const { return link_count_.get(); }
    std::uint16_t attrs_offset() const { return attrs_offset_.get(); }
    std::uint16_t flags() const { return flags_.get(); }
    std::uint32_t bytes_in_use() const { return bytes_in_use_.get(); }
    std::uint32_t bytes_allocated() const { return bytes_allocated_.get(); }
    std::uint64_t base_mft_record() const { return base_mft_record_.get(); }
    std::uint16_t next_attr_instance() const { return next_attr_instance_.get(); }

    void set_bytes_in_use(std::uint32_t value) { bytes_in_use_.set(value); }
};
static_assert(sizeof(FileRecordHeader) == 48, "file record header");
static_assert(offsetof(FileRecordHeader, sequence_number_) == 16, "sequence number");
static_assert(offsetof(FileRecordHeader, attrs_offset_) == 20, "first attribute");
static_assert(offsetof(FileRecordHeader, bytes_in_use_) == 24, "bytes in use");
static_assert(offsetof(FileRecordHeader, base_mft_record_) == 32, "base record");

// The part of an attribute header behind the common 16 bytes when the
// value lies in the record.
struct ResidentPart {
    Common::le32 value_length_;
    Common::le16 value_offset_;
    std::uint8_t resident_flags_;
    std::uint8_t reserved_;
};

// ... and when the value lies in clusters. `compressed_size_` exists only
// in headers of compressed or sparse attributes.
struct NonResidentPart {
    Common::le64 lowest_vcn_;
    Common::le64 highest_vcn_;
    Common::le16 mapping_pairs_offset_;
    std::uint8_t compression_unit_;
    unsigned char reserved_[5];
    Common::le64 allocated_size_;
    Common::le64 data_size_;
    Common::le64 initialized_size_;
    Common::le64 compressed_size_;
};

// An attribute header in a file record. Before a method of the resident or
// non-resident part is used, the caller has checked that `length()` covers
// it (kResidentHeaderSize, kNonResidentHeaderSize) and that the header lies
// inside the record's bytes in use.
struct AttributeRecord {
    static constexpr std::uint32_t kCommonSize = 16;
    static constexpr std::uint32_t kResidentHeaderSize = 24;
    static constexpr std::uint32_t kNonResidentHeaderSize = 64;

    Common::le32 type_;
    Common::le32 length_;
    std::uint8_t non_resident_;
    std::uint8_t name_length_;
    Common::le16 name_offset_;
    Common::le16 flags_;
    Common::le16 instance_;
    union {
        ResidentPart resident_;
        NonResidentPart non_resident_part_;
    };

    std::uint32_t type() const { return type_.get(); }
    std::uint32_t length() const { return length_.get(); }
    bool non_resident() const { return non_resident_ != 0; }
    std::uint8_t name_length() const { return name_length_; }
    std::uint16_t name_offset() const { return name_offset_.get(); }
    std::uint16_t flags() const { return flags_.get(); }
    std::uint16_t instance() const { return instance_.get(); }

    std::uint32_t value_length() const { return resident_.value_length_.get(); }
    std::uint16_t value_offset() const { return resident_.value_offset_.get(); }
    std::uint8_t resident_flags() const { return resident_.resident_flags_; }

    std::uint64_t lowest_vcn() const { return non_resident_part_.lowest_vcn_.get(); }
    std::uint64_t highest_vcn() const { return non_resident_part_.highest_vcn_.get(); }
    std::uint16_t mapping_pairs_offset() const { return non_resident_part_.mapping_pairs_offset_.get(); }
    std::uint8_t compression_unit() const { return non_resident_part_.compression_unit_; }
    std::uint64_t allocated_size() const { return non_resident_part_.allocated_size_.get(); }
    std::uint64_t data_size() const { return non_resident_part_.data_size_.get(); }
    std::uint64_t initialized_size() const { return non_resident_part_.initialized_size_.get(); }

    void set_type(std::uint32_t value) { type_.set(value); }
    void set_length(std::uint32_t value) { length_.set(value); }
    void set_non_resident(bool value) { non_resident_ = value ? 1 : 0; }
    void set_name_length(std::uint8_t value) { name_length_ = value; }
    void set_name_offset(std::uint16_t value) { name_offset_.set(value); }
    void set_flags(std::uint16_t value) { flags_.set(value); }
    void set_instance(std::uint16_t value) { instance_.set(value); }
    void set_value_length(std::uint32_t value) { resident_.value_length_.set(value); }
    void set_value_offset(std::uint16_t value) { resident_.value_offset_.set(value); }
    void set_resident_flags(std::uint8_t value) { resident_.resident_flags_ = value; }
    void set_lowest_vcn(std::uint64_t value) { non_resident_part_.lowest_vcn_.set(value); }
    void set_highest_vcn(std::uint64_t value) { non_resident_part_.highest_vcn_.set(value); }
    void set_mapping_pairs_offset(std::uint16_t value) { non_resident_part_.mapping_pairs_offset_.set(value); }
    void set_compression_unit(std::uint8_t value) { non_resident_part_.compression_unit_ = value; }
    void set_allocated_size(std::uint64_t value) { non_resident_part_.allocated_size_.set(value); }
    void set_data_size(std::uint64_t value) { non_resident_part_.data_size_.set(value); }
    void set_initialized_size(std::uint64_t value) { non_resident_part_.initialized_size_.set(value); }
};
static_assert(sizeof(AttributeRecord) == 72, "attribute header");
static_assert(offsetof(AttributeRecord, resident_) == 16, "resident part");
static_assert(offsetof(AttributeRecord, non_resident_part_) == 16, "non-resident part");
static_assert(offsetof(NonResidentPart, mapping_pairs_offset_) == 16, "mapping pairs");
static_assert(offsetof(NonResidentPart, allocated_size_) == 24, "allocated size");
static_assert(offsetof(NonResidentPart, initialized_size_) == 40, "initialized size");

// One entry of an attribute list ($ATTRIBUTE_LIST value).
struct AttrListEntry {
    static constexpr std::uint32_t kNameOffset = 26;

    Common::le32 type_;
    Common::le16 length_;
    std::uint8_t name_length_;
    std::uint8_t name_offset_;
    Common::le64 lowest_vcn_;
    Common::le64 mft_reference_;
    Common::le16 instance_;

    std::uint32_t type() const { return type_.get(); }
    std::uint16_t length() const { return length_.get(); }
    std::uint8_t name_length() const { return name_length_; }
    std::uint8_t name_offset() const { return name_offset_; }
    std::uint64_t lowest_vcn() const { return lowest_vcn_.get(); }
    std::uint64_t mft_reference() const { return mft_reference_.get(); }
    std::uint16_t instance() const { return instance_.get(); }
};
static_assert(sizeof(AttrListEntry) == 26, "attribute list entry");
static_assert(offsetof(AttrListEntry, mft_reference_) == 16, "reference");

// The value of $STANDARD_INFORMATION; the fields from `owner_id_` on exist
// only in the 72-byte form of version 3.0 and later.
struct StandardInformation {
    static constexpr std::uint32_t kShortSize = 48;
    static constexpr std::uint32_t kLongSize = 72;

    Common::le64 creation_time_;
    Common::le64 last_data_change_time_;
    Common::le64 last_mft_change_time_;
    Common::le64 last_access_time_;
    Common::le32 file_attributes_;
    unsigned char unused_24_[12];
    Common::le32 owner_id_;
    Common::le32 security_id_;
    Common::le64 quota_charged_;
    Common::le64 usn_;

    std::uint64_t creation_time() const { return creation_time_.get(); }
    std::uint64_t last_data_change_time() const { return last_data_change_time_.get(); }
    std::uint64_t last_mft_change_time() const { return last_mft_change_time_.get(); }
    std::uint64_t last_access_time() const { return last_access_time_.get(); }
    std::uint32_t file_attributes() const { return file_attributes_.get(); }
    std::uint32_t security_id() const { return security_id_.get(); }
};
static_assert(sizeof(StandardInformation) == 72, "standard information");
static_assert(offsetof(StandardInformation, file_attributes_) == 32, "attributes");
static_assert(offsetof(StandardInformation, security_id_) == 52, "security id");

// The value of $FILE_NAME, which is also the key of a directory index entry.
struct FileNameValue {
    static constexpr std::uint32_t kNameOffset = 66;
    // Namespaces.
    static constexpr std::uint8_t kPosix = 0;
    static constexpr std::uint8_t kWin32 = 1;
    static constexpr std::uint8_t kDos = 2;
    static constexpr std::uint8_t kWin32AndDos = 3;

    Common::le64 parent_directory_;
    Common::le64 creation_time_;
    Common::le64 last_data_change_time_;
    Common::le64 last_mft_change_time_;
    Common::le64 last_access_time_;
    Common::le64 allocated_size_;
    Common::le64 data_size_;
    Common::le32 file_attributes_;
    Common::le32 reparse_tag_;
    std::uint8_t file_name_length_;
    std::uint8_t file_name_type_;

    std::uint64_t parent_directory() const { return parent_directory_.get(); }
    std::uint64_t creation_time() const { return creation_time_.get(); }
    std::uint64_t last_data_change_time() const { return last_data_change_time_.get(); }
    std::uint64_t last_mft_change_time() const { return last_mft_change_time_.get(); }
    std::uint64_t last_access_time() const { return last_access_time_.get(); }
    std::uint64_t allocated_size() const { return allocated_size_.get(); }
    std::uint64_t data_size() const { return data_size_.get(); }
    std::uint32_t file_attributes() const { return file_attributes_.get(); }
    std::uint32_t reparse_tag() const { return reparse_tag_.get(); }
    std::uint8_t file_name_length() const { return file_name_length_; }
    std::uint8_t file_name_type() const { return file_name_type_; }
    // The size of a value whose name has `characters` characters.
    static constexpr std::uint32_t SizeFor(std::uint32_t characters) { return kNameOffset + 2 * characters; }
};
static_assert(sizeof(FileNameValue) == 66, "file name");
static_assert(offsetof(FileNameValue, allocated_size_) == 40, "allocated size");
static_assert(offsetof(FileNameValue, file_attributes_) == 56, "attributes");
static_assert(offsetof(FileNameValue, reparse_tag_) == 60, "reparse tag");
static_assert(offsetof(FileNameValue, file_name_length_) == 64, "name length");

// The value of $VOLUME_INFORMATION.
struct VolumeInformation {
    static constexpr std::uint32_t kSize = 12;

    unsigned char reserved_[8];
    std::uint8_t major_ver_;
    std::uint8_t minor_ver_;
    Common::le16 flags_;

    std::uint16_t version() const { return static_cast<std::uint16_t>((major_ver_ << 8) | minor_ver_); }
    std::uint16_t flags() const { return flags_.get(); }
};
static_assert(sizeof(VolumeInformation) == 12, "volume information");

// One 160-byte entry of $AttrDef.
struct AttrDefEntry {
    static constexpr std::uint32_t kSize = 160;
    static constexpr std::uint32_t kMustStayResident = 0x40;

    unsigned char name_[128];
    Common::le32 type_;
    Common::le32 display_rule_;
    Common::le32 collation_rule_;
    Common::le32 flags_;
    Common::le64 min_size_;
    Common::le64 max_size_;

    std::uint32_t type() const { return type_.get(); }
    std::uint32_t flags() const { return flags_.get(); }
    std::uint64_t min_size() const { return min_size_.get(); }
    std::uint64_t max_size() const { return max_size_.get(); }
};
static_assert(sizeof(AttrDefEntry) == 160, "attribute definition");
static_assert(offsetof(AttrDefEntry, type_) == 0x80, "type");
static_assert(offsetof(AttrDefEntry, min_size_) == 0x90, "minimum");

// The node header shared by the index root and each index buffer; the
// offsets count from the header itself.
struct IndexHeader {
    static constexpr std::uint32_t kSize = 16;

    Common::le32 entries_offset_;
    Common::le32 index_length_;
    Common::le32 allocated_size_;
    std::uint8_t flags_;
    unsigned char reserved_[3];

    std::uint32_t entries_offset() const { return entries_offset_.get(); }
    std::uint32_t index_length() const { return index_length_.get(); }
    std::uint32_t allocated_size() const { return allocated_size_.get(); }
    std::uint8_t flags() const { return flags_; }
};
static_assert(sizeof(IndexHeader) == 16, "index header");

// The value of $INDEX_ROOT: this head, then the node header, then entries.
struct IndexRoot {
    static constexpr std::uint32_t kMinimumSize = 48;  // head, node header, one end entry
    // Collation rules.
    static constexpr std::uint32_t kCollationFileName = 1;
    static constexpr std::uint32_t kCollationUlong = 16;
    static constexpr std::uint32_t kCollationSecurityHash = 18;
    static constexpr std::uint32_t kCollationUlongs = 19;

    Common::le32 type_;
    Common::le32 collation_rule_;
    Common::le32 index_block_size_;
    std::uint8_t clusters_per_index_block_;
    unsigned char reserved_[3];
    IndexHeader index_;

    std::uint32_t type() const { return type_.get(); }
    std::uint32_t collation_rule() const { return collation_rule_.get(); }
    std::uint32_t index_block_size() const { return index_block_size_.get(); }
    std::uint8_t clusters_per_index_block() const { return clusters_per_index_block_; }
};
static_assert(sizeof(IndexRoot) == 32, "index root");
static_assert(offsetof(IndexRoot, index_) == 16, "root node header");

// An index buffer ("INDX") of $INDEX_ALLOCATION.
struct IndexBlock {
    static constexpr std::uint32_t kHeaderOffset = 24;

    MultiSectorHeader multi_sector_;
    Common::le64 lsn_;
    Common::le64 index_block_vcn_;
    IndexHeader index_;

    std::uint64_t index_block_vcn() const { return index_block_vcn_.get(); }
};
static_assert(sizeof(IndexBlock) == 40, "index buffer header");
static_assert(offsetof(IndexBlock, index_) == 24, "buffer node header");

// The head of an index entry. A directory entry starts with the file
// reference; an entry of the other indexes with the offset and length of
// its data. The key follows at kKeyOffset; an entry with a sub-node ends in
// the sub-node's VCN.
struct IndexEntryHeader {
    static constexpr std::uint32_t kKeyOffset = 16;
    static constexpr std::uint32_t kEndEntrySize = 16;

    Common::le64 indexed_file_;  // or: le16 data offset, le16 data length, le32 reserved
    Common::le16 length_;
    Common::le16 key_length_;
    Common::le16 flags_;
    Common::le16 reserved_;

    std::uint64_t indexed_file() const { return indexed_file_.get(); }
    std::uint16_t data_offset() const { return static_cast<std::uint16_t>(indexed_file_.get() & 0xFFFF); }
    std::uint16_t data_length() const { return static_cast<std::uint16_t>((indexed_file_.get() >> 16) & 0xFFFF); }
    std::uint16_t length() const { return length_.get(); }
    std::uint16_t key_length() const { return key_length_.get(); }
    std::uint16_t flags() const { return flags_.get(); }
};
static_assert(sizeof(IndexEntryHeader) == 16, "index entry header");

// The head of a $REPARSE_POINT value, and the name offsets of a mount
// point or symbolic link behind it (a symbolic link adds a u32 of flags).
struct ReparsePointHeader {
    static constexpr std::uint32_t kMaximumSize = 16384;
    static constexpr std::uint32_t kMountPointNames = 16;  // names of a mount point start here
    static constexpr std::uint32_t kSymlinkNames = 20;     // ... and of a symbolic link
    static constexpr std::uint32_t kSymlinkRelative = 0x1;

    Common::le32 reparse_tag_;
    Common::le16 reparse_data_length_;
    Common::le16 reserved_;
    Common::le16 substitute_name_offset_;
    Common::le16 substitute_name_length_;
    Common::le16 print_name_offset_;
    Common::le16 print_name_length_;
    Common::le32 symlink_flags_;

    std::uint32_t reparse_tag() const { return reparse_tag_.get(); }
    std::uint16_t substitute_name_offset() const { return substitute_name_offset_.get(); }
    std::uint16_t substitute_name_length() const { return substitute_name_length_.get(); }
    std::uint32_t symlink_flags() const { return symlink_flags_.get(); }
};
static_assert(sizeof(ReparsePointHeader) == 20, "reparse point");

}  // namespace ntfs
