// The mount. The trial of drivers hands this constructor volumes of every
// kind, and damaged ones too: each boot sector field is checked before it
// sizes or places anything, and no sector is written.
#include <algorithm>
#include <cstring>
#include <new>

#include "fsdriver/directory_object.h"
#include "loader/common/raise.h"
#include "ntfs/cluster_allocator.h"
#include "ntfs/file_record.h"
#include "ntfs/mft.h"
#include "ntfs/ntfs_driver.h"
#include "ntfs/system_indexes.h"

namespace ntfs {

namespace {

constexpr std::uint32_t kSmallestSector = 512;
constexpr std::int8_t kSmallestRecordShift = -16;  // 64 KiB
constexpr std::int8_t kLargestRecordShift = -9;    // 512 bytes
constexpr std::uint32_t kMostRecordSize = 65536;
constexpr std::uint64_t kMostAttrDefSize = 65536;
constexpr std::uint64_t kMostUpCaseSize = 0x10000 * 2;  // one entry per 16-bit character
constexpr std::uint16_t kFirstIndexedVersion = 0x300;
constexpr std::uint32_t kObjectIdSize = 16;

// Sectors of a record or an index buffer from the boot sector's byte.
std::uint32_t UnitSectors(std::int8_t value, std::uint32_t sectors_per_cluster, std::uint32_t sector_size) {
    if (value > 0) return std::uint32_t(value) * sectors_per_cluster;
    return (1u << -value) / sector_size;
}

}  // namespace

NTFSDriver::NTFSDriver(Fdisk::SimpleDisk* device, std::uint64_t first_sector, std::uint64_t volume_sectors,
                       std::uint32_t cache_group, const void* boot_sector, const unsigned char* record_filter,
                       std::uint64_t record_filter_bits)
    : FileSystemDriverWindows(device, first_sector, volume_sectors, cache_group) {
    if (record_filter != nullptr && record_filter_bits != 0) {
        this->record_filter = record_filter;
        this->record_filter_bits = record_filter_bits;
        read_only = true;
    }
    try {
        check_boot_sector(boot_sector);
        load_volume();
    } catch (...) {
        release_objects();
        throw;
    }
}

void NTFSDriver::check_boot_sector(const void* given) {
    if (sector_size < kSmallestSector) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    BootSector boot{};
    if (given != nullptr) {
        std::memcpy(&boot, given, sizeof(boot));
    } else {
        read_volume_bytes(0, &boot, sizeof(boot));
    }
    if (boot.end_of_sector_marker() != BootSector::kEndMarker) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    if (boot.oem_low() != BootSector::kOemLow || boot.oem_high() != BootSector::kOemHigh)
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    const std::uint8_t per_cluster = boot.sectors_per_cluster();
    if (per_cluster == 0 || (per_cluster & (per_cluster - 1)) != 0)
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    if (boot.mft_lcn() == 0 || boot.mftmirr_lcn() == 0 || boot.mft_lcn() == boot.mftmirr_lcn())
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    const std::int8_t per_record = boot.clusters_per_mft_record();
    if (per_record == 0 ||
        (per_record < 0 && (per_record < kSmallestRecordShift || per_record > kLargestRecordShift))) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    const std::int8_t per_index = boot.clusters_per_index_record();
    if (per_index == 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    total_sectors = boot.number_of_sectors();
    if (volume_sectors < total_sectors / per_cluster * per_cluster)
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    sectors_per_cluster = per_cluster;
    cluster_size = per_cluster * sector_size;
    sectors_per_record = UnitSectors(per_record, per_cluster, sector_size);
    record_size = sectors_per_record * sector_size;
    // An index byte below -31 would shift past the word; such a volume has
    // no index buffers this driver could read, and its directories say so.
    sectors_per_index_buffer = per_index < -31 ? 0 : UnitSectors(per_index, per_cluster, sector_size);
    index_buffer_size = sectors_per_index_buffer * sector_size;
    if (record_size == 0 || record_size > kMostRecordSize) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    if (boot.mft_lcn() >= total_sectors / per_cluster) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    mft_start = static_cast<std::uint32_t>(boot.mft_lcn());
    if (mft_start != boot.mft_lcn()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    // Sector 0 also starts cluster 0 of the grid the driver reads on.
    discard_block(0);
}

void NTFSDriver::load_volume() {
    mft = std::make_unique<Mft>(this);
    record_cache = std::make_unique<FileRecordCache>(this);
    load_attribute_definitions();
    load_upcase_table();
    cluster_allocator = std::make_unique<ClusterAllocator>(this);
    load_volume_information();
    if (version >= kFirstIndexedVersion) {
        secure_file = std::make_unique<SecureFile>(this);
        objid_file = std::make_unique<ObjIdFile>(this);
        reparse_file = std::make_unique<ReparseFile>(this);
    }
}

void NTFSDriver::load_attribute_definitions() {
    attr_defs = std::make_unique<AttrDefTable>();
    RecordRef record = record_cache->get(kAttrDefRecord);
    AttributeRef definitions = record.find(kData);
    if (!definitions) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    const std::uint64_t size = definitions->size();
    if (size > kMostAttrDefSize) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    for (std::uint64_t offset = 0; offset < size; offset += AttrDefEntry::kSize) {
        AttrDefEntry entry{};
        if (definitions->read(offset, sizeof(entry), &entry) != sizeof(entry))
            Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        if (entry.type() == kBitmap && entry.min_size() == 0) {
            // The bitmap's minimum of 0 would let a resize drop it below a
            // whole u64; the driver keeps 8 in memory.
            entry.min_size_.set(8);
            if (entry.max_size() <= 8) entry.max_size_.set(8);
        }
        attr_defs->entries.emplace(entry.type(), entry);
        if (entry.type() == kAttributeEnd) break;
    }
}

void NTFSDriver::load_upcase_table() {
    upcase_table = std::make_unique<UpCaseTable>();
    RecordRef record = record_cache->get(kUpCaseRecord);
    AttributeRef stream = record.find(kData);
    if (!stream) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    // Entries past the 16-bit characters could never be used.
    const std::uint64_t size = std::min(stream->size(), kMostUpCaseSize) & ~std::uint64_t(1);
    std::vector<unsigned char> bytes;
    try {
        bytes.assign(static_cast<std::size_t>(size), 0);
        upcase_table->table.assign(static_cast<std::size_t>(size / 2), 0);
    } catch (const std::bad_alloc&) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_NO_MEMORY);
    }
    if (size != 0 && stream->read(0, size, bytes.data()) != size) Common::Raise(ERROR_TAG, Common::Failures::FILE_READ);
    for (std::size_t i = 0; i < upcase_table->table.size(); ++i) {
        upcase_table->table[i] = static_cast<char16_t>(bytes[2 * i] | bytes[2 * i + 1] << 8);
    }
}

void NTFSDriver::load_volume_information() {
    RecordRef record = record_cache->get(kVolumeRecord);
    AttributeRef information = record.find(kVolumeInformation);
    if (!information) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    VolumeInformation value{};
    if (information->size() < VolumeInformation::kSize ||
        information->read(0, VolumeInformation::kSize, &value) != VolumeInformation::kSize) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_READ);
    }
    version = value.version();
    if (version < kFirstIndexedVersion) return;
    AttributeRef object_id = record.find(kObjectId);
    if (object_id && object_id->size() >= kObjectIdSize) {
        if (object_id->read(0, kObjectIdSize, volume_object_id) != kObjectIdSize) {
            Common::Raise(ERROR_TAG, Common::Failures::FILE_READ);
        }
    }
}

void NTFSDriver::release_objects() {
    reparse_file.reset();
    objid_file.reset();
    secure_file.reset();
    cluster_allocator.reset();
    upcase_table.reset();
    attr_defs.reset();
    record_cache.reset();
    mft.reset();
}

NTFSDriver::~NTFSDriver() {
    dismount();
    // Directory objects hold records, so they go before the record cache.
    for (auto& entry : directories) delete entry.second;
    directories.clear();
    release_objects();
}

}  // namespace ntfs
