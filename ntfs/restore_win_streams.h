#pragma once
// The consumer of the Win32 backup stream (kind 2): a row of streams, each
// a 20-byte header (stream id u32, attributes u32, size u64, name size in
// bytes u32), its name in 16-bit characters, and `size` bytes, which go to
// the handler of the stream id. An id without a handler, and a descriptor
// when the option leaves security out, are passed over by their size.
//
// A header is checked whole before its stream touches the volume: a name
// of an odd size, of more than 255 characters or holding a 0 character or
// a colon, a size that no NTFS stream can have, unnamed data with a name
// and named data without one, are FILE_CORRUPT. A name given as
// ":name:$DATA", as Windows writes it, is the name.
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "ntfs/restore_object.h"
#include "ntfs/restore_win_stream.h"

namespace ntfs {

class RestoreWinStreams : public RestoreSubObject, public FileObjectHolder {
public:
    RestoreWinStreams(const FileObjectHolder& holder, std::uint32_t option)
        : RestoreSubObject(kRestoreWinStreams), FileObjectHolder(holder), option_(option) {}
    std::uint64_t write(std::uint32_t kind, const unsigned char* data, std::uint64_t size) override;
    // FILE_CORRUPT unless the bytes so far ended with a whole stream.
    void finish() override;
    void abandon() override;

    static constexpr std::uint32_t kHeaderSize = 20;
    static constexpr std::uint32_t kMostNameBytes = 255 * 2;

private:
    enum class Phase { kHeader, kName, kData };

    // Each takes what its phase needs of `data` and answers how much.
    std::uint64_t gatherHeader(const unsigned char* data, std::uint64_t size);
    std::uint64_t gatherName(const unsigned char* data, std::uint64_t size);
    std::uint64_t passData(const unsigned char* data, std::uint64_t size);
    void checkHeader() const;
    // The handler of the stream whose header and name are whole; null to
    // pass over it.
    std::unique_ptr<RestoreWinStream> handlerFor(std::uint32_t id, std::uint64_t size, const std::u16string& name) const;
    void startStream();
    void endStream();

    std::uint32_t option_;
    Phase phase_ = Phase::kHeader;
    unsigned char header_[kHeaderSize] = {};
    std::uint32_t gathered_ = 0;
    std::vector<unsigned char> name_;  // as it comes, 16-bit characters
    std::uint64_t left_ = 0;  // of the stream's data
    std::unique_ptr<RestoreWinStream> handler_;
};

// The stream's name as NTFS stores it: ":name:$DATA" loses its frame.
std::u16string StreamNameOf(const std::u16string& name);

}  // namespace ntfs
