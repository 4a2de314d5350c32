// The real entry point and main, run through the firmware simulator.
#include <efi.h>
#include <gtest/gtest.h>

#include <regex>
#include <string>

#include "platform/host/simulator.h"

extern "C" EFI_STATUS EFIAPI _ModuleEntryPoint(EFI_HANDLE image, EFI_SYSTEM_TABLE* system_table);

namespace {

const std::string kUsage =
    "Usage: morvane.efi <kernel> [ramdismk] [cmdline arg]....\r\n"
    "If no arguments are specified, xml config is loaded\r\n";
const std::string kStartup = "Iniciando el cargador Morvane UEFI...\r\n";
const std::string kOpenFailure = "Runtime exception 'Error durante la apertura del archivo.', code 262151, tag 0x";

struct LoaderRun {
    EFI_STATUS status;
    std::string console;
    std::vector<std::uint64_t> stalls;
};

LoaderRun RunLoader(HostFirmware::Simulator& firmware) {
    EFI_STATUS status = firmware.RunImage(_ModuleEntryPoint);
    return LoaderRun{status, firmware.ConsoleUtf8(), firmware.Stalls()};
}

LoaderRun RunWithOptions(const std::u16string& options) {
    HostFirmware::Simulator firmware;
    firmware.SetLoadOptions(options);
    return RunLoader(firmware);
}

TEST(ProgramEntry, HelpIsExactlyOneLoneArgument) {
    struct Case {
        std::u16string options;
        bool help;
    };
    const Case cases[] = {
        {u"morvane.efi /?", true},
        {u"morvane.efi /help", true},
        {u"  morvane.efi\t\"/?\"  ", true},
        {u"morvane.efi /HELP", false},
        {u"morvane.efi /? extra", false},
        {u"morvane.efi /help/", false},
    };
    for (const Case& c : cases) {
        LoaderRun run = RunWithOptions(c.options);
        EXPECT_EQ(run.status, 1u);
        if (c.help) {
            EXPECT_EQ(run.console, kUsage);
            EXPECT_TRUE(run.stalls.empty());
        } else {
            EXPECT_EQ(run.console.rfind(kStartup, 0), 0u) << run.console;
            EXPECT_EQ(run.console.find("Usage:"), std::string::npos);
        }
    }
}

TEST(ProgramEntry, MissingDocumentIsReportedWithCodeTagAndPause) {
    for (const std::u16string& options : {std::u16string(), std::u16string(u"   \t ")}) {
        HostFirmware::Simulator firmware;
        if (!options.empty()) firmware.SetLoadOptions(options);
        LoaderRun run = RunLoader(firmware);
        EXPECT_EQ(run.status, 1u);
        std::regex expected(kStartup + std::regex_replace(kOpenFailure, std::regex(R"([.()'])"), R"(\$&)") +
                            "[0-9a-f]{16}\r\n");
        EXPECT_TRUE(std::regex_match(run.console, expected)) << run.console;
        ASSERT_EQ(run.stalls.size(), 1u);
        EXPECT_EQ(run.stalls[0], 10000000u);
        EXPECT_EQ(firmware.Now(), 10000000u);
        EXPECT_EQ(firmware.WatchdogTimeout(), 0u);
        EXPECT_GE(firmware.WatchdogCalls(), 1);
    }
}

TEST(ProgramEntry, KernelPathThatDoesNotOpenIsReported) {
    for (const std::u16string& options : {std::u16string(u"m nokernel"), std::u16string(u"m \"\" ramdisk a b"),
                                          std::u16string(u"m /HELP")}) {
        LoaderRun run = RunWithOptions(options);
        EXPECT_EQ(run.status, 1u);
        EXPECT_EQ(run.console.rfind(kStartup + kOpenFailure, 0), 0u) << run.console;
        EXPECT_EQ(run.stalls, std::vector<std::uint64_t>{10000000u});
    }
}

TEST(ProgramEntry, ImagePathWithoutDotEndsSilently) {
    HostFirmware::Simulator firmware;
    firmware.SetImagePath({u"\\LOADER"});
    LoaderRun run = RunLoader(firmware);
    EXPECT_EQ(run.status, 1u);
    EXPECT_EQ(run.console, kStartup);
    EXPECT_TRUE(run.stalls.empty());
}

TEST(ProgramEntry, ImagePathThatIsNotAFilePathIsAnInternalError) {
    HostFirmware::Simulator firmware;
    // A hard drive media node (type 4, subtype 1) in front of the file path.
    std::vector<std::uint8_t> path = {4, 1, 42, 0};
    path.resize(42, 0);
    std::vector<std::uint8_t> file = HostFirmware::FilePathNodes({u"\\X.EFI"});
    path.insert(path.end(), file.begin(), file.end());
    firmware.SetImageDevicePath(path);
    LoaderRun run = RunLoader(firmware);
    EXPECT_EQ(run.status, 1u);
    EXPECT_NE(run.console.find("Runtime exception 'Error interno de EFI.', code 21495809, tag 0x"), std::string::npos)
        << run.console;
}

TEST(ProgramEntry, NoLoadedImageProtocolFailsToOpen) {
    HostFirmware::Simulator firmware;
    firmware.RemoveLoadedImage();
    LoaderRun run = RunLoader(firmware);
    EXPECT_EQ(run.status, 1u);
    EXPECT_EQ(run.console.rfind(kStartup + kOpenFailure, 0), 0u) << run.console;
}

TEST(ProgramEntry, ArgumentsReachMainAsUtf8AndPathsWidenByteByByte) {
    // "ñ" is one 16-bit unit; in argv it is two UTF-8 bytes, and widening the
    // path byte by byte turns it into two units, so the file is not found and
    // the run goes through the direct way.
    LoaderRun run = RunWithOptions(u"m \u00F1");
    EXPECT_EQ(run.console.rfind(kStartup + kOpenFailure, 0), 0u) << run.console;
    // argv[0] with a character beyond ASCII is printed back in the usage.
    LoaderRun help = RunWithOptions(u"cargador\u00E9.efi /?");
    EXPECT_EQ(help.console.rfind("Usage: cargador\xC3\xA9.efi <kernel>", 0), 0u) << help.console;
}

}  // namespace
