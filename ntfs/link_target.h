#pragma once
// Where a junction or a symbolic link of the volume leads, as the loader
// writes paths: "C:\dir" for a target on a drive letter, "\\?\..." for any
// other absolute target, and a relative link's target as it stands.
#include <string>

#include "ntfs/file_record.h"

namespace ntfs {

// Empty for a file without a reparse point, or with one above 16 KiB.
// FILE_OPEN for a reparse point of another kind, and for an absolute
// target that doesn't begin with "\??\"; FILE_CORRUPT for names that leave
// the reparse data.
std::u16string ReadLinkTarget(const RecordRef& record);

// The target of a substitute name, by the rules above; FILE_OPEN without
// the "\??\" prefix.
std::u16string TargetOfSubstitute(const std::u16string& substitute);

}  // namespace ntfs
