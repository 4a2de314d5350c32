#pragma once
// The subcommands of the host tool. Each lives in a file of its own and is
// entered with the arguments behind its name (argv[0] is the name itself).
namespace MorvaneTool {

constexpr int kExitOk = 0;
// The input was refused: what the loader would refuse, or a document that the
// requested form cannot carry.
constexpr int kExitRefused = 1;
// Wrong arguments, or a file that couldn't be opened, read or written.
constexpr int kExitUsageOrIo = 2;

int RunConfCommand(int argc, char** argv);
int RunBootCommand(int argc, char** argv);
int RunVarsCommand(int argc, char** argv);
int RunFsCommand(int argc, char** argv);

}  // namespace MorvaneTool
