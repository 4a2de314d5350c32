#pragma once
// Typed conditions of the volume processing library: one class each, no
// fields of their own, so that a handler can catch one kind by type.
#include "loader/common/error.h"
#include "loader/common/error_codes.h"
#include "loader/common/messages.h"

namespace resizer {

class NotEnoughMemory : public Common::Error {
public:
    explicit NotEnoughMemory(std::uint64_t tag) : Common::Error(tag, Common::RESIZER_NOT_ENOUGH_MEMORY, Common::Messages::RESIZER_NOT_ENOUGH_MEMORY) {}
};

class ReadError : public Common::Error {
public:
    explicit ReadError(std::uint64_t tag) : Common::Error(tag, Common::RESIZER_READ_ERROR, Common::Messages::RESIZER_READ_ERROR) {}
};

class WriteError : public Common::Error {
public:
    explicit WriteError(std::uint64_t tag) : Common::Error(tag, Common::RESIZER_WRITE_ERROR, Common::Messages::RESIZER_WRITE_ERROR) {}
};

class InvalidFileSystem : public Common::Error {
public:
    explicit InvalidFileSystem(std::uint64_t tag) : Common::Error(tag, Common::RESIZER_INVALID_FILE_SYSTEM, Common::Messages::RESIZER_INVALID_FILE_SYSTEM) {}
};

class InvalidPartitionSize : public Common::Error {
public:
    explicit InvalidPartitionSize(std::uint64_t tag) : Common::Error(tag, Common::RESIZER_INVALID_PARTITION_SIZE, Common::Messages::RESIZER_INVALID_PARTITION_SIZE) {}
};

class FormatImpossible : public Common::Error {
public:
    explicit FormatImpossible(std::uint64_t tag) : Common::Error(tag, Common::RESIZER_FORMAT_IMPOSSIBLE, Common::Messages::RESIZER_FORMAT_IMPOSSIBLE) {}
};

class ResizeImpossible : public Common::Error {
public:
    explicit ResizeImpossible(std::uint64_t tag) : Common::Error(tag, Common::RESIZER_RESIZE_IMPOSSIBLE, Common::Messages::RESIZER_RESIZE_IMPOSSIBLE) {}

protected:
    ResizeImpossible(std::uint64_t tag, std::uint32_t code) : Common::Error(tag, code) {}
};

class UnableToSetVolumeLabel : public Common::Error {
public:
    explicit UnableToSetVolumeLabel(std::uint64_t tag) : Common::Error(tag, Common::RESIZER_UNABLE_TO_SET_VOLUME_LABEL, Common::Messages::RESIZER_UNABLE_TO_SET_VOLUME_LABEL) {}
};

class UnsupportedFSVersion : public Common::Error {
public:
    explicit UnsupportedFSVersion(std::uint64_t tag) : Common::Error(tag, Common::RESIZER_UNSUPPORTED_FS_VERSION, Common::Messages::RESIZER_UNSUPPORTED_FS_VERSION) {}
};

class CorruptFAT : public Common::Error {
public:
    explicit CorruptFAT(std::uint64_t tag) : Common::Error(tag, Common::RESIZER_CORRUPT_FAT, Common::Messages::RESIZER_CORRUPT_FAT) {}
};

class CorruptDirectory : public Common::Error {
public:
    explicit CorruptDirectory(std::uint64_t tag) : Common::Error(tag, Common::RESIZER_CORRUPT_DIRECTORY, Common::Messages::RESIZER_CORRUPT_DIRECTORY) {}
};

class InvalidFileSize : public Common::Error {
public:
    explicit InvalidFileSize(std::uint64_t tag) : Common::Error(tag, Common::RESIZER_INVALID_FILE_SIZE, Common::Messages::RESIZER_INVALID_FILE_SIZE) {}
};

class UnsupportedFS : public Common::Error {
public:
    explicit UnsupportedFS(std::uint64_t tag) : Common::Error(tag, Common::RESIZER_UNSUPPORTED_FS, Common::Messages::RESIZER_UNSUPPORTED_FS) {}
};

class CorruptGroupDescriptor : public Common::Error {
public:
    explicit CorruptGroupDescriptor(std::uint64_t tag) : Common::Error(tag, Common::RESIZER_CORRUPT_GROUP_DESCRIPTOR, Common::Messages::RESIZER_CORRUPT_GROUP_DESCRIPTOR) {}
};

class CorruptInode : public Common::Error {
public:
    explicit CorruptInode(std::uint64_t tag) : Common::Error(tag, Common::RESIZER_CORRUPT_INODE, Common::Messages::RESIZER_CORRUPT_INODE) {}
};

class InconsistentLinkCount : public Common::Error {
public:
    explicit InconsistentLinkCount(std::uint64_t tag) : Common::Error(tag, Common::RESIZER_INCONSISTENT_LINK_COUNT, Common::Messages::RESIZER_INCONSISTENT_LINK_COUNT) {}
};

class InvalidBlockList : public Common::Error {
public:
    explicit InvalidBlockList(std::uint64_t tag) : Common::Error(tag, Common::RESIZER_INVALID_BLOCK_LIST, Common::Messages::RESIZER_INVALID_BLOCK_LIST) {}
};

class DiskFull : public Common::Error {
public:
    explicit DiskFull(std::uint64_t tag) : Common::Error(tag, Common::RESIZER_DISK_FULL, Common::Messages::RESIZER_DISK_FULL) {}
};

class CorruptBlockBitmap : public Common::Error {
public:
    explicit CorruptBlockBitmap(std::uint64_t tag) : Common::Error(tag, Common::RESIZER_CORRUPT_BLOCK_BITMAP, Common::Messages::RESIZER_CORRUPT_BLOCK_BITMAP) {}
};

class CorruptInodeBitmap : public Common::Error {
public:
    explicit CorruptInodeBitmap(std::uint64_t tag) : Common::Error(tag, Common::RESIZER_CORRUPT_INODE_BITMAP, Common::Messages::RESIZER_CORRUPT_INODE_BITMAP) {}
};

class CorruptMFTBitmap : public Common::Error {
public:
    explicit CorruptMFTBitmap(std::uint64_t tag) : Common::Error(tag, Common::RESIZER_CORRUPT_MFT_BITMAP, Common::Messages::RESIZER_CORRUPT_MFT_BITMAP) {}
};

class CorruptFileRecord : public Common::Error {
public:
    explicit CorruptFileRecord(std::uint64_t tag) : Common::Error(tag, Common::RESIZER_CORRUPT_FILE_RECORD, Common::Messages::RESIZER_CORRUPT_FILE_RECORD) {}
};

class InvalidFileReference : public Common::Error {
public:
    explicit InvalidFileReference(std::uint64_t tag) : Common::Error(tag, Common::RESIZER_INVALID_FILE_REFERENCE, Common::Messages::RESIZER_INVALID_FILE_REFERENCE) {}
};

class CorruptAttributeList : public Common::Error {
public:
    explicit CorruptAttributeList(std::uint64_t tag) : Common::Error(tag, Common::RESIZER_CORRUPT_ATTRIBUTE_LIST, Common::Messages::RESIZER_CORRUPT_ATTRIBUTE_LIST) {}
};

class CorruptRunList : public Common::Error {
public:
    explicit CorruptRunList(std::uint64_t tag) : Common::Error(tag, Common::RESIZER_CORRUPT_RUN_LIST, Common::Messages::RESIZER_CORRUPT_RUN_LIST) {}
};

class CorruptNode : public Common::Error {
public:
    explicit CorruptNode(std::uint64_t tag) : Common::Error(tag, Common::RESIZER_CORRUPT_NODE, Common::Messages::RESIZER_CORRUPT_NODE) {}
};

class UnfinishedTransactions : public Common::Error {
public:
    explicit UnfinishedTransactions(std::uint64_t tag) : Common::Error(tag, Common::RESIZER_UNFINISHED_TRANSACTIONS, Common::Messages::RESIZER_UNFINISHED_TRANSACTIONS) {}
};

class UnsupportedImageVersion : public Common::Error {
public:
    explicit UnsupportedImageVersion(std::uint64_t tag) : Common::Error(tag, Common::RESIZER_UNSUPPORTED_IMAGE_VERSION, Common::Messages::RESIZER_UNSUPPORTED_IMAGE_VERSION) {}
};

class CorruptImage : public Common::Error {
public:
    explicit CorruptImage(std::uint64_t tag) : Common::Error(tag, Common::RESIZER_CORRUPT_IMAGE, Common::Messages::RESIZER_CORRUPT_IMAGE) {}
};

class SnapshotError : public Common::Error {
public:
    explicit SnapshotError(std::uint64_t tag) : Common::Error(tag, Common::RESIZER_SNAPSHOT_ERROR, Common::Messages::RESIZER_SNAPSHOT_ERROR) {}
};

class Canceled : public Common::Error {
public:
    explicit Canceled(std::uint64_t tag) : Common::Error(tag, Common::RESIZER_CANCELED, Common::Messages::RESIZER_CANCELED) {}
};

class BadBlocks : public Common::Error {
public:
    explicit BadBlocks(std::uint64_t tag) : Common::Error(tag, Common::RESIZER_BAD_BLOCKS, Common::Messages::RESIZER_BAD_BLOCKS) {}
};

class MergeImpossible : public Common::Error {
public:
    explicit MergeImpossible(std::uint64_t tag) : Common::Error(tag, Common::RESIZER_MERGE_IMPOSSIBLE, Common::Messages::RESIZER_MERGE_IMPOSSIBLE) {}
};

class CorruptIndex : public Common::Error {
public:
    explicit CorruptIndex(std::uint64_t tag) : Common::Error(tag, Common::RESIZER_CORRUPT_INDEX, Common::Messages::RESIZER_CORRUPT_INDEX) {}
};

class LimitOf32Bit : public Common::Error {
public:
    explicit LimitOf32Bit(std::uint64_t tag) : Common::Error(tag, Common::RESIZER_LIMIT_OF_32_BIT, Common::Messages::RESIZER_LIMIT_OF_32_BIT) {}
};

class EncryptionError : public Common::Error {
public:
    explicit EncryptionError(std::uint64_t tag) : Common::Error(tag, Common::RESIZER_ENCRYPTION_ERROR, Common::Messages::RESIZER_ENCRYPTION_ERROR) {}
};

class DedupInvalid : public Common::Error {
public:
    explicit DedupInvalid(std::uint64_t tag) : Common::Error(tag, Common::RESIZER_DEDUP_INVALID, Common::Messages::RESIZER_DEDUP_INVALID) {}
};

class DiskQuotaOverflow : public Common::Error {
public:
    explicit DiskQuotaOverflow(std::uint64_t tag) : Common::Error(tag, Common::RESIZER_DISK_QUOTA_OVERFLOW, Common::Messages::RESIZER_DISK_QUOTA_OVERFLOW) {}
};

class NothingToBackup : public Common::Error {
public:
    explicit NothingToBackup(std::uint64_t tag) : Common::Error(tag, Common::RESIZER_NOTHING_TO_BACKUP, Common::Messages::RESIZER_NOTHING_TO_BACKUP) {}
};

class ErrorInSuperblock : public Common::Error {
public:
    explicit ErrorInSuperblock(std::uint64_t tag) : Common::Error(tag, Common::RESIZER_ERROR_IN_SUPERBLOCK) {}
};

class ResizeRequired : public ResizeImpossible {
public:
    explicit ResizeRequired(std::uint64_t tag) : ResizeImpossible(tag, Common::RESIZER_RESIZE_REQUIRED) {}
};

}  // namespace resizer
