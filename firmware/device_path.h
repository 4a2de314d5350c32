#pragma once
// Device path nodes as the load options carry them: a four-byte header
// (Type, SubType, Length) and what follows. The family has no virtual
// operations; a list holds pointers to the EfiDevicePath at the start of
// each record, and the type and subtype tell which record it really is.
#include <boost/shared_ptr.hpp>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "firmware/byte_cursor.h"
#include "loader/common/byte_order.h"
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

// The four bytes every node begins with.
struct DevicePathHeader {
    std::uint8_t Type;
    std::uint8_t SubType;
    Common::le16 Length;  // of the whole node, these four bytes included
};
static_assert(sizeof(DevicePathHeader) == kNodeHeaderSize, "a node header is four bytes");
static_assert(offsetof(DevicePathHeader, Length) == 2, "device path header layout");

// The header of the node at `node` in a path the firmware or a value gave.
inline const DevicePathHeader& NodeHeaderAt(const std::uint8_t* node) { return *reinterpret_cast<const DevicePathHeader*>(node); }

// The standard's hard drive media node (type 4, subtype 1), complete with
// its own header. Its numbers stand unaligned, as in any device path.
struct HardDriveNode {
    DevicePathHeader Header;              // 0
    Common::le32 PartitionNumber;         // 4
    Common::le64 PartitionStart;          // 8
    Common::le64 PartitionSize;           // 16
    unsigned char PartitionSignature[16]; // 24
    std::uint8_t MBRType;                 // 40
    std::uint8_t SignatureType;           // 41
};
static_assert(sizeof(HardDriveNode) == kHardDriveNodeSize, "the hard drive node is 42 bytes");
static_assert(offsetof(HardDriveNode, PartitionNumber) == 4, "hard drive node layout");
static_assert(offsetof(HardDriveNode, PartitionStart) == 8, "hard drive node layout");
static_assert(offsetof(HardDriveNode, PartitionSignature) == 24, "hard drive node layout");
static_assert(offsetof(HardDriveNode, MBRType) == 40, "hard drive node layout");

struct EfiDevicePath {
    DevicePathHeader header;

    std::uint8_t Type() const { return header.Type; }
    std::uint8_t SubType() const { return header.SubType; }
    std::uint16_t Length() const { return header.Length.get(); }
    void SetLength(std::uint16_t length) { header.Length.set(length); }
    bool Is(std::uint8_t type, std::uint8_t subtype) const { return Type() == type && SubType() == subtype; }

protected:
    EfiDevicePath(std::uint8_t type, std::uint8_t subtype, std::uint16_t length) : header{type, subtype, {}} { SetLength(length); }
};
static_assert(sizeof(EfiDevicePath) == 4, "the header is the node's first four bytes");

// Type 4, subtype 1: the hard drive node, behind the record's header.
struct HardDrivePath : EfiDevicePath {
    HardDriveNode node;

    // A new node: Length 42 in both headers, everything else zero.
    HardDrivePath();

    std::uint32_t PartitionNumber() const { return node.PartitionNumber.get(); }
    std::uint64_t PartitionStart() const { return node.PartitionStart.get(); }
    std::uint64_t PartitionSize() const { return node.PartitionSize.get(); }
    const std::uint8_t* PartitionSignature() const { return node.PartitionSignature; }
    std::uint8_t* PartitionSignature() { return node.PartitionSignature; }
    std::uint8_t MbrType() const { return node.MBRType; }
    std::uint8_t SignatureType() const { return node.SignatureType; }

    void SetPartitionNumber(std::uint32_t value) { node.PartitionNumber.set(value); }
    void SetPartitionStart(std::uint64_t value) { node.PartitionStart.set(value); }
    void SetPartitionSize(std::uint64_t value) { node.PartitionSize.set(value); }
    void SetKind(std::uint8_t mbr_type, std::uint8_t signature_type) {
        node.MBRType = mbr_type;
        node.SignatureType = signature_type;
    }
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

// Appends a 16-bit string as device paths and load options hold it:
// little-endian characters, then a zero terminator.
void AppendString16(std::vector<std::uint8_t>& bytes, const std::u16string& text);

// Appends a node header with the given Length.
void AppendNodeHeader(std::vector<std::uint8_t>& bytes, std::uint8_t type, std::uint8_t subtype, std::uint16_t length);

// Appends the end node that closes a whole path.
void AppendEndOfPath(std::vector<std::uint8_t>& bytes);

}  // namespace Uefi
