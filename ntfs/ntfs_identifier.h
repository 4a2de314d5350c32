#pragma once
// The identifier of a directory entry: its name for people, and as the key
// the file reference of the entry, so that an entry whose name another
// entry shares in a different case (a POSIX twin) is found again as itself.
#include <cstdint>
#include <string>

#include "files/file_identifier.h"

namespace ntfs {

struct NTFSIdentifier {
    static constexpr std::uint32_t kKeySize = 8;

    static file_identifier* Make(const std::u16string& name, std::uint64_t reference);
    // False for an identifier without a key of this driver's form.
    static bool Parse(const file_identifier& identifier, std::u16string& name, std::uint64_t& reference);
};

}  // namespace ntfs
