#include "ntfs/restore_pieces.h"

#include <algorithm>
#include <cstring>

#include "loader/common/byte_order.h"
#include "loader/common/raise.h"
#include "ntfs/ntfs_file.h"

namespace ntfs {

namespace {

constexpr std::int64_t kUnixEpoch = 0x19DB1DED53E8000;  // 1970 in 100 ns from 1601
constexpr std::int64_t kUnitsPerMs = 10000;

// Copies into `bytes` what it still lacks of its `capacity`; answers how much.
std::uint64_t Gather(unsigned char* bytes, std::uint32_t capacity, std::uint32_t& gathered,
                     const unsigned char* data, std::uint64_t size) {
    const std::uint64_t take = std::min<std::uint64_t>(capacity - gathered, size);
    std::memcpy(bytes + gathered, data, static_cast<std::size_t>(take));
    gathered += static_cast<std::uint32_t>(take);
    return take;
}

}  // namespace

std::uint64_t RestoreAttributes::write(std::uint32_t kind, const unsigned char* data, std::uint64_t size) {
    if (kind != this->kind() || gathered_ == sizeof(bytes_)) return 0;
    const std::uint64_t taken = Gather(bytes_, sizeof(bytes_), gathered_, data, size);
    if (gathered_ == sizeof(bytes_)) object.setAttributes(Common::LoadLE32(bytes_));
    return taken;
}

void RestoreAttributes::finish() {
    if (gathered_ != 0 && gathered_ != sizeof(bytes_)) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
}

std::uint64_t RestoreFileTimes::write(std::uint32_t kind, const unsigned char* data, std::uint64_t size) {
    if (kind != this->kind() || gathered_ == sizeof(bytes_)) return 0;
    const std::uint64_t taken = Gather(bytes_, sizeof(bytes_), gathered_, data, size);
    if (gathered_ != sizeof(bytes_)) return taken;
    const std::uint64_t modified = VolumeTimeOf(static_cast<std::int64_t>(Common::LoadLE64(bytes_)));
    const std::uint64_t created = VolumeTimeOf(static_cast<std::int64_t>(Common::LoadLE64(bytes_ + 8)));
    if ((option_ & kRestoreWithoutTimes) == 0) object.setTimes(&created, &modified, nullptr);
    return taken;
}

void RestoreFileTimes::finish() {
    if (gathered_ != 0 && gathered_ != sizeof(bytes_)) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
}

std::uint64_t RestoreFileTimes::VolumeTimeOf(std::int64_t ms) {
    constexpr std::int64_t kLeast = -kUnixEpoch / kUnitsPerMs;
    constexpr std::int64_t kMost = (INT64_MAX - kUnixEpoch) / kUnitsPerMs;
    if (ms < kLeast || ms > kMost) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    return static_cast<std::uint64_t>(ms * kUnitsPerMs + kUnixEpoch);
}

std::uint64_t RestoreEFSStreams::write(std::uint32_t kind, const unsigned char*, std::uint64_t) {
    if (kind != this->kind()) return 0;
    Common::Raise(ERROR_TAG, Common::Failures::FILE_DECRYPT);
}

std::uint64_t RestorePlainStreams::write(std::uint32_t kind, const unsigned char* data, std::uint64_t size) {
    if (kind != this->kind() || size == 0) return 0;
    AttributeRef stream = object.record.find(kData);
    if (!stream) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    const std::uint64_t written = stream->write(position_, size, data);
    position_ += written;
    if (written != size) Common::Raise(ERROR_TAG, Common::Failures::FILE_DISK_FULL);
    return written;
}

}  // namespace ntfs
