// morvane boot: the whole loader on the firmware simulator, against an ESP
// folder of the host, with the keys a person would type.
#include <efi.h>

#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "launch/boot_params.h"
#include "platform/clib/clib.h"
#include "platform/host/block_io_devices.h"
#include "platform/host/graphics_stand_ins.h"
#include "platform/host/simulator.h"
#include "tools/command.h"

extern "C" EFI_STATUS EFIAPI _ModuleEntryPoint(EFI_HANDLE image, EFI_SYSTEM_TABLE* system_table);

namespace MorvaneTool {
namespace {

const char kUsage[] =
    "Usage: morvane boot --esp DIR [--disk IMAGE]... [--keys KEYS] [--image PATH]\n"
    "                    [--vars FILE] [--no-display] [-- LOAD OPTIONS...]\n"
    "\n"
    "Runs the loader on a simulated machine whose EFI system partition is the\n"
    "folder DIR, prints the console as the firmware shows it, then how the run\n"
    "ended. Time is simulated: a menu's delay passes at once.\n"
    "\n"
    "  --esp DIR      the folder that stands for the EFI system partition\n"
    "  --image PATH   the loader's path on it (default \\EFI\\BOOT\\BOOTX64.EFI);\n"
    "                 the configuration document is looked for beside it\n"
    "  --vars FILE    an OVMF variable file (a copy of a machine's NVRAM): the\n"
    "                 loader sees its boot entries, and what it changes is\n"
    "                 written back to FILE\n"
    "  --no-display   a machine without graphics output (the simulated one\n"
    "                 otherwise has a 1024x768 display)\n"
    "  --disk IMAGE   a disk image file attached as a hard disk, read-only; each\n"
    "                 partition of its GPT becomes a partition of the machine,\n"
    "                 so a LoadKernel with a GPT Guid can find it (repeatable)\n"
    "  --keys KEYS    keys typed, in order: characters stand for themselves,\n"
    "                 {Esc} {Up} {Down} {Left} {Right} {Home} {End} {Insert}\n"
    "                 {Delete} {PgUp} {PgDown} {F1}..{F12} for named keys,\n"
    "                 {{ for a brace, and {+N} lets N seconds pass first\n"
    "  -- OPTIONS     load options for the loader (the first one plays the\n"
    "                 program name, as the firmware shell passes it)\n";

struct NamedKey {
    const char* name;
    std::uint16_t scan_code;
};
const NamedKey kNamedKeys[] = {{"Up", 1},     {"Down", 2},   {"Right", 3},   {"Left", 4},   {"Home", 5},
                               {"End", 6},    {"Insert", 7}, {"Delete", 8},  {"PgUp", 9},   {"PgDown", 10},
                               {"F1", 11},    {"F2", 12},    {"F3", 13},     {"F4", 14},    {"F5", 15},
                               {"F6", 16},    {"F7", 17},    {"F8", 18},     {"F9", 19},    {"F10", 20},
                               {"F11", 21},   {"F12", 22},   {"Esc", 23}};

bool QueueKeys(HostFirmware::Simulator& firmware, const std::string& keys, std::string& problem) {
    std::uint64_t at = 0;
    std::u16string text = Clib::FromMultibyte(keys.data(), keys.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != u'{') {
            firmware.PushKey(text[i], 0, at);
            continue;
        }
        if (i + 1 < text.size() && text[i + 1] == u'{') {
            firmware.PushKey(u'{', 0, at);
            ++i;
            continue;
        }
        std::size_t close = text.find(u'}', i);
        if (close == std::u16string::npos) {
            problem = "unclosed '{' in --keys";
            return false;
        }
        std::string name = Clib::ToMultibyte(text.data() + i + 1, close - i - 1);
        i = close;
        if (!name.empty() && name[0] == '+') {
            char* end = nullptr;
            unsigned long seconds = std::strtoul(name.c_str() + 1, &end, 10);
            if (end == name.c_str() + 1 || *end != 0) {
                problem = "bad pause '{" + name + "}' in --keys";
                return false;
            }
            at += seconds * 1000000ull;
            continue;
        }
        const NamedKey* found = nullptr;
        for (const NamedKey& key : kNamedKeys) {
            if (name == key.name) found = &key;
        }
        if (found == nullptr) {
            problem = "unknown key '{" + name + "}' in --keys";
            return false;
        }
        firmware.PushKey(0, found->scan_code, at);
    }
    return true;
}

// Attaches each image as a read-only hard disk, in the order given, so the
// machine's block devices are numbered as on the command line.
bool AttachDisks(HostFirmware::Simulator& firmware, const std::vector<std::string>& images, std::string& problem) {
    for (const std::string& image : images) {
        try {
            firmware.Disks().Attach(image);
        } catch (const std::runtime_error& error) {
            problem = error.what();
            return false;
        }
    }
    return true;
}

// "\EFI\BOOT\X.EFI" as the file path node a firmware boot manager gives.
std::u16string ImagePath(const std::string& path) { return Clib::FromMultibyte(path.data(), path.size()); }

std::u16string LoadOptions(const std::vector<std::string>& options) {
    std::string joined;
    for (const std::string& option : options) {
        if (!joined.empty()) joined += ' ';
        joined += option.find_first_of(" \t") == std::string::npos ? option : "\"" + option + "\"";
    }
    std::u16string wide = Clib::FromMultibyte(joined.data(), joined.size());
    wide.push_back(0);
    return wide;
}

void PrintConsole(const std::string& console) {
    std::string shown;
    for (std::size_t i = 0; i < console.size(); ++i) {
        if (console[i] == '\r' && i + 1 < console.size() && console[i + 1] == '\n') continue;
        shown.push_back(console[i]);
    }
    std::fwrite(shown.data(), 1, shown.size(), stdout);
}

const char* E820Name(std::uint32_t type) {
    switch (type) {
        case 1: return "usable";
        case 2: return "reserved";
        case 3: return "ACPI data";
        case 4: return "ACPI NVS";
        case 5: return "unusable";
        default: return "?";
    }
}

void PrintE820(Launch::ByteArea params) {
    auto print = [](std::uint8_t* entry) {
        Launch::ByteArea e(entry);
        std::printf("  [mem 0x%016llx-0x%016llx] %s\n", static_cast<unsigned long long>(e.U64(0)),
                    static_cast<unsigned long long>(e.U64(0) + e.U64(8) - 1), E820Name(e.U32(16)));
    };
    for (unsigned i = 0; i < params.U8(0x1E8); ++i) print(params.At(0x2D0 + 20 * i));
    if (std::uint64_t node = params.U64(0x250)) {
        Launch::ByteArea header(reinterpret_cast<std::uint8_t*>(node));
        for (std::uint32_t at = 0; at + 20 <= header.U32(12); at += 20) print(reinterpret_cast<std::uint8_t*>(node) + 16 + at);
    }
}

// What a kernel developer looks at in the parameter block.
void PrintHandOver(const HostFirmware::KernelHandOver& hand_over) {
    Launch::ByteArea params(hand_over.params);
    std::printf("----\nkernel hand-over:\n");
    std::printf("  boot protocol     %u.%02u\n", params.U8(0x207), params.U8(0x206));
    std::printf("  code32_start      0x%08x (kernel placed here)\n", params.U32(0x214));
    std::printf("  kernel_alignment  0x%x\n", params.U32(0x230));
    std::printf("  type_of_loader    0x%02x\n", params.U8(0x210));
    std::printf("  loadflags         0x%02x\n", params.U8(0x211));
    std::printf("  ramdisk           0x%08x, %u bytes\n", params.U32(0x218), params.U32(0x21C));
    std::printf("  cmd_line_ptr      0x%08x\n", params.U32(0x228));
    std::printf("  command line      \"%s\"\n", reinterpret_cast<const char*>(hand_over.params + 0x1000));
    std::printf("  video             %ux%u, %u bpp, base 0x%08x, %u bytes, %u bytes per line\n", params.U16(0x12),
                params.U16(0x14), params.U16(0x16), params.U32(0x18), params.U32(0x1C), params.U16(0x24));
    std::printf("  colours           red %u@%u green %u@%u blue %u@%u reserved %u@%u\n", params.U8(0x26), params.U8(0x27),
                params.U8(0x28), params.U8(0x29), params.U8(0x2A), params.U8(0x2B), params.U8(0x2C), params.U8(0x2D));
    std::printf("  efi system table  0x%08x%08x, memory map 0x%08x (%u bytes, descriptors of %u)\n", params.U32(0x1D8),
                params.U32(0x1C4), params.U32(0x1D0), params.U32(0x1D4), params.U32(0x1C8));
    std::printf("  e820 (%u entries in the block%s):\n", params.U8(0x1E8), params.U64(0x250) != 0 ? ", more in setup_data" : "");
    PrintE820(params);
}

void PrintEnding(const HostFirmware::Simulator& firmware, EFI_STATUS status) {
    double seconds = static_cast<double>(firmware.Now()) / 1e6;
    if (const HostFirmware::KernelHandOver* hand_over = firmware.HandOver()) {
        PrintHandOver(*hand_over);
        std::printf("ended: the kernel took over (simulated time %.1f s)\n", seconds);
        return;
    }
    std::printf("----\n");
    if (firmware.EndedWaitingForever()) {
        std::printf("ended: waiting for a key that never comes (simulated time %.1f s)\n", seconds);
        return;
    }
    bool reported = firmware.ConsoleUtf8().find("Runtime exception '") != std::string::npos;
    std::printf("ended: returned %llu%s; the firmware goes on to its next boot option (simulated time %.1f s)\n",
                static_cast<unsigned long long>(status), reported ? " after an error report" : "", seconds);
}

}  // namespace

int RunBootCommand(int argc, char** argv) {
    std::string esp;
    std::string keys;
    std::string image = "\\EFI\\BOOT\\BOOTX64.EFI";
    std::string vars;
    std::vector<std::string> disks;
    bool display = true;
    std::vector<std::string> options;
    bool have_options = false;
    for (int i = 1; i < argc; ++i) {
        std::string argument = argv[i];
        bool has_value = i + 1 < argc;
        if (argument == "--help" || argument == "-h") {
            std::fputs(kUsage, stdout);
            return kExitOk;
        } else if (argument == "--") {
            have_options = true;
            options.assign(argv + i + 1, argv + argc);
            break;
        } else if (argument == "--esp" && has_value) {
            esp = argv[++i];
        } else if (argument == "--keys" && has_value) {
            keys = argv[++i];
        } else if (argument == "--disk" && has_value) {
            disks.push_back(argv[++i]);
        } else if (argument == "--image" && has_value) {
            image = argv[++i];
        } else if (argument == "--vars" && has_value) {
            vars = argv[++i];
        } else if (argument == "--no-display") {
            display = false;
        } else {
            std::fprintf(stderr, "morvane boot: unexpected argument '%s'\n%s", argument.c_str(), kUsage);
            return kExitUsageOrIo;
        }
    }
    struct stat info {};
    if (esp.empty() || stat(esp.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
        std::fprintf(stderr, "morvane boot: --esp must name a folder\n");
        return kExitUsageOrIo;
    }
    HostFirmware::Simulator firmware;
    firmware.MountEsp(esp);
    firmware.SetImagePath({ImagePath(image)});
    if (have_options) firmware.SetLoadOptions(LoadOptions(options));
    if (display) firmware.Graphics().InstallGop({{1024, 768, 1024, PixelBlueGreenRedReserved8BitPerColor}}, 0);
    std::string problem;
    if (!QueueKeys(firmware, keys, problem)) {
        std::fprintf(stderr, "morvane boot: %s\n", problem.c_str());
        return kExitUsageOrIo;
    }
    if (!vars.empty() && !firmware.Variables().LoadFile(vars, problem)) {
        std::fprintf(stderr, "morvane boot: %s: %s\n", vars.c_str(), problem.c_str());
        return kExitUsageOrIo;
    }
    if (!AttachDisks(firmware, disks, problem)) {
        std::fprintf(stderr, "morvane boot: %s\n", problem.c_str());
        return kExitUsageOrIo;
    }
    EFI_STATUS status = firmware.RunImage(_ModuleEntryPoint);
    PrintConsole(firmware.ConsoleUtf8());
    PrintEnding(firmware, status);
    if (!vars.empty() && !firmware.Variables().SaveFile(vars, problem)) {
        std::fprintf(stderr, "morvane boot: %s: %s\n", vars.c_str(), problem.c_str());
        return kExitUsageOrIo;
    }
    return kExitOk;
}

}  // namespace MorvaneTool
