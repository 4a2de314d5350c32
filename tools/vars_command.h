#pragma once
// morvane vars: the boot entries of an OVMF variable file.
namespace MorvaneTool {

int RunVarsCommand(int argc, char** argv);

}  // namespace MorvaneTool
