#include "extfs/extfs_file.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "extfs/extfs_backup.h"
#include "loader/common/raise.h"
#include "platform/clib/clib.h"

namespace extfs {

ExtfsFile::ExtfsFile(ExtfsDriver* driver, InodeRef inode) : inode(std::move(inode)), driver(driver) {
    if (!this->inode->is_regular()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
}

std::uint64_t ExtfsFile::sector_at(std::uint64_t position) {
    const std::uint32_t block_size = driver->block_size();
    std::uint64_t count = 0;
    std::uint64_t block = inode->map_block(position / block_size, count);
    if (block == ExtfsDriver::kNoBlock) return 0;
    return block * driver->sectors_per_block + (position % block_size) / driver->sector_size;
}

void ExtfsFile::read(void* buffer, std::uint64_t position, std::uint64_t size, std::uint64_t& got) {
    got = 0;
    const std::uint64_t file_size = inode->size();
    if (size == 0 || position >= file_size) return;
    const std::uint32_t block_size = driver->block_size();
    std::uint64_t remaining = std::min(size, file_size - position);
    auto* out = static_cast<unsigned char*>(buffer);
    std::uint64_t physical = ExtfsDriver::kNoBlock;
    std::uint64_t run = 0;  // blocks left in the run at `physical`
    while (remaining > 0) {
        const std::uint32_t offset = static_cast<std::uint32_t>(position % block_size);
        if (run == 0) {
            physical = inode->map_block(position / block_size, run);
            if (run == 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        }
        std::uint64_t blocks_done = 0;
        std::uint64_t bytes = 0;
        if (offset == 0 && remaining >= block_size) {
            blocks_done = std::min(remaining / block_size, run);
            bytes = blocks_done * block_size;
            if (physical == ExtfsDriver::kNoBlock) {
                std::memset(out, 0, static_cast<std::size_t>(bytes));
            } else {
                driver->read_blocks(out, physical, blocks_done);
            }
        } else {
            bytes = std::min<std::uint64_t>(block_size - offset, remaining);
            read_partial(out, physical, offset, static_cast<std::uint32_t>(bytes));
            blocks_done = offset + bytes == block_size ? 1 : 0;
        }
        run -= blocks_done;
        if (physical != ExtfsDriver::kNoBlock) physical += blocks_done;
        out += bytes;
        position += bytes;
        remaining -= bytes;
        got += bytes;
    }
}

void ExtfsFile::read_partial(unsigned char* out, std::uint64_t physical, std::uint32_t offset, std::uint32_t length) {
    if (physical == ExtfsDriver::kNoBlock) {
        std::memset(out, 0, length);
        return;
    }
    BlockHandle block = driver->get_fs_block(physical, false);
    std::memcpy(out, block.data() + offset, length);
}

void ExtfsFile::write(const void* buffer, std::uint64_t position, std::uint64_t size, std::uint64_t& written) {
    written = 0;
    driver->change([&] { write_runs(static_cast<const unsigned char*>(buffer), position, size, written); });
}

void ExtfsFile::write_runs(const unsigned char* in, std::uint64_t position, std::uint64_t size,
                           std::uint64_t& written) {
    const std::uint32_t block_size = driver->block_size();
    std::uint64_t physical = ExtfsDriver::kNoBlock;
    std::uint64_t run = 0;  // blocks left in the run at `physical`
    bool fresh = false;     // the run was mapped by this write
    try {
        while (written < size) {
            const std::uint64_t remaining = size - written;
            const std::uint32_t offset = static_cast<std::uint32_t>(position % block_size);
            if (run == 0) {
                physical = run_for_write(position, remaining, run, fresh);
                if (run == 0) break;
            }
            std::uint64_t blocks_done = 0;
            std::uint64_t bytes = 0;
            if (offset == 0 && remaining >= block_size) {
                blocks_done = std::min(remaining / block_size, run);
                bytes = blocks_done * block_size;
                driver->write_blocks(in, physical, blocks_done);
            } else {
                bytes = std::min<std::uint64_t>(block_size - offset, remaining);
                write_partial(in, physical, position - offset, offset, static_cast<std::uint32_t>(bytes), fresh);
                blocks_done = offset + bytes == block_size ? 1 : 0;
            }
            run -= blocks_done;
            physical += blocks_done;
            in += bytes;
            position += bytes;
            written += bytes;
            // The size follows each step, so a write cut short still covers what it wrote.
            if (position > inode->size()) inode->set_size_field(position);
        }
    } catch (const Common::Error& error) {
        if (written > 0) changed = true;
        // A full volume after some bytes ends the write short, with those bytes kept.
        if (error.Code() != Common::FILE_DISK_FULL || written == 0) throw;
    }
    if (written > 0) changed = true;
}

std::uint64_t ExtfsFile::run_for_write(std::uint64_t position, std::uint64_t remaining, std::uint64_t& run,
                                       bool& fresh) {
    const std::uint32_t block_size = driver->block_size();
    const std::uint64_t block = position / block_size;
    std::uint64_t physical = inode->map_block(block, run);
    fresh = physical == ExtfsDriver::kNoBlock;
    if (!fresh) {
        if (run == 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        return physical;
    }
    const std::uint64_t end = (position + remaining + block_size - 1) / block_size;
    return inode->allocate_run(block, end - block, run, false);
}

void ExtfsFile::write_partial(const unsigned char* in, std::uint64_t physical, std::uint64_t block_start,
                              std::uint32_t offset, std::uint32_t length, bool fresh) {
    const std::uint32_t block_size = driver->block_size();
    const std::uint64_t file_size = inode->size();
    // A block just mapped holds some earlier owner's bytes, and one behind
    // the size holds nothing of this file: neither is read, both start as zeros.
    const bool blank = fresh || block_start >= file_size;
    BlockHandle handle = driver->get_fs_block(physical, blank);
    driver->prepare_block_write(handle);
    const std::uint64_t kept = blank ? 0 : std::min<std::uint64_t>(file_size - block_start, block_size);
    std::memset(handle.data() + kept, 0, block_size - kept);
    std::memcpy(handle.data() + offset, in, length);
    handle.set_dirty();
}

void ExtfsFile::set_size(std::uint64_t size) {
    driver->change([&] { inode->set_size(size); });
    changed = false;  // set_size has set the times already
}

void ExtfsFile::set_times(std::uint64_t modified, std::uint64_t created, std::uint64_t accessed) {
    driver->change([&] {
        inode->set_modified(static_cast<file_time>(modified));
        inode->set_created(static_cast<file_time>(created));
        inode->set_accessed(static_cast<file_time>(accessed));
    });
    // Times given by the caller stand: the flush doesn't put "now" over them.
    changed = false;
}

void ExtfsFile::flush_file() {
    if (changed) {
        changed = false;
        const file_time now = Clib::Now();
        inode->set_modified(now);
        inode->set_accessed(now);
    }
    inode->flush();
}

std::uint64_t ExtfsFile::allocated_ranges(std::uint64_t position, std::uint64_t length) {
    const std::uint64_t file_size = inode->size();
    if (position >= file_size) Common::Raise(ERROR_TAG, Common::Failures::FILE_SEEK);
    const std::uint32_t block_size = driver->block_size();
    const std::uint64_t end = length > file_size - position ? file_size : position + length;
    std::vector<std::uint64_t> pairs;
    for (std::uint64_t block = position / block_size; block * block_size < end;) {
        std::uint64_t count = 0;
        const std::uint64_t physical = inode->map_block(block, count);
        if (count == 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        const std::uint64_t start = std::max(block * block_size, position);
        const std::uint64_t stop = std::min((block + count) * block_size, end);
        if (physical != ExtfsDriver::kNoBlock) {
            pairs.push_back(start);
            pairs.push_back(stop - start);
        }
        block += count;
    }
    auto* answer = new std::uint64_t[1 + pairs.size()];
    answer[0] = pairs.size() / 2;
    std::copy(pairs.begin(), pairs.end(), answer + 1);
    return reinterpret_cast<std::uintptr_t>(answer);
}

FileSystemDriver::BackupObject* ExtfsFile::new_backup_object(std::uint32_t option) {
    return new ExtfsBackupObject(driver, inode, option);
}

}  // namespace extfs
