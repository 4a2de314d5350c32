#pragma once
// Where the kernel action looked for a file in vain. The loader's report
// carries a code only, and on a partition the same code stands for a volume
// that no driver mounts and for a missing file; the host tool needs the path
// and the partition to tell the user where to look. The firmware build
// forgets the lead; the host build keeps the last one (platform/).
#include <cstdint>
#include <string>

namespace EfiLoader {

// The step that failed on the way to the file.
enum class FileLeadStep : std::uint8_t {
    partition,  // no partition has the GUID
    volume,     // the partition holds no volume a driver mounts
    file,       // the volume has no file at the path
};

// `guid`: the partition's unique GUID, all zero for the loader's own volume.
void NoteRefusedFile(const std::uint8_t guid[16], const std::u16string& path, FileLeadStep step);

}  // namespace EfiLoader
