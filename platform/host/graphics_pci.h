#pragma once
// A PCI root bridge: configuration space of the functions on its buses, read
// through Pci.Read as the hardware answers (all ones where nothing is), and
// the ACPI resource descriptors that Configuration hands out.
#include <efi.h>

#include <array>
#include <cstdint>
#include <map>
#include <set>
#include <utility>
#include <vector>

namespace HostFirmware {

using PciConfigSpace = std::array<std::uint8_t, 256>;

// Descriptors of bus number ranges (QWORD address space descriptors of
// resource type 2), each `first`..`last`, and the end tag.
std::vector<std::uint8_t> BusRangeDescriptors(const std::vector<std::pair<std::uint32_t, std::uint32_t>>& ranges);

// The configuration header of a function of `class_code`, with its six base
// address registers.
PciConfigSpace FunctionHeader(std::uint16_t vendor, std::uint8_t class_code, const std::array<std::uint32_t, 6>& bars,
                              bool multi_function = false);

// A prefetchable 32-bit memory window at `address`, as its register reads.
constexpr std::uint32_t PrefetchableWindow(std::uint32_t address) { return address | 0x8; }

class SimulatedRootBridge {
public:
    // Bus ranges 0 to 255 unless told otherwise.
    SimulatedRootBridge();
    SimulatedRootBridge(const SimulatedRootBridge&) = delete;
    SimulatedRootBridge& operator=(const SimulatedRootBridge&) = delete;

    EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL* Protocol() { return &wrapper_.protocol; }

    void AddFunction(std::uint32_t bus, std::uint32_t device, std::uint32_t function, const PciConfigSpace& space);

    // What Configuration answers: this status, and these descriptors on success.
    EFI_STATUS configuration_status = EFI_SUCCESS;
    std::vector<std::uint8_t> resources;
    bool null_resources = false;
    // Configuration reads of these functions (bus, device, function in bits
    // 24, 16, 8) fail with EFI_DEVICE_ERROR: all of them, or only those of
    // more than 2 bytes, which leaves the vendor readable.
    std::set<std::uint32_t> failing_functions;
    std::set<std::uint32_t> failing_header_reads;
    // Every configuration read, by function address.
    std::vector<std::uint32_t> reads;

private:
    struct Wrapper {
        EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL protocol;
        SimulatedRootBridge* owner;
    };
    static SimulatedRootBridge& Of(EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL* protocol);
    static EFI_STATUS EFIAPI PciRead(EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL* self, EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL_WIDTH width,
                                     UINT64 address, UINTN count, VOID* buffer);
    static EFI_STATUS EFIAPI Configuration(EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL* self, VOID** resources);

    std::map<std::uint32_t, PciConfigSpace> functions_;
    Wrapper wrapper_{};
};

}  // namespace HostFirmware
