#include "ntfs/nonresident_image.h"

#include <algorithm>
#include <cstring>

#include "loader/common/raise.h"
#include "ntfs/cluster_allocator.h"
#include "ntfs/cluster_writes.h"
#include "ntfs/ntfs_driver.h"

namespace ntfs {

namespace {

constexpr std::uint32_t kNameOffset = 64;
constexpr std::uint64_t kLongestRun = 0xFFFFFFFFu;

RunList TakeClusters(NTFSDriver* driver, std::uint64_t clusters) {
    std::vector<BitRun> taken;
    std::uint64_t got = 0;
    if (clusters != 0) driver->cluster_allocator->allocate(taken, clusters, &got, false, true);
    RunList runs;
    std::uint64_t vcn = 0;
    for (const BitRun& run : taken) {
        for (std::uint64_t done = 0; done < run.count;) {
            const std::uint64_t part = std::min(run.count - done, kLongestRun);
            runs.append({run.first + done, vcn, static_cast<std::uint32_t>(part)});
            vcn += part;
            done += part;
        }
    }
    if (got < clusters) {
        runs.freeAll(driver);
        Common::Raise(ERROR_TAG, Common::Failures::FILE_DISK_FULL);
    }
    return runs;
}

void WriteValue(NTFSDriver* driver, const RunList& runs, const unsigned char* value, std::uint32_t length) {
    const std::uint32_t cluster_size = driver->cluster_size;
    const std::uint32_t sectors = driver->sectors_per_cluster;
    std::uint64_t done = 0;
    for (const RunEntry& run : runs.entries()) {
        for (std::uint64_t i = 0; i < run.length; ++i) {
            BlockHandle block = WritableBlock(driver, (run.cluster + i) * sectors, sectors, true);
            const auto part = static_cast<std::uint32_t>(std::min<std::uint64_t>(cluster_size, length - done));
            std::memcpy(block.data(), value + done, part);
            std::memset(block.data() + part, 0, cluster_size - part);
            MarkWritten(driver, block);
            done += part;
        }
    }
}

}  // namespace

NonresidentImage MakeNonresidentImage(NTFSDriver* driver, const AttributeRecord* resident,
                                      const unsigned char* value, std::uint32_t length) {
    const std::uint32_t cluster_size = driver->cluster_size;
    const std::uint64_t clusters = (std::uint64_t(length) + cluster_size - 1) / cluster_size;
    NonresidentImage image;
    image.runs = TakeClusters(driver, clusters);
    try {
        WriteValue(driver, image.runs, value, length);
    } catch (...) {
        image.runs.freeAll(driver);
        throw;
    }
    const std::uint32_t name_bytes = 2u * resident->name_length();
    const std::uint32_t pairs = kNameOffset + ((name_bytes + 3) & ~3u);
    const std::uint32_t total = (pairs + image.runs.encodedSize() + 7) & ~7u;
    image.bytes.assign(total, 0);
    AttributeRecord* header = image.header();
    header->set_type(resident->type());
    header->set_length(total);
    header->set_non_resident(true);
    header->set_name_length(resident->name_length());
    header->set_name_offset(static_cast<std::uint16_t>(kNameOffset));
    header->set_flags(0);
    header->set_instance(resident->instance());
    header->set_lowest_vcn(0);
    header->set_highest_vcn(clusters - 1);
    header->set_mapping_pairs_offset(static_cast<std::uint16_t>(pairs));
    header->set_compression_unit(0);
    header->set_allocated_size(clusters * cluster_size);
    header->set_data_size(length);
    header->set_initialized_size(length);
    // The record's check put the name inside the resident attribute.
    std::memcpy(image.bytes.data() + kNameOffset,
                reinterpret_cast<const unsigned char*>(resident) + resident->name_offset(), name_bytes);
    image.runs.encode(image.bytes.data() + pairs);
    return image;
}

}  // namespace ntfs
