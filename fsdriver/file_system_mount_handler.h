#pragma once
// What the loader holds of a mounted volume: a counted object that can give
// the volume's root directory and be told to write everything back.
#include <cstdint>

#include "files/dir_object.h"
#include "fsdriver/reference_count.h"

// `flags` bits.
constexpr std::uint32_t MOUNT_OWNS_DEVICE = 2;  // the driver destroys its device at destruction

class FileSystemMountHandler : public ReferenceCount {
public:
    virtual void dismount() {}
    // New directory objects that the caller deletes.
    virtual rio_dir* open_root() = 0;
    virtual rio_dir* open_path(const char16_t* path) = 0;

    std::uint32_t mount_id = 0;  // no handler of this system is registered under an id
    std::uint32_t flags = 0;
};

// Takes one reference away; the last one destroys the handler.
inline void release(FileSystemMountHandler* handler) {
    if (--handler->references == 0 && handler->mount_id == 0) delete handler;
}
