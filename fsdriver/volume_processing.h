#pragma once
// The entry of the volume processing library that the drivers share: one
// request names a volume and what is wanted of it, and a processor of the
// volume's file-system type does the work. This build holds no processor
// for any type, so every request is refused; the entry exists so that a
// driver that needs a rewritten view of its volume (a journal replayed)
// asks in the one place where such a view could come from.
#include <cstdint>

#include "firmware/simple_disk.h"

namespace resizer {

// File-system type numbers, 1 to 16; the masks of the driver trial use the
// same bits. 0 stands for a type not known.
constexpr std::uint32_t kTypeCount = 17;
constexpr std::uint32_t kTypeBits = 0x1FFFE;

// Bits of Request::actions.
constexpr std::uint32_t kActionOpenSource = 1u << 3;
constexpr std::uint32_t kActionDeviceFromProcessor = 1u << 19;

// A volume as the library sees it. Fields left out of a request are 0.
struct Volume {
    Fdisk::SimpleDisk* device = nullptr;
    std::uint64_t first_sector = 0;
    std::uint64_t volume_sectors = 0;
    std::uint32_t type = 0;       // 0: not known
    std::uint32_t type_mask = 0;  // the types that would do
};

struct Request {
    std::uint32_t actions = 0;
    Volume* source = nullptr;
    Fdisk::SimpleDisk** device_out = nullptr;
};

// The work for one file-system type.
class FSProcessor {
public:
    virtual ~FSProcessor() = default;
    // A device that shows the volume as the processor would leave it.
    virtual Fdisk::SimpleDisk* make_device() = 0;
};

using ProcessorMaker = FSProcessor* (*)(Volume& volume);

// One entry per type number; an empty entry serves nothing.
extern const ProcessorMaker kProcessors[kTypeCount];

// Carries out `request`; raises RESIZER_INTERNAL for a request without a
// source device and resizer::InvalidFileSystem when no processor serves
// the volume's type.
void process_volume(Request& request);

}  // namespace resizer
