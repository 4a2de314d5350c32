#include "launch/direct_way.h"

#include <memory>
#include <string>

#include "firmware/efi_file.h"
#include "launch/boot_linux.h"

namespace Launch {
namespace {

// Paths widen byte by byte, without a code page.
std::u16string Widen(const char* text) {
    std::u16string wide;
    for (; *text != 0; ++text) wide.push_back(static_cast<unsigned char>(*text));
    return wide;
}

}  // namespace

std::string DirectWayCommandLine(int argc, char** argv) {
    std::string command_line;
    for (int i = 3; i < argc; ++i) {
        command_line += argv[i];
        command_line += ' ';
    }
    return command_line;
}

void RunDirectWay(int argc, char** argv) {
    std::string command_line = DirectWayCommandLine(argc, argv);
    std::unique_ptr<ri_file> kernel = Uefi::OpenFile(Widen(argv[1]));
    std::unique_ptr<ri_file> ramdisk;
    if (argc > 2) ramdisk = Uefi::OpenFile(Widen(argv[2]));
    BootLinux(*kernel, ramdisk.get(), command_line);
}

}  // namespace Launch
