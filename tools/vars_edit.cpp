// The changes of morvane vars: new and deleted boot entries, BootOrder,
// BootNext and the loader's one-shot entry, each made by the loader's own
// boot entry library, so that what is written is what the loader writes
// and reads back as its own.
#include <efi.h>

#include <boost/shared_ptr.hpp>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "firmware/boot_entry.h"
#include "firmware/boot_next.h"
#include "firmware/boot_order.h"
#include "firmware/load_option.h"
#include "firmware/variable.h"
#include "loader/common/byte_order.h"
#include "platform/host/block_io_devices.h"
#include "platform/host/variable_store.h"
#include "tools/command.h"
#include "tools/error_names.h"
#include "tools/fs_volume.h"
#include "tools/vars_command.h"

namespace MorvaneTool {
namespace {

using EntryPointer = boost::shared_ptr<Uefi::BootEntry>;
using OrderPointer = boost::shared_ptr<Uefi::BootOrder>;
using HostFirmware::GptPartition;

// The EFI system partition's type GUID as a GPT entry stores it.
const std::uint8_t kEspType[16] = {0x28, 0x73, 0x2A, 0xC1, 0x1F, 0xF8, 0xD2, 0x11,
                                   0xBA, 0x4B, 0x00, 0xA0, 0xC9, 0x3E, 0xC9, 0x3B};

VarsEdit Changed(const std::string& message) { return VarsEdit{kExitOk, true, message}; }
VarsEdit Unchanged(const std::string& message) { return VarsEdit{kExitOk, false, message}; }
VarsEdit Refused(int status, const std::string& message) { return VarsEdit{status, false, message}; }

std::string EntryName(std::uint16_t number) {
    char name[16];
    std::snprintf(name, sizeof(name), "Boot%04X", static_cast<unsigned>(number));
    return name;
}

VarsEdit LibraryRefused(const std::string& what, const Common::Error& error) {
    const std::string code = std::string(ErrorName(error.Code())) + " (code " + std::to_string(error.Code()) + ")";
    return Refused(kExitRefused, what + ": the loader's library refused it with " + code);
}

bool Stored(const HostFirmware::VariableStore& store, std::uint16_t number) {
    return store.Find(Uefi::kGlobalVariable, Uefi::BootVariableName(number)) != nullptr;
}

bool HasOrder(const HostFirmware::VariableStore& store) {
    return store.Find(Uefi::kGlobalVariable, u"BootOrder") != nullptr;
}

// The firmware's order. A file without BootOrder has an empty one, which
// GetBootOrder reports as a failed read.
Common::Error ReadOrder(const HostFirmware::VariableStore& store, OrderPointer& order) {
    Common::Error error = Uefi::GetBootOrder(order);
    return error && !HasOrder(store) ? Common::Success : error;
}

// The library writes BootOrder back with the attributes it read it with;
// where there is none it read no attributes, and a write without them
// deletes: the loader never starts an order itself. A missing one is made
// here, holding the entry about to go in, with a firmware's attributes.
Common::Error MakeOrderIfMissing(const HostFirmware::VariableStore& store, std::uint16_t number) {
    if (HasOrder(store)) return Common::Success;
    std::uint8_t value[2];
    Common::StoreLE16(value, number);
    auto order = Uefi::CreateVariable(Uefi::kGlobalVariable, u"BootOrder", Uefi::kWritableAttributes);
    return order->Set(value, sizeof(value));
}

Common::Error PutInOrder(const HostFirmware::VariableStore& store, const EntryPointer& entry, bool first) {
    Common::Error error = MakeOrderIfMissing(store, entry->GetNumber());
    OrderPointer order;
    if (!error) error = Uefi::GetBootOrder(order);
    if (!error) error = order->Insert(first ? order->Begin() : order->End(), entry);
    return error;
}

bool InOrder(Uefi::BootOrder& order, std::uint16_t number) {
    for (auto at = order.Begin(); at != order.End(); ++at) {
        if ((*at)->GetNumber() == number) return true;
    }
    return false;
}

EntryPointer EntryObject(std::uint16_t number) {
    EntryPointer entry;
    static_cast<void>(Uefi::CreateBootEntry(number, entry));
    return entry;
}

// The partition named by number or unique GUID, else the one EFI system
// partition of the image.
const GptPartition* ChoosePartition(const VolumeName& name, const std::vector<GptPartition>& entries,
                                    std::string& problem) {
    std::vector<const GptPartition*> matches;
    for (const GptPartition& entry : entries) {
        const bool match = name.partition_number != 0 ? entry.number == name.partition_number
                           : name.by_guid             ? std::memcmp(entry.unique_guid, name.guid, 16) == 0
                                                      : std::memcmp(entry.type_guid, kEspType, 16) == 0;
        if (match) matches.push_back(&entry);
    }
    if (matches.size() == 1) return matches.front();
    if (entries.empty()) {
        problem = "the image has no GPT partitions";
    } else if (name.partition_number != 0) {
        problem = "the image's GPT has no partition " + std::to_string(name.partition_number);
    } else if (name.by_guid) {
        problem = "no GPT partition of the image has that unique GUID";
    } else {
        problem = matches.empty() ? "the image has no EFI system partition"
                                  : "the image has " + std::to_string(matches.size()) + " EFI system partitions";
        problem += ": name the partition as " + name.image + ":N (see 'morvane fs " + name.image + " parts')";
    }
    return nullptr;
}

VarsEdit FindPartition(const std::string& disk, GptPartition& chosen) {
    VolumeName name;
    std::string problem;
    std::vector<GptPartition> entries;
    if (!ParseVolumeName(disk, name, problem)) return Refused(kExitUsageOrIo, "--disk " + disk + ": " + problem);
    // At the sector size the image was made with.
    if (!ReadImageGpt(name.image, GuessSectorSize(name.image), entries, problem)) {
        return Refused(kExitUsageOrIo, problem);
    }
    const GptPartition* partition = ChoosePartition(name, entries, problem);
    if (partition == nullptr) return Refused(kExitRefused, "--disk " + disk + ": " + problem);
    chosen = *partition;
    return Unchanged("");
}

// The hard drive node first and the file behind it, as a firmware lists
// the nodes of an entry it makes itself.
Common::Error FillLoadOptions(const GptPartition& partition, const NewBootEntry& wanted, Uefi::LoadOptions& options) {
    EFI_GUID signature;
    std::memcpy(&signature, partition.unique_guid, sizeof(signature));
    Common::Error error = options.SetPartitionNumber(partition.number);
    if (!error) error = options.SetPartitionStart(partition.first_lba);
    if (!error) error = options.SetPartitionSize(partition.last_lba - partition.first_lba + 1);
    if (!error) error = options.SetGptSignature(signature);
    if (!error) error = options.SetDescription(wanted.description);
    if (!error) error = options.SetPath(wanted.path);
    return error;
}

// CreateEntry knows the order only: a Boot#### outside the order keeps
// its number, and the new entry takes the next one free of both.
Common::Error NewEntry(const HostFirmware::VariableStore& store, Uefi::BootOrder& order, EntryPointer& entry) {
    Common::Error error = order.CreateEntry(entry);
    if (error || !entry) return error;
    for (std::uint32_t number = entry->GetNumber(); number < Uefi::kCreatableEntries; ++number) {
        const auto candidate = static_cast<std::uint16_t>(number);
        if (!Stored(store, candidate) && !InOrder(order, candidate)) {
            entry = EntryObject(candidate);
            return Common::Success;
        }
    }
    entry.reset();
    return Common::Success;
}

}  // namespace

VarsEdit AddBootEntry(const HostFirmware::VariableStore& store, const NewBootEntry& wanted) {
    GptPartition partition;
    VarsEdit found = FindPartition(wanted.disk, partition);
    if (found.status != kExitOk) return found;
    OrderPointer order;
    Common::Error error = ReadOrder(store, order);
    if (error) return LibraryRefused("BootOrder", error);
    EntryPointer entry;
    error = NewEntry(store, *order, entry);
    if (error) return LibraryRefused("a new entry", error);
    if (!entry) return Refused(kExitRefused, "Boot0000 to Boot007F are all taken");
    const std::string name = EntryName(entry->GetNumber());
    boost::shared_ptr<Uefi::LoadOptions> options;
    error = Uefi::CreateLoadOptions(options);
    if (!error) error = FillLoadOptions(partition, wanted, *options);
    if (!error) error = entry->SetLoadOptions(options);
    if (!error) error = entry->SetOptionalData(wanted.data);
    if (!error) error = entry->Save();
    if (!error) error = PutInOrder(store, entry, wanted.first);
    if (error) return LibraryRefused(name, error);
    return Changed("added " + name);
}

VarsEdit DeleteBootEntry(const HostFirmware::VariableStore& store, std::uint16_t number) {
    const std::string name = EntryName(number);
    const bool stored = Stored(store, number);
    EntryPointer entry = EntryObject(number);
    OrderPointer order;
    Common::Error error;
    // DropEntry takes the number out of the order and then deletes the
    // variable; where one of the two is missing, the other goes alone.
    if (!HasOrder(store)) {
        if (!stored) return Refused(kExitRefused, "there is no " + name);
        error = entry->Delete();
    } else {
        error = Uefi::GetBootOrder(order);
        if (!error && !stored && !InOrder(*order, number)) return Refused(kExitRefused, "there is no " + name);
        if (!error) error = stored ? Uefi::DropEntry(entry) : order->Remove(entry);
    }
    if (error) return LibraryRefused(name, error);
    return Changed("deleted " + name);
}

VarsEdit SetBootOrder(const HostFirmware::VariableStore& store, const std::vector<std::uint16_t>& numbers) {
    std::string missing, listed;
    for (std::uint16_t number : numbers) {
        if (!Stored(store, number)) missing += (missing.empty() ? "" : ", ") + EntryName(number);
        listed += (listed.empty() ? "" : ",") + EntryName(number).substr(4);
    }
    if (!missing.empty()) return Refused(kExitRefused, "no such entry: " + missing);
    OrderPointer order;
    Common::Error error = MakeOrderIfMissing(store, numbers.front());
    if (!error) error = Uefi::GetBootOrder(order);
    if (error) return LibraryRefused("BootOrder", error);
    while (order->Begin() != order->End()) static_cast<void>(order->Erase(order->Begin()));
    for (std::uint16_t number : numbers) {
        error = order->Insert(order->End(), EntryObject(number));
        if (error) return LibraryRefused("BootOrder", error);
    }
    return Changed("BootOrder: " + listed);
}

VarsEdit SetBootNext(const HostFirmware::VariableStore& store, std::uint16_t number) {
    const std::string name = EntryName(number);
    if (!Stored(store, number)) return Refused(kExitRefused, "there is no " + name);
    Uefi::BootNextImpl boot_next;
    Common::Error error = boot_next.Set(EntryObject(number));
    if (error) return LibraryRefused("BootNext", error);
    return Changed("BootNext: " + name.substr(4));
}

VarsEdit ClearBootNext(const HostFirmware::VariableStore& store) {
    if (store.Find(Uefi::kGlobalVariable, u"BootNext") == nullptr) return Unchanged("no BootNext to clear");
    // BootNextImpl leaves that to the firmware, which forgets BootNext once
    // it has used it; no firmware runs here, so the variable goes.
    Common::Error error = Uefi::CreateVariable(Uefi::kGlobalVariable, u"BootNext", Uefi::kWritableAttributes)->Clear();
    if (error) return LibraryRefused("BootNext", error);
    return Changed("BootNext cleared");
}

VarsEdit MarkOneShot(const HostFirmware::VariableStore& store, std::uint16_t number) {
    const std::string name = EntryName(number);
    if (!Stored(store, number)) return Refused(kExitRefused, "there is no " + name);
    EntryPointer earlier;
    const bool has_earlier = !Uefi::FindTagged(Uefi::kFakeTag, earlier).Failed();
    if (has_earlier && earlier->GetNumber() == number) return Unchanged(name + " is the one-shot entry already");
    Uefi::BootNextFakeImpl one_shot;
    Common::Error error = MakeOrderIfMissing(store, number);
    if (!error) error = one_shot.Set(EntryObject(number));
    if (error) return LibraryRefused(name, error);
    std::string message = name + " is the one-shot entry, first in BootOrder: the loader deletes it at its next start";
    // Set drops the one-shot entry of before, variable and all.
    if (has_earlier) message += "; the one-shot entry before it, " + EntryName(earlier->GetNumber()) + ", is deleted";
    return Changed(message);
}

}  // namespace MorvaneTool
