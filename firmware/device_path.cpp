#include "firmware/device_path.h"

#include <boost/make_shared.hpp>

#include <cstring>

#include "loader/common/error_codes.h"

namespace Uefi {
namespace {

struct KnownNode {
    std::uint8_t type;
    std::uint8_t subtype;
    const char* name;
    const char* category;
};

// The node kinds the system knows. Only the keys are looked up; names and
// categories say what each row is. The end type stands in both spellings,
// with and without its high bit.
constexpr KnownNode KnownNodeTable[] = {
    {1, 1, "PCI", "HW"},
    {1, 2, "PCCARD", "HW"},
    {1, 3, "MemoryMapped", "HW"},
    {1, 4, "Vendor", "HW"},
    {1, 5, "Controller", "HW"},
    {2, 1, "ACPI", "ACPI"},
    {2, 2, "ExpandedACPI", "ACPI"},
    {3, 1, "ATAPI", "MSG"},
    {3, 2, "SCSI", "MSG"},
    {3, 3, "FibreChannel", "MSG"},
    {3, 4, "1394", "MSG"},
    {3, 5, "USB", "MSG"},
    {3, 15, "USBClass", "MSG"},
    {3, 6, "I2O", "MSG"},
    {3, 11, "Mac", "MSG"},
    {3, 12, "IPv4", "MSG"},
    {3, 13, "IPv6", "MSG"},
    {3, 9, "InfinitiBand", "MSG"},
    {3, 14, "UART", "MSG"},
    {3, 10, "Vendor", "MSG"},
    {4, 1, "HDD", "MEDIA"},
    {4, 2, "CDROM \"El Torito\" Format", "MEDIA"},
    {4, 3, "Vendor", "MEDIA"},
    {4, 4, "FilePath", "MEDIA"},
    {4, 5, "MEDIAProtocol", "MEDIA"},
    {5, 1, "BIOSBootSpecVer1.01", "BIOSBootSpec"},
    {127, 1, "EndInstance", "END"},
    {127, 255, "EndEntire", "END"},
    {255, 1, "EndInstance", "END"},
    {255, 255, "EndEntire", "END"},
};
static_assert(sizeof(KnownNodeTable) / sizeof(KnownNodeTable[0]) == 30, "thirty known kinds");

Common::Error BadNode(std::uint64_t tag) { return Common::Error(tag, Common::UEFI_BAD_LOAD_OPTION); }

void AppendBytes(std::vector<std::uint8_t>& bytes, const void* record, std::size_t size) {
    const auto* start = static_cast<const std::uint8_t*>(record);
    bytes.insert(bytes.end(), start, start + size);
}

}  // namespace

HardDrivePath::HardDrivePath() : EfiDevicePath(kMediaDevicePath, kHardDriveSubtype, kHardDriveNodeSize), node{} {
    node.Header = header;
}

void AppendString16(std::vector<std::uint8_t>& bytes, const std::u16string& text) {
    std::size_t at = bytes.size();
    bytes.resize(at + 2 * (text.size() + 1));
    for (char16_t c : text) {
        Common::StoreLE16(&bytes[at], c);
        at += 2;
    }
    Common::StoreLE16(&bytes[at], 0);
}

void AppendNodeHeader(std::vector<std::uint8_t>& bytes, std::uint8_t type, std::uint8_t subtype, std::uint16_t length) {
    DevicePathHeader header{type, subtype, {}};
    header.Length.set(length);
    AppendBytes(bytes, &header, sizeof(header));
}

void AppendEndOfPath(std::vector<std::uint8_t>& bytes) { AppendNodeHeader(bytes, kEndDevicePath, kEndEntireSubtype, kNodeHeaderSize); }

boost::shared_ptr<HardDrivePath> AsHardDrive(const DevicePathPointer& node) {
    if (!node || !node->Is(kMediaDevicePath, kHardDriveSubtype)) return boost::shared_ptr<HardDrivePath>();
    return boost::static_pointer_cast<HardDrivePath>(node);
}

boost::shared_ptr<FileDevicePath> AsFilePath(const DevicePathPointer& node) {
    if (!node || !node->Is(kMediaDevicePath, kFilePathSubtype)) return boost::shared_ptr<FileDevicePath>();
    return boost::static_pointer_cast<FileDevicePath>(node);
}

bool IsKnownNode(std::uint8_t type, std::uint8_t subtype) {
    for (const KnownNode& known : KnownNodeTable) {
        if (known.type == type && known.subtype == subtype) return true;
    }
    return false;
}

Common::Error ReadDevicePathNode(ByteCursor& cursor, DevicePathPointer& node, std::uint16_t& length) {
    if (!cursor.Has(kNodeHeaderSize)) return BadNode(ERROR_TAG);
    const DevicePathHeader& header = NodeHeaderAt(cursor.next);
    const std::uint8_t type = header.Type;
    const std::uint8_t subtype = header.SubType;
    const std::uint16_t node_length = header.Length.get();
    // A Length below the header would let a walk stand still.
    if (node_length < kNodeHeaderSize) return BadNode(ERROR_TAG);

    ByteCursor at = cursor;
    DevicePathPointer read;
    if (type == kEndDevicePath) {
        at.Skip(kNodeHeaderSize);
    } else if (type == kMediaDevicePath && subtype == kHardDriveSubtype) {
        // Always the full 42 bytes here, whatever Length says; the caller
        // counts Length.
        if (!at.Has(kHardDriveNodeSize)) return BadNode(ERROR_TAG);
        auto hard_drive = boost::make_shared<HardDrivePath>();
        std::memcpy(&hard_drive->header, at.next, kNodeHeaderSize);
        std::memcpy(&hard_drive->node, at.next, kHardDriveNodeSize);
        at.Skip(kHardDriveNodeSize);
        read = hard_drive;
    } else if (type == kMediaDevicePath && subtype == kFilePathSubtype) {
        // The path runs to its terminator; Length is not used for the read.
        auto file = boost::make_shared<FileDevicePath>();
        std::memcpy(&file->header, at.next, kNodeHeaderSize);
        at.Skip(kNodeHeaderSize);
        if (!at.ReadString16(file->path)) return BadNode(ERROR_TAG);
        read = file;
    } else {
        if (!at.Has(node_length)) return BadNode(ERROR_TAG);
        std::vector<std::uint8_t> contents(at.next + kNodeHeaderSize, at.next + node_length);
        read = boost::make_shared<CommonDevicePath>(type, subtype, std::move(contents));
        at.Skip(node_length);
    }
    cursor = at;
    node = read;
    length = node_length;
    return Common::Success;
}

void WriteDevicePathNode(const EfiDevicePath& node, std::vector<std::uint8_t>& bytes) {
    if (node.Is(kMediaDevicePath, kHardDriveSubtype)) {
        // The node's own header is the one the firmware gets.
        AppendBytes(bytes, &static_cast<const HardDrivePath&>(node).node, kHardDriveNodeSize);
        return;
    }
    AppendBytes(bytes, &node.header, kNodeHeaderSize);
    if (node.Is(kMediaDevicePath, kFilePathSubtype)) {
        AppendString16(bytes, static_cast<const FileDevicePath&>(node).path);
    } else {
        const auto& common = static_cast<const CommonDevicePath&>(node);
        bytes.insert(bytes.end(), common.bytes.begin(), common.bytes.end());
    }
}

}  // namespace Uefi
