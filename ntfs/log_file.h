#pragma once
// $LogFile, and the reset of the NTFS client's restart point that the first
// change of a mount makes, so that nothing of the old log is replayed over
// what this driver writes. The log's record pages are never touched.
namespace ntfs {

class NTFSDriver;

// Once per mount (the driver's log_reset_done); called where the bytes of
// a change enter a cached block of a non-resident attribute or of record 0.
void reset_log(NTFSDriver* driver);

}  // namespace ntfs
