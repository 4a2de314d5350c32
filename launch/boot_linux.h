#pragma once
#include <string>

#include "files/file_object.h"

namespace Launch {

// Starts a Linux kernel through the x86 boot protocol. Does not come back
// when it succeeds; raises when it fails.
void BootLinux(ri_file& kernel, ri_file* ramdisk, const std::string& command_line);

}  // namespace Launch
