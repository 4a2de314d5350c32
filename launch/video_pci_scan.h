#pragma once
// The PCI devices behind the firmware's root bridges: the configuration
// header of every function found, by its address.
#include <array>
#include <cstdint>
#include <map>
#include <vector>

namespace EfiLoader {

// The first 64 bytes of configuration space.
using PciHeader = std::array<std::uint8_t, 64>;

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
