#pragma once
// What `morvane boot` and `conf check --esp` share in building the machine
// they simulate from the host's files: the ESP folder and the disk images.
#include <string>
#include <vector>

namespace HostFirmware {
class Simulator;
}

namespace MorvaneTool {

// The host's own files, checked before the machine is built, so that a
// refusal names its cause as the host's C library tells it: the ESP must be
// a folder, each other file (disk images, a variable file) readable.
bool CanUseHostFiles(const std::string& esp, const std::vector<std::string>& files, std::string& problem);

// Attaches each image as a read-only hard disk, in the order given, so the
// machine's block devices are numbered as on the command line.
bool AttachDisks(HostFirmware::Simulator& firmware, const std::vector<std::string>& images, std::string& problem);

}  // namespace MorvaneTool
