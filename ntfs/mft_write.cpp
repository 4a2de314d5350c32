// Writing record buffers back: the update sequence protects the image on
// disk, while the buffer in memory keeps its plain bytes.
#include <algorithm>
#include <cstring>
#include <vector>

#include "loader/common/raise.h"
#include "ntfs/cluster_writes.h"
#include "ntfs/file_record.h"
#include "ntfs/file_record_impl.h"
#include "ntfs/fixups.h"
#include "ntfs/mft.h"
#include "ntfs/ntfs_driver.h"

namespace ntfs {

namespace {

// The mirror keeps the records that a damaged start of the MFT would take.
constexpr std::uint64_t kLastMirroredRecord = 3;

}  // namespace

void Mft::flushRecord(std::uint64_t number) {
    auto found = buffers_.find(number);
    if (found == buffers_.end() || found->second->free_on_release) return;
    writeRecord(*found->second);
}

void Mft::writeRecord(RecordBuffer& buffer) {
    const std::uint32_t size = driver_->record_size;
    // The protected image is a copy: the buffer's headers stay readable
    // for the attribute objects while the image goes out.
    std::vector<unsigned char> image(buffer.bytes);
    ApplyWriteFixups(image.data(), size, kRecordFixupMinimum);
    if (buffer.number == kMftRecord) {
        writeRecordZero(image.data());
    } else if (dataStream()->write(buffer.number * size, size, image.data()) != size) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_WRITE);
    }
    // What reading the image back would give: the new array, the old tails.
    const auto* header = buffer.header();
    const std::uint32_t array = header->multi_sector_.usa_ofs();
    std::memcpy(buffer.data() + array, image.data() + array, 2u * header->multi_sector_.usa_count());
    if (buffer.number <= kLastMirroredRecord) writeMirror(buffer.number, image.data());
}

void Mft::writeRecordZero(const unsigned char* image) {
    // The same steps as its read: a cluster at a time through the cache.
    const std::uint32_t per_cluster = driver_->sectors_per_cluster;
    const std::uint32_t sectors = std::max(per_cluster, driver_->sectors_per_record);
    const std::uint64_t first = std::uint64_t(driver_->mft_start) * per_cluster;
    const std::uint32_t size = driver_->record_size;
    const std::uint32_t step_bytes = std::min(driver_->cluster_size, size);
    for (std::uint32_t step = 0; step < sectors; step += per_cluster) {
        const std::uint64_t offset = std::uint64_t(step) * driver_->sector_size;
        if (offset >= size) break;
        BlockHandle block = WritableBlock(driver_, first + step, per_cluster, false);
        std::memcpy(block.data(), image + offset, static_cast<std::size_t>(std::min<std::uint64_t>(step_bytes, size - offset)));
        MarkWritten(driver_, block);
    }
}

void Mft::writeMirror(std::uint64_t number, const unsigned char* image) {
    RecordRef mirror = driver_->record_cache->get(kMftMirrorRecord);
    AttributeRef data = mirror.find(kData);
    if (!data) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    const std::uint32_t size = driver_->record_size;
    // The mirror holds as many records as it was made for; it never grows.
    if ((number + 1) * size > data->size()) return;
    if (data->write(number * size, size, image) != size) Common::Raise(ERROR_TAG, Common::Failures::FILE_WRITE);
}

}  // namespace ntfs
