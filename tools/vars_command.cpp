// morvane vars: lists and changes the boot entries of an OVMF variable
// file, as an integrator prepares a virtual machine's NVRAM. The file is
// read into the simulator's variable store; a change is written to a new
// file beside it, which then takes its place, so a failed change leaves
// the file as it was.
#include "tools/vars_command.h"

#include <efi.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "firmware/firmware_access.h"
#include "platform/clib/clib.h"
#include "platform/host/simulator.h"
#include "tools/command.h"

namespace MorvaneTool {
namespace {

const char kUsage[] =
    "Usage: morvane vars FILE [list]\n"
    "       morvane vars FILE add --disk IMAGE[:N|:GUID] --path PATH --description TEXT\n"
    "                             [--data TEXT] [--first]\n"
    "       morvane vars FILE delete NUMBER\n"
    "       morvane vars FILE order NUMBER[,NUMBER]...\n"
    "       morvane vars FILE next NUMBER|--clear\n"
    "       morvane vars FILE once NUMBER\n"
    "\n"
    "Lists or changes the boot entries held in FILE, an OVMF variable file such\n"
    "as a copy of OVMF_VARS_4M.fd that a virtual machine uses as its NVRAM.\n"
    "Changes are made by the loader's own boot entry code; one that fails\n"
    "leaves FILE as it was.\n"
    "\n"
    "  list    (the default) BootNext, BootCurrent, Timeout and BootOrder when\n"
    "          present, then each Boot#### variable as\n"
    "\n"
    "            Boot0003* Description<TAB>device path[ data:HEX [u]\"TEXT\"]\n"
    "\n"
    "          where '*' marks an active entry and data are the entry's\n"
    "          optional data, with the text they hold (u\"...\" for UCS-2 text)\n"
    "  add     a new active entry for the file PATH (\\ or / between names) on\n"
    "          a GPT partition of the disk image IMAGE: partition N, the one\n"
    "          with that unique GUID, or else the image's EFI system partition.\n"
    "          It takes the lowest free number from 0000 on and goes last in\n"
    "          BootOrder, with --first first. --data TEXT: optional data that\n"
    "          the loader gets as its load options, UCS-2 text as a firmware\n"
    "          shell passes a command line (the first word plays the program\n"
    "          name). Prints the new entry's name.\n"
    "  delete  takes the entry out of BootOrder, then deletes its Boot####\n"
    "  order   makes BootOrder these entries, each of which must exist\n"
    "  next    sets BootNext, the entry the firmware starts once, at its next\n"
    "          start, before BootOrder; --clear deletes BootNext\n"
    "  once    makes the entry the loader's one-shot entry: tagged in its\n"
    "          optional data and first in BootOrder. The loader deletes it at\n"
    "          its next start; the one-shot entry marked before is deleted now.\n"
    "\n"
    "NUMBER is an entry's number as listed, in hexadecimal: 3, 0003 or Boot0003.\n"
    "Exit status: 0 listed or changed, 1 refused (not a variable file we know,\n"
    "no such entry or partition), 2 usage or I/O error.\n";

enum class VarsAction { List, Add, Delete, Order, Next, ClearNext, Once };

struct VarsRequest {
    VarsAction action = VarsAction::List;
    std::string file;
    NewBootEntry entry;
    std::vector<std::uint16_t> numbers;
};

using Arguments = std::vector<std::string>;

bool TakesValue(const std::string& option) {
    return option == "--disk" || option == "--path" || option == "--description" || option == "--data";
}

// --help anywhere but where an option's value stands.
bool AsksHelp(const Arguments& arguments) {
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        if (arguments[i] == "--help" || arguments[i] == "-h") return true;
        if (TakesValue(arguments[i])) ++i;
    }
    return false;
}

bool ParseNumber(std::string text, std::uint16_t& number, std::string& problem) {
    problem = "'" + text + "' is no entry number: give its hexadecimal digits, as in 0003 or Boot0003";
    if (text.size() > 4 && (text.compare(0, 4, "Boot") == 0 || text.compare(0, 4, "boot") == 0)) text.erase(0, 4);
    if (text.empty() || text.size() > 4 || text.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
        return false;
    }
    number = static_cast<std::uint16_t>(std::strtoul(text.c_str(), nullptr, 16));
    return true;
}

// "0003,0001" or "0003 0001", each number once.
bool ParseOrder(const Arguments& words, std::vector<std::uint16_t>& numbers, std::string& problem) {
    std::string joined;
    for (const std::string& word : words) joined += (joined.empty() ? "" : ",") + word;
    if (joined.empty()) {
        problem = "order needs the entry numbers, as in 0003,0001";
        return false;
    }
    for (std::size_t start = 0; start <= joined.size();) {
        std::size_t comma = joined.find(',', start);
        if (comma == std::string::npos) comma = joined.size();
        std::uint16_t number = 0;
        if (!ParseNumber(joined.substr(start, comma - start), number, problem)) return false;
        for (std::uint16_t earlier : numbers) {
            if (earlier == number) {
                problem = "order names " + joined.substr(start, comma - start) + " twice";
                return false;
            }
        }
        numbers.push_back(number);
        start = comma + 1;
    }
    return true;
}

std::u16string Wide(const std::string& text) { return Clib::FromMultibyte(text.data(), text.size()); }

// The path as a file path node holds it: backslashes, one in front.
std::u16string FilePath(const std::string& text) {
    std::u16string path = Wide(text);
    for (char16_t& c : path) {
        if (c == u'/') c = u'\\';
    }
    if (!path.empty() && path.front() != u'\\') path.insert(path.begin(), u'\\');
    return path;
}

// UCS-2, little-endian, with its terminator.
std::vector<std::uint8_t> LoadOptionText(const std::string& text) {
    std::vector<std::uint8_t> bytes;
    for (char16_t c : Wide(text) + u'\0') {
        bytes.push_back(static_cast<std::uint8_t>(c & 0xFF));
        bytes.push_back(static_cast<std::uint8_t>(c >> 8));
    }
    return bytes;
}

bool ParseAdd(const Arguments& words, NewBootEntry& entry, std::string& problem) {
    std::string path;
    bool described = false;
    for (std::size_t i = 0; i < words.size(); ++i) {
        const std::string& word = words[i];
        if (TakesValue(word) && i + 1 < words.size()) {
            const std::string& value = words[++i];
            if (word == "--disk") entry.disk = value;
            if (word == "--path") path = value;
            if (word == "--description") entry.description = Wide(value);
            described = described || word == "--description";
            if (word == "--data") entry.data = LoadOptionText(value);
        } else if (word == "--first") {
            entry.first = true;
        } else {
            problem = TakesValue(word) ? word + " needs a value" : "add: unexpected argument '" + word + "'";
            return false;
        }
    }
    entry.path = FilePath(path);
    problem = entry.disk.empty() ? "add needs --disk IMAGE[:N]"
              : path.empty()     ? "add needs --path, the loader's file on the partition"
              : !described       ? "add needs --description"
                                 : "";
    return problem.empty();
}

bool ParseOneNumber(const std::string& command, const Arguments& words, VarsRequest& request, std::string& problem) {
    if (words.size() != 1) {
        problem = command + " takes one entry number";
        return false;
    }
    request.numbers.resize(1);
    return ParseNumber(words[0], request.numbers[0], problem);
}

struct NumberedCommand {
    const char* name;
    VarsAction action;
};
const NumberedCommand kNumberedCommands[] = {
    {"delete", VarsAction::Delete}, {"next", VarsAction::Next}, {"once", VarsAction::Once}};

bool ParseCommand(const std::string& command, const Arguments& words, VarsRequest& request, std::string& problem) {
    if (command == "add") {
        request.action = VarsAction::Add;
        return ParseAdd(words, request.entry, problem);
    }
    if (command == "order") {
        request.action = VarsAction::Order;
        return ParseOrder(words, request.numbers, problem);
    }
    if (command == "next" && words == Arguments{"--clear"}) {
        request.action = VarsAction::ClearNext;
        return true;
    }
    for (const NumberedCommand& numbered : kNumberedCommands) {
        if (command != numbered.name) continue;
        request.action = numbered.action;
        return ParseOneNumber(command, words, request, problem);
    }
    if (command == "list" && words.empty()) return true;
    problem = command == "list" ? "list takes nothing more" : "unknown command '" + command + "'";
    return false;
}

bool ParseRequest(const Arguments& arguments, VarsRequest& request, std::string& problem) {
    if (arguments.empty()) {
        problem = "expected one variable file";
        return false;
    }
    if (arguments[0].size() > 1 && arguments[0][0] == '-') {
        problem = "unknown option '" + arguments[0] + "'";
        return false;
    }
    request.file = arguments[0];
    if (arguments.size() == 1) return true;
    return ParseCommand(arguments[1], Arguments(arguments.begin() + 2, arguments.end()), request, problem);
}

VarsEdit RunEdit(const VarsRequest& request, const HostFirmware::VariableStore& store) {
    const std::uint16_t number = request.numbers.empty() ? 0 : request.numbers[0];
    switch (request.action) {
        case VarsAction::Add: return AddBootEntry(store, request.entry);
        case VarsAction::Delete: return DeleteBootEntry(store, number);
        case VarsAction::Order: return SetBootOrder(store, request.numbers);
        case VarsAction::Next: return SetBootNext(store, number);
        case VarsAction::ClearNext: return ClearBootNext(store);
        case VarsAction::Once: return MarkOneShot(store, number);
        case VarsAction::List: break;
    }
    return VarsEdit{kExitUsageOrIo, false, "nothing to change"};
}

// A change lands whole or not at all: the new image goes to a file beside
// FILE (beside the file a link points to), which then takes its name and
// its permissions.
bool ReplaceFile(const HostFirmware::VariableStore& store, const std::string& file, std::string& problem) {
    char resolved[PATH_MAX];
    const std::string target = realpath(file.c_str(), resolved) != nullptr ? resolved : file;
    std::string temporary = target + ".XXXXXX";
    int descriptor = mkstemp(&temporary[0]);
    if (descriptor < 0) {
        problem = "cannot make a file beside it: " + std::string(std::strerror(errno));
        return false;
    }
    struct stat info {};
    if (stat(target.c_str(), &info) == 0) static_cast<void>(fchmod(descriptor, info.st_mode & 07777));
    close(descriptor);
    if (!store.SaveFile(temporary, problem)) {
        unlink(temporary.c_str());
        return false;
    }
    if (std::rename(temporary.c_str(), target.c_str()) != 0) {
        problem = "cannot replace it: " + std::string(std::strerror(errno));
        unlink(temporary.c_str());
        return false;
    }
    return true;
}

}  // namespace

int RunVarsCommand(int argc, char** argv) {
    const Arguments arguments(argv + 1, argv + argc);
    if (AsksHelp(arguments)) {
        std::fputs(kUsage, stdout);
        return kExitOk;
    }
    VarsRequest request;
    std::string problem;
    if (!ParseRequest(arguments, request, problem)) return UsageProblem("vars", problem, kUsage);
    const char* file = request.file.c_str();
    std::FILE* probe = std::fopen(file, "rb");
    if (probe == nullptr) {
        std::fprintf(stderr, "morvane vars: cannot open '%s': %s\n", file, std::strerror(errno));
        return kExitUsageOrIo;
    }
    std::fclose(probe);

    HostFirmware::Simulator firmware;
    Uefi::InitializeFirmwareAccess(firmware.ImageHandle(), firmware.SystemTable());
    HostFirmware::VariableStore& store = firmware.Variables();
    if (!store.LoadFile(file, problem)) {
        std::fprintf(stderr, "morvane vars: %s: %s\n", file, problem.c_str());
        return kExitRefused;
    }
    if (request.action == VarsAction::List) {
        PrintBootVariables(store);
        return kExitOk;
    }
    const VarsEdit edit = RunEdit(request, store);
    if (edit.status != kExitOk) {
        std::fprintf(stderr, "morvane vars: %s\n", edit.message.c_str());
        return edit.status;
    }
    if (edit.changed && !ReplaceFile(store, request.file, problem)) {
        std::fprintf(stderr, "morvane vars: %s: %s\n", file, problem.c_str());
        return kExitUsageOrIo;
    }
    std::printf("%s\n", edit.message.c_str());
    return kExitOk;
}

}  // namespace MorvaneTool
