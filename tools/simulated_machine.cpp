#include "tools/simulated_machine.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "platform/host/block_io_devices.h"
#include "platform/host/simulator.h"

namespace MorvaneTool {

bool CanUseHostFiles(const std::string& esp, const std::vector<std::string>& files, std::string& problem) {
    struct stat info {};
    const bool found = stat(esp.c_str(), &info) == 0;
    if (!found || !S_ISDIR(info.st_mode)) {
        problem = "--esp " + esp + ": " + std::strerror(found ? ENOTDIR : errno);
        return false;
    }
    for (const std::string& file : files) {
        int descriptor = ::open(file.c_str(), O_RDONLY);
        if (descriptor < 0) {
            problem = file + ": " + std::strerror(errno);
            return false;
        }
        ::close(descriptor);
    }
    return true;
}

bool AttachDisks(HostFirmware::Simulator& firmware, const std::vector<std::string>& images, std::string& problem) {
    for (const std::string& image : images) {
        try {
            firmware.Disks().Attach(image);
        } catch (const std::runtime_error& error) {
            problem = error.what();
            return false;
        }
    }
    return true;
}

}  // namespace MorvaneTool
