#pragma once
// The 16-bit and 32-bit tables. Entries never straddle a sector, so the
// table is read one cached sector at a time and the handler holds just the
// sector it last used. Of a 32-bit entry only the low 28 bits count.
#include <cstdint>
#include <type_traits>

#include "fat/fat_handler.h"
#include "fsdriver/block_handle.h"

template <typename T, unsigned long Mask>
class FATXXHandler : public FATDriver::FATHandler {
public:
    // The on-disk entry: 2 or 4 bytes, whatever the width of T on this host.
    static constexpr std::uint32_t kEntryBytes = Mask > 0xFFFFul ? 4 : 2;
    static constexpr std::uint32_t kMask = static_cast<std::uint32_t>(Mask);

    explicit FATXXHandler(FATDriver* owner)
        : driver(owner), entries_per_sector(owner->sector_size / kEntryBytes) {}

    bool next_run(ClusterRun& run) override;
    bool find_free(ClusterRun& run) override;
    void set_entry(std::uint32_t cluster, std::uint32_t value) override;
    std::uint32_t count_free() override;

private:
    // The cached sector that holds `cluster`'s entry, and the entry's place in it.
    unsigned char* entry_at(std::uint32_t cluster);
    std::uint32_t entry(std::uint32_t cluster);
    // The first cluster of the next table sector behind `cluster`'s.
    std::uint64_t sector_end(std::uint32_t cluster) const {
        return (std::uint64_t(cluster) / entries_per_sector + 1) * entries_per_sector;
    }

    FATDriver* driver;
    std::uint32_t entries_per_sector;
    std::uint32_t cached_index = 0xFFFFFFFF;
    BlockHandle cached_block;
};

using FAT16Handler = FATXXHandler<unsigned short, 65535ul>;
using FAT32Handler = FATXXHandler<unsigned long, 268435455ul>;

extern template class FATXXHandler<unsigned short, 65535ul>;
extern template class FATXXHandler<unsigned long, 268435455ul>;
