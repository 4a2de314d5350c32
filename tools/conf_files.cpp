// The files of a document, opened as the loader opens them at boot: its own
// kernel action on a simulated machine with the ESP folder and the disk
// images of `morvane boot`. Nothing runs; jobs are not carried out.
#include "firmware/firmware_access.h"
#include "loader/load_kernel.h"
#include "platform/clib/clib.h"
#include "platform/host/block_io_devices.h"
#include "platform/host/simulator.h"
#include "tools/conf_checks.h"
#include "tools/error_names.h"
#include "tools/file_leads.h"
#include "tools/simulated_machine.h"

namespace MorvaneTool {
namespace {

// The kernel actions the loader builds, in document order: the main action
// and, through every menu, each entry's one action.
std::vector<const xml_element*> KernelActions(const xml_element& root) {
    std::vector<const xml_element*> found;
    std::vector<const xml_element*> pending;
    if (!root.children.empty()) pending.push_back(root.children.front().get());
    while (!pending.empty()) {
        const xml_element* action = pending.back();
        pending.pop_back();
        if (action->name == "LoadKernel") found.push_back(action);
        if (action->name != "Menu") continue;
        for (auto entry = action->children.rbegin(); entry != action->children.rend(); ++entry) {
            if ((*entry)->name == "Entry" && (*entry)->children.size() == 1) pending.push_back((*entry)->children.front().get());
        }
    }
    return found;
}

// The lead the loader left, or the code alone when it failed past the
// steps that leave one.
std::string LeadText(const EfiLoader::FileLocation& location, const Common::Error& error, const conf_machine& machine) {
    const HostFirmware::RefusedFile* refused = HostFirmware::LastRefusedFile();
    std::string lead = refused != nullptr ? RefusedFileText(*refused, machine.disks)
                                          : Clib::ToMultibyte(location.path.data(), location.path.size()) + " on " +
                                                PartitionPlace(machine.disks, location.guid) + ": not opened";
    return lead + " (code " + std::to_string(error.Code()) + " " + ErrorName(error.Code()) + ")";
}

// Kernel and ramdisk, each on its own: the loader stops at the first that
// fails, the check goes on to name both. The action keeps the mounted
// partition for both files, as at boot.
void OpenActionFiles(const xml_element& element, const conf_machine& machine, conf_files& files) {
    EfiLoader::LoadKernel action(&element);
    for (const char* key : {"Kernel", "Ramdisk"}) {
        EfiLoader::FileLocation location;
        // A location the loader cannot read is a refusal of the rules.
        if (EfiLoader::ParseLocation(&element, key, location).Failed()) continue;
        HostFirmware::ForgetRefusedFile();
        boost::shared_ptr<ri_file> file;
        Common::Error error;
        try {
            error = EfiLoader::OpenLocation(action, location, file);
        } catch (const Common::Error& thrown) {
            error = thrown;
        }
        if (error.Failed()) {
            files.missing.push_back({element.find_child(key), LeadText(location, error, machine)});
        } else {
            ++files.opened;
        }
    }
}

}  // namespace

bool CheckFiles(const xml_element& root, const conf_machine& machine, conf_files& files, std::string& problem) {
    if (!CanUseHostFiles(machine.esp, machine.disks, problem)) return false;
    HostFirmware::Simulator firmware;
    firmware.MountEsp(machine.esp);
    firmware.SetImagePath({Clib::FromMultibyte(machine.image.data(), machine.image.size())});
    if (!AttachDisks(firmware, machine.disks, problem)) return false;
    Uefi::InitializeFirmwareAccess(firmware.ImageHandle(), firmware.SystemTable());
    for (const xml_element* action : KernelActions(root)) OpenActionFiles(*action, machine, files);
    HostFirmware::ForgetRefusedFile();
    return true;
}

}  // namespace MorvaneTool
