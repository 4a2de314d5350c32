// The firmware's memory map in E820 form, and the end of boot services.
#include <efi.h>
#include <gtest/gtest.h>

#include <vector>

#include "launch/boot_params.h"
#include "launch/exit_to_kernel.h"
#include "platform/host/graphics_stand_ins.h"
#include "platform/host/simulator.h"
#include "tests/support/synthetic_kernel.h"
#include "tests/support/temp_folder.h"

extern "C" EFI_STATUS EFIAPI _ModuleEntryPoint(EFI_HANDLE image, EFI_SYSTEM_TABLE* system_table);

namespace {

using Launch::ByteArea;

struct E820 {
    std::uint64_t address;
    std::uint64_t size;
    std::uint32_t type;
    bool operator==(const E820& other) const { return address == other.address && size == other.size && type == other.type; }
};

std::ostream& operator<<(std::ostream& out, const E820& entry) {
    return out << std::hex << "{" << entry.address << ", " << entry.size << ", " << std::dec << entry.type << "}";
}

EFI_MEMORY_DESCRIPTOR Descriptor(std::uint32_t type, std::uint64_t start, std::uint64_t pages, std::uint64_t attribute = EFI_MEMORY_WB) {
    return EFI_MEMORY_DESCRIPTOR{type, 0, start, 0, pages, attribute};
}

std::vector<E820> EntriesOf(const std::uint8_t* params) {
    ByteArea header(const_cast<std::uint8_t*>(params));
    std::vector<E820> entries;
    for (unsigned i = 0; i < header.U8(0x1E8); ++i) {
        ByteArea entry(const_cast<std::uint8_t*>(params) + 0x2D0 + 20 * i);
        entries.push_back({entry.U64(0), entry.U64(8), entry.U32(16)});
    }
    std::uint64_t node = header.U64(0x250);
    if (node != 0) {
        ByteArea node_header(reinterpret_cast<std::uint8_t*>(node));
        EXPECT_EQ(node_header.U32(8), 1u);
        for (std::uint32_t at = 0; at < node_header.U32(12); at += 20) {
            ByteArea entry(reinterpret_cast<std::uint8_t*>(node) + 16 + at);
            entries.push_back({entry.U64(0), entry.U64(8), entry.U32(16)});
        }
    }
    return entries;
}

TEST(MemoryMap, TypesAndMerging) {
    const std::uint64_t wb = EFI_MEMORY_WB;
    struct Case {
        std::uint32_t type;
        std::uint64_t attribute;
        std::uint32_t e820;
    };
    const Case types[] = {
        {EfiLoaderCode, wb, 1},         {EfiLoaderData, wb, 1},      {EfiBootServicesCode, wb, 1}, {EfiBootServicesData, wb, 1},
        {EfiConventionalMemory, wb, 1}, {EfiConventionalMemory, 0, 2}, {EfiLoaderData, 0, 2},       {EfiUnusableMemory, wb, 5},
        {EfiACPIReclaimMemory, wb, 3},  {EfiACPIMemoryNVS, 0, 4},     {EfiRuntimeServicesCode, wb, 2}, {EfiRuntimeServicesData, wb, 2},
        {EfiMemoryMappedIO, wb, 2},     {EfiReservedMemoryType, wb, 2}, {99, wb, 2},
    };
    for (const Case& c : types) EXPECT_EQ(Launch::E820Type(c.type, c.attribute), c.e820) << c.type;

    // Descriptors 56 bytes apart, as some firmware gives them.
    const std::vector<EFI_MEMORY_DESCRIPTOR> map = {
        Descriptor(EfiBootServicesCode, 0x0, 1),          // usable ...
        Descriptor(EfiConventionalMemory, 0x1000, 2),     // ... merges: adjacent and usable
        Descriptor(EfiConventionalMemory, 0x3000, 1, 0),  // same type, no write-back: reserved, no merge
        Descriptor(EfiConventionalMemory, 0x5000, 1),     // gap behind the previous one
        Descriptor(EfiConventionalMemory, 0x7000, 1),     // gap again
        Descriptor(EfiACPIReclaimMemory, 0x8000, 1),
    };
    const std::size_t stride = 56;
    std::vector<std::uint8_t> bytes(map.size() * stride, 0xEE);
    for (std::size_t i = 0; i < map.size(); ++i) std::memcpy(bytes.data() + i * stride, &map[i], sizeof(map[i]));
    std::vector<std::uint8_t> params(0x1000, 0);
    Launch::ConvertMemoryMap(bytes.data(), bytes.size(), stride, params.data(), Launch::E820Node{});
    std::vector<E820> expected = {{0, 0x3000, 1}, {0x3000, 0x1000, 2}, {0x5000, 0x1000, 1}, {0x7000, 0x1000, 1}, {0x8000, 0x1000, 3}};
    EXPECT_EQ(EntriesOf(params.data()), expected);
}

struct KernelBoot {
    TestSupport::TempFolder esp;
    HostFirmware::Simulator firmware;
    KernelBoot() {
        firmware.MountEsp(esp.Path());
        firmware.Graphics().InstallGop({{800, 600, 800, PixelBlueGreenRedReserved8BitPerColor}}, 0);
        esp.Write("k", TestSupport::SyntheticKernel().Bytes());
        firmware.SetLoadOptions(u"m \\k");
    }
};

// `count` separate stretches that do not merge: every other page is reserved.
std::vector<EFI_MEMORY_DESCRIPTOR> Separate(std::size_t count) {
    std::vector<EFI_MEMORY_DESCRIPTOR> map;
    for (std::size_t i = 0; i < count; ++i) {
        map.push_back(Descriptor(i % 2 ? EfiReservedMemoryType : EfiConventionalMemory, 0x100000 + i * 0x1000, 1, i % 2 ? 0 : EFI_MEMORY_WB));
    }
    return map;
}

TEST(MemoryMap, EntriesBeyond128GoToASetupDataNode) {
    struct Case {
        std::vector<EFI_MEMORY_DESCRIPTOR> map;
        std::size_t entries;
        bool node;
    };
    std::vector<EFI_MEMORY_DESCRIPTOR> merging(129, Descriptor(EfiConventionalMemory, 0, 1));
    for (std::size_t i = 0; i < merging.size(); ++i) merging[i].PhysicalStart = i * 0x1000;
    const Case cases[] = {
        {Separate(128), 128, false},
        {merging, 1, false},  // a node was made for 129 descriptors, but is not used
        {Separate(130), 130, true},
    };
    for (const Case& c : cases) {
        KernelBoot boot;
        boot.firmware.SetMemoryMap(c.map, 48);
        boot.firmware.RunImage(_ModuleEntryPoint);
        const HostFirmware::KernelHandOver* hand_over = boot.firmware.HandOver();
        ASSERT_NE(hand_over, nullptr) << boot.firmware.ConsoleUtf8();
        ByteArea params(hand_over->params);
        std::vector<E820> entries = EntriesOf(hand_over->params);
        EXPECT_EQ(entries.size(), c.entries);
        EXPECT_EQ(params.U8(0x1E8), c.entries > 128 ? 128 : c.entries);
        EXPECT_EQ(params.U64(0x250) != 0, c.node);
        if (c.node) EXPECT_EQ(ByteArea(reinterpret_cast<std::uint8_t*>(params.U64(0x250))).U32(12), 40u);
        if (c.node) EXPECT_LT(params.U64(0x250), 0x100000000u);
        for (std::size_t i = 0; i < entries.size() && c.entries == c.map.size(); ++i) {
            EXPECT_EQ(entries[i].address, c.map[i].PhysicalStart);
        }
        EXPECT_EQ(params.U32(0x1C8), 48u);
        EXPECT_EQ(params.U32(0x1CC), 1u);
        EXPECT_EQ(params.U32(0x1D4), c.map.size() * 48);
        ASSERT_NE(params.U32(0x1D0), 0u);
        EXPECT_EQ(std::memcmp(reinterpret_cast<void*>(std::uint64_t(params.U32(0x1D0))), &c.map[0], sizeof(EFI_MEMORY_DESCRIPTOR)), 0);
        EXPECT_TRUE(boot.firmware.BootServicesExited());
    }
}

}  // namespace
