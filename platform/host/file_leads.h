#pragma once
// Leads to refused files, in the host world: the last file the kernel
// action could not open, kept for the host tool, which names its path and
// partition beside the loader's report.
#include <cstdint>
#include <string>

#include "loader/file_leads.h"

namespace HostFirmware {

struct RefusedFile {
    std::uint8_t guid[16] = {};  // all zero: the loader's own volume
    std::u16string path;
    EfiLoader::FileLeadStep step = EfiLoader::FileLeadStep::file;
};

// The last lead noted since ForgetRefusedFile, or null.
const RefusedFile* LastRefusedFile();
void ForgetRefusedFile();

}  // namespace HostFirmware
