#pragma once
#include <string>

namespace Uefi {

// The path of the loader's own image on its device, with backslashes,
// built from the file path nodes of the loaded image's FilePath and cached.
// Raises EFI_INTERNAL for a node that is not a file path, or an empty path.
std::u16string GetImagePath();

// Drops the cached path (a new image starts).
void ForgetImagePath();

}  // namespace Uefi
