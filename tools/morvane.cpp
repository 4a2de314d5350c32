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
    {"vars", "list and change the boot entries of an OVMF variable file", MorvaneTool::RunVarsCommand},
    {"fs", "list, read and change a disk image's volume with the loader's drivers", MorvaneTool::RunFsCommand},
    {"explain", "tell what a code of the loader's report means", MorvaneTool::RunExplainCommand},
};

const subcommand* FindSubcommand(const char* name) {
    for (const subcommand& command : kSubcommands) {
        if (std::strcmp(name, command.name) == 0) return &command;
    }
    return nullptr;
}

bool IsHelp(const char* argument) {
    return std::strcmp(argument, "--help") == 0 || std::strcmp(argument, "-h") == 0 || std::strcmp(argument, "help") == 0;
}

int PrintVersion() {
    std::printf("morvane %s\n", MorvaneTool::kVersion);
    return MorvaneTool::kExitOk;
}

// 'morvane help COMMAND' is 'morvane COMMAND --help'.
int RunHelp(const subcommand& command) {
    char help[] = "--help";
    char* arguments[] = {const_cast<char*>(command.name), help, nullptr};
    return command.run(2, arguments);
}

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
                 "'morvane help COMMAND' or 'morvane COMMAND --help' tells the arguments of a\n"
                 "command; 'morvane --version' or 'morvane COMMAND --version' the version.\n"
                 "Exit status: 0 success, 1 input refused, 2 usage or input/output error.\n");
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        PrintUsage(stderr);
        return MorvaneTool::kExitUsageOrIo;
    }
    const char* name = argv[1];
    if (std::strcmp(name, "--version") == 0) return PrintVersion();
    const bool asks_help = IsHelp(name);
    if (asks_help && argc == 2) {
        PrintUsage(stdout);
        return MorvaneTool::kExitOk;
    }
    if (asks_help) name = argv[2];
    if (const subcommand* command = FindSubcommand(name)) {
        if (asks_help) return RunHelp(*command);
        // Only as the first argument: behind it, the text may be a load
        // option or a path that a subcommand takes as it is.
        if (argc > 2 && std::strcmp(argv[2], "--version") == 0) return PrintVersion();
        return command->run(argc - 1, argv + 1);
    }
    std::fprintf(stderr, "morvane: unknown command '%s'\n", name);
    std::fprintf(stderr, "Run 'morvane --help' for the list of commands.\n");
    return MorvaneTool::kExitUsageOrIo;
}
