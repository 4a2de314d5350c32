#pragma once
// The security descriptor of a file or directory, self-relative, wherever
// the volume keeps it: in $Secure under the security id of the file's
// standard information (3.0 and later), else in the file's own security
// attribute, else a built-in descriptor that gives the administrators and
// the system full access.
#include <vector>

#include "ntfs/file_record.h"

namespace ntfs {

class NTFSDriver;

// FILE_CORRUPT for a file without standard information, for a security id
// on a volume without $Secure, and for damage of the stored descriptor;
// FILE_NOT_FOUND for an id that $Secure doesn't know.
std::vector<unsigned char> ReadSecurity(NTFSDriver* driver, const RecordRef& record);

// The descriptor of a file that has none of its own: 100 bytes.
std::vector<unsigned char> BuiltInDescriptor();

}  // namespace ntfs
