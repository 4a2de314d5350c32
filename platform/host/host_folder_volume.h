#pragma once
// A Simple File System over a folder of the host: the ESP of the simulated
// machine. Names are matched without regard to ASCII case, as on the FAT
// volume that an ESP is.
#include <efi.h>

#include <set>
#include <string>

namespace HostFirmware {

class HostFolderVolume {
    // First: the firmware hands out its address and gets it back as `this`.
    EFI_SIMPLE_FILE_SYSTEM_PROTOCOL protocol_{};

public:
    explicit HostFolderVolume(std::string folder);
    // Closes what the image left open (the firmware keeps a volume's root
    // open until the program ends).
    ~HostFolderVolume();
    HostFolderVolume(const HostFolderVolume&) = delete;
    HostFolderVolume& operator=(const HostFolderVolume&) = delete;
    EFI_SIMPLE_FILE_SYSTEM_PROTOCOL* Protocol() { return &protocol_; }
    const std::string& Folder() const { return folder_; }
    // Open files of the volume that the image has not closed.
    int OpenFiles() const { return static_cast<int>(open_.size()); }

    // The volume's open file objects.
    std::set<void*> open_;

private:
    std::string folder_;
};

}  // namespace HostFirmware
