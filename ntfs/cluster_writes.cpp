#include "ntfs/cluster_writes.h"

#include "loader/common/raise.h"
#include "ntfs/log_file.h"
#include "ntfs/ntfs_driver.h"

namespace ntfs {

BlockHandle WritableBlock(NTFSDriver* driver, std::uint64_t first, std::uint32_t count, bool no_read) {
    if (driver->read_only) Common::Raise(ERROR_TAG, Common::Failures::FILE_READ_ONLY);
    BlockHandle block = driver->get_block(first, count, no_read);
    driver->prepare_block_write(block);
    return block;
}

void MarkWritten(NTFSDriver* driver, BlockHandle& block) {
    reset_log(driver);
    block.set_dirty();
}

void PrepareDirectWrite(NTFSDriver* driver) {
    if (driver->read_only) Common::Raise(ERROR_TAG, Common::Failures::FILE_READ_ONLY);
    // A direct transfer passes no cached block's gate: open it here.
    if (!driver->writable_known) driver->before_first_write();
    reset_log(driver);
}

}  // namespace ntfs
