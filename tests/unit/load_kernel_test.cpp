// The kernel action of the document: where its files come from, when they
// are opened, and what reaches the kernel.
#include <efi.h>
#include <gtest/gtest.h>

#include <string>

#include "launch/boot_params.h"
#include "loader/load_kernel.h"
#include "platform/host/graphics_stand_ins.h"
#include "platform/host/simulator.h"
#include "tests/support/synthetic_kernel.h"
#include "tests/support/temp_folder.h"

extern "C" EFI_STATUS EFIAPI _ModuleEntryPoint(EFI_HANDLE image, EFI_SYSTEM_TABLE* system_table);

namespace {

struct Machine {
    TestSupport::TempFolder esp;
    HostFirmware::Simulator firmware;
    Machine() {
        firmware.MountEsp(esp.Path());
        firmware.Graphics().InstallGop({{800, 600, 832, PixelRedGreenBlueReserved8BitPerColor}}, 0);
        esp.Write("boot/vmlinuz", TestSupport::SyntheticKernel().Bytes());
        esp.Write("boot/initrd", std::string(5000, 'r'));
    }
    std::string Boot(const std::string& document) {
        esp.Write("EFI/BOOT/BOOTX64.xml", document);
        firmware.RunImage(_ModuleEntryPoint);
        std::string console = firmware.ConsoleUtf8();
        firmware.ClearConsole();
        return console;
    }
    std::string CommandLine() const {
        const HostFirmware::KernelHandOver* hand_over = firmware.HandOver();
        return hand_over != nullptr ? reinterpret_cast<const char*>(hand_over->params + 0x1000) : "<no kernel>";
    }
};

const std::string kStartup = "Iniciando el cargador Morvane UEFI...\r\n";

TEST(LoadKernel, BootsFromTheMenuWithItsLoadingText) {
    Machine machine;
    machine.firmware.PushKey(u'l');
    std::string console = machine.Boot(u8R"(<R><Menu><Topic Text="Menú"/>
        <Entry Key="l" Text="Linux"><LoadKernel>
          <Kernel Path="/boot/vmlinuz" Arguments="console=ttyS0 quiet"/><Ramdisk Path="\boot\initrd"/>
          <Loading Text="Cargando Linux..."/></LoadKernel></Entry>
        <Entry Key="c" Text="Salir"><Chainload/></Entry></Menu></R>)");
    EXPECT_EQ(console, kStartup + "Menú\r\nSalir\r\nLinux\r\nCargando Linux...\r\n");
    EXPECT_EQ(machine.CommandLine(), "reboot=k console=ttyS0 quiet");
    ASSERT_NE(machine.firmware.HandOver(), nullptr);
    Launch::ByteArea params(machine.firmware.HandOver()->params);
    EXPECT_EQ(params.U32(0x21C), 5000u);
}

TEST(LoadKernel, FilesAreOpenedWhenTheDocumentIsRead) {
    // The kernel of one entry is missing: the menu never shows, whatever
    // entry would have been chosen.
    Machine machine;
    machine.firmware.PushKey(u'c');
    std::string console = machine.Boot(R"(<R><Menu>
        <Entry Key="l" Text="Linux"><LoadKernel><Kernel Path="\boot\missing"/><Ramdisk Path="\boot\initrd"/></LoadKernel></Entry>
        <Entry Key="c" Text="Salir"><Chainload/></Entry></Menu></R>)");
    EXPECT_EQ(console.find("Salir"), std::string::npos);
    EXPECT_NE(console.find("Runtime exception 'Error durante la apertura del archivo.', code 262151"), std::string::npos) << console;
}

TEST(LoadKernel, DocumentRefusalsAndLocations) {
    struct Case {
        const char* kernel_element;
        const char* report;  // empty: boots
        const char* command_line;
    };
    const Case cases[] = {
        {R"(<Kernel Path="\boot\vmlinuz"/><Ramdisk Path="\boot\initrd"/>)", "", "reboot=k "},
        {R"(<Kernel Path="\boot\vmlinuz" Arguments=""/><Ramdisk Path="\boot\initrd"/>)", "", "reboot=k "},
        {u8R"(<Kernel Path="\boot\vmlinuz" Arguments="aŁb"/><Ramdisk Path="\boot\initrd"/>)", "", "reboot=k aAb"},
        {R"(<Kernel Path="\boot\vmlinuz"/>)", "Runtime exception '', code 21495817", ""},
        {R"(<Ramdisk Path="\boot\initrd"/>)", "Runtime exception '', code 21495817", ""},
        {R"(<Kernel/><Ramdisk Path="\boot\initrd"/>)", "Runtime exception '', code 21495817", ""},
        {R"(<Kernel Path="\boot\vmlinuz"/><Ramdisk Path="\boot\initrd"/><GPT/>)", "", "reboot=k "},
        {R"(<Kernel Path="\boot\vmlinuz"/><Ramdisk Path="\boot\initrd"/><GPT Guid="00000000-0000-0000-0000-000000000000"/>)", "",
         "reboot=k "},
        {R"(<Kernel Path="\boot\vmlinuz"/><Ramdisk Path="\boot\initrd"/><GPT Guid="not a guid"/>)",
         "Runtime exception '', code 21495817", ""},
        {R"(<Kernel Path="\boot\vmlinuz"/><Ramdisk Path="\boot\initrd"/><GPT Guid="0FC63DAF-8483-4772-8E79-3D69D8477DE4"/>)",
         "Runtime exception 'No se pudo encontrar.', code 1101838", ""},
    };
    for (const Case& c : cases) {
        Machine machine;
        std::string console = machine.Boot(std::string("<R><LoadKernel>") + c.kernel_element + "</LoadKernel></R>");
        std::size_t at = console.find("Runtime exception");
        std::string report = at == std::string::npos ? "" : console.substr(at, console.find(", tag") - at);
        EXPECT_EQ(report, c.report) << c.kernel_element;
        if (report.empty()) EXPECT_EQ(machine.CommandLine(), c.command_line) << c.kernel_element;
    }
}

TEST(LoadKernel, GuidText) {
    struct Case {
        const char* text;
        bool parses;
        std::uint8_t bytes[16];
    };
    const Case cases[] = {
        {"0FC63DAF-8483-4772-8E79-3D69D8477DE4", true,
         {0xAF, 0x3D, 0xC6, 0x0F, 0x83, 0x84, 0x72, 0x47, 0x8E, 0x79, 0x3D, 0x69, 0xD8, 0x47, 0x7D, 0xE4}},
        {"0fc63daf-8483-4772-8e79-3d69d8477de4 and more", true,
         {0xAF, 0x3D, 0xC6, 0x0F, 0x83, 0x84, 0x72, 0x47, 0x8E, 0x79, 0x3D, 0x69, 0xD8, 0x47, 0x7D, 0xE4}},
        {"0FC63DAF-8483-4772-8E79-3D69D8477D", false, {}},
        {"0FC63DAF-8483-4772-8E793D69D8477DE4", false, {}},
        {"0FC63DAF:8483-4772-8E79-3D69D8477DE4", false, {}},
        {"", false, {}},
    };
    for (const Case& c : cases) {
        std::uint8_t guid[16] = {};
        EXPECT_EQ(EfiLoader::ParseGuid(c.text, guid), c.parses) << c.text;
        if (c.parses) EXPECT_EQ(std::memcmp(guid, c.bytes, 16), 0) << c.text;
    }
}

}  // namespace
