// morvane boot: the whole loader on the firmware simulator, against an ESP
// folder of the host, with the keys a person would type.
#include <efi.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "launch/boot_params.h"
#include "loader/common/error_codes.h"
#include "platform/clib/clib.h"
#include "platform/host/block_io_devices.h"
#include "platform/host/file_leads.h"
#include "platform/host/graphics_stand_ins.h"
#include "platform/host/simulator.h"
#include "tools/command.h"
#include "tools/error_names.h"
#include "tools/file_leads.h"
#include "tools/fs_volume.h"
#include "tools/simulated_machine.h"

extern "C" EFI_STATUS EFIAPI _ModuleEntryPoint(EFI_HANDLE image, EFI_SYSTEM_TABLE* system_table);

namespace MorvaneTool {
namespace {

const char kUsage[] =
    "Usage: morvane boot --esp DIR [--disk IMAGE]... [--keys KEYS] [--image PATH]\n"
    "                    [--vars FILE [--vars-out FILE]] [--no-display] [--stats]\n"
    "                    [-- LOAD OPTIONS...]\n"
    "\n"
    "Runs the loader on a simulated machine whose EFI system partition is the\n"
    "folder DIR, prints the console as the firmware shows it, then how the run\n"
    "ended. Time is simulated: a menu's delay passes at once.\n"
    "\n"
    "  --esp DIR      the folder that stands for the EFI system partition\n"
    "  --image PATH   the loader's path on it (default \\EFI\\BOOT\\BOOTX64.EFI);\n"
    "                 the configuration document is looked for beside it\n"
    "  --vars FILE    an OVMF variable file (a copy of a machine's NVRAM): the\n"
    "                 loader sees its boot entries; FILE is left as it was\n"
    "  --vars-out FILE  where the variables go after the run, with what the\n"
    "                 loader changed (it may be the --vars file itself)\n"
    "  --no-display   a machine without graphics output (the simulated one\n"
    "                 otherwise has a 1024x768 display)\n"
    "  --disk IMAGE   a disk image file attached as a hard disk, read-only; each\n"
    "                 partition of its GPT becomes a partition of the machine,\n"
    "                 so a LoadKernel with a GPT Guid can find it (repeatable)\n"
    "  --stats        after the run, the Block I/O reads the disks received:\n"
    "                 calls and bytes per partition, and their sizes\n"
    "  --keys KEYS    keys typed, in order: characters stand for themselves,\n"
    "                 {Esc} {Up} {Down} {Left} {Right} {Home} {End} {Insert}\n"
    "                 {Delete} {PgUp} {PgDown} {F1}..{F12} for named keys,\n"
    "                 {{ for a brace, and {+N} lets N seconds pass first\n"
    "  -- OPTIONS     load options for the loader (the first one plays the\n"
    "                 program name, as the firmware shell passes it)\n"
    "\n"
    "After an error report come the code's name and, for a file the loader\n"
    "could not find, its path and the partition it was looked for on (the ESP,\n"
    "or number and GUID on which image), what the ESP refused, and which\n"
    "partitions the loader read.\n"
    "Exit status: 0 the kernel took over, or the loader returned without an\n"
    "error report (a Chainload entry, or a key that leaves the menu); 1 an error\n"
    "report, or waiting for a key that never comes; 2 usage or host I/O error.\n";

// The start of the loader's report line, which the simulated console shows
// as the firmware's would.
const char kReportStart[] = "Runtime exception '";
const char kReportCode[] = "', code ";

// What the loader asked of the ESP and was refused: the firmware services
// carry no context, so the recorder keeps it here, as the simulator does.
struct EspRecorder {
    EFI_VOLUME_OPEN open_volume = nullptr;
    EFI_FILE_OPEN open = nullptr;
    std::string last_refused;
    EFI_STATUS last_status = EFI_SUCCESS;
};
EspRecorder esp_recorder;

EFI_STATUS EFIAPI RecordingOpen(EFI_FILE_PROTOCOL* self, EFI_FILE_PROTOCOL** opened, CHAR16* name, UINT64 mode,
                                UINT64 attributes) {
    EFI_STATUS status = esp_recorder.open(self, opened, name, mode, attributes);
    if (status == EFI_SUCCESS && opened != nullptr && *opened != nullptr) {
        (*opened)->Open = RecordingOpen;
    } else if (name != nullptr) {
        std::size_t length = 0;
        while (name[length] != 0) ++length;
        esp_recorder.last_refused = Clib::ToMultibyte(reinterpret_cast<const char16_t*>(name), length);
        esp_recorder.last_status = status;
    }
    return status;
}

EFI_STATUS EFIAPI RecordingOpenVolume(EFI_SIMPLE_FILE_SYSTEM_PROTOCOL* self, EFI_FILE_PROTOCOL** root) {
    EFI_STATUS status = esp_recorder.open_volume(self, root);
    if (status == EFI_SUCCESS && root != nullptr && *root != nullptr) {
        esp_recorder.open = (*root)->Open;
        (*root)->Open = RecordingOpen;
    }
    return status;
}

void RecordEspOpens(HostFirmware::HostFolderVolume& esp) {
    esp_recorder = EspRecorder();
    esp_recorder.open_volume = esp.Protocol()->OpenVolume;
    esp.Protocol()->OpenVolume = RecordingOpenVolume;
}

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

// The code of the loader's report, the last line it printed; false when
// the run ended without one.
bool ReportedCode(const std::string& console, std::uint32_t& code) {
    std::size_t report = console.rfind(kReportStart);
    if (report == std::string::npos) return false;
    std::size_t end = console.find('\n', report);
    std::size_t at = console.rfind(kReportCode, end);
    if (at == std::string::npos || at < report) return false;
    char* digits_end = nullptr;
    unsigned long long value = std::strtoull(console.c_str() + at + std::strlen(kReportCode), &digits_end, 10);
    if (digits_end == console.c_str() + at + std::strlen(kReportCode) || value > 0xFFFFFFFFull) return false;
    code = static_cast<std::uint32_t>(value);
    return true;
}

// Codes of a file or of the volume that should hold it.
bool IsFileCode(std::uint32_t code) {
    return (code >> 16) == (Common::FILE_NOT_FOUND >> 16) || code == Common::DISK_NOT_FOUND ||
           code == Common::VOLUME_NOT_MOUNTED;
}

// Each attached partition with its unique GUID, marked where the loader
// read its sectors: the volume it was looking in.
void PrintPartitions(HostFirmware::Simulator& firmware, const std::vector<std::string>& images) {
    for (std::size_t disk = 0; disk < images.size() && disk < firmware.Disks().Count(); ++disk) {
        std::vector<HostFirmware::GptPartition> gpt;
        std::string problem;
        if (!ReadImageGpt(images[disk], 512, gpt, problem)) continue;
        std::vector<HostFirmware::BlockIoMedium*> media = firmware.Disks().Partitions(disk);
        for (std::size_t i = 0; i < gpt.size() && i < media.size(); ++i) {
            std::printf("  %s:%u  %s%s\n", images[disk].c_str(), gpt[i].number, GuidText(gpt[i].unique_guid).c_str(),
                        media[i]->reads > 0 ? "  (read by the loader)" : "");
        }
    }
}

void PrintFileLeads(HostFirmware::Simulator& firmware, const std::vector<std::string>& images, std::uint32_t code) {
    if (const HostFirmware::RefusedFile* refused = HostFirmware::LastRefusedFile()) {
        std::printf("the loader looked for %s\n", RefusedFileText(*refused, images).c_str());
    }
    if (!esp_recorder.last_refused.empty()) {
        std::printf("last file the ESP refused: %s (firmware status 0x%llx)\n", esp_recorder.last_refused.c_str(),
                    static_cast<unsigned long long>(esp_recorder.last_status));
    }
    if (firmware.Disks().Count() == 0) {
        if (code == Common::DISK_NOT_FOUND) std::printf("no disk attached: a GPT Guid finds no partition without --disk\n");
        return;
    }
    std::printf("partitions of the attached disks:\n");
    PrintPartitions(firmware, images);
}

// Answers the exit status: 0 when the run ended as a document means it to.
int PrintEnding(HostFirmware::Simulator& firmware, EFI_STATUS status, const std::vector<std::string>& images) {
    double seconds = static_cast<double>(firmware.Now()) / 1e6;
    if (const HostFirmware::KernelHandOver* hand_over = firmware.HandOver()) {
        PrintHandOver(*hand_over);
        std::printf("ended: the kernel took over (simulated time %.1f s)\n", seconds);
        return kExitOk;
    }
    std::printf("----\n");
    if (firmware.EndedWaitingForever()) {
        std::printf("ended: waiting for a key that never comes (simulated time %.1f s)\n", seconds);
        return kExitRefused;
    }
    std::uint32_t code = 0;
    bool reported = ReportedCode(firmware.ConsoleUtf8(), code);
    std::printf("ended: returned %llu%s; the firmware goes on to its next boot option (simulated time %.1f s)\n",
                static_cast<unsigned long long>(status), reported ? " after an error report" : "", seconds);
    if (!reported) return kExitOk;
    std::printf("reported: %s ('morvane explain %u' tells more)\n", ErrorName(code), code);
    if (IsFileCode(code)) PrintFileLeads(firmware, images, code);
    return kExitRefused;
}

}  // namespace

// In boot_stats.cpp.
void PrintBootStats(HostFirmware::Simulator& firmware, const std::vector<std::string>& images);

int RunBootCommand(int argc, char** argv) {
    std::string esp;
    std::string keys;
    std::string image = "\\EFI\\BOOT\\BOOTX64.EFI";
    std::string vars;
    std::string vars_out;
    std::vector<std::string> disks;
    bool display = true;
    bool stats = false;
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
        } else if (argument == "--vars-out" && has_value) {
            vars_out = argv[++i];
        } else if (argument == "--no-display") {
            display = false;
        } else if (argument == "--stats") {
            stats = true;
        } else {
            return UsageProblem("boot", "unexpected argument '" + argument + "'", kUsage);
        }
    }
    if (esp.empty()) return UsageProblem("boot", "--esp DIR is needed", kUsage);
    if (!vars_out.empty() && vars.empty()) return UsageProblem("boot", "--vars-out needs --vars", kUsage);
    std::string problem;
    std::vector<std::string> host_files = disks;
    if (!vars.empty()) host_files.push_back(vars);
    if (!CanUseHostFiles(esp, host_files, problem)) {
        std::fprintf(stderr, "morvane boot: %s\n", problem.c_str());
        return kExitUsageOrIo;
    }
    HostFirmware::Simulator firmware;
    RecordEspOpens(firmware.MountEsp(esp));
    firmware.SetImagePath({ImagePath(image)});
    if (have_options) firmware.SetLoadOptions(LoadOptions(options));
    if (display) firmware.Graphics().InstallGop({{1024, 768, 1024, PixelBlueGreenRedReserved8BitPerColor}}, 0);
    if (!QueueKeys(firmware, keys, problem)) return UsageProblem("boot", problem, kUsage);
    if (!vars.empty() && !firmware.Variables().LoadFile(vars, problem)) {
        std::fprintf(stderr, "morvane boot: %s: %s\n", vars.c_str(), problem.c_str());
        return kExitUsageOrIo;
    }
    if (!AttachDisks(firmware, disks, problem)) {
        std::fprintf(stderr, "morvane boot: %s\n", problem.c_str());
        return kExitUsageOrIo;
    }
    HostFirmware::ForgetRefusedFile();
    EFI_STATUS status = firmware.RunImage(_ModuleEntryPoint);
    PrintConsole(firmware.ConsoleUtf8());
    const int ending = PrintEnding(firmware, status, disks);
    if (stats) PrintBootStats(firmware, disks);
    // The user's variable file is a copy of a machine's NVRAM: a trial run
    // leaves it alone unless told where its outcome goes.
    if (!vars_out.empty() && !firmware.Variables().SaveFile(vars_out, problem)) {
        std::fprintf(stderr, "morvane boot: %s: %s\n", vars_out.c_str(), problem.c_str());
        return kExitUsageOrIo;
    }
    return ending;
}

}  // namespace MorvaneTool
