#include "ntfs/log_file.h"

#include "ntfs/ntfs_driver.h"

namespace ntfs {

// Not built yet: nothing writes to a volume so far.
void reset_log(NTFSDriver* driver) { driver->log_reset_done = true; }

}  // namespace ntfs
