#pragma once
// Device path nodes as the load options carry them: a four-byte header
// (Type, SubType, Length) and what follows. The family has no virtual
// operations; a list holds pointers to the EfiDevicePath at the start of
// each record, and the type and subtype tell which record it really is.
#include <boost/shared_ptr.hpp>

#include <cstdint>
#include <string>
#include <vector>

#include "firmware/byte_cursor.h"
#include "loader/common/error.h"

namespace Uefi {

constexpr std::uint8_t kHardwareDevicePath = 1;
constexpr std::uint8_t kMediaDevicePath = 4;
constexpr std::uint8_t kHardDriveSubtype = 1;
constexpr std::uint8_t kFilePathSubtype = 4;
constexpr std::uint8_t kEndDevicePath = 0x7F;
constexpr std::uint8_t kEndInstanceSubtype = 0x01;
constexpr std::uint8_t kEndEntireSubtype = 0xFF;

constexpr std::uint16_t kNodeHeaderSize = 4;
constexpr std::uint16_t kHardDriveNodeSize = 42;

// The hard drive node's partition kinds.
constexpr std::uint8_t kMbrPartitionFormat = 1;
constexpr std::uint8_t kGptPartitionFormat = 2;
constexpr std::uint8_t kMbrSignatureType = 1;
constexpr std::uint8_t kGuidSignatureType = 2;

struct EfiDevicePath {
    std::uint8_t header[4];

    std::uint8_t Type() const { return header[0]; }
    std::uint8_t SubType() const { return header[1]; }
    std::uint16_t Length() const { return static_cast<std::uint16_t>(header[2] | (header[3] << 8)); }
    void SetLength(std::uint16_t length) {
        header[2] = static_cast<std::uint8_t>(length & 0xFF);
        header[3] = static_cast<std::uint8_t>(length >> 8);
    }
    bool Is(std::uint8_t type, std::uint8_t subtype) const { return Type() == type && SubType() == subtype; }

protected:
    EfiDevicePath(std::uint8_t type, std::uint8_t subtype, std::uint16_t length) : header{type, subtype, 0, 0} {
        SetLength(length);
    }
};
static_assert(sizeof(EfiDevicePath) == 4, "the header is the node's first four bytes");

// Type 4, subtype 1: the standard's 42-byte hard drive node, with its own
// copy of the header. Its multi-byte fields stand unaligned and little
// endian, and convert at each access.
struct HardDrivePath : EfiDevicePath {
    std::uint8_t node[kHardDriveNodeSize];

    // A new node: Length 42 in both headers, everything else zero.
    HardDrivePath();

    std::uint32_t PartitionNumber() const { return static_cast<std::uint32_t>(Field(4, 4)); }
    std::uint64_t PartitionStart() const { return Field(8, 8); }
    std::uint64_t PartitionSize() const { return Field(16, 8); }
    const std::uint8_t* PartitionSignature() const { return node + 24; }
    std::uint8_t* PartitionSignature() { return node + 24; }
    std::uint8_t MbrType() const { return node[40]; }
    std::uint8_t SignatureType() const { return node[41]; }

    void SetPartitionNumber(std::uint32_t value) { SetField(4, 4, value); }
    void SetPartitionStart(std::uint64_t value) { SetField(8, 8, value); }
    void SetPartitionSize(std::uint64_t value) { SetField(16, 8, value); }
    void SetKind(std::uint8_t mbr_type, std::uint8_t signature_type) {
        node[40] = mbr_type;
        node[41] = signature_type;
    }

private:
    std::uint64_t Field(int offset, int width) const;
    void SetField(int offset, int width, std::uint64_t value);
};
static_assert(sizeof(HardDrivePath) == 4 + 42, "header and the complete hard drive node");

// Type 4, subtype 4: a file path, held without its terminator.
struct FileDevicePath : EfiDevicePath {
    std::u16string path;

    // A new node with an empty path.
    FileDevicePath() : EfiDevicePath(kMediaDevicePath, kFilePathSubtype, kNodeHeaderSize + 2) {}
};

// Every other node: its contents behind the header, kept as they came.
struct CommonDevicePath : EfiDevicePath {
    std::vector<std::uint8_t> bytes;

    // `contents` must leave Length inside 16 bits, and the pair must not be
    // one of the kinds that have a record of their own.
    CommonDevicePath(std::uint8_t type, std::uint8_t subtype, std::vector<std::uint8_t> contents)
        : EfiDevicePath(type, subtype, static_cast<std::uint16_t>(kNodeHeaderSize + contents.size())),
          bytes(std::move(contents)) {}
};

using DevicePathPointer = boost::shared_ptr<EfiDevicePath>;

// The record behind a node, or null when the node is of another kind.
boost::shared_ptr<HardDrivePath> AsHardDrive(const DevicePathPointer& node);
boost::shared_ptr<FileDevicePath> AsFilePath(const DevicePathPointer& node);

// Whether (type, subtype) is one of the node kinds the system knows.
bool IsKnownNode(std::uint8_t type, std::uint8_t subtype);

// Whether a node of a path given by the firmware closes the whole path:
// type 0x7F with its high bit ignored, subtype 0xFF.
inline bool IsEndOfPath(std::uint8_t type, std::uint8_t subtype) {
    return (type & 0x7F) == kEndDevicePath && subtype == kEndEntireSubtype;
}

// Reads one node at the cursor and tells its Length. An end node (type 0x7F,
// any subtype) takes four bytes and leaves `node` null. A node that does not
// fit in what is left, has a Length below 4, or a file path without its
// terminator is UEFI_BAD_LOAD_OPTION, and the cursor stays where it was.
Common::Error ReadDevicePathNode(ByteCursor& cursor, DevicePathPointer& node, std::uint16_t& length);

// Appends the node's bytes as the firmware stores them.
void WriteDevicePathNode(const EfiDevicePath& node, std::vector<std::uint8_t>& bytes);

}  // namespace Uefi
