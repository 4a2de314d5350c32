#include "extfs/extfs_file.h"

#include <algorithm>
#include <cstring>

#include "loader/common/raise.h"

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

void ExtfsFile::write(const void*, std::uint64_t, std::uint64_t, std::uint64_t& written) {
    written = 0;
    driver->refuse_change(ERROR_TAG);
}

void ExtfsFile::set_size(std::uint64_t) { driver->refuse_change(ERROR_TAG); }

void ExtfsFile::set_times(std::uint64_t, std::uint64_t, std::uint64_t) { driver->refuse_change(ERROR_TAG); }

}  // namespace extfs
