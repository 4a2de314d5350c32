#include "fat/fat_driver.h"

#include <algorithm>
#include <cstring>

#include "fat/fat_directory.h"
#include "fat/fat_errors.h"
#include "fat/fat_handler.h"
#include "fat/fat_text.h"
#include "fat/fsinfo_sector.h"
#include "fsdriver/cached_block.h"
#include "loader/common/error.h"
#include "loader/common/raise.h"

FATDriver::~FATDriver() {
    // A destructor has nobody to tell: a free count that can't be written
    // is dropped like any other failed write of the dismount.
    try {
        write_free_count();
    } catch (const Common::Error&) {
    }
    dismount();
    delete handler;
    handler = nullptr;
}

void FATDriver::write_free_count() {
    if (free_count == free_baseline || fsinfo_sector == 0) return;
    std::uint32_t count = free_cluster_count(true);
    BlockHandle info = get_block(fsinfo_sector, 1, false);
    prepare_block_write(info);
    // Only the count changes; the rest of the sector stays as it was.
    reinterpret_cast<FATFSInfoSector*>(info.data())->set_free_count(count);
    info.set_dirty();
}

std::uint32_t FATDriver::alloc_cluster() {
    if (alloc_run.first == alloc_run.end && !handler->find_free(alloc_run)) {
        throw FileDiskFull(ERROR_TAG);
    }
    std::uint32_t cluster = alloc_run.first;
    // A new cluster is always an end of chain; the caller links it.
    handler->set_entry(cluster, 0xFFFFFFFF);
    ++alloc_run.first;
    --free_count;
    return cluster;
}

void FATDriver::free_chain(std::uint32_t first) {
    ClusterRun run{0, 0, first};
    // A loop in the chain ends itself: its start reads 0 on the second pass.
    while (handler->next_run(run)) {
        for (std::uint32_t cluster = run.first; cluster != run.end; ++cluster) {
            discard_block(std::uint64_t(cluster - 2) * sectors_per_cluster + first_data_sector);
            handler->set_entry(cluster, 0);
            ++free_count;
        }
    }
}

std::uint32_t FATDriver::free_cluster_count(bool strict) {
    if (fsinfo_sector != 0 && !free_valid) {
        BlockHandle info = get_block(fsinfo_sector, 1, false);
        const auto* record = reinterpret_cast<const FATFSInfoSector*>(info.data());
        if (sector_size < 512 || !record->has_signatures()) {
            fsinfo_sector = 0;
            if (strict) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        } else {
            std::uint32_t recorded = record->free_count();
            // Allocations and frees made before this first look stay counted.
            free_count = recorded + free_count - free_baseline;
            free_baseline = recorded;
            if (recorded < cluster_count) free_valid = true;
        }
    }
    if (free_count >= cluster_count) free_valid = false;
    if (!free_valid) {
        free_count = handler->count_free();
        free_valid = true;
    }
    return free_count;
}

void FATDriver::flush_blocks() {
    if (!mirror_fats) {
        FileSystemDriver::flush_blocks();
        return;
    }
    const std::uint64_t tables_end = std::uint64_t(first_data_sector) - root_dir_sectors;
    const std::uint64_t active_end = std::uint64_t(active_fat_first) + sectors_per_fat;
    auto at = blocks.begin();
    for (; at != blocks.end() && at->first < tables_end; ++at) {
        CachedBlock* block = at->second;
        if (block->dirty == 0) continue;
        if (at->first >= reserved_sectors) break;
        block->dirty = 0;
        device->Transfer(Fdisk::kTransferWrite, first_sector + block->first, block->data(), block->count);
    }
    if (at != blocks.end() && at->first < tables_end) {
        // From the first changed table block on, everything cached of the
        // table goes to each copy; a block never spills past its table.
        const auto from = at;
        for (std::uint32_t copy = 0; copy < fat_count; ++copy) {
            for (auto it = from; it != blocks.end() && it->first < tables_end; ++it) {
                CachedBlock* block = it->second;
                if (block->first < active_fat_first || block->first >= active_end) continue;
                std::uint64_t count = block->count;
                if (count > active_end - block->first) count = active_end - block->first;
                std::uint64_t target = block->first - active_fat_first + reserved_sectors +
                                       std::uint64_t(copy) * sectors_per_fat;
                device->Transfer(Fdisk::kTransferWrite, first_sector + target, block->data(), count);
            }
        }
        for (auto it = from; it != blocks.end() && it->first < tables_end; ++it) {
            if (it->first >= active_fat_first && it->first < active_end) it->second->dirty = 0;
        }
    }
    FileSystemDriver::flush_blocks();
}

bool FATDriver::passes_filter(std::uint32_t cluster, std::uint32_t size, bool directory) const {
    if (filter_bits == nullptr) return true;
    if ((size == 0 && !directory) || cluster < 2) return true;
    std::uint64_t bit = cluster - 2;
    return bit < filter_size && (filter_bits[bit / 8] >> (bit % 8) & 1) != 0;
}

void FATDriver::space(std::uint64_t& total, std::uint64_t& free, std::uint64_t& available) {
    total = (std::uint64_t(sectors_per_cluster) * cluster_count + first_data_sector) * sector_size;
    free = std::uint64_t(free_cluster_count(false)) * sectors_per_cluster * sector_size;
    available = free;
}

void FATDriver::label(char16_t* buffer, std::uint32_t capacity) {
    if (capacity == 0) return;
    const unsigned char* bytes = boot_label;
    auto* root = static_cast<FATDirectory*>(get_object(0));
    for (std::uint32_t index = 0; index < root->entry_count && !root->entry(index).is_end(); ++index) {
        const DirEntry& candidate = root->entry(index);
        if (!candidate.is_deleted() && (candidate.attributes() & fat_entry::kVolumeLabel) != 0 &&
            !candidate.is_long()) {
            bytes = candidate.name();
            break;
        }
    }
    std::u16string text;
    if (!FATText::oem_to_text(bytes, 11, text)) text.clear();
    for (char16_t& unit : text) {
        if (unit == 0) unit = u' ';
    }
    while (!text.empty() && text.back() == u' ') text.pop_back();
    std::size_t length = std::min<std::size_t>(text.size(), capacity - 1);
    std::copy(text.begin(), text.begin() + length, buffer);
    buffer[length] = 0;
}

int FATDriver::compare_identifiers(const file_identifier& a, const file_identifier& b) {
    auto key_of = [](const file_identifier& identifier) -> const unsigned char* {
        auto* known = dynamic_cast<const the_identifier*>(&identifier);
        return known != nullptr ? known->key() : nullptr;
    };
    const unsigned char* left = key_of(a);
    const unsigned char* right = key_of(b);
    if (left == nullptr || right == nullptr) return left == right ? 0 : left == nullptr ? -1 : 1;
    int order = std::memcmp(left, right, 11);
    return order < 0 ? -1 : order > 0 ? 1 : 0;
}

void FATDriver::normalize_path(std::u16string& path) { FATText::text_upper(path); }

FileSystemDriver::DirectoryObject* FATDriver::open_directory(std::uint32_t id) {
    if (id != 0 && !valid_cluster(id)) Common::Raise(ERROR_TAG, Common::Failures::FILE_OPEN);
    return new FATDirectory(this, id);
}
