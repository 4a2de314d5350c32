#pragma once
// Every error code of the system, by facility. The upper 16 bits name the
// facility, the lower 16 the condition within it.
#include <cstdint>

namespace Common {

// Files and directories.
constexpr std::uint32_t FILE_READ = 0x40001;
constexpr std::uint32_t FILE_EOF = 0x40002;
constexpr std::uint32_t FILE_WRITE = 0x40003;
constexpr std::uint32_t FILE_DISK_FULL = 0x40004;
constexpr std::uint32_t FILE_SEEK = 0x40005;
constexpr std::uint32_t FILE_NO_MEMORY = 0x40006;
constexpr std::uint32_t FILE_OPEN = 0x40007;
constexpr std::uint32_t FILE_DELETE = 0x40008;
constexpr std::uint32_t FILE_RENAME = 0x40009;
constexpr std::uint32_t FILE_CREATE = 0x4000A;
constexpr std::uint32_t FILE_READ_ONLY = 0x4000C;
constexpr std::uint32_t FILE_CORRUPT = 0x4000D;
constexpr std::uint32_t FILE_UNSUPPORTED = 0x4000E;
constexpr std::uint32_t FILE_CANCELLED = 0x4000F;
constexpr std::uint32_t FILE_BUSY = 0x40010;
constexpr std::uint32_t FILE_NOT_FOUND = 0x40011;
constexpr std::uint32_t FILE_EXISTS = 0x40013;
constexpr std::uint32_t FILE_ACCESS_DENIED = 0x40014;
constexpr std::uint32_t FILE_LOCK = 0x40017;
constexpr std::uint32_t FILE_BACKUP = 0x40019;
constexpr std::uint32_t FILE_DECRYPT = 0x4001B;

// The volume processing library. Most of its conditions are typed classes
// (see resizer_errors.h); these have a symbol of their own.
constexpr std::uint32_t RESIZER_INTERNAL = 0x70001;
constexpr std::uint32_t RESIZER_NOT_ENOUGH_MEMORY = 0x70002;
constexpr std::uint32_t RESIZER_READ_ERROR = 0x70003;
constexpr std::uint32_t RESIZER_WRITE_ERROR = 0x70004;
constexpr std::uint32_t RESIZER_INVALID_FILE_SYSTEM = 0x70005;
constexpr std::uint32_t RESIZER_INVALID_PARTITION_SIZE = 0x70006;
constexpr std::uint32_t RESIZER_FORMAT_IMPOSSIBLE = 0x70007;
constexpr std::uint32_t RESIZER_RESIZE_IMPOSSIBLE = 0x70008;
constexpr std::uint32_t RESIZER_UNABLE_TO_SET_VOLUME_LABEL = 0x70009;
constexpr std::uint32_t RESIZER_UNSUPPORTED_FS_VERSION = 0x7000A;
constexpr std::uint32_t RESIZER_CORRUPT_FAT = 0x7000B;
constexpr std::uint32_t RESIZER_CORRUPT_DIRECTORY = 0x7000E;
constexpr std::uint32_t RESIZER_INVALID_FILE_SIZE = 0x7000F;
constexpr std::uint32_t RESIZER_UNSUPPORTED_FS = 0x70010;
constexpr std::uint32_t RESIZER_CORRUPT_GROUP_DESCRIPTOR = 0x70011;
constexpr std::uint32_t RESIZER_CORRUPT_INODE = 0x70012;
constexpr std::uint32_t RESIZER_INCONSISTENT_LINK_COUNT = 0x70013;
constexpr std::uint32_t RESIZER_INVALID_BLOCK_LIST = 0x70014;
constexpr std::uint32_t RESIZER_DISK_FULL = 0x70015;
constexpr std::uint32_t RESIZER_CORRUPT_BLOCK_BITMAP = 0x70016;
constexpr std::uint32_t RESIZER_CORRUPT_INODE_BITMAP = 0x70017;
constexpr std::uint32_t RESIZER_CORRUPT_MFT_BITMAP = 0x70018;
constexpr std::uint32_t RESIZER_CORRUPT_FILE_RECORD = 0x70019;
constexpr std::uint32_t RESIZER_INVALID_FILE_REFERENCE = 0x7001A;
constexpr std::uint32_t RESIZER_CORRUPT_ATTRIBUTE_LIST = 0x7001B;
constexpr std::uint32_t RESIZER_CORRUPT_RUN_LIST = 0x7001C;
constexpr std::uint32_t RESIZER_CORRUPT_NODE = 0x7001D;
constexpr std::uint32_t RESIZER_UNFINISHED_TRANSACTIONS = 0x7001E;
constexpr std::uint32_t RESIZER_UNSUPPORTED_IMAGE_VERSION = 0x7001F;
constexpr std::uint32_t RESIZER_CORRUPT_IMAGE = 0x70020;
constexpr std::uint32_t RESIZER_SNAPSHOT_ERROR = 0x70021;
constexpr std::uint32_t RESIZER_CANCELED = 0x70022;
constexpr std::uint32_t RESIZER_BAD_BLOCKS = 0x70023;
constexpr std::uint32_t RESIZER_MERGE_IMPOSSIBLE = 0x70024;
constexpr std::uint32_t RESIZER_CORRUPT_INDEX = 0x70025;
constexpr std::uint32_t RESIZER_LIMIT_OF_32_BIT = 0x70026;
constexpr std::uint32_t RESIZER_ENCRYPTION_ERROR = 0x70027;
constexpr std::uint32_t RESIZER_DEDUP_INVALID = 0x70029;
constexpr std::uint32_t RESIZER_DISK_QUOTA_OVERFLOW = 0x7002A;
constexpr std::uint32_t RESIZER_NOTHING_TO_BACKUP = 0x7002B;
constexpr std::uint32_t RESIZER_ERROR_IN_SUPERBLOCK = 0x7000C;
constexpr std::uint32_t RESIZER_RESIZE_REQUIRED = 0x7000D;

// Block devices: firmware status values map one to one onto this range.
constexpr std::uint32_t DISK_FACILITY_BASE = 0x10D000;
constexpr std::uint32_t DISK_LOAD_ERROR = 0x10D001;
constexpr std::uint32_t DISK_INVALID_PARAMETER = 0x10D002;
constexpr std::uint32_t DISK_UNSUPPORTED = 0x10D003;
constexpr std::uint32_t DISK_BAD_BUFFER_SIZE = 0x10D004;
constexpr std::uint32_t DISK_BUFFER_TOO_SMALL = 0x10D005;
constexpr std::uint32_t DISK_NOT_READY = 0x10D006;
constexpr std::uint32_t DISK_DEVICE_ERROR = 0x10D007;
constexpr std::uint32_t DISK_WRITE_PROTECTED = 0x10D008;
constexpr std::uint32_t DISK_OUT_OF_RESOURCES = 0x10D009;
constexpr std::uint32_t DISK_VOLUME_CORRUPTED = 0x10D00A;
constexpr std::uint32_t DISK_VOLUME_FULL = 0x10D00B;
constexpr std::uint32_t DISK_NO_MEDIA = 0x10D00C;
constexpr std::uint32_t DISK_MEDIA_CHANGED = 0x10D00D;
constexpr std::uint32_t DISK_NOT_FOUND = 0x10D00E;
constexpr std::uint32_t DISK_ACCESS_DENIED = 0x10D00F;
constexpr std::uint32_t DISK_NO_RESPONSE = 0x10D010;
constexpr std::uint32_t DISK_NO_MAPPING = 0x10D011;
constexpr std::uint32_t DISK_TIMEOUT = 0x10D012;
constexpr std::uint32_t DISK_NOT_STARTED = 0x10D013;
constexpr std::uint32_t DISK_ALREADY_STARTED = 0x10D014;
constexpr std::uint32_t DISK_ABORTED = 0x10D015;
constexpr std::uint32_t DISK_ICMP_ERROR = 0x10D016;
constexpr std::uint32_t DISK_TFTP_ERROR = 0x10D017;
constexpr std::uint32_t DISK_PROTOCOL_ERROR = 0x10D018;
constexpr std::uint32_t DISK_WARN_UNKNOWN_GLYPH = 0x10D019;
constexpr std::uint32_t DISK_WARN_DELETE_FAILURE = 0x10D01A;
constexpr std::uint32_t DISK_WARN_WRITE_FAILURE = 0x10D01B;
constexpr std::uint32_t DISK_WARN_BUFFER_TOO_SMALL = 0x10D01C;
constexpr std::uint32_t DISK_UNKNOWN_STATUS = 0x10D01D;
constexpr std::uint32_t DISK_BAD_OPERATION = 0x10D01E;
constexpr std::uint32_t DISK_INDEX_RANGE = 0x10D01F;
constexpr std::uint32_t DISK_OPEN = 0x10D020;

// Firmware variables and boot entries; these carry no text.
constexpr std::uint32_t UEFI_VARIABLE_IO = 1;
constexpr std::uint32_t UEFI_NO_VALUE = 0x12F0003;
constexpr std::uint32_t UEFI_BAD_LOAD_OPTION = 0x12F0005;
constexpr std::uint32_t UEFI_WRONG_SIGNATURE_KIND = 0x12F0007;
constexpr std::uint32_t UEFI_ENTRY_NOT_FOUND = 0x12F0008;

// The loader.
constexpr std::uint32_t EFI_INTERNAL = 0x1480001;
constexpr std::uint32_t KERNEL_CORRUPT = 0x1480002;
constexpr std::uint32_t KERNEL_UNSUPPORTED = 0x1480003;
constexpr std::uint32_t VIDEO_NOT_DETECTED = 0x1480004;
constexpr std::uint32_t VIDEO_NOT_LINEAR = 0x1480005;
constexpr std::uint32_t VIDEO_BAD_FRAMEBUFFER = 0x1480006;
constexpr std::uint32_t VIDEO_BAD_PIXEL_FORMAT = 0x1480007;
constexpr std::uint32_t VOLUME_NOT_MOUNTED = 0x1480008;
constexpr std::uint32_t BAD_CONFIGURATION = 0x1480009;

}  // namespace Common
