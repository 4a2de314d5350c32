#pragma once
// Junctions: a directory whose reparse point sends the walk to another
// path. The stored form has two names, the one the system substitutes
// ("\??\" in front of the path) and the one it shows (the path itself).
#include <cstdint>
#include <string>
#include <vector>

namespace ntfs {

// The reparse data of a junction to `target`: FILE_CREATE when it would
// be larger than a reparse point may be.
std::vector<unsigned char> JunctionData(const std::u16string& target);

// The "$R" entry of a reparse point: key (tag, file reference), no data.
std::vector<unsigned char> ReparseIndexEntry(std::uint32_t tag, std::uint64_t reference);

}  // namespace ntfs
