#include "fat/fatxx_handler.h"

#include <algorithm>

#include "loader/common/byte_order.h"
#include "loader/common/raise.h"

namespace {

// Table sectors read ahead at once when a walk goes from one sector to the
// next: a chain of a large file crosses hundreds, each a firmware request
// when read alone.
constexpr std::uint32_t kReadAheadSectors = 64;

}  // namespace

template <typename T, unsigned long Mask>
unsigned char* FATXXHandler<T, Mask>::entry_at(std::uint32_t cluster) {
    std::uint32_t index = cluster / entries_per_sector;
    if (index != cached_index) {
        if (cached_index != 0xFFFFFFFF && index == cached_index + 1 && index < driver->sectors_per_fat) {
            driver->prefetch_sectors(std::uint64_t(driver->active_fat_first) + index,
                                     std::min(kReadAheadSectors, driver->sectors_per_fat - index));
        }
        // A failed read leaves no sector cached rather than a stale index.
        cached_index = 0xFFFFFFFF;
        cached_block = driver->get_block(std::uint64_t(driver->active_fat_first) + index, 1, false);
        cached_index = index;
    }
    return cached_block.data() + (cluster % entries_per_sector) * kEntryBytes;
}

template <typename T, unsigned long Mask>
std::uint32_t FATXXHandler<T, Mask>::entry(std::uint32_t cluster) {
    const unsigned char* at = entry_at(cluster);
    std::uint32_t value = kEntryBytes == 4 ? Common::LoadLE32(at) : Common::LoadLE16(at);
    return value & kMask;
}

template <typename T, unsigned long Mask>
bool FATXXHandler<T, Mask>::next_run(ClusterRun& run) {
    if (!driver->valid_cluster(run.next)) return false;
    std::uint32_t cluster = run.next;
    run.first = cluster;
    // The run stops at the cached sector's last entry; run.next then names
    // the following cluster and the next call goes on from there.
    const std::uint64_t last = sector_end(cluster) - 1;
    std::uint32_t value = entry(cluster);
    while (value == cluster + 1 && driver->valid_cluster(value) && cluster < last) {
        cluster = value;
        value = entry(cluster);
    }
    run.end = cluster + 1;
    run.next = value;
    return true;
}

template <typename T, unsigned long Mask>
bool FATXXHandler<T, Mask>::find_free(ClusterRun& run) {
    const std::uint32_t table_end = driver->cluster_count + 2;
    std::uint32_t cluster = run.next;
    if (cluster >= table_end || cluster < 2) cluster = 2;
    for (std::uint32_t tested = 0; tested < driver->cluster_count; ++tested) {
        if (entry(cluster) == 0) {
            std::uint64_t stop = sector_end(cluster);
            if (stop > table_end) stop = table_end;
            run.first = cluster;
            std::uint32_t end = cluster + 1;
            while (end < stop && entry(end) == 0) ++end;
            run.end = end;
            // The next search starts at the next free entry of this sector,
            // or where the sector's entries end.
            std::uint32_t next = end;
            while (next < stop && entry(next) != 0) ++next;
            run.next = next;
            return true;
        }
        if (++cluster == table_end) cluster = 2;
    }
    return false;
}

template <typename T, unsigned long Mask>
void FATXXHandler<T, Mask>::set_entry(std::uint32_t cluster, std::uint32_t value) {
    if (!driver->valid_cluster(cluster)) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    unsigned char* at = entry_at(cluster);
    driver->prepare_block_write(cached_block);
    // The upper 4 bits of a 32-bit entry are cleared, not kept.
    value &= kMask;
    if (kEntryBytes == 4) {
        Common::StoreLE32(at, value);
    } else {
        Common::StoreLE16(at, static_cast<std::uint16_t>(value));
    }
    cached_block.set_dirty();
}

template <typename T, unsigned long Mask>
std::uint32_t FATXXHandler<T, Mask>::count_free() {
    std::uint32_t count = 0;
    const std::uint32_t table_end = driver->cluster_count + 2;
    for (std::uint32_t cluster = 2; cluster < table_end; ++cluster) count += entry(cluster) == 0;
    return count;
}

template class FATXXHandler<unsigned short, 65535ul>;
template class FATXXHandler<unsigned long, 268435455ul>;
