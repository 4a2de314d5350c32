#include "fat/fat12_handler.h"

#include "loader/common/byte_order.h"
#include "loader/common/raise.h"

unsigned char* FAT12Handler::load() {
    if (!loaded) {
        table = driver->get_block(driver->active_fat_first,
                                  table_sectors(driver->cluster_count, driver->sector_size), false);
        loaded = true;
    }
    return table.data();
}

std::uint32_t FAT12Handler::entry(const unsigned char* data, std::uint32_t cluster) const {
    std::uint32_t pair = Common::LoadLE16(data + cluster * 3 / 2);
    return (cluster & 1) != 0 ? pair >> 4 : pair & 0xFFF;
}

bool FAT12Handler::next_run(ClusterRun& run) {
    if (!driver->valid_cluster(run.next)) return false;
    const unsigned char* data = load();
    std::uint32_t cluster = run.next;
    run.first = cluster;
    // The cluster number rises at every step and stays valid, so the walk ends.
    std::uint32_t value = entry(data, cluster);
    while (value == cluster + 1 && driver->valid_cluster(value)) {
        cluster = value;
        value = entry(data, cluster);
    }
    run.end = cluster + 1;
    run.next = value;
    return true;
}

bool FAT12Handler::find_free(ClusterRun& run) {
    const unsigned char* data = load();
    const std::uint32_t table_end = driver->cluster_count + 2;
    std::uint32_t cluster = run.next;
    if (cluster >= table_end || cluster < 2) cluster = 2;
    for (std::uint32_t tested = 0; tested < driver->cluster_count; ++tested) {
        if (entry(data, cluster) == 0) {
            run.first = cluster;
            std::uint32_t end = cluster + 1;
            while (end < table_end && entry(data, end) == 0) ++end;
            run.end = end;
            run.next = end < table_end ? end + 1 : end;
            return true;
        }
        if (++cluster == table_end) cluster = 2;
    }
    return false;
}

void FAT12Handler::set_entry(std::uint32_t cluster, std::uint32_t value) {
    if (!driver->valid_cluster(cluster)) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    unsigned char* data = load();
    driver->prepare_block_write(table);
    unsigned char* at = data + cluster * 3 / 2;
    std::uint32_t pair = Common::LoadLE16(at);
    if ((cluster & 1) != 0) {
        pair = (pair & 0xF) | (value << 4);
    } else {
        pair = (pair & 0xF000) | (value & 0xFFF);
    }
    Common::StoreLE16(at, static_cast<std::uint16_t>(pair));
    table.set_dirty();
}

std::uint32_t FAT12Handler::count_free() {
    const unsigned char* data = load();
    const std::uint32_t limit = static_cast<std::uint32_t>((std::uint64_t(driver->cluster_count) * 3 + 3) / 2);
    std::uint32_t count = 0;
    // Each group of three bytes holds an even entry at its start and an odd
    // one a byte later, so two strides cover all entries without a parity test.
    for (std::uint32_t offset = 3; offset <= limit; offset += 3) {
        count += (Common::LoadLE16(data + offset) & 0xFFF) == 0;
    }
    for (std::uint32_t offset = 4; offset <= limit; offset += 3) count += Common::LoadLE16(data + offset) < 16;
    return count;
}
