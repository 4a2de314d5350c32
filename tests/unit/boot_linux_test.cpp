// Kernel placement and the boot parameter block, through the direct way on
// the simulator, with synthetic bzImages written field by field.
#include <efi.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "launch/boot_params.h"
#include "launch/entry_stub.h"
#include "platform/host/graphics_stand_ins.h"
#include "platform/host/simulator.h"
#include "tests/support/synthetic_kernel.h"
#include "tests/support/temp_folder.h"

extern "C" EFI_STATUS EFIAPI _ModuleEntryPoint(EFI_HANDLE image, EFI_SYSTEM_TABLE* system_table);

namespace {

using Launch::ByteArea;
using TestSupport::SyntheticKernel;

struct Boot {
    TestSupport::TempFolder esp;
    HostFirmware::Simulator firmware;
    std::string console;
    Boot() {
        firmware.MountEsp(esp.Path());
        firmware.Graphics().InstallGop({{1024, 768, 1024, PixelBlueGreenRedReserved8BitPerColor}}, 0);
    }
    const HostFirmware::KernelHandOver* Run(const std::u16string& options) {
        firmware.SetLoadOptions(options);
        firmware.RunImage(_ModuleEntryPoint);
        console = firmware.ConsoleUtf8();
        return firmware.HandOver();
    }
};

std::string ReportOf(const std::string& console) {
    std::size_t at = console.find("Runtime exception '");
    return at == std::string::npos ? std::string() : console.substr(at, console.find(", tag") - at);
}

TEST(BootLinux, DirectWayPlacesKernelRamdiskAndCommandLine) {
    Boot boot;
    SyntheticKernel kernel;
    std::string image = kernel.Bytes();
    std::string ramdisk(70000, '\0');
    for (std::size_t i = 0; i < ramdisk.size(); ++i) ramdisk[i] = static_cast<char>(i * 5);
    boot.esp.Write("k", image);
    boot.esp.Write("r", ramdisk);
    const HostFirmware::KernelHandOver* hand_over = boot.Run(u"m \\k \\r a b c");
    ASSERT_NE(hand_over, nullptr) << boot.console;
    EXPECT_TRUE(boot.firmware.BootServicesExited());
    ByteArea params(hand_over->params);

    // The kernel: 2 MiB aligned (min_alignment 21), below 1 GiB, the payload
    // behind the setup part byte for byte.
    std::uint64_t kernel_address = hand_over->kernel_address;
    EXPECT_EQ(kernel_address % 0x200000, 0u);
    EXPECT_LT(kernel_address + kernel.payload_size, 0x40000000u);
    EXPECT_EQ(std::memcmp(reinterpret_cast<void*>(kernel_address), image.data() + kernel.SetupSize(), kernel.payload_size), 0);
    EXPECT_EQ(params.U32(0x214), kernel_address);
    EXPECT_EQ(params.U32(0x230), 0x200000u);

    // The ramdisk, below 4 GiB.
    std::uint32_t ramdisk_address = params.U32(0x218);
    EXPECT_NE(ramdisk_address, 0u);
    EXPECT_EQ(params.U32(0x21C), ramdisk.size());
    EXPECT_EQ(std::memcmp(reinterpret_cast<void*>(std::uint64_t(ramdisk_address)), ramdisk.data(), ramdisk.size()), 0);

    // The header fields the loader owns.
    EXPECT_EQ(params.U8(0x211), 0x81);
    EXPECT_EQ(params.U8(0x210), 0x50);
    EXPECT_EQ(params.U16(0x224), 0x2E00);
    EXPECT_EQ(params.U32(0x1E0), 0x8000u);
    EXPECT_EQ(params.U32(0x1C0), 0x34364C45u);
    auto table = reinterpret_cast<std::uint64_t>(boot.firmware.SystemTable());
    EXPECT_EQ(params.U32(0x1C4), static_cast<std::uint32_t>(table));
    EXPECT_EQ(params.U32(0x1D8), static_cast<std::uint32_t>(table >> 32));

    // The command line: the fixed prefix, then one blank behind each argument.
    std::uint32_t command_line = params.U32(0x228);
    EXPECT_EQ(command_line, reinterpret_cast<std::uint64_t>(hand_over->params) + 0x1000);
    EXPECT_STREQ(reinterpret_cast<const char*>(hand_over->params + 0x1000), "reboot=k a b c ");

    // Cleared around the setup header, kept inside it.
    for (std::uint32_t i = 0x40; i < 0x1C0; ++i) ASSERT_EQ(hand_over->params[i], 0) << std::hex << i;
    EXPECT_EQ(params.U32(0x202), 0x53726448u);
    for (std::uint32_t i = 0x202 + kernel.jump_offset; i < 0x1000; ++i) {
        if (i == 0x210 || i == 0x211 || (i >= 0x214 && i < 0x220) || i == 0x224 || i == 0x225 || (i >= 0x228 && i < 0x22C) ||
            (i >= 0x230 && i < 0x236) || (i >= 0x260 && i < 0x264) || (i >= 0x2D0 && i < 0x2D0 + 128 * 20) || i == 0x1E8) {
            continue;
        }
        ASSERT_EQ(hand_over->params[i], 0) << std::hex << i;
    }

    // The framebuffer the display gives: 1024 x 768 at 32 bits, blue first.
    EXPECT_EQ(params.U16(0x12), 1024);
    EXPECT_EQ(params.U16(0x14), 768);
    EXPECT_EQ(params.U16(0x16), 32);
    EXPECT_EQ(params.U32(0x18), boot.firmware.Graphics().Framebuffer().Base());
    EXPECT_EQ(params.U16(0x24), 4096);
    EXPECT_EQ(params.U8(0x27), 16);  // red position
    EXPECT_EQ(params.U8(0x2B), 0);   // blue position
    EXPECT_EQ(params.U8(0x0F), 0x70);

    // The stub, copied behind the area's cleared stretch.
    EXPECT_EQ(hand_over->stub, hand_over->params + 0x3000);
    EXPECT_EQ(std::memcmp(hand_over->params_copy.data() + 0x3000, Launch::EntryStubCode(), 200), 0);
    const std::uint8_t code_descriptor[] = {0xFF, 0xFF, 0, 0, 0, 0x9A, 0xCF, 0};
    const std::uint8_t data_descriptor[] = {0xFF, 0xFF, 0, 0, 0, 0x92, 0xCF, 0};
    EXPECT_EQ(std::memcmp(hand_over->stub + 0x90, code_descriptor, 8), 0);
    EXPECT_EQ(std::memcmp(hand_over->stub + 0x98, data_descriptor, 8), 0);
    EXPECT_EQ(ByteArea(hand_over->stub).U16(0xA0), 0x1F);
    EXPECT_EQ(ByteArea(hand_over->stub).U16(0xC4), 0x10);
}

TEST(BootLinux, WithoutRamdiskAndWithALongCommandLine) {
    Boot boot;
    SyntheticKernel kernel;
    kernel.min_alignment = 12;
    boot.esp.Write("k", kernel.Bytes());
    std::u16string options = u"m \\k";
    const HostFirmware::KernelHandOver* hand_over = boot.Run(options);
    ASSERT_NE(hand_over, nullptr) << boot.console;
    ByteArea params(hand_over->params);
    EXPECT_EQ(params.U32(0x218), 0u);
    EXPECT_EQ(params.U32(0x21C), 0u);
    EXPECT_EQ(params.U32(0x230), 0x1000u);
    EXPECT_STREQ(reinterpret_cast<const char*>(hand_over->params + 0x1000), "reboot=k ");

    // 0x400 bytes of arguments: only 0x3FF bytes of prefix and line arrive.
    Boot long_line;
    long_line.esp.Write("k", kernel.Bytes());
    std::u16string argument(0x3FF, u'x');
    hand_over = long_line.Run(u"m \\k \\k " + argument);
    ASSERT_NE(hand_over, nullptr) << long_line.console;
    std::string line(reinterpret_cast<const char*>(hand_over->params + 0x1000));
    EXPECT_EQ(line.size(), 0x3FFu);
    EXPECT_EQ(line, "reboot=k " + std::string(0x3FF - 9, 'x'));
    EXPECT_EQ(hand_over->params[0x13FF], 0);
}

TEST(BootLinux, HeaderChecks) {
    struct Case {
        const char* name;
        void (*change)(SyntheticKernel&);
        const char* report;  // empty: boots
    };
    const char* corrupt = "Runtime exception 'El kernel est\xC3\xA1 da\xC3\xB1" "ado.', code 21495810";
    const char* unsupported = "Runtime exception 'Versi\xC3\xB3n de kernel no compatible.', code 21495811";
    const Case cases[] = {
        {"good", [](SyntheticKernel&) {}, ""},
        {"boot flag", [](SyntheticKernel& k) { k.bad_boot_flag = true; }, corrupt},
        {"magic", [](SyntheticKernel& k) { k.bad_magic = true; }, corrupt},
        {"not loaded high", [](SyntheticKernel& k) { k.loadflags = 0; }, unsupported},
        {"protocol 2.09", [](SyntheticKernel& k) { k.version = 0x0209; }, unsupported},
        {"protocol 2.10", [](SyntheticKernel& k) { k.version = 0x020A; }, ""},
        {"jump 0x61", [](SyntheticKernel& k) { k.jump_offset = 0x61; }, corrupt},
        {"jump 0x62", [](SyntheticKernel& k) { k.jump_offset = 0x62; }, ""},
        {"not relocatable", [](SyntheticKernel& k) { k.relocatable = 0; }, unsupported},
        {"init_size exact", [](SyntheticKernel& k) { k.init_size_delta = 0; }, ""},
        {"init_size one short", [](SyntheticKernel& k) { k.init_size_delta = -1; }, corrupt},
        {"setup_sects 0 means 4", [](SyntheticKernel& k) { k.setup_sects = 0; }, ""},
        {"kernel_version inside", [](SyntheticKernel& k) { k.kernel_version = 0x100; }, ""},
        {"kernel_version outside", [](SyntheticKernel& k) { k.kernel_version = 0x200; }, corrupt},
    };
    for (const Case& c : cases) {
        Boot boot;
        SyntheticKernel kernel;
        c.change(kernel);
        boot.esp.Write("k", kernel.Bytes());
        const HostFirmware::KernelHandOver* hand_over = boot.Run(u"m \\k");
        EXPECT_EQ(ReportOf(boot.console), c.report) << c.name;
        EXPECT_EQ(hand_over != nullptr, std::string(c.report).empty()) << c.name;
        if (hand_over != nullptr && kernel.setup_sects == 0) {
            // The payload starts 0xA00 bytes into the file.
            std::string bytes = kernel.Bytes();
            EXPECT_EQ(std::memcmp(reinterpret_cast<void*>(hand_over->kernel_address), bytes.data() + 0xA00, 16), 0);
        }
        if (hand_over == nullptr) {
            // Every page went back to the firmware on the error's way out.
            EXPECT_TRUE(boot.firmware.page_runs_.empty()) << c.name;
        }
    }
}

TEST(BootLinux, NoDisplayMeansNoBoot) {
    TestSupport::TempFolder esp;
    HostFirmware::Simulator firmware;
    firmware.MountEsp(esp.Path());
    esp.Write("k", SyntheticKernel().Bytes());
    firmware.SetLoadOptions(u"m \\k");
    firmware.RunImage(_ModuleEntryPoint);
    EXPECT_EQ(firmware.HandOver(), nullptr);
    EXPECT_EQ(ReportOf(firmware.ConsoleUtf8()),
              "Runtime exception 'NO fue posible detectar el modo de salida gr\xC3\xA1" "fica.', code 21495812");
    EXPECT_FALSE(firmware.BootServicesExited());
    EXPECT_TRUE(firmware.page_runs_.empty());
}

TEST(BootLinux, FileSizeLimits) {
    // A valid header in exactly 0x400 bytes is refused for its size; one
    // byte more and the same header boots a one-byte kernel.
    for (std::size_t size : {std::size_t(10), std::size_t(0x400), std::size_t(0x401)}) {
        Boot boot;
        std::string image = SyntheticKernel().Bytes();
        image.resize(size);
        boot.esp.Write("k", image);
        const HostFirmware::KernelHandOver* hand_over = boot.Run(u"m \\k");
        if (size == 0x401) {
            ASSERT_NE(hand_over, nullptr) << boot.console;
            EXPECT_EQ(*reinterpret_cast<const char*>(hand_over->kernel_address), image[0x400]);
        } else {
            EXPECT_EQ(hand_over, nullptr);
            EXPECT_EQ(ReportOf(boot.console), "Runtime exception 'El kernel est\xC3\xA1 da\xC3\xB1" "ado.', code 21495810") << size;
        }
    }
}

TEST(BootLinux, KernelShorterThanItsHeaderSaysRaisesEndOfFile) {
    Boot boot;
    SyntheticKernel kernel;
    kernel.setup_sects = 8;  // the setup part claims more than the file holds
    kernel.payload_size = 0;
    std::string image = kernel.Bytes();
    image.resize(0x800);
    boot.esp.Write("k", image);
    EXPECT_EQ(boot.Run(u"m \\k"), nullptr);
    EXPECT_EQ(ReportOf(boot.console), "Runtime exception 'Se alcanz\xC3\xB3 el error del archivo.', code 262146");
}

}  // namespace
