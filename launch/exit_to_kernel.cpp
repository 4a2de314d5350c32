#include "launch/exit_to_kernel.h"

#include <efi.h>

#include <cstddef>

#include "firmware/firmware_access.h"
#include "launch/boot_params.h"
#include "launch/page_buffer.h"
#include "loader/common/byte_order.h"
#include "loader/common/raise.h"

namespace Launch {
namespace {

constexpr std::uint64_t kMemoryWriteBack = 0x8;
constexpr std::uint32_t kSetupE820Ext = 1;

// A firmware memory descriptor (EFI_MEMORY_DESCRIPTOR) as the map holds it.
// The firmware's descriptor size need not be this record's, so descriptors
// may stand at any alignment: the fields convert at each access.
struct MemoryDescriptor {
    Common::le32 Type;
    Common::le32 Pad;
    Common::le64 PhysicalStart;
    Common::le64 VirtualStart;
    Common::le64 NumberOfPages;
    Common::le64 Attribute;
};
static_assert(sizeof(MemoryDescriptor) == 40, "the firmware's descriptor fields");
static_assert(offsetof(MemoryDescriptor, PhysicalStart) == 8, "memory descriptor layout");
static_assert(offsetof(MemoryDescriptor, NumberOfPages) == 24, "memory descriptor layout");
static_assert(offsetof(MemoryDescriptor, Attribute) == 32, "memory descriptor layout");

enum E820 : std::uint32_t { kUsable = 1, kReserved = 2, kAcpi = 3, kNvs = 4, kUnusable = 5 };

SetupData& NodeHeader(const E820Node& node) { return *reinterpret_cast<SetupData*>(node.address); }

// Place `index` of the E820 table: the first 128 in boot_params, the rest
// in the node.
E820Entry& EntryAt(BootParams& params, const E820Node& node, std::uint32_t index) {
    if (index < kE820EntriesInParams) return params.e820_table[index];
    auto* entries = reinterpret_cast<E820Entry*>(node.address + sizeof(SetupData));
    return entries[index - kE820EntriesInParams];
}

struct MapState {
    PageBuffer map;
    PageBuffer node;
    UINTN map_size = 0;
    UINTN map_key = 0;
    UINTN descriptor_size = 0;
    UINT32 descriptor_version = 0;
};

// Reads the map into a buffer that is large enough, growing the node buffer
// first when needed: every allocation changes the map, so the map that is
// converted must be read after the last one.
void ReadMemoryMap(MapState& state, std::uint32_t entries_before) {
    for (;;) {
        UINTN size = state.map.bytes();
        EFI_STATUS status = Uefi::BootServices()->GetMemoryMap(&size, reinterpret_cast<EFI_MEMORY_DESCRIPTOR*>(state.map.data()),
                                                               &state.map_key, &state.descriptor_size, &state.descriptor_version);
        if (status == EFI_BUFFER_TOO_SMALL) {
            if (size <= state.map.bytes()) Common::Raise(ERROR_TAG, Common::Failures::EFI_INTERNAL);
            PageBuffer(size, kBelowFourGiB).swap(state.map);
            continue;
        }
        if (EFI_ERROR(status)) Common::Raise(ERROR_TAG, Common::Failures::FILE_NO_MEMORY);
        // A descriptor smaller than its own fields is as broken as one of 0.
        if (state.descriptor_size < sizeof(MemoryDescriptor)) Common::Raise(ERROR_TAG, Common::Failures::EFI_INTERNAL);
        state.map_size = size;
        std::uint64_t count = size / state.descriptor_size;
        std::uint64_t free_places = kE820EntriesInParams - entries_before;
        if (count <= free_places) return;
        std::uint64_t node_bytes = sizeof(SetupData) + (count - free_places) * sizeof(E820Entry);
        if (state.node.bytes() >= node_bytes) return;
        PageBuffer(node_bytes, kBelowFourGiB).swap(state.node);
    }
}

}  // namespace

std::uint32_t E820Type(std::uint32_t firmware_type, std::uint64_t attribute) {
    switch (firmware_type) {
        case EfiLoaderCode:
        case EfiLoaderData:
        case EfiBootServicesCode:
        case EfiBootServicesData:
        case EfiConventionalMemory: return (attribute & kMemoryWriteBack) ? kUsable : kReserved;
        case EfiUnusableMemory: return kUnusable;
        case EfiACPIReclaimMemory: return kAcpi;
        case EfiACPIMemoryNVS: return kNvs;
        default: return kReserved;
    }
}

void ConvertMemoryMap(const std::uint8_t* map, std::uint64_t map_size, std::uint64_t descriptor_size, std::uint8_t* params,
                      const E820Node& node) {
    BootParams& block = BootParamsAt(params);
    // The count is a byte in boot_params, and counts as one all along.
    std::uint8_t entries = block.e820_entries;
    if (descriptor_size < sizeof(MemoryDescriptor)) return;
    for (std::uint64_t offset = 0; offset + descriptor_size <= map_size; offset += descriptor_size) {
        const auto& descriptor = *reinterpret_cast<const MemoryDescriptor*>(map + offset);
        std::uint32_t type = E820Type(descriptor.Type.get(), descriptor.Attribute.get());
        std::uint64_t start = descriptor.PhysicalStart.get();
        std::uint64_t size = descriptor.NumberOfPages.get() * 4096;
        if (entries > 0) {
            E820Entry& previous = EntryAt(block, node, entries - 1u);
            if (previous.type.get() == type && previous.End() == start) {
                previous.size.set(previous.size.get() + size);
                continue;
            }
        }
        std::uint32_t index = entries;
        if (index >= kE820EntriesInParams &&
            (node.address == nullptr ||
             sizeof(SetupData) + (index - kE820EntriesInParams + 1) * sizeof(E820Entry) > node.capacity)) {
            break;  // no place was made for it; cannot happen with a map read as above
        }
        E820Entry& entry = EntryAt(block, node, index);
        entry.addr.set(start);
        entry.size.set(size);
        entry.type.set(type);
        entries = static_cast<std::uint8_t>(entries + 1);
    }
    block.e820_entries = entries;
}

void ExitToKernel(std::uint8_t* params) {
    BootParams& block = BootParamsAt(params);
    MapState state;
    ReadMemoryMap(state, block.e820_entries);
    E820Node node{state.node.data(), state.node.bytes()};
    if (node.address != nullptr) {
        SetupData& head = NodeHeader(node);
        head.next.set(0);
        head.type.set(kSetupE820Ext);
        head.len.set(0);
    }
    ConvertMemoryMap(state.map.data(), state.map_size, state.descriptor_size, params, node);
    if (EFI_ERROR(Uefi::BootServices()->ExitBootServices(Uefi::ImageHandle(), state.map_key))) {
        Common::Raise(ERROR_TAG, Common::Failures::EFI_INTERNAL);
    }

    EfiInfo& efi = block.efi_info;
    efi.efi_memdesc_size.set(static_cast<std::uint32_t>(state.descriptor_size));
    efi.efi_memdesc_version.set(state.descriptor_version);
    efi.efi_memmap.set(static_cast<std::uint32_t>(state.map.address()));
    efi.efi_memmap_size.set(static_cast<std::uint32_t>(state.map_size));
    efi.efi_memmap_hi.set(0);
    std::uint8_t entries = block.e820_entries;
    if (entries > kE820EntriesInParams) {
        NodeHeader(node).len.set(static_cast<std::uint32_t>((entries - kE820EntriesInParams) * sizeof(E820Entry)));
        block.e820_entries = static_cast<std::uint8_t>(kE820EntriesInParams);
        block.hdr.setup_data.set(node.address != nullptr ? reinterpret_cast<std::uint64_t>(node.address) : 0);
    }
    // The kernel reads both; boot services are gone, nothing may free them.
    state.map.release();
    state.node.release();
}

}  // namespace Launch
