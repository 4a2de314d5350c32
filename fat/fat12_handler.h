#pragma once
// The 12-bit table: two entries in three bytes. An entry may straddle a
// sector border, so the whole table (at most about 6 KB) is one cached
// block, taken at first use and held until the handler goes.
#include <cstdint>

#include "fat/fat_handler.h"
#include "fsdriver/block_handle.h"

class FAT12Handler : public FATDriver::FATHandler {
public:
    explicit FAT12Handler(FATDriver* owner) : driver(owner) {}

    bool next_run(ClusterRun& run) override;
    bool find_free(ClusterRun& run) override;
    void set_entry(std::uint32_t cluster, std::uint32_t value) override;
    std::uint32_t count_free() override;

    // Sectors of the table block for `clusters` clusters: enough for the
    // 16-bit read of the last entry.
    static std::uint32_t table_sectors(std::uint32_t clusters, std::uint32_t sector_size) {
        return static_cast<std::uint32_t>(((std::uint64_t(clusters) * 3 + 5) / 2) / sector_size + 1);
    }

private:
    unsigned char* load();
    // The 12-bit entry of a valid cluster.
    std::uint32_t entry(const unsigned char* data, std::uint32_t cluster) const;

    FATDriver* driver;
    bool loaded = false;
    BlockHandle table;
};
