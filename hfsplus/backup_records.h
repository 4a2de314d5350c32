#pragma once
// The small pieces of an HFS+ backup: records built whole when the object
// is made and handed out in one read, little-endian in the host's order.
// Each is a stream of its own type; the larger values (an inline
// attribute's) are bounded by the caller before they get here.
#include <cstdint>
#include <string>
#include <vector>

#include "hfsplus/backup_item.h"

namespace hfsplus {

struct CatalogRecord;

// Bytes given whole at the first read; none left after it. An empty
// record has nothing to give from the start.
class HFSPlusBackupBytes : public HFSPlusBackupedItem {
public:
    std::uint64_t read(void* area) override;

protected:
    HFSPlusBackupBytes(std::uint32_t type, std::vector<unsigned char> record);
    std::vector<unsigned char> bytes;
};

// u32: 0 for a file, 0x10 for a folder.
class HFSPlusBackupAttributes : public HFSPlusBackupBytes {
public:
    static constexpr std::uint32_t kFolder = 0x10;
    explicit HFSPlusBackupAttributes(std::uint32_t attributes);
};

// u64 modified, u64 created, in milliseconds since 1970, of a folder or
// file record.
class HFSPlusBackupFileTimes : public HFSPlusBackupBytes {
public:
    explicit HFSPlusBackupFileTimes(const CatalogRecord& record);
};

// The ownership part that the three Posix records share.
struct PosixIdentity {
    std::uint32_t kind;
    std::uint32_t owner;
    std::uint32_t group;
    std::uint32_t mode;
};
// The kind of a record by its fileMode, as listings name it; FILE_BACKUP
// for a file type that has none, and for a folder without the folder type.
PosixIdentity PosixIdentityOf(const CatalogRecord& record);

// u32 length (20), kind, owner, group, mode.
class HFSPlusBackupPosixAttributes : public HFSPlusBackupBytes {
public:
    explicit HFSPlusBackupPosixAttributes(const PosixIdentity& identity);
};

// The same with length 28, then the device's major and minor numbers.
class HFSPlusBackupDeviceObjectContent : public HFSPlusBackupBytes {
public:
    HFSPlusBackupDeviceObjectContent(const PosixIdentity& identity, std::uint32_t major, std::uint32_t minor);
};

// The same with length 24 + 2n, then u16 2n, the n characters and a 0.
// FILE_BACKUP for an empty target or one above kMostCharacters.
class HFSPlusBackupSymlinkTarget : public HFSPlusBackupBytes {
public:
    static constexpr std::size_t kMostCharacters = 512;
    HFSPlusBackupSymlinkTarget(const PosixIdentity& identity, const std::u16string& target);
};

// The head of an extended attribute: u16 name length, u64 value size, the
// UTF-8 name and a 0. FILE_BACKUP for a name of kMostNameBytes or more.
class HFSPlusBackupPosixExtendedAttributes : public HFSPlusBackupBytes {
public:
    static constexpr std::size_t kMostNameBytes = 127;
    HFSPlusBackupPosixExtendedAttributes(const std::string& name, std::uint64_t value_size);
};

// The 32 bytes of Finder information: the record's bytes from offset 48.
class HFSPlusBackupFinderInfoContent : public HFSPlusBackupBytes {
public:
    static constexpr std::size_t kOffset = 48;
    static constexpr std::size_t kSize = 32;
    explicit HFSPlusBackupFinderInfoContent(const CatalogRecord& record);
};

// An inline attribute's value.
class HFSPlusBackupInlineAttributeDataStream : public HFSPlusBackupBytes {
public:
    explicit HFSPlusBackupInlineAttributeDataStream(std::vector<unsigned char> value);
};

}  // namespace hfsplus
