// The files of a document, opened as the loader opens them at boot: its own
// kernel action on a simulated machine with the ESP folder and the disk
// images of `morvane boot`. Nothing runs; jobs are not carried out.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "firmware/firmware_access.h"
#include "loader/load_kernel.h"
#include "platform/clib/clib.h"
#include "platform/host/block_io_devices.h"
#include "platform/host/simulator.h"
#include "tools/conf_checks.h"
#include "tools/error_names.h"
#include "tools/file_leads.h"

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

// The host's own files, checked first so that a refusal names its cause as
// the host's C library tells it.
bool CanUseHostFiles(const conf_machine& machine, std::string& problem) {
    struct stat info {};
    const bool found = stat(machine.esp.c_str(), &info) == 0;
    if (!found || !S_ISDIR(info.st_mode)) {
        problem = "--esp " + machine.esp + ": " + std::strerror(found ? ENOTDIR : errno);
        return false;
    }
    for (const std::string& image : machine.disks) {
        int descriptor = ::open(image.c_str(), O_RDONLY);
        if (descriptor < 0) {
            problem = "--disk " + image + ": " + std::strerror(errno);
            return false;
        }
        ::close(descriptor);
    }
    return true;
}

}  // namespace

bool CheckFiles(const xml_element& root, const conf_machine& machine, conf_files& files, std::string& problem) {
    if (!CanUseHostFiles(machine, problem)) return false;
    HostFirmware::Simulator firmware;
    firmware.MountEsp(machine.esp);
    firmware.SetImagePath({Clib::FromMultibyte(machine.image.data(), machine.image.size())});
    for (const std::string& image : machine.disks) {
        try {
            firmware.Disks().Attach(image);
        } catch (const std::runtime_error& error) {
            problem = error.what();
            return false;
        }
    }
    Uefi::InitializeFirmwareAccess(firmware.ImageHandle(), firmware.SystemTable());
    for (const xml_element* action : KernelActions(root)) OpenActionFiles(*action, machine, files);
    HostFirmware::ForgetRefusedFile();
    return true;
}

}  // namespace MorvaneTool
