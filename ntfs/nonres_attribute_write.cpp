// Writing the value of a non-resident attribute: cached cluster by cluster
// for any range, straight to the device a run at a time for whole sectors.
#include <algorithm>
#include <cstring>

#include "loader/common/raise.h"
#include "ntfs/cluster_writes.h"
#include "ntfs/file_record.h"
#include "ntfs/nonres_attribute.h"
#include "ntfs/ntfs_driver.h"

namespace ntfs {

std::uint64_t NonresAttribute::write(std::uint64_t position, std::uint64_t length, const void* buffer) {
    return plainWrite(position, length, buffer);
}

std::uint64_t NonresAttribute::writeSectors(std::uint64_t position, std::uint64_t length, const void* buffer) {
    return plainWriteSectors(position, length, buffer);
}

std::uint64_t NonresAttribute::plainWrite(std::uint64_t position, std::uint64_t length, const void* buffer) {
    if (length == 0) return 0;
    if (!fillGap(position)) return 0;
    const std::uint64_t old_size = size();
    length = fitLength(position, length);
    if (length == 0) return 0;
    const std::uint64_t written =
        writeClusters(position, length, static_cast<const unsigned char*>(buffer), old_size);
    raiseInitialized(position + written);
    return written;
}

std::uint64_t NonresAttribute::plainWriteSectors(std::uint64_t position, std::uint64_t length, const void* buffer) {
    const std::uint32_t sector = driver->sector_size;
    if (buffer == nullptr || position % sector != 0 || length % sector != 0 ||
        reinterpret_cast<std::uintptr_t>(buffer) % sector != 0) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_WRITE);
    }
    if (length == 0) return 0;
    if (!fillGap(position)) return 0;
    length = fitLength(position, length);
    // A stream cut short by a full volume ends on a cluster: still whole sectors.
    const std::uint64_t written = writeRuns(position, length, static_cast<const unsigned char*>(buffer));
    raiseInitialized(position + written);
    return written;
}

bool NonresAttribute::fillGap(std::uint64_t position) {
    const std::uint64_t initialized = initializedSize();
    if (position <= initialized) return true;
    // Bytes below the initialized size read as they lie on disk: those of
    // the gap must become zeros before the size passes them.
    return plainWrite(initialized, position - initialized, nullptr) == position - initialized;
}

std::uint64_t NonresAttribute::fitLength(std::uint64_t position, std::uint64_t length) {
    if (length > ~std::uint64_t(0) - position) Common::Raise(ERROR_TAG, Common::Failures::FILE_WRITE);
    const std::uint64_t end = position + length;
    if (end <= size()) return length;
    const std::uint64_t reached = resize(end, true);
    return reached <= position ? 0 : std::min(length, reached - position);
}

bool NonresAttribute::writableStretch(std::uint64_t vcn, Stretch& stretch) {
    if (!stretchAt(vcn, stretch)) return false;
    if (stretch.sparse()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    return true;
}

std::uint64_t NonresAttribute::writeClusters(std::uint64_t position, std::uint64_t length, const unsigned char* data,
                                             std::uint64_t old_size) {
    const std::uint32_t cluster_size = driver->cluster_size;
    std::uint64_t done = 0;
    Stretch stretch{};
    while (done < length && writableStretch(position / cluster_size, stretch)) {
        for (std::uint64_t i = 0; i < stretch.count && done < length; ++i) {
            const auto offset = static_cast<std::uint32_t>(position % cluster_size);
            const auto part = static_cast<std::uint32_t>(std::min<std::uint64_t>(cluster_size - offset, length - done));
            const bool fresh = position - offset >= old_size;
            writeCluster(stretch.cluster + i, offset, part, fresh, data == nullptr ? nullptr : data + done);
            done += part;
            position += part;
        }
    }
    return done;
}

void NonresAttribute::writeCluster(std::uint64_t cluster, std::uint32_t offset, std::uint32_t length, bool fresh,
                                   const unsigned char* data) {
    const std::uint32_t cluster_size = driver->cluster_size;
    // A cluster that the write covers, or one past the old end whose head
    // it writes, keeps nothing of the disk: no need to read it.
    const bool no_read = offset == 0 && (length == cluster_size || fresh);
    const std::uint32_t sectors = driver->sectors_per_cluster;
    BlockHandle block = WritableBlock(driver, cluster * sectors, sectors, no_read);
    unsigned char* bytes = block.data();
    if (no_read) std::memset(bytes + length, 0, cluster_size - length);
    if (data != nullptr) {
        std::memcpy(bytes + offset, data, length);
    } else {
        std::memset(bytes + offset, 0, length);
    }
    MarkWritten(driver, block);
}

std::uint64_t NonresAttribute::writeRuns(std::uint64_t position, std::uint64_t length, const unsigned char* data) {
    const std::uint32_t cluster_size = driver->cluster_size;
    const std::uint32_t sector = driver->sector_size;
    std::uint64_t done = 0;
    Stretch stretch{};
    while (done < length && writableStretch(position / cluster_size, stretch)) {
        const std::uint64_t in_stretch = stretch.count * cluster_size - position % cluster_size;
        const std::uint64_t take = std::min(length - done, in_stretch);
        const std::uint64_t first_sector =
            stretch.cluster * driver->sectors_per_cluster + (position % cluster_size) / sector;
        PrepareDirectWrite(driver);
        driver->write_sectors(data + done, first_sector, take / sector);
        done += take;
        position += take;
    }
    return done;
}

void NonresAttribute::raiseInitialized(std::uint64_t end) {
    AttributeRecord* head = first()->header_;
    if (end <= head->initialized_size()) return;
    head->set_initialized_size(std::min(end, head->data_size()));
    record->flush();
}

}  // namespace ntfs
