#pragma once
// The handlers of one stream of a Win32 backup stream, by stream id: data
// (plain and sparse blocks), the security descriptor and the reparse
// point. Each is made when its header is whole and checks there what it
// can before the volume is touched; it then takes the stream's bytes at a
// running position, and `finish` at the stream's end.
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "ntfs/attribute.h"
#include "ntfs/restore_object.h"

namespace ntfs {

// Stream ids of the Win32 backup stream.
constexpr std::uint32_t kStreamData = 1;
constexpr std::uint32_t kStreamSecurity = 3;
constexpr std::uint32_t kStreamAlternateData = 4;
constexpr std::uint32_t kStreamReparse = 8;
constexpr std::uint32_t kStreamSparseBlock = 9;

// The largest size a stream may declare: NTFS sizes are signed 64-bit.
constexpr std::uint64_t kMostStreamSize = (1ull << 63) - 1;

class RestoreWinStream : public FileObjectHolder {
public:
    explicit RestoreWinStream(const FileObjectHolder& holder) : FileObjectHolder(holder) {}
    virtual ~RestoreWinStream() = default;
    RestoreWinStream(const RestoreWinStream&) = delete;
    RestoreWinStream& operator=(const RestoreWinStream&) = delete;

    // Takes up to `size` bytes; fewer means the volume had no room.
    virtual std::uint64_t write(const unsigned char* data, std::uint64_t size) = 0;
    virtual void finish() {}
    // The stream was cut: what it made half goes.
    virtual void abandon() {}
};

// A data stream: the unnamed one (id 1) or a named one (id 4), written
// from its start into an attribute emptied first. The unnamed data of a
// directory is FILE_CORRUPT, a volume without room for `size` bytes
// FILE_DISK_FULL, both before anything is written.
class RestorePlainData : public RestoreWinStream {
public:
    RestorePlainData(const FileObjectHolder& holder, const std::u16string& name, std::uint64_t size);
    std::uint64_t write(const unsigned char* data, std::uint64_t size) override;
    // A named stream goes; the unnamed one goes with its file.
    void abandon() override;

protected:
    // Only the checks of the name.
    RestorePlainData(const FileObjectHolder& holder, const std::u16string& name);
    // The data attribute of the name, created when the file has none.
    void open();
    // FILE_DISK_FULL when `grow` more bytes can't get clusters.
    void checkRoom(std::uint64_t grow) const;

    std::u16string name_;
    AttributeRef stream_;
    std::uint64_t position_ = 0;
};

// A range of a sparse stream: a u64 position, then its bytes, written
// there into the stream of the block's name. The driver writes no sparse
// runs: what lies between ranges is written as zeros.
class RestoreSparseData : public RestorePlainData {
public:
    RestoreSparseData(const FileObjectHolder& holder, const std::u16string& name, std::uint64_t size);
    std::uint64_t write(const unsigned char* data, std::uint64_t size) override;

private:
    void placeAt(std::uint64_t position);

    std::uint64_t length_;  // of the range, behind its position
    unsigned char head_[8] = {};
    std::uint32_t gathered_ = 0;
};

// A security descriptor, gathered whole, checked as a self-relative
// descriptor (FILE_CORRUPT otherwise), and set at its end.
class RestoreSecurity : public RestoreWinStream {
public:
    RestoreSecurity(const FileObjectHolder& holder, std::uint64_t size);
    std::uint64_t write(const unsigned char* data, std::uint64_t size) override;
    void finish() override;
    // The largest self-relative descriptor: its head, two SIDs of 15
    // sub-authorities and two ACLs of 64 KiB.
    static constexpr std::uint64_t kMostSize = 20 + 2 * 68 + 2 * 0xFFFF;

private:
    std::uint64_t size_;
    std::vector<unsigned char> bytes_;
};

// Reparse data, gathered whole and checked against its own length, then
// set at its end: the attribute, the reparse bit and tag of every name,
// and the "$R" entry. A volume without $Reparse is FILE_UNSUPPORTED.
class RestoreReparse : public RestoreWinStream {
public:
    RestoreReparse(const FileObjectHolder& holder, std::uint64_t size);
    std::uint64_t write(const unsigned char* data, std::uint64_t size) override;
    void finish() override;

private:
    std::uint64_t size_;
    std::vector<unsigned char> bytes_;
};

// Takes the "$R" entry of the record's reparse point out, when both are
// there; a restore does so before it replaces a point or lets a file go.
void RemoveReparseEntry(NTFSFileObject& object);

}  // namespace ntfs
