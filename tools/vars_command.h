#pragma once
// morvane vars: the boot entries of an OVMF variable file, listed and
// changed. The file is read into the simulator's variable store; the
// listing looks at the store itself, while the changes go through the
// loader's own boot entry library over the simulator's runtime services,
// so an entry made here is one the loader reads as it reads its own.
#include <cstdint>
#include <string>
#include <vector>

namespace HostFirmware {
class VariableStore;
}

namespace MorvaneTool {

int RunVarsCommand(int argc, char** argv);

// BootNext, BootCurrent, Timeout and BootOrder when present, then every
// Boot#### variable, one a line.
void PrintBootVariables(const HostFirmware::VariableStore& store);

// A new entry: a loader's file on a GPT partition of a disk image.
struct NewBootEntry {
    std::string disk;  // IMAGE, IMAGE:N or IMAGE:GUID
    std::u16string path;
    std::u16string description;
    std::vector<std::uint8_t> data;  // the entry's optional data
    bool first = false;              // at the head of BootOrder, else at its end
};

// What an edit did, or why it did nothing.
struct VarsEdit {
    int status = 0;        // an exit status of tools/command.h
    bool changed = false;  // whether the store has to be written back
    std::string message;   // for stdout on success, for stderr otherwise
};

// The edits run against the store that the active simulator serves through
// its runtime services; `store` is only looked at, to tell what is there.
VarsEdit AddBootEntry(const HostFirmware::VariableStore& store, const NewBootEntry& wanted);
VarsEdit DeleteBootEntry(const HostFirmware::VariableStore& store, std::uint16_t number);
VarsEdit SetBootOrder(const HostFirmware::VariableStore& store, const std::vector<std::uint16_t>& numbers);
VarsEdit SetBootNext(const HostFirmware::VariableStore& store, std::uint16_t number);
VarsEdit ClearBootNext(const HostFirmware::VariableStore& store);
// Tags the entry as the loader's one-shot entry and puts it first: the
// loader deletes it at its next start.
VarsEdit MarkOneShot(const HostFirmware::VariableStore& store, std::uint16_t number);

}  // namespace MorvaneTool
