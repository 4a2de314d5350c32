#include "launch/video_pci_scan.h"

#include <efi.h>

#include <algorithm>

#include "firmware/firmware_access.h"
#include "launch/video_protocols.h"
#include "loader/common/error.h"
#include "loader/common/error_codes.h"
#include "loader/common/messages.h"

namespace EfiLoader {
namespace {

constexpr std::uint8_t kEndTag = 0x79;
constexpr std::uint8_t kQwordAddressSpace = 0x8A;
constexpr std::uint8_t kLargeItem = 0x80;
constexpr std::uint8_t kBusNumberRange = 2;
constexpr std::size_t kResourceTypeOffset = 3;
constexpr std::size_t kMinimumOffset = 14;
constexpr std::size_t kMaximumOffset = 22;
// A list that has not ended after this many bytes is not a list.
constexpr std::size_t kDescriptorListLimit = 0x10000;
// More root bridges than this would be a firmware's garbage.
constexpr UINTN kHandleBufferLimit = 0x10000;

constexpr std::uint32_t kLastBus = 255;
constexpr std::uint32_t kDevices = 32;
constexpr std::uint32_t kFunctions = 8;
constexpr std::uint16_t kNoVendor = 0xFFFF;
constexpr std::size_t kHeaderType = 0x0E;
constexpr std::uint8_t kMultiFunction = 0x80;

[[noreturn]] void Internal(std::uint64_t tag) { throw Common::Error(tag, Common::EFI_INTERNAL, Common::Messages::EFI_INTERNAL); }

std::uint32_t U32(const std::uint8_t* bytes) {
    return bytes[0] | bytes[1] << 8 | bytes[2] << 16 | std::uint32_t(bytes[3]) << 24;
}

std::vector<EFI_HANDLE> RootBridgeHandles() {
    EFI_GUID guid = kPciRootBridgeIoProtocolGuid;
    UINTN size = 0;
    EFI_STATUS status = Uefi::BootServices()->LocateHandle(ByProtocol, &guid, nullptr, &size, nullptr);
    if (status == EFI_SUCCESS) return {};
    if (status != EFI_BUFFER_TOO_SMALL || size == 0 || size > kHandleBufferLimit) Internal(ERROR_TAG);
    std::vector<EFI_HANDLE> handles((size + sizeof(EFI_HANDLE) - 1) / sizeof(EFI_HANDLE));
    size = handles.size() * sizeof(EFI_HANDLE);
    status = Uefi::BootServices()->LocateHandle(ByProtocol, &guid, nullptr, &size, handles.data());
    if (EFI_ERROR(status)) Internal(ERROR_TAG);
    handles.resize(std::min<UINTN>(handles.size(), size / sizeof(EFI_HANDLE)));
    return handles;
}

// Reads one function; false when nothing answers at its address.
bool ReadFunction(EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL* bridge, std::uint32_t address, PciHeader& header) {
    std::uint16_t vendor = kNoVendor;
    EFI_STATUS status = bridge->Pci.Read(bridge, EfiPciIoWidthUint16, address, 1, &vendor);
    if (EFI_ERROR(status) || vendor == kNoVendor) return false;
    status = bridge->Pci.Read(bridge, EfiPciIoWidthUint32, address, header.size() / 4, header.data());
    return !EFI_ERROR(status);
}

void ScanBus(EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL* bridge, std::uint32_t bus, PciDeviceTable& table) {
    for (std::uint32_t device = 0; device < kDevices; ++device) {
        PciHeader header{};
        if (!ReadFunction(bridge, PciAddress(bus, device, 0), header)) continue;
        table[PciAddress(bus, device, 0)] = header;
        if ((header[kHeaderType] & kMultiFunction) == 0) continue;
        for (std::uint32_t function = 1; function < kFunctions; ++function) {
            if (ReadFunction(bridge, PciAddress(bus, device, function), header)) table[PciAddress(bus, device, function)] = header;
        }
    }
}

}  // namespace

std::vector<PciBusRange> BusRangesOf(const std::uint8_t* descriptors) {
    std::vector<PciBusRange> ranges;
    std::size_t offset = 0;
    while (true) {
        if (offset >= kDescriptorListLimit) Internal(ERROR_TAG);
        const std::uint8_t* item = descriptors + offset;
        std::uint8_t tag = item[0];
        if (tag == kEndTag) return ranges;
        std::size_t length = (tag & kLargeItem) != 0 ? std::size_t(item[1] | item[2] << 8) + 3 : std::size_t(tag & 7) + 1;
        if (tag == kQwordAddressSpace && item[kResourceTypeOffset] == kBusNumberRange && length >= kMaximumOffset + 4) {
            std::uint32_t minimum = U32(item + kMinimumOffset);
            std::uint32_t maximum = U32(item + kMaximumOffset);
            // Bus numbers are 8 bits wide in a configuration address.
            if (maximum > kLastBus) maximum = kLastBus;
            if (minimum <= maximum) ranges.push_back(PciBusRange{minimum, maximum});
        }
        offset += length;
    }
}

PciDeviceTable ScanPciDevices() {
    PciDeviceTable table;
    for (EFI_HANDLE handle : RootBridgeHandles()) {
        EFI_GUID guid = kPciRootBridgeIoProtocolGuid;
        void* interface = nullptr;
        EFI_STATUS status = Uefi::BootServices()->HandleProtocol(handle, &guid, &interface);
        if (EFI_ERROR(status) || interface == nullptr) Internal(ERROR_TAG);
        auto* bridge = static_cast<EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL*>(interface);

        std::vector<PciBusRange> ranges;
        void* resources = nullptr;
        status = bridge->Configuration(bridge, &resources);
        if (status == EFI_UNSUPPORTED) {
            ranges.push_back(PciBusRange{0, kLastBus});
        } else if (EFI_ERROR(status) || resources == nullptr) {
            Internal(ERROR_TAG);
        } else {
            ranges = BusRangesOf(static_cast<const std::uint8_t*>(resources));
        }
        for (const PciBusRange& range : ranges) {
            for (std::uint32_t bus = range.first; bus <= range.last; ++bus) ScanBus(bridge, bus, table);
        }
    }
    return table;
}

}  // namespace EfiLoader
