#pragma once
// The message catalogue: one named constant per text. A raise site names
// the constant; nothing looks a text up by its number.
#include <cstdint>

namespace Common {
namespace Messages {

extern const char16_t* const FILE_READ;
extern const char16_t* const FILE_EOF;
extern const char16_t* const FILE_WRITE;
extern const char16_t* const FILE_DISK_FULL;
extern const char16_t* const FILE_SEEK;
extern const char16_t* const FILE_NO_MEMORY;
extern const char16_t* const FILE_OPEN;
extern const char16_t* const FILE_DELETE;
extern const char16_t* const FILE_RENAME;
extern const char16_t* const FILE_CREATE;
extern const char16_t* const FILE_READ_ONLY;
extern const char16_t* const FILE_CORRUPT;
extern const char16_t* const FILE_UNSUPPORTED;
extern const char16_t* const FILE_CANCELLED;
extern const char16_t* const FILE_BUSY;
extern const char16_t* const FILE_NOT_FOUND;
extern const char16_t* const FILE_EXISTS;
extern const char16_t* const FILE_ACCESS_DENIED;
extern const char16_t* const FILE_LOCK;
extern const char16_t* const FILE_BACKUP;
extern const char16_t* const FILE_DECRYPT;

extern const char16_t* const RESIZER_NOT_ENOUGH_MEMORY;
extern const char16_t* const RESIZER_READ_ERROR;
extern const char16_t* const RESIZER_WRITE_ERROR;
extern const char16_t* const RESIZER_INVALID_FILE_SYSTEM;
extern const char16_t* const RESIZER_INVALID_PARTITION_SIZE;
extern const char16_t* const RESIZER_FORMAT_IMPOSSIBLE;
extern const char16_t* const RESIZER_RESIZE_IMPOSSIBLE;
extern const char16_t* const RESIZER_UNABLE_TO_SET_VOLUME_LABEL;
extern const char16_t* const RESIZER_UNSUPPORTED_FS_VERSION;
extern const char16_t* const RESIZER_CORRUPT_FAT;
extern const char16_t* const RESIZER_CORRUPT_DIRECTORY;
extern const char16_t* const RESIZER_INVALID_FILE_SIZE;
extern const char16_t* const RESIZER_UNSUPPORTED_FS;
extern const char16_t* const RESIZER_CORRUPT_GROUP_DESCRIPTOR;
extern const char16_t* const RESIZER_CORRUPT_INODE;
extern const char16_t* const RESIZER_INCONSISTENT_LINK_COUNT;
extern const char16_t* const RESIZER_INVALID_BLOCK_LIST;
extern const char16_t* const RESIZER_DISK_FULL;
extern const char16_t* const RESIZER_CORRUPT_BLOCK_BITMAP;
extern const char16_t* const RESIZER_CORRUPT_INODE_BITMAP;
extern const char16_t* const RESIZER_CORRUPT_MFT_BITMAP;
extern const char16_t* const RESIZER_CORRUPT_FILE_RECORD;
extern const char16_t* const RESIZER_INVALID_FILE_REFERENCE;
extern const char16_t* const RESIZER_CORRUPT_ATTRIBUTE_LIST;
extern const char16_t* const RESIZER_CORRUPT_RUN_LIST;
extern const char16_t* const RESIZER_CORRUPT_NODE;
extern const char16_t* const RESIZER_UNFINISHED_TRANSACTIONS;
extern const char16_t* const RESIZER_UNSUPPORTED_IMAGE_VERSION;
extern const char16_t* const RESIZER_CORRUPT_IMAGE;
extern const char16_t* const RESIZER_SNAPSHOT_ERROR;
extern const char16_t* const RESIZER_CANCELED;
extern const char16_t* const RESIZER_BAD_BLOCKS;
extern const char16_t* const RESIZER_MERGE_IMPOSSIBLE;
extern const char16_t* const RESIZER_CORRUPT_INDEX;
extern const char16_t* const RESIZER_LIMIT_OF_32_BIT;
extern const char16_t* const RESIZER_ENCRYPTION_ERROR;
extern const char16_t* const RESIZER_DEDUP_INVALID;
extern const char16_t* const RESIZER_DISK_QUOTA_OVERFLOW;
extern const char16_t* const RESIZER_NOTHING_TO_BACKUP;

extern const char16_t* const DISK_LOAD_ERROR;
extern const char16_t* const DISK_INVALID_PARAMETER;
extern const char16_t* const DISK_UNSUPPORTED;
extern const char16_t* const DISK_BAD_BUFFER_SIZE;
extern const char16_t* const DISK_BUFFER_TOO_SMALL;
extern const char16_t* const DISK_NOT_READY;
extern const char16_t* const DISK_DEVICE_ERROR;
extern const char16_t* const DISK_WRITE_PROTECTED;
extern const char16_t* const DISK_OUT_OF_RESOURCES;
extern const char16_t* const DISK_VOLUME_CORRUPTED;
extern const char16_t* const DISK_VOLUME_FULL;
extern const char16_t* const DISK_NO_MEDIA;
extern const char16_t* const DISK_MEDIA_CHANGED;
extern const char16_t* const DISK_NOT_FOUND;
extern const char16_t* const DISK_ACCESS_DENIED;
extern const char16_t* const DISK_NO_RESPONSE;
extern const char16_t* const DISK_NO_MAPPING;
extern const char16_t* const DISK_TIMEOUT;
extern const char16_t* const DISK_NOT_STARTED;
extern const char16_t* const DISK_ALREADY_STARTED;
extern const char16_t* const DISK_ABORTED;
extern const char16_t* const DISK_ICMP_ERROR;
extern const char16_t* const DISK_TFTP_ERROR;
extern const char16_t* const DISK_PROTOCOL_ERROR;
extern const char16_t* const DISK_WARN_UNKNOWN_GLYPH;
extern const char16_t* const DISK_WARN_DELETE_FAILURE;
extern const char16_t* const DISK_WARN_WRITE_FAILURE;
extern const char16_t* const DISK_WARN_BUFFER_TOO_SMALL;
extern const char16_t* const DISK_UNKNOWN_STATUS;
extern const char16_t* const DISK_BAD_OPERATION;
extern const char16_t* const DISK_INDEX_RANGE;
extern const char16_t* const DISK_OPEN;

extern const char16_t* const EFI_INTERNAL;
extern const char16_t* const KERNEL_CORRUPT;
extern const char16_t* const KERNEL_UNSUPPORTED;
extern const char16_t* const VIDEO_NOT_DETECTED;
extern const char16_t* const VIDEO_NOT_LINEAR;
extern const char16_t* const VIDEO_BAD_FRAMEBUFFER;
extern const char16_t* const VIDEO_BAD_PIXEL_FORMAT;

// The text of a block device code; the text of an unknown status for
// anything outside that facility.
const char16_t* DiskStatusText(std::uint32_t code);

}  // namespace Messages
}  // namespace Common
