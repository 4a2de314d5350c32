#include "loader/main.h"

#include <cstring>

#include "firmware/boot_next.h"
#include "firmware/firmware_access.h"
#include "launch/direct_way.h"
#include "loader/common/error.h"
#include "loader/configuration_file.h"
#include "loader/document_way.h"
#include "loader/menu.h"
#include "platform/clib/clib.h"

namespace EfiLoader {
namespace {

const char16_t* const kStartupLine = u"Iniciando el cargador Morvane UEFI...";
constexpr unsigned kReportPauseMicroseconds = 10000000;

bool AsksForHelp(int argc, char** argv) {
    return argc == 2 && (std::strcmp(argv[1], "/?") == 0 || std::strcmp(argv[1], "/help") == 0);
}

void PrintUsage(const char* program) {
    Clib::Printf("Usage: %s <kernel> [ramdismk] [cmdline arg]....\n", program);
    Clib::Printf("If no arguments are specified, xml config is loaded\n");
}

// An installer may leave a one-shot entry tagged for the loader; left
// behind, the machine would boot it forever. Failing to remove it must not
// stop the loader, so the outcome is dropped.
void ClearTaggedBootEntry() {
    boost::shared_ptr<Uefi::BootNext> boot_next;
    static_cast<void>(Uefi::CreateBootNext(boot_next, 0));
    if (boot_next) static_cast<void>(boot_next->Clear());
}

void Report(const Common::Error& error) {
    std::u16string text;
    error.GetMessage(text);
    std::uint64_t tag = error.Tag();
    Clib::WPrintf(u"Runtime exception '%s', code %u, tag 0x%08x%08x\n", text.c_str(), error.Code(),
                  static_cast<unsigned>(tag >> 32), static_cast<unsigned>(tag & 0xFFFFFFFF));
    Uefi::BootServices()->Stall(kReportPauseMicroseconds);
}

}  // namespace

int main(int argc, char** argv) {
    Uefi::InitializeFirmwareAccess(Clib::ImageHandle(), Clib::SystemTable());
    ForgetConsoleReset();
    // Lives as long as main runs: every action points into its tree.
    ConfigurationFile document;
    try {
        if (AsksForHelp(argc, argv)) {
            PrintUsage(argv[0]);
            return 1;
        }
        Clib::WPrintf(u"%s\n", kStartupLine);
        ClearTaggedBootEntry();
        if (argc > 1) {
            Launch::RunDirectWay(argc, argv);
        } else {
            RunDocumentWay(document);
        }
    } catch (const Common::Error& error) {
        Report(error);
    }
    return 1;
}

}  // namespace EfiLoader
