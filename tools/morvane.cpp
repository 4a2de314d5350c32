// morvane: try what the loader would do, on the host, without a reboot.
#include <cstdio>
#include <cstring>

#include "tools/command.h"

namespace {

struct subcommand {
    const char* name;
    const char* summary;
    int (*run)(int argc, char** argv);
};

const subcommand kSubcommands[] = {
    {"conf", "check, show and convert configuration documents", MorvaneTool::RunConfCommand},
    {"boot", "run the whole loader on a simulated machine", MorvaneTool::RunBootCommand},
    {"vars", "list the boot entries of an OVMF variable file", MorvaneTool::RunVarsCommand},
    {"fs", "list, read and change a disk image's volume with the loader's drivers", MorvaneTool::RunFsCommand},
};

void PrintUsage(std::FILE* out) {
    std::fprintf(out,
                 "Usage: morvane COMMAND [ARGUMENTS]\n"
                 "\n"
                 "Runs parts of the Morvane boot loader on this machine.\n"
                 "\n"
                 "Commands:\n");
    for (const subcommand& command : kSubcommands) std::fprintf(out, "  %-8s %s\n", command.name, command.summary);
    std::fprintf(out,
                 "\n"
                 "'morvane COMMAND --help' tells the arguments of a command.\n"
                 "Exit status: 0 success, 1 input refused, 2 usage or input/output error.\n");
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        PrintUsage(stderr);
        return MorvaneTool::kExitUsageOrIo;
    }
    const char* name = argv[1];
    if (std::strcmp(name, "--help") == 0 || std::strcmp(name, "-h") == 0 || std::strcmp(name, "help") == 0) {
        PrintUsage(stdout);
        return MorvaneTool::kExitOk;
    }
    for (const subcommand& command : kSubcommands) {
        if (std::strcmp(name, command.name) == 0) return command.run(argc - 1, argv + 1);
    }
    std::fprintf(stderr, "morvane: unknown command '%s'\n", name);
    std::fprintf(stderr, "Run 'morvane --help' for the list of commands.\n");
    return MorvaneTool::kExitUsageOrIo;
}
