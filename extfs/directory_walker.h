#pragma once
// The linear directory format: a directory is a file of whole blocks, each
// filled with entries one behind the other, each rec_len bytes long, none
// crossing its block. The walker yields the entries to show, one at a
// time, each checked before anything in it is believed and copied out of
// its block. An indexed directory reads the same way, because each of its
// index blocks looks like one unused entry that fills the block.
//
// Damage raises FILE_CORRUPT where the walk meets it, and the walk stays
// there: entries before it have been delivered, none behind it is.
#include <cstdint>
#include <string>
#include <vector>

#include "extfs/extfs_driver.h"
#include "extfs/extfs_inode_cache.h"
#include "fsdriver/block_handle.h"

namespace extfs {

// An entry as the walk found it, copied out of its block.
struct DirEntryCopy {
    std::uint64_t position = 0;  // byte offset of the entry in the directory
    std::uint32_t inode = 0;     // inode number, not index
    std::uint8_t file_type = 0;
    std::string name;
};

class DirectoryWalker {
public:
    // How the walker keeps the block it reads. A lookup holds the cached
    // block. An iterator, which lives on between the caller's requests,
    // reads a copy, so that a change behind its back doesn't disturb the
    // block it is in.
    enum class BlockInHand { cached, copied };

    // Walks the directory of inode `directory`, whose size the caller has
    // checked to be a non-zero multiple of the block size.
    DirectoryWalker(ExtfsDriver* driver, InodeRef directory, BlockInHand keep);

    // The next entry to show from `position` on. True with the entry, and
    // `position` behind it; false at the end of the directory. Unused
    // entries and those whose inode the filter hides are passed over, and
    // so are "." and ".." while `skip_dots`.
    bool next(DirEntryCopy& entry, std::uint64_t& position, bool skip_dots);

    std::uint64_t size() const { return directory_->size(); }

private:
    // The start of the directory block that holds byte `position`.
    const unsigned char* block_at(std::uint64_t position);
    // Checks the entry at `position`, `bytes` into its block: true for an
    // entry to show. FILE_CORRUPT for damage.
    bool check(const unsigned char* bytes, std::uint64_t position, bool skip_dots) const;

    ExtfsDriver* driver_;
    InodeRef directory_;
    BlockInHand keep_;
    std::uint32_t block_size_;
    std::uint64_t block_index_ = ExtfsDriver::kNoBlock;
    BlockHandle cached_;
    std::vector<unsigned char> copy_;
};

}  // namespace extfs
