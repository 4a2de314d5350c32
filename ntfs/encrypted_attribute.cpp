#include "ntfs/encrypted_attribute.h"

#include <vector>

#include "loader/common/byte_order.h"
#include "loader/common/raise.h"
#include "ntfs/file_record.h"
#include "ntfs/ntfs_driver.h"

namespace ntfs {

namespace {

// The $EFS stream: its size, and at 0x40 and 0x44 the offsets of the two
// key lists (data recovery and data decryption fields).
constexpr std::uint32_t kFirstListOffset = 0x40;
constexpr std::uint32_t kHeaderSize = 0x48;
constexpr std::uint64_t kMostEfsSize = 0x10000;
// A key entry: its length, then the offsets of the user part (at + 4)
// and of the key part (at + 12), each inside the entry.
constexpr std::uint32_t kEntryMinimum = 16;

std::uint32_t U32At(const std::vector<unsigned char>& bytes, std::uint64_t offset) {
    return Common::LoadLE32(bytes.data() + offset);
}

// Walks one key list, checking that every entry lies inside the stream.
void WalkKeyList(const std::vector<unsigned char>& stream, std::uint32_t offset) {
    if (offset == 0) return;
    const std::uint64_t size = stream.size();
    if (offset + std::uint64_t(4) > size) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    const std::uint32_t count = U32At(stream, offset);
    std::uint64_t at = offset + std::uint64_t(4);
    for (std::uint32_t i = 0; i < count; ++i) {
        if (at + kEntryMinimum > size) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        const std::uint32_t length = U32At(stream, at);
        if (length < kEntryMinimum || length > size - at || U32At(stream, at + 4) >= length ||
            U32At(stream, at + 12) >= length) {
            Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        }
        at += length;
    }
}

}  // namespace

void EncryptedAttribute::obtainKey() {
    AttributeRef efs(record, record->findAttribute(kLoggedUtilityStream, u"$EFS"));
    if (!efs) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    const std::uint64_t size = efs->size();
    if (size < kHeaderSize || size > kMostEfsSize) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    std::vector<unsigned char> stream(static_cast<std::size_t>(size));
    if (efs->read(0, size, stream.data()) != size) Common::Raise(ERROR_TAG, Common::Failures::FILE_READ);
    const std::uint32_t first = U32At(stream, kFirstListOffset);
    const std::uint32_t second = U32At(stream, kFirstListOffset + 4);
    if (U32At(stream, 0) != size || (first == 0 && second == 0) || first >= size || second >= size) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    WalkKeyList(stream, first);
    WalkKeyList(stream, second);
    Common::Raise(ERROR_TAG, Common::Failures::FILE_ACCESS_DENIED);
}

std::uint64_t EncryptedAttribute::read(std::uint64_t, std::uint64_t, void*) { obtainKey(); }

std::uint64_t EncryptedAttribute::readSectors(std::uint64_t position, std::uint64_t length, void* buffer) {
    checkSectorRange(position, length, buffer);
    obtainKey();
}

std::uint64_t EncryptedAttribute::readWithTail(std::uint64_t position, std::uint64_t length, void* buffer,
                                               bool direct) {
    return plainReadWithTail(position, length, buffer, direct);
}

std::uint64_t EncryptedAttribute::write(std::uint64_t, std::uint64_t, const void*) {
    Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
}

std::uint64_t EncryptedAttribute::writeSectors(std::uint64_t, std::uint64_t, const void*) {
    Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
}

}  // namespace ntfs
