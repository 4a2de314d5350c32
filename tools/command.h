#pragma once
// The subcommands of the host tool. Each lives in a file of its own and is
// entered with the arguments behind its name (argv[0] is the name itself).
#include <cstdio>
#include <cstring>
#include <string>

namespace MorvaneTool {

// The tool's version, the one place every --version answers from.
constexpr const char* kVersion = "0.21.0";

constexpr int kExitOk = 0;
// The input was refused: what the loader would refuse, or a document that the
// requested form cannot carry.
constexpr int kExitRefused = 1;
// Wrong arguments, or a file that couldn't be opened, read or written.
constexpr int kExitUsageOrIo = 2;

// A usage error of subcommand `command`: the problem, then the synopsis of
// its help (the lines before the first blank one), so that the right form
// is in sight without the whole help. Answers kExitUsageOrIo.
inline int UsageProblem(const char* command, const std::string& problem, const char* usage) {
    const char* blank = std::strstr(usage, "\n\n");
    const int synopsis = static_cast<int>(blank != nullptr ? blank - usage + 1 : std::strlen(usage));
    std::fprintf(stderr, "morvane %s: %s\n%.*sRun 'morvane %s --help' for more.\n", command, problem.c_str(), synopsis,
                 usage, command);
    return kExitUsageOrIo;
}

int RunConfCommand(int argc, char** argv);
int RunBootCommand(int argc, char** argv);
int RunVarsCommand(int argc, char** argv);
int RunFsCommand(int argc, char** argv);
int RunExplainCommand(int argc, char** argv);

}  // namespace MorvaneTool
