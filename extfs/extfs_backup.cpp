#include "extfs/extfs_backup.h"

#include <algorithm>

#include "extfs/extfs_inode.h"
#include "files/utf_conversion.h"
#include "loader/common/byte_order.h"
#include "loader/common/raise.h"

namespace extfs {

namespace {

constexpr std::uint64_t kFirstChunk = 0x10000;
constexpr std::uint64_t kRecordChunk = 0x40000;
constexpr std::uint64_t kTimesChunk = 16;
constexpr std::uint32_t kDirectoryAttribute = 0x10;
// The POSIX record: its fixed part, with the device numbers, and the
// fixed part of a link's (the length word and the ending 0 character).
constexpr std::uint64_t kPosixSize = 20;
constexpr std::uint64_t kPosixDeviceSize = 28;
constexpr std::uint64_t kPosixLinkSize = 24;
constexpr std::uint64_t kLongestLinkText = 0xFFFF;  // what its u16 length can count
constexpr std::uint32_t kPermissionBits = 0xFFF;

bool IsDevice(std::uint32_t kind) { return kind == KIND_CHARACTER_DEVICE || kind == KIND_BLOCK_DEVICE; }

}  // namespace

ExtfsBackupObject::ExtfsBackupObject(ExtfsDriver* driver, InodeRef inode, std::uint32_t option)
    : driver(driver), inode(std::move(inode)), option(option) {
    chunk = kFirstChunk;
    alignment = 1;
    next_piece();
}

void ExtfsBackupObject::next_piece() {
    switch (stream_type) {
    case 0:
        stream_type = kAttributesWord;
        chunk = 4;
        return;
    case kAttributesWord:
        stream_type = kPosixRecord;
        chunk = kRecordChunk;
        return;
    case kPosixRecord:
        if (has_attributes()) {
            stream_type = kExtendedAttributes;
            chunk = kRecordChunk;
            attribute_area = 0;
            attribute_position = 0;
            return;
        }
        [[fallthrough]];
    case kExtendedAttributes:
        if (inode->is_regular() && inode->size() > 0 && (option & kLeaveOutContents) == 0) {
            start_contents();
            return;
        }
        [[fallthrough]];
    case kContents:
        stream_type = kTimes;
        chunk = kTimesChunk;
        alignment = 1;
        return;
    case kTimes:
        stream_type = 0;
        chunk = 0;
        return;
    default: Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
}

std::uint64_t ExtfsBackupObject::read(void* area) {
    auto* out = static_cast<unsigned char*>(area);
    output_used = 0;
    switch (stream_type) {
    case kAttributesWord: return read_attributes_word(out);
    case kPosixRecord: return read_posix_record(out);
    case kExtendedAttributes: return read_extended_attributes(out);
    case kContents: return read_contents(out);
    case kTimes: return read_times(out);
    case 0: return 0;
    default: Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
}

std::uint64_t ExtfsBackupObject::read_attributes_word(unsigned char* out) {
    Common::StoreLE32(out, inode->is_directory() ? kDirectoryAttribute : 0);
    next_piece();
    return 4;
}

std::uint64_t ExtfsBackupObject::read_posix_record(unsigned char* out) {
    const std::uint32_t kind = inode->kind();
    const std::uint64_t room = chunk;
    std::u16string target;
    std::uint64_t size = IsDevice(kind) ? kPosixDeviceSize : kPosixSize;
    if (kind == KIND_SYMLINK) {
        target = utf8_to_utf16(inode->symlink_target());
        // A target longer than the buffer holds is cut to fit it.
        const std::uint64_t fits = room >= kPosixLinkSize ? (room - kPosixLinkSize) / 2 : 0;
        target.resize(std::min<std::uint64_t>({target.size(), fits, kLongestLinkText}));
        size = target.size() * 2 + kPosixLinkSize;
    }
    next_piece();
    if (size > room) return 0;
    Common::StoreLE32(out, static_cast<std::uint32_t>(size));
    Common::StoreLE32(out + 4, kind);
    Common::StoreLE32(out + 8, inode->uid());
    Common::StoreLE32(out + 12, inode->gid());
    Common::StoreLE32(out + 16, inode->mode() & kPermissionBits);
    if (IsDevice(kind)) {
        Common::StoreLE32(out + 20, inode->device_major());
        Common::StoreLE32(out + 24, inode->device_minor());
    } else if (kind == KIND_SYMLINK) {
        Common::StoreLE16(out + 20, static_cast<std::uint16_t>(target.size()));
        for (std::size_t i = 0; i < target.size(); ++i) Common::StoreLE16(out + 22 + 2 * i, target[i]);
        Common::StoreLE16(out + 22 + 2 * target.size(), 0);
    }
    return size;
}

std::uint64_t ExtfsBackupObject::read_times(unsigned char* out) {
    Common::StoreLE64(out, static_cast<std::uint64_t>(inode->modified()));
    Common::StoreLE64(out + 8, static_cast<std::uint64_t>(inode->created()));
    next_piece();
    return kTimesChunk;
}

}  // namespace extfs
