#pragma once
// A directory whose paths are read in the manner of the drive-letter world:
// backslashes, a drive name, and the names that world refuses.
#include "files/dir_object.h"

class windows_dir : public rio_dir {
public:
    // The constant entry of a pseudo root that lists volumes rather than
    // files: no name, no identity, nothing behind it.
    class root_iterator : public iterator {
    public:
        bool next() override { return false; }
        file_identifier* identifier() override { return nullptr; }
        std::u16string name() override { return std::u16string(); }
        std::uint64_t size() override { return 0; }
        std::uint32_t kind() override { return KIND_PSEUDO_ROOT_ENTRY; }
    };
};
