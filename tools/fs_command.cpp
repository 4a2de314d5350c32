// morvane fs: a disk image's volume as the loader's own drivers see it.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "tools/command.h"
#include "tools/fs_operations.h"
#include "tools/fs_volume.h"

namespace MorvaneTool {
namespace {

const char kUsage[] =
    "Usage: morvane fs [--sector-size BYTES] IMAGE[:N|:GUID] COMMAND [FLAGS] PATH...\n"
    "\n"
    "Lists, reads and changes a volume of a disk image through the loader's own\n"
    "file-system drivers, so that what it shows is what the loader will see.\n"
    "\n"
    "  IMAGE        a file holding one volume from its first sector on\n"
    "  IMAGE:N      the partition with entry number N (from 1) of the image's GPT,\n"
    "               the number that sgdisk -p prints\n"
    "  IMAGE:GUID   the GPT partition with that unique partition GUID\n"
    "  --sector-size BYTES  the image's sector size, 512 or 4096; without it,\n"
    "               told by where the GPT header lies, else by the boot sector\n"
    "\n"
    "Commands (paths on the volume take / as separator, on FAT and NTFS also \\):\n"
    "  ls [-l] [-h] [-R] [PATH...]  list directories; -l adds kind, size and\n"
    "                             modification time, -h sizes in KiB, MiB...,\n"
    "                             -R walks below\n"
    "  stat PATH...               everything the driver tells about entries\n"
    "  cat PATH...                write files to standard output\n"
    "  cp-out [-r] [-L] PATH... DEST  copy files (with -r directories) to the\n"
    "                             host, keeping their modification times;\n"
    "                             symbolic links stay links, with -L what they\n"
    "                             point to on the volume is copied\n"
    "  cp-in [-p] HOSTFILE PATH   copy a host file onto the volume; -p keeps its\n"
    "                             modification time\n"
    "  mkdir PATH...              make directories\n"
    "  mv FROM TO                 rename or move an entry\n"
    "  ln [-s] EXISTING NEW       a hard link to a file; with -s a symbolic link\n"
    "                             NEW whose target is the text EXISTING\n"
    "  rm PATH...                 remove files and empty directories\n"
    "  backup [--option N] PATH HOSTFILE  the typed pieces the driver makes of\n"
    "                             an entry (contents, named streams, extended\n"
    "                             attributes, security, times) into a backup\n"
    "                             file; N: the driver's option bits\n"
    "  backup --kind K [--option N] PATH HOSTFILE  only the bytes of the pieces\n"
    "                             of kind K, one after the other (- for stdout)\n"
    "  backup --list [--option N] PATH  the pieces: kind, name, size\n"
    "  restore [--option N] HOSTFILE PATH  makes PATH from a backup file, where\n"
    "                             the driver can (NTFS); a directory must exist\n"
    "  parts                      the GPT of a whole IMAGE: each partition's\n"
    "                             number, unique and type GUID, name, sectors,\n"
    "                             size and the driver that mounts it\n"
    "  info                       the volume's file system, label, cluster or\n"
    "                             block size, total and free space, and whether\n"
    "                             the driver takes changes to it\n"
    "\n"
    "Times are shown in the local time zone (TZ), in which FAT volumes keep them;\n"
    "cp-in -p moves a time that the volume cannot hold to the nearest it can.\n"
    "Names are UTF-8 on the host and UTF-16 on FAT, with surrogate pairs.\n"
    "ls, stat, cat and cp-out open the image read-only. A copy that takes longer\n"
    "than a second shows a progress bar when standard error is a terminal.\n"
    "Exit status: 0 success, 1 refused by the volume (no such entry, volume not\n"
    "recognised, disk full...), 2 usage or host input/output error.\n";

// Which operand is a host path rather than a path of the volume.
enum class HostOperand { kNone, kFirst, kLast };

struct Operation {
    const char* name;
    int (*run)(const FsRequest& request);
    bool writes;
    std::size_t fewest_paths;
    std::size_t most_paths;  // 0: no limit
    const char* flags;       // the one-letter flags it takes
    HostOperand host_operand;
    const char* long_flags;  // the "--name" flags it takes, each with a space behind
};

const Operation kOperations[] = {
    {"ls", ListEntries, false, 0, 0, "lRh", HostOperand::kNone, nullptr},
    {"stat", StatEntries, false, 1, 0, "", HostOperand::kNone, nullptr},
    {"cat", CatFiles, false, 1, 0, "", HostOperand::kNone, nullptr},
    {"cp-out", CopyOut, false, 2, 0, "rL", HostOperand::kLast, nullptr},
    {"cp-in", CopyIn, true, 2, 2, "p", HostOperand::kFirst, nullptr},
    {"mkdir", MakeDirs, true, 1, 0, "", HostOperand::kNone, nullptr},
    {"mv", MoveEntry, true, 2, 2, "", HostOperand::kNone, nullptr},
    {"ln", LinkEntry, true, 2, 2, "s", HostOperand::kNone, nullptr},
    {"rm", RemoveEntries, true, 1, 0, "", HostOperand::kNone, nullptr},
    {"backup", BackupEntry, false, 1, 2, "", HostOperand::kLast, "list kind option "},
    {"restore", RestoreEntry, true, 2, 2, "", HostOperand::kFirst, "option "},
};

int UsageError(const std::string& problem) { return UsageProblem("fs", problem, kUsage); }

// Commands on the image or volume as a whole: they take no paths and mount
// what they need themselves.
struct VolumeCommand {
    const char* name;
    int (*run)(const VolumeName& name, std::uint32_t sector_size, const std::string& shown);
};

const VolumeCommand kVolumeCommands[] = {
    {"parts", ShowPartitions},
    {"info", ShowVolumeInfo},
};

const VolumeCommand* FindVolumeCommand(const std::string& name) {
    for (const VolumeCommand& command : kVolumeCommands) {
        if (name == command.name) return &command;
    }
    return nullptr;
}

const Operation* FindOperation(const std::string& name) {
    for (const Operation& operation : kOperations) {
        if (name == operation.name) return &operation;
    }
    return nullptr;
}

// Paths of the volume must be UTF-8: what isn't has no UTF-16 form that
// would name the entry the user meant.
bool VolumePathsValid(const Operation& operation, const FsOperands& request, std::string& problem) {
    // backup --list writes nowhere on the host: its one path is the volume's.
    HostOperand host_operand = request.list ? HostOperand::kNone : operation.host_operand;
    for (std::size_t i = 0; i < request.paths.size(); ++i) {
        bool host = (host_operand == HostOperand::kFirst && i == 0) ||
                    (host_operand == HostOperand::kLast && i + 1 == request.paths.size());
        if (!host && !ValidVolumePath(request.paths[i])) {
            problem = std::string(operation.name) + ": a path of the volume is not UTF-8: '" + request.paths[i] + "'";
            return false;
        }
    }
    return true;
}

bool ParseNumber(const char* text, std::uint32_t& value) {
    char* end = nullptr;
    unsigned long long number = std::strtoull(text, &end, 0);
    if (text[0] == 0 || text[0] == '-' || *end != 0 || number > UINT32_MAX) return false;
    value = static_cast<std::uint32_t>(number);
    return true;
}

// A "--name" flag at argv[i]; one with a value takes argv[i + 1] too.
bool ParseLongFlag(const Operation& operation, int argc, char** argv, int& i, FsOperands& request,
                   std::string& problem) {
    std::string name = argv[i] + 2;
    std::string listed = operation.long_flags == nullptr ? "" : operation.long_flags;
    if (name.empty() || listed.find(name + " ") == std::string::npos) {
        problem = std::string(operation.name) + ": unknown flag '" + argv[i] + "'";
        return false;
    }
    if (name == "list") {
        request.list = true;
        return true;
    }
    std::uint32_t value = 0;
    if (i + 1 >= argc || !ParseNumber(argv[i + 1], value)) {
        problem = std::string(operation.name) + ": --" + name + " takes a number";
        return false;
    }
    ++i;
    if (name == "kind") {
        request.kind_given = true;
        request.kind = value;
    } else {
        request.option_given = true;
        request.option = value;
    }
    return true;
}

// backup takes a host file unless it lists, and lists or writes one kind.
bool BackupOperandsFit(const FsOperands& request, std::string& problem) {
    if (request.list && request.kind_given) problem = "backup: --list and --kind don't go together";
    else if (request.list && request.paths.size() != 1) problem = "backup --list: one path of the volume";
    else if (!request.list && request.paths.size() != 2) problem = "backup: a path of the volume and a host file";
    return problem.empty();
}

// The operation's flags and operands; "--" ends the flags.
bool ParseOperands(const Operation& operation, int argc, char** argv, int first, FsOperands& request,
                   std::string& problem) {
    bool flags_done = false;
    for (int i = first; i < argc; ++i) {
        const char* argument = argv[i];
        if (flags_done || argument[0] != '-' || argument[1] == 0) {
            request.paths.emplace_back(argument);
            continue;
        }
        if (std::strcmp(argument, "--") == 0) {
            flags_done = true;
            continue;
        }
        if (argument[1] == '-') {
            if (!ParseLongFlag(operation, argc, argv, i, request, problem)) return false;
            continue;
        }
        for (const char* letter = argument + 1; *letter != 0; ++letter) {
            if (std::strchr(operation.flags, *letter) == nullptr) {
                problem = std::string(operation.name) + ": unknown flag '-" + *letter + "'";
                return false;
            }
            request.long_form |= *letter == 'l';
            request.human_sizes |= *letter == 'h';
            request.recursive |= *letter == 'R' || *letter == 'r';
            request.keep_time |= *letter == 'p';
            request.follow_links |= *letter == 'L';
            request.symbolic |= *letter == 's';
        }
    }
    std::size_t count = request.paths.size();
    if (count < operation.fewest_paths || (operation.most_paths != 0 && count > operation.most_paths)) {
        problem = std::string(operation.name) + ": wrong number of paths";
        return false;
    }
    if (operation.run == BackupEntry && !BackupOperandsFit(request, problem)) return false;
    return VolumePathsValid(operation, request, problem);
}

bool ParseSectorSize(const char* text, std::uint32_t& sector_size) {
    char* end = nullptr;
    unsigned long value = std::strtoul(text, &end, 10);
    if (end == text || *end != 0 || (value != 512 && value != 4096)) return false;
    sector_size = static_cast<std::uint32_t>(value);
    return true;
}

}  // namespace

int RunFsCommand(int argc, char** argv) {
    std::uint32_t sector_size = 0;
    int i = 1;
    for (; i < argc && argv[i][0] == '-'; ++i) {
        std::string argument = argv[i];
        if (argument == "--help" || argument == "-h") {
            std::fputs(kUsage, stdout);
            return kExitOk;
        }
        if (argument != "--sector-size" || i + 1 >= argc) return UsageError("unexpected argument '" + argument + "'");
        if (!ParseSectorSize(argv[++i], sector_size)) return UsageError("the sector size is 512 or 4096");
    }
    if (argc - i < 2) return UsageError("an image and a command are needed");
    VolumeName name;
    std::string problem;
    if (!ParseVolumeName(argv[i], name, problem)) return UsageError(problem);
    if (const VolumeCommand* whole = FindVolumeCommand(argv[i + 1])) {
        if (argc - i > 2) return UsageError(std::string(whole->name) + " takes no paths or flags");
        return whole->run(name, sector_size != 0 ? sector_size : GuessSectorSize(name.image), argv[i]);
    }
    const Operation* operation = FindOperation(argv[i + 1]);
    if (operation == nullptr) return UsageError(std::string("unknown command '") + argv[i + 1] + "'");

    FsOperands operands;
    if (!ParseOperands(*operation, argc, argv, i + 2, operands, problem)) return UsageError(problem);

    if (sector_size == 0) sector_size = GuessSectorSize(name.image);
    MountedVolume volume;
    bool refused = false;
    if (!volume.Mount(name, sector_size, operation->writes, problem, refused)) {
        std::fprintf(stderr, "morvane fs: %s: %s\n", argv[i], problem.c_str());
        return refused ? kExitRefused : kExitUsageOrIo;
    }
    int status = operation->run(FsRequest(volume.Root(), operands, volume.Image()));
    volume.Dismount();
    return status;
}

}  // namespace MorvaneTool
