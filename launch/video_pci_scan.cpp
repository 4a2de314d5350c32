#include "launch/video_pci_scan.h"

#include <efi.h>

#include <algorithm>
#include <cstddef>

#include "firmware/firmware_access.h"
#include "launch/video_protocols.h"
#include "loader/common/byte_order.h"
#include "loader/common/raise.h"

namespace EfiLoader {
namespace {

constexpr std::uint8_t kEndTag = 0x79;
constexpr std::uint8_t kQwordAddressSpace = 0x8A;
constexpr std::uint8_t kLargeItem = 0x80;
constexpr std::uint8_t kBusNumberRange = 2;
// A list that has not ended after this many bytes is not a list.
constexpr std::size_t kDescriptorListLimit = 0x10000;
// More root bridges than this would be a firmware's garbage.
constexpr UINTN kHandleBufferLimit = 0x10000;

constexpr std::uint32_t kLastBus = 255;
constexpr std::uint32_t kDevices = 32;
constexpr std::uint32_t kFunctions = 8;
constexpr std::uint16_t kNoVendor = 0xFFFF;

// An ACPI QWORD address space descriptor, a large resource item, by the
// field names of the firmware's EFI_ACPI_ADDRESS_SPACE_DESCRIPTOR. Every
// large item begins with the tag and the 16-bit length of what follows.
struct AddressSpaceDescriptor {
    std::uint8_t Desc;                     // 0x00: the item's tag
    Common::le16 Len;                      // 0x01: bytes behind these three
    std::uint8_t ResType;                  // 0x03: 2 for a bus number range
    std::uint8_t GenFlag;                  // 0x04
    std::uint8_t SpecificFlag;             // 0x05
    Common::le64 AddrSpaceGranularity;     // 0x06
    Common::le64 AddrRangeMin;             // 0x0E
    Common::le64 AddrRangeMax;             // 0x16
    Common::le64 AddrTranslationOffset;    // 0x1E
    Common::le64 AddrLen;                  // 0x26

    // Only the low halves of the bounds are read: bus numbers are far
    // narrower, and an item need reach no further for them.
    std::uint32_t LowMinimum() const { return Common::LoadLE32(&AddrRangeMin); }
    std::uint32_t LowMaximum() const { return Common::LoadLE32(&AddrRangeMax); }
};
static_assert(sizeof(AddressSpaceDescriptor) == 46, "a QWORD address space descriptor is 46 bytes");
static_assert(offsetof(AddressSpaceDescriptor, ResType) == 3, "descriptor layout");
static_assert(offsetof(AddressSpaceDescriptor, AddrRangeMin) == 14, "descriptor layout");
static_assert(offsetof(AddressSpaceDescriptor, AddrRangeMax) == 22, "descriptor layout");

// The bytes an item must have for its low maximum to be read.
constexpr std::size_t kBusRangeItemSize = offsetof(AddressSpaceDescriptor, AddrRangeMax) + 4;

std::vector<EFI_HANDLE> RootBridgeHandles() {
    EFI_GUID guid = kPciRootBridgeIoProtocolGuid;
    UINTN size = 0;
    EFI_STATUS status = Uefi::BootServices()->LocateHandle(ByProtocol, &guid, nullptr, &size, nullptr);
    if (status == EFI_SUCCESS) return {};
    if (status != EFI_BUFFER_TOO_SMALL || size == 0 || size > kHandleBufferLimit) {
        Common::Raise(ERROR_TAG, Common::Failures::EFI_INTERNAL);
    }
    std::vector<EFI_HANDLE> handles((size + sizeof(EFI_HANDLE) - 1) / sizeof(EFI_HANDLE));
    size = handles.size() * sizeof(EFI_HANDLE);
    status = Uefi::BootServices()->LocateHandle(ByProtocol, &guid, nullptr, &size, handles.data());
    if (EFI_ERROR(status)) Common::Raise(ERROR_TAG, Common::Failures::EFI_INTERNAL);
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
        if (!DeviceHeaderOf(header).IsMultiFunction()) continue;
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
        if (offset >= kDescriptorListLimit) Common::Raise(ERROR_TAG, Common::Failures::EFI_INTERNAL);
        const std::uint8_t* item = descriptors + offset;
        std::uint8_t tag = item[0];
        if (tag == kEndTag) return ranges;
        // A large item tells its length behind the tag; a small one in the
        // tag's low three bits.
        const auto& large = *reinterpret_cast<const AddressSpaceDescriptor*>(item);
        std::size_t length = (tag & kLargeItem) != 0 ? std::size_t(large.Len.get()) + 3 : std::size_t(tag & 7) + 1;
        if (tag == kQwordAddressSpace && large.ResType == kBusNumberRange && length >= kBusRangeItemSize) {
            std::uint32_t minimum = large.LowMinimum();
            std::uint32_t maximum = large.LowMaximum();
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
        if (EFI_ERROR(status) || interface == nullptr) Common::Raise(ERROR_TAG, Common::Failures::EFI_INTERNAL);
        auto* bridge = static_cast<EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL*>(interface);

        std::vector<PciBusRange> ranges;
        void* resources = nullptr;
        status = bridge->Configuration(bridge, &resources);
        if (status == EFI_UNSUPPORTED) {
            ranges.push_back(PciBusRange{0, kLastBus});
        } else if (EFI_ERROR(status) || resources == nullptr) {
            Common::Raise(ERROR_TAG, Common::Failures::EFI_INTERNAL);
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
