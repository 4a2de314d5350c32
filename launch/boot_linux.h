#pragma once
#include <cstdint>
#include <string>

#include "files/file_object.h"

namespace Launch {

// Starts a Linux kernel through the x86 boot protocol. Does not come back
// when it succeeds; raises when it fails.
void BootLinux(ri_file& kernel, ri_file* ramdisk, const std::string& command_line);

// Reads exactly `count` bytes. A short read stores FILE_EOF in the file; a
// failed file's error is raised and the file's stored error cleared.
void ReadExact(ri_file& file, void* buffer, std::uint64_t count);

}  // namespace Launch
