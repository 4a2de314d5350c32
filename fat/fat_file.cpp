#include "fat/fat_file.h"

#include <algorithm>
#include <cstring>

#include "fat/entry_time.h"
#include "fat/fat_handler.h"
#include "loader/common/raise.h"

namespace {

constexpr std::uint64_t kNegative = 1ull << 63;  // positions from here on are negative ones
constexpr std::uint64_t kFourGiB = 1ull << 32;
constexpr std::uint32_t kEndOfChain = 0xFFFFFFFF;

}  // namespace

FATDriver::FATFile::FATFile(FATDirectory* directory, std::uint32_t index) : index(index), directory(directory) {
    const DirEntry& found = directory->entry(index);
    if (!found.is_plain_file() || found.is_deleted() || found.is_end()) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_OPEN);
    }
    byte_size = found.size();
    run_next = first_cluster();
    ++directory->references;
    directory->open_files[index] = this;
}

FATDriver::FATFile::~FATFile() {
    auto at = directory->open_files.find(index);
    if (at != directory->open_files.end() && at->second == this) directory->open_files.erase(at);
    --directory->references;
}

// --- the cached run ---

void FATDriver::FATFile::restart_run() {
    run_index = run_first = run_end = 0;
    run_next = first_cluster();
}

void FATDriver::FATFile::fetch_run() {
    ClusterRun run{0, 0, run_next};
    if (!volume()->handler->next_run(run)) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    if (run_end != run_first && run.first == run_end) {
        run_end = run.end;
    } else {
        run_index = run_limit();
        run_first = run.first;
        run_end = run.end;
    }
    run_next = run.next;
}

void FATDriver::FATFile::seek_run(std::uint32_t cluster) {
    if (cluster < run_index || run_end == run_first) restart_run();
    while (run_limit() < cluster) {
        if (!volume()->valid_cluster(run_next)) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        fetch_run();
    }
}

void FATDriver::FATFile::append_cluster() {
    FATDriver* owner = volume();
    std::uint32_t added = owner->alloc_cluster();
    if (run_end == run_first) {
        // An empty file gets its first cluster in its entry.
        directory->open_gate();
        entry().set_cluster(added);
        directory->set_dirty(index);
        run_index = 0;
        run_first = added;
        run_end = added + 1;
    } else {
        owner->handler->set_entry(run_end - 1, added);
        if (added == run_end) {
            ++run_end;
        } else {
            run_index = run_limit();
            run_first = added;
            run_end = added + 1;
        }
    }
    run_next = kEndOfChain;
    changed = true;
}

std::uint32_t FATDriver::FATFile::cluster_at(std::uint32_t cluster, bool grow) {
    if (cluster < run_index || run_end == run_first) restart_run();
    // Every round moves the run's end on by a cluster at least, so the walk
    // is bounded by `cluster` even on a chain that loops.
    for (;;) {
        if (cluster < run_limit()) return run_first + (cluster - run_index);
        if (!volume()->valid_cluster(run_next)) {
            if (!grow) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
            append_cluster();
            continue;
        }
        if (cluster == run_limit()) return run_next;
        fetch_run();
    }
}

std::uint32_t FATDriver::FATFile::contiguous(std::uint32_t cluster, std::uint32_t last, bool grow,
                                            std::uint32_t& start) {
    start = cluster_at(cluster, grow);
    std::uint32_t count = 1;
    while (cluster + count <= last) {
        std::uint32_t at = cluster + count;
        if (cluster_at(at, grow) != start + count) break;
        // The rest of the cached run follows directly as well.
        count = at < run_limit() ? std::min(run_limit(), last + 1) - cluster : count + 1;
    }
    return count;
}

// --- transfers ---

namespace {

// Splits a request into pieces: runs of clusters that go straight between
// the caller's buffer and the device, and single clusters copied through
// the cache. A cluster goes straight if it lies inside the request, or if
// the request's start (first cluster) or end (last cluster) in it falls on
// a sector border.
struct TransferPlan {
    std::uint64_t position;
    std::uint64_t end;
    std::uint32_t cluster_bytes;
    std::uint32_t sector_size;
    bool direct_allowed;

    std::uint32_t first() const { return static_cast<std::uint32_t>(position / cluster_bytes); }
    std::uint32_t last() const { return static_cast<std::uint32_t>((end - 1) / cluster_bytes); }
    bool direct(std::uint32_t cluster) const {
        if (!direct_allowed) return false;
        if (cluster == first() && position % sector_size != 0) return false;
        return cluster != last() || end % sector_size == 0;
    }
};

}  // namespace

template <typename Direct, typename Copy>
static void WalkTransfer(FATDriver::FATFile& file, const TransferPlan& plan, bool grow, Direct direct, Copy copy) {
    const std::uint32_t cluster_bytes = plan.cluster_bytes;
    std::uint64_t at = plan.position;
    while (at < plan.end) {
        const std::uint32_t cluster = static_cast<std::uint32_t>(at / cluster_bytes);
        const std::uint64_t cluster_end = (std::uint64_t(cluster) + 1) * cluster_bytes;
        if (!plan.direct(cluster)) {
            std::uint64_t stop = std::min(plan.end, cluster_end);
            copy(at, static_cast<std::uint32_t>(stop - at));
            at = stop;
            continue;
        }
        std::uint32_t last = plan.direct(plan.last()) ? plan.last() : plan.last() - 1;
        // The walk may have moved the cached run past `cluster`: its volume
        // cluster comes back from the walk, so nothing restarts the chain.
        std::uint32_t start = 0;
        std::uint32_t count = file.contiguous(cluster, last, grow, start);
        std::uint64_t stop = std::min(plan.end, (std::uint64_t(cluster) + count) * cluster_bytes);
        direct(at, stop, start);
        at = stop;
    }
}

void FATDriver::FATFile::read_through_block(unsigned char* out, std::uint64_t position, std::uint32_t length) {
    FATDriver* owner = volume();
    const std::uint32_t cluster_bytes = owner->cluster_bytes();
    std::uint32_t cluster = cluster_at(static_cast<std::uint32_t>(position / cluster_bytes), false);
    BlockHandle block = owner->get_block(owner->cluster_sector(cluster), owner->sectors_per_cluster, false);
    std::memcpy(out, block.data() + position % cluster_bytes, length);
}

void FATDriver::FATFile::read(void* buffer, std::uint64_t position, std::uint64_t size, std::uint64_t& got) {
    got = 0;
    if (size == 0 || position >= byte_size) return;
    FATDriver* owner = volume();
    const std::uint64_t count = std::min<std::uint64_t>(size, byte_size - position);
    unsigned char* out = static_cast<unsigned char*>(buffer);
    TransferPlan plan{position, position + count, owner->cluster_bytes(), owner->sector_size, true};
    WalkTransfer(
        *this, plan, false,
        [&](std::uint64_t from, std::uint64_t to, std::uint32_t cluster) {
            std::uint64_t sector = owner->cluster_sector(cluster) + from % plan.cluster_bytes / plan.sector_size;
            owner->read_sectors(out + (from - position), sector, (to - from) / plan.sector_size,
                                owner->sectors_per_cluster, owner->first_data_sector);
            got += to - from;
        },
        [&](std::uint64_t from, std::uint32_t length) {
            read_through_block(out + (from - position), from, length);
            got += length;
        });
}

void FATDriver::FATFile::write_through_block(const unsigned char* in, std::uint64_t position, std::uint32_t length) {
    FATDriver* owner = volume();
    const std::uint32_t cluster_bytes = owner->cluster_bytes();
    const std::uint32_t offset = static_cast<std::uint32_t>(position % cluster_bytes);
    std::uint32_t cluster = cluster_at(static_cast<std::uint32_t>(position / cluster_bytes), true);
    // Nothing of the cluster's old bytes counts when the write covers it, or
    // starts it at the end of the data: then the rest of it becomes zeros.
    const bool whole = offset == 0 && length == cluster_bytes;
    const bool fresh = offset == 0 && position >= byte_size;
    BlockHandle block = owner->get_block(owner->cluster_sector(cluster), owner->sectors_per_cluster, whole || fresh);
    owner->prepare_block_write(block);
    std::memcpy(block.data() + offset, in, length);
    if (fresh && !whole) std::memset(block.data() + length, 0, cluster_bytes - length);
    block.set_dirty();
}

void FATDriver::FATFile::write(const void* buffer, std::uint64_t position, std::uint64_t size,
                               std::uint64_t& written) {
    written = 0;
    if (size == 0) return;
    if (position >= kNegative) Common::Raise(ERROR_TAG, Common::Failures::FILE_WRITE);
    if (position > byte_size) set_size(position);
    FATDriver* owner = volume();
    const std::uint64_t limit = std::max<std::uint64_t>(byte_size, kFourGiB - owner->sector_size);
    if (position >= limit) return;
    const std::uint64_t count = std::min<std::uint64_t>(size, limit - position);
    directory->open_gate();
    const unsigned char* in = static_cast<const unsigned char*>(buffer);
    const std::uint32_t cluster_bytes = owner->cluster_bytes();
    const bool aligned = (reinterpret_cast<std::uintptr_t>(in) - position % cluster_bytes) % owner->sector_size == 0;
    TransferPlan plan{position, position + count, cluster_bytes, owner->sector_size, aligned};
    auto grown = [&](std::uint64_t to) {
        written = to - position;
        if (to > byte_size) byte_size = static_cast<std::uint32_t>(to);
        changed = true;
    };
    WalkTransfer(
        *this, plan, true,
        [&](std::uint64_t from, std::uint64_t to, std::uint32_t cluster) {
            std::uint64_t sector = owner->cluster_sector(cluster) + from % cluster_bytes / plan.sector_size;
            owner->write_sectors(in + (from - position), sector, (to - from) / plan.sector_size);
            grown(to);
        },
        [&](std::uint64_t from, std::uint32_t length) {
            write_through_block(in + (from - position), from, length);
            grown(from + length);
        });
}

void FATDriver::FATFile::zero_to_cluster_end(std::uint64_t position) {
    FATDriver* owner = volume();
    const std::uint32_t cluster_bytes = owner->cluster_bytes();
    const std::uint32_t offset = static_cast<std::uint32_t>(position % cluster_bytes);
    std::uint32_t cluster = cluster_at(static_cast<std::uint32_t>(position / cluster_bytes), true);
    BlockHandle block = owner->get_block(owner->cluster_sector(cluster), owner->sectors_per_cluster, offset == 0);
    owner->prepare_block_write(block);
    std::memset(block.data() + offset, 0, cluster_bytes - offset);
    block.set_dirty();
}

void FATDriver::FATFile::set_size(std::uint64_t size) {
    if (size == byte_size) return;
    if (size < byte_size) {
        // Clusters are kept until flush_file(): growing again before it reuses them.
        byte_size = static_cast<std::uint32_t>(size);
        changed = true;
        return;
    }
    FATDriver* owner = volume();
    if (size > kFourGiB - owner->sector_size) Common::Raise(ERROR_TAG, Common::Failures::FILE_WRITE);
    directory->open_gate();
    changed = true;
    const std::uint32_t cluster_bytes = owner->cluster_bytes();
    for (std::uint64_t at = byte_size; at < size; at = (at / cluster_bytes + 1) * cluster_bytes) {
        zero_to_cluster_end(at);
    }
    byte_size = static_cast<std::uint32_t>(size);
}

// --- the entry ---

void FATDriver::FATFile::free_behind(std::uint32_t kept) {
    std::uint32_t last = cluster_at(kept, false);
    if (kept == run_limit()) fetch_run();  // so that the run holds `kept` and says what follows
    std::uint32_t follower = kept + 1 < run_limit() ? last + 1 : run_next;
    if (!volume()->valid_cluster(follower)) return;
    run_end = last + 1;
    run_next = kEndOfChain;
    volume()->handler->set_entry(last, kEndOfChain);
    volume()->free_chain(follower);
}

void FATDriver::FATFile::flush_file() {
    if (!changed) return;
    FATDriver* owner = volume();
    directory->open_gate();
    entry().set_size(byte_size);
    const std::uint32_t cluster_bytes = owner->cluster_bytes();
    const std::uint32_t needed = byte_size == 0 ? 0 : (byte_size - 1) / cluster_bytes + 1;
    if (needed == 0) {
        std::uint32_t old_first = first_cluster();
        if (owner->valid_cluster(old_first)) {
            run_index = run_first = run_end = 0;
            entry().set_cluster(0);
            run_next = 0;
            owner->free_chain(old_first);
        }
    } else {
        free_behind(needed - 1);
    }
    DirEntry& record = entry();
    std::uint16_t date = record.modify_date_value(), time = record.modify_time_value();
    std::uint8_t tenths = 0;
    EntryTime::to_disk(EntryTime::now(), date, time, tenths);
    record.set_modify_date(date);
    record.set_modify_time(time);
    record.set_access_date(date);
    directory->set_dirty(index);
    changed = false;
}

void FATDriver::FATFile::set_times(std::uint64_t modified, std::uint64_t created, std::uint64_t accessed) {
    directory->open_gate();
    DirEntry& record = entry();
    std::uint16_t date = record.modify_date_value(), time = record.modify_time_value();
    std::uint8_t tenths = 0;
    EntryTime::to_disk(static_cast<file_time>(modified), date, time, tenths);
    record.set_modify_date(date);
    record.set_modify_time(time);
    date = record.create_date_value();
    time = record.create_time_value();
    tenths = record.create_tenths();
    EntryTime::to_disk(static_cast<file_time>(created), date, time, tenths);
    record.set_create_date(date);
    record.set_create_time(time);
    record.set_create_tenths(tenths);
    date = record.access_date_value();
    time = 0;
    EntryTime::to_disk(static_cast<file_time>(accessed), date, time, tenths);
    record.set_access_date(date);
    directory->set_dirty(index);
}

std::uint64_t FATDriver::FATFile::sector_at(std::uint64_t position) {
    FATDriver* owner = volume();
    if (position >= byte_size || position % owner->sector_size != 0) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_EOF);
    }
    const std::uint32_t cluster_bytes = owner->cluster_bytes();
    std::uint32_t cluster = cluster_at(static_cast<std::uint32_t>(position / cluster_bytes), false);
    return owner->cluster_sector(cluster) + position % cluster_bytes / owner->sector_size;
}
