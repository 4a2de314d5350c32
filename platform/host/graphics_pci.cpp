#include "platform/host/graphics_pci.h"

#include <cstring>

namespace HostFirmware {
namespace {

void PutU32(std::uint8_t* bytes, std::uint32_t value) {
    for (int i = 0; i < 4; ++i) bytes[i] = static_cast<std::uint8_t>(value >> (8 * i));
}

std::uint32_t FunctionAddress(std::uint32_t bus, std::uint32_t device, std::uint32_t function) {
    return bus << 24 | device << 16 | function << 8;
}

EFI_STATUS EFIAPI Unsupported() { return EFI_UNSUPPORTED; }

}  // namespace

std::vector<std::uint8_t> BusRangeDescriptors(const std::vector<std::pair<std::uint32_t, std::uint32_t>>& ranges) {
    std::vector<std::uint8_t> bytes;
    for (const auto& range : ranges) {
        // QWORD address space descriptor: tag, length 43, resource type,
        // flags, granularity, minimum, maximum, translation, length.
        std::uint8_t item[46] = {0x8A, 43, 0, 2};
        PutU32(item + 14, range.first);
        PutU32(item + 22, range.second);
        PutU32(item + 38, range.second - range.first + 1);
        bytes.insert(bytes.end(), item, item + sizeof(item));
    }
    bytes.insert(bytes.end(), {0x79, 0});
    return bytes;
}

PciConfigSpace FunctionHeader(std::uint16_t vendor, std::uint8_t class_code, const std::array<std::uint32_t, 6>& bars,
                              bool multi_function) {
    PciConfigSpace space{};
    space[0] = static_cast<std::uint8_t>(vendor);
    space[1] = static_cast<std::uint8_t>(vendor >> 8);
    space[2] = 0x11;  // a device id of our own
    space[3] = 0x11;
    space[0x0B] = class_code;
    space[0x0E] = multi_function ? 0x80 : 0x00;
    for (std::size_t i = 0; i < bars.size(); ++i) PutU32(&space[0x10 + 4 * i], bars[i]);
    return space;
}

SimulatedRootBridge::SimulatedRootBridge() : resources(BusRangeDescriptors({{0, 255}})) {
    // Everything but configuration reads and Configuration answers EFI_UNSUPPORTED.
    auto** slot = reinterpret_cast<void**>(&wrapper_.protocol);
    auto** end = reinterpret_cast<void**>(&wrapper_.protocol.SegmentNumber);
    for (; slot < end; ++slot) *slot = reinterpret_cast<void*>(&Unsupported);
    wrapper_.protocol.ParentHandle = nullptr;
    wrapper_.protocol.Pci.Read = PciRead;
    wrapper_.protocol.Configuration = Configuration;
    wrapper_.owner = this;
}

SimulatedRootBridge& SimulatedRootBridge::Of(EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL* protocol) {
    return *reinterpret_cast<Wrapper*>(protocol)->owner;
}

void SimulatedRootBridge::AddFunction(std::uint32_t bus, std::uint32_t device, std::uint32_t function, const PciConfigSpace& space) {
    functions_[FunctionAddress(bus, device, function)] = space;
}

EFI_STATUS EFIAPI SimulatedRootBridge::PciRead(EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL* self, EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL_WIDTH width,
                                               UINT64 address, UINTN count, VOID* buffer) {
    SimulatedRootBridge& bridge = Of(self);
    if (buffer == nullptr || width > EfiPciIoWidthUint64) return EFI_INVALID_PARAMETER;
    std::uint64_t element = std::uint64_t(1) << width;
    std::uint32_t function = static_cast<std::uint32_t>(address) & 0xFFFFFF00u;
    std::uint64_t offset = (address >> 32) != 0 ? address >> 32 : address & 0xFF;
    if (count > 256 || offset + element * count > 256) return EFI_INVALID_PARAMETER;
    bridge.reads.push_back(function);
    if (bridge.failing_functions.count(function) != 0) return EFI_DEVICE_ERROR;
    if (element * count > 2 && bridge.failing_header_reads.count(function) != 0) return EFI_DEVICE_ERROR;
    auto found = bridge.functions_.find(function);
    if (found == bridge.functions_.end()) {
        std::memset(buffer, 0xFF, element * count);  // nobody answers: all ones
    } else {
        std::memcpy(buffer, found->second.data() + offset, element * count);
    }
    return EFI_SUCCESS;
}

EFI_STATUS EFIAPI SimulatedRootBridge::Configuration(EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL* self, VOID** resources) {
    SimulatedRootBridge& bridge = Of(self);
    if (resources == nullptr) return EFI_INVALID_PARAMETER;
    if (EFI_ERROR(bridge.configuration_status)) return bridge.configuration_status;
    *resources = bridge.null_resources ? nullptr : bridge.resources.data();
    return EFI_SUCCESS;
}

}  // namespace HostFirmware
