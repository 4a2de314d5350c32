#pragma once
// A rename on the loader's own volume. The firmware's file protocol has no
// rename the loader relies on, so a rename is a copy to the new name
// followed by deletion of the old one.
#include <cstdint>

#include "files/file_object.h"
#include "loader/action.h"

namespace EfiLoader {

class RenameJob : public Action {
public:
    using Action::Action;
    // The paths are read from the element now, not when the job was built.
    Common::Error Run() override;
};

// Copies `source` to `target` in steps of 32 KiB; `copied` counts the bytes
// that reached the target. A null stream is a read or write failure.
Common::Error CopyFile(i_file* source, o_file* target, std::uint64_t& copied);

}  // namespace EfiLoader
