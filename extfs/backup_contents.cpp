// A regular file's contents as a Win32 backup stream. A file mapped from
// its first block to its end is one data stream; any other file is a
// series of sparse blocks, one per stretch of mapped blocks, so that its
// holes stay holes when it comes back. Blocks are read into the start of
// the area, which the framework aligns to the block size for the bulk
// transfer, and then moved up behind the header.
#include <algorithm>
#include <cstring>

#include "extfs/extfs_backup.h"
#include "extfs/extfs_inode.h"
#include "loader/common/byte_order.h"
#include "loader/common/raise.h"

namespace extfs {

namespace {

// Room for the longest header and 0x40000 bytes of blocks.
constexpr std::uint64_t kContentsChunk = 0x4001C;
// A stream header: id, attributes, size, name size; a sparse block adds
// the u64 position of its data.
constexpr std::uint64_t kDataHeader = 20;
constexpr std::uint64_t kSparseHeader = 28;
constexpr std::uint32_t kDataStream = 1;
constexpr std::uint32_t kSparseStream = 9;
constexpr std::uint32_t kSparseAttribute = 8;
constexpr std::uint64_t kSparsePositionSize = 8;

// Blocks of a map answer, at most `left`; a map that answers no block
// would hold the walk where it is.
std::uint64_t Step(std::uint64_t count, std::uint64_t left) {
    if (count == 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    return std::min(count, left);
}

void StoreHeader(unsigned char* out, std::uint32_t id, std::uint32_t attributes, std::uint64_t size) {
    Common::StoreLE32(out, id);
    Common::StoreLE32(out + 4, attributes);
    Common::StoreLE64(out + 8, size);
    Common::StoreLE32(out + 16, 0);  // no name
}

}  // namespace

void ExtfsBackupObject::start_contents() {
    stream_type = kContents;
    chunk = kContentsChunk;
    alignment = driver->block_size();
    contents_size = inode->size();
    run_start = 0;
    run_end = 0;
    header_due = find_stretch(0);
}

bool ExtfsBackupObject::find_stretch(std::uint64_t block) {
    const std::uint64_t block_size = driver->block_size();
    const std::uint64_t last = contents_size / block_size + (contents_size % block_size != 0 ? 1 : 0);
    std::uint64_t count = 0;
    while (block < last && inode->map_block(block, count) == ExtfsDriver::kNoBlock) {
        block += Step(count, last - block);
    }
    if (block >= last) return false;
    run_start = block;
    while (block < last && inode->map_block(block, count) != ExtfsDriver::kNoBlock) {
        block += Step(count, last - block);
    }
    run_end = block;
    return true;
}

std::uint64_t ExtfsBackupObject::read_contents(unsigned char* out) {
    if (run_start >= run_end) {
        // Holes only: nothing to write.
        next_piece();
        return 0;
    }
    const std::uint64_t block_size = driver->block_size();
    const std::uint64_t position = run_start * block_size;
    const std::uint64_t stretch_bytes = std::min(run_end * block_size, contents_size) - position;
    const bool whole = run_start == 0 && stretch_bytes == contents_size;
    const std::uint64_t header = !header_due ? 0 : whole ? kDataHeader : kSparseHeader;
    const std::uint64_t blocks = std::min(run_end - run_start, (chunk - kSparseHeader) / block_size);
    read_stretch_blocks(out, blocks);
    const std::uint64_t bytes = std::min(blocks * block_size, contents_size - position);
    if (header != 0) {
        std::memmove(out + header, out, bytes);
        if (whole) {
            StoreHeader(out, kDataStream, 0, contents_size);
        } else {
            StoreHeader(out, kSparseStream, kSparseAttribute, stretch_bytes + kSparsePositionSize);
            Common::StoreLE64(out + kDataHeader, position);
        }
    }
    header_due = false;
    run_start += blocks;
    if (run_start == run_end) {
        header_due = find_stretch(run_end);
        if (!header_due) next_piece();
    }
    return header + bytes;
}

void ExtfsBackupObject::read_stretch_blocks(unsigned char* out, std::uint64_t count) {
    const std::uint64_t block_size = driver->block_size();
    std::uint64_t block = run_start;
    while (count > 0) {
        std::uint64_t run = 0;
        const std::uint64_t physical = inode->map_block(block, run);
        const std::uint64_t take = Step(run, count);
        // A hole where the stretch was mapped: the file changed between
        // two reads, and it reads as zeros as the file itself does.
        if (physical == ExtfsDriver::kNoBlock) {
            std::memset(out, 0, take * block_size);
        } else {
            driver->read_blocks(out, physical, take);
        }
        out += take * block_size;
        block += take;
        count -= take;
    }
}

}  // namespace extfs
