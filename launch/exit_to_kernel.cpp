#include "launch/exit_to_kernel.h"

#include <efi.h>

#include "firmware/firmware_access.h"
#include "launch/boot_params.h"
#include "launch/page_buffer.h"
#include "loader/common/error.h"
#include "loader/common/error_codes.h"
#include "loader/common/messages.h"

namespace Launch {
namespace {

using namespace BootParamsOffset;

constexpr std::uint64_t kMemoryWriteBack = 0x8;
constexpr std::uint32_t kNodeHeader = 16;
constexpr std::uint32_t kSetupE820Ext = 1;

// A firmware memory descriptor, by offset.
constexpr std::uint32_t kDescriptorType = 0;
constexpr std::uint32_t kDescriptorStart = 8;
constexpr std::uint32_t kDescriptorPages = 24;
constexpr std::uint32_t kDescriptorAttribute = 32;
constexpr std::uint64_t kSmallestDescriptor = 40;

enum E820 : std::uint32_t { kUsable = 1, kReserved = 2, kAcpi = 3, kNvs = 4, kUnusable = 5 };

[[noreturn]] void FailInternal(std::uint64_t tag) { throw Common::Error(tag, Common::EFI_INTERNAL, Common::Messages::EFI_INTERNAL); }

// Place `index` of the E820 table: the first 128 in boot_params, the rest
// in the node.
std::uint8_t* EntryAt(std::uint8_t* params, const E820Node& node, std::uint32_t index) {
    if (index < kE820EntriesInParams) return params + kE820Table + index * kE820EntrySize;
    return node.address + kNodeHeader + (index - kE820EntriesInParams) * kE820EntrySize;
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
            if (size <= state.map.bytes()) FailInternal(ERROR_TAG);
            PageBuffer(size, kBelowFourGiB).swap(state.map);
            continue;
        }
        if (EFI_ERROR(status)) throw Common::Error(ERROR_TAG, Common::FILE_NO_MEMORY, Common::Messages::FILE_NO_MEMORY);
        // A descriptor smaller than its own fields is as broken as one of 0.
        if (state.descriptor_size < kSmallestDescriptor) FailInternal(ERROR_TAG);
        state.map_size = size;
        std::uint64_t count = size / state.descriptor_size;
        std::uint64_t free_places = kE820EntriesInParams - entries_before;
        if (count <= free_places) return;
        std::uint64_t node_bytes = kNodeHeader + (count - free_places) * kE820EntrySize;
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
    ByteArea header(params);
    // The count is a byte in boot_params, and counts as one all along.
    std::uint8_t entries = header.U8(kE820Entries);
    if (descriptor_size < kSmallestDescriptor) return;
    for (std::uint64_t offset = 0; offset + descriptor_size <= map_size; offset += descriptor_size) {
        // Fields by offset: the firmware's descriptor size need not keep
        // them aligned.
        ByteArea descriptor(const_cast<std::uint8_t*>(map + offset));
        std::uint32_t type = E820Type(descriptor.U32(kDescriptorType), descriptor.U64(kDescriptorAttribute));
        std::uint64_t start = descriptor.U64(kDescriptorStart);
        std::uint64_t size = descriptor.U64(kDescriptorPages) * 4096;
        if (entries > 0) {
            ByteArea previous(EntryAt(params, node, entries - 1u));
            if (previous.U32(16) == type && previous.U64(0) + previous.U64(8) == start) {
                previous.SetU64(8, previous.U64(8) + size);
                continue;
            }
        }
        std::uint32_t index = entries;
        if (index >= kE820EntriesInParams && (node.address == nullptr ||
                                              kNodeHeader + (index - kE820EntriesInParams + 1) * kE820EntrySize > node.capacity)) {
            break;  // no place was made for it; cannot happen with a map read as above
        }
        ByteArea entry(EntryAt(params, node, index));
        entry.SetU64(0, start);
        entry.SetU64(8, size);
        entry.SetU32(16, type);
        entries = static_cast<std::uint8_t>(entries + 1);
    }
    header.SetU8(kE820Entries, entries);
}

void ExitToKernel(std::uint8_t* params) {
    ByteArea header(params);
    MapState state;
    ReadMemoryMap(state, header.U8(kE820Entries));
    E820Node node{state.node.data(), state.node.bytes()};
    if (node.address != nullptr) {
        ByteArea node_header(node.address);
        node_header.SetU64(0, 0);
        node_header.SetU32(8, kSetupE820Ext);
        node_header.SetU32(12, 0);
    }
    ConvertMemoryMap(state.map.data(), state.map_size, state.descriptor_size, params, node);
    if (EFI_ERROR(Uefi::BootServices()->ExitBootServices(Uefi::ImageHandle(), state.map_key))) FailInternal(ERROR_TAG);

    header.SetU32(kEfiMemdescSize, static_cast<std::uint32_t>(state.descriptor_size));
    header.SetU32(kEfiMemdescVersion, state.descriptor_version);
    header.SetU32(kEfiMemmap, static_cast<std::uint32_t>(state.map.address()));
    header.SetU32(kEfiMemmapSize, static_cast<std::uint32_t>(state.map_size));
    header.SetU32(kEfiMemmapHi, 0);
    std::uint8_t entries = header.U8(kE820Entries);
    if (entries > kE820EntriesInParams) {
        ByteArea(node.address).SetU32(12, (entries - kE820EntriesInParams) * kE820EntrySize);
        header.SetU8(kE820Entries, kE820EntriesInParams);
        header.SetU64(kSetupData, node.address != nullptr ? reinterpret_cast<std::uint64_t>(node.address) : 0);
    }
    // The kernel reads both; boot services are gone, nothing may free them.
    state.map.release();
    state.node.release();
}

}  // namespace Launch
