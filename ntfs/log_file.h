#pragma once
// $LogFile, and the reset of the NTFS client's restart point that the first
// change of a mount makes. This driver neither logs nor replays: cutting
// its client loose from the restart point keeps the operating system from
// replaying the old log over what this driver wrote. The log's record
// pages are never touched, nor is a volume that is only read.
#include <cstdint>
#include <vector>

#include "files/file_object.h"
#include "ntfs/attribute.h"
#include "ntfs/file_record.h"

namespace ntfs {

class NTFSDriver;

// The log as a stream: the unnamed data of record 2.
class LogFile : public rio_file {
public:
    // Raises nothing: without record 2 the object holds FILE_NOT_FOUND,
    // without its data FILE_CORRUPT.
    explicit LogFile(NTFSDriver* driver);

    // Unlike a caller's stream, these two let the attribute's raise pass:
    // they run inside a write of the volume, which carries the error up.
    void read(void* buffer, std::uint64_t size, std::uint64_t& got) override;
    void write(const void* buffer, std::uint64_t size, std::uint64_t& written) override;
    void set_size(std::uint64_t) override { unsupported(); }
    void flush() override {}
    std::uint64_t size() override;
    std::int64_t seek(std::int64_t position) override;
    std::int64_t seek_relative(std::int64_t delta) override;
    std::int64_t seek_end(std::int64_t delta) override;

private:
    RecordRef record_;
    AttributeRef attribute_;
    std::uint64_t position_ = 0;
};

// Finds the next restart page ("RSTR", or "CHKD") from `position` on,
// probing at `position` and then doubling (0 goes on to 512). True with the
// page (fixups undone) in `page`, its length in `size` and its place in
// `position`; a "CHKD" page that can't be read whole comes as its first
// 512 bytes. A page that fails its checks is passed; "RCRD" ends the search.
bool next_restart_page(LogFile& file, std::vector<unsigned char>& page, std::uint32_t& size, std::uint64_t& position);
// Writes `page` back at `position`, protected by a new update sequence
// number; false for a page that fails its checks or a short write.
bool write_restart_page(LogFile& file, const std::vector<unsigned char>& page, std::uint32_t size,
                        std::uint64_t position);

// Once per mount (the driver's log_reset_done); called where the bytes of
// a change enter a cached block of a non-resident attribute or of record 0.
void reset_log(NTFSDriver* driver);

}  // namespace ntfs
