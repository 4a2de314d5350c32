#pragma once
// The PCI devices behind the firmware's root bridges: the configuration
// header of every function found, by its address.
#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <vector>

#include "loader/common/byte_order.h"

namespace EfiLoader {

// The first 64 bytes of configuration space, as read.
using PciHeader = std::array<std::uint8_t, 64>;

// The same bytes as the type 0 configuration header (a device's, not a
// bridge's) lays them out, by the field names of the firmware's PCI
// headers.
struct PciDeviceHeader {
    Common::le16 VendorId;             // 0x00
    Common::le16 DeviceId;             // 0x02
    Common::le16 Command;              // 0x04
    Common::le16 Status;               // 0x06
    std::uint8_t RevisionID;           // 0x08
    unsigned char ClassCode[3];        // 0x09: programming interface, sub-class, base class
    std::uint8_t CacheLineSize;        // 0x0C
    std::uint8_t LatencyTimer;         // 0x0D
    std::uint8_t HeaderType;           // 0x0E: bit 7 for a multi-function device
    std::uint8_t BIST;                 // 0x0F
    Common::le32 Bar[6];               // 0x10: the base address registers
    Common::le32 CISPtr;               // 0x28
    Common::le16 SubsystemVendorID;    // 0x2C
    Common::le16 SubsystemID;          // 0x2E
    Common::le32 ExpansionRomBar;      // 0x30
    std::uint8_t CapabilityPtr;        // 0x34
    unsigned char Reserved1[3];        // 0x35
    Common::le32 Reserved2;            // 0x38
    std::uint8_t InterruptLine;        // 0x3C
    std::uint8_t InterruptPin;         // 0x3D
    std::uint8_t MinGnt;               // 0x3E
    std::uint8_t MaxLat;               // 0x3F

    std::uint8_t BaseClass() const { return ClassCode[2]; }
    bool IsMultiFunction() const { return (HeaderType & 0x80) != 0; }
};
static_assert(sizeof(PciDeviceHeader) == sizeof(PciHeader), "the header's 64 bytes");
static_assert(offsetof(PciDeviceHeader, ClassCode) == 0x09, "PCI header layout");
static_assert(offsetof(PciDeviceHeader, HeaderType) == 0x0E, "PCI header layout");
static_assert(offsetof(PciDeviceHeader, Bar) == 0x10, "PCI header layout");
static_assert(offsetof(PciDeviceHeader, InterruptLine) == 0x3C, "PCI header layout");

inline const PciDeviceHeader& DeviceHeaderOf(const PciHeader& header) {
    return *reinterpret_cast<const PciDeviceHeader*>(header.data());
}

// Address in the root bridge's configuration address format: bus in bits 24
// to 31, device in 16 to 23, function in 8 to 15, the register below.
using PciDeviceTable = std::map<std::uint32_t, PciHeader>;

constexpr std::uint32_t PciAddress(std::uint32_t bus, std::uint32_t device, std::uint32_t function) {
    return bus << 24 | device << 16 | function << 8;
}

struct PciBusRange {
    std::uint32_t first;
    std::uint32_t last;
};

// The bus number ranges among a root bridge's ACPI resource descriptors, up
// to the end tag. Raises EFI_INTERNAL when no end tag comes within the
// bounds a descriptor list can have.
std::vector<PciBusRange> BusRangesOf(const std::uint8_t* descriptors);

// Walks every root bridge's buses, devices 0 to 31 and, for multi-function
// devices, functions 1 to 7. Raises EFI_INTERNAL when the firmware fails.
PciDeviceTable ScanPciDevices();

}  // namespace EfiLoader
