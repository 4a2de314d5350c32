#include "fsdriver/volume_processing.h"

#include <memory>

#include "loader/common/raise.h"
#include "loader/common/error_codes.h"
#include "loader/common/resizer_errors.h"

namespace resizer {

const ProcessorMaker kProcessors[kTypeCount] = {};

namespace {

// The types of `mask` that some entry of the table serves.
std::uint32_t ServableTypes(std::uint32_t mask) {
    std::uint32_t servable = 0;
    for (std::uint32_t type = 1; type < kTypeCount; ++type) {
        if (kProcessors[type] != nullptr) servable |= 1u << type;
    }
    return mask & kTypeBits & servable;
}

// The maker for `type`, if the table has one and the mask allows it.
ProcessorMaker MakerFor(std::uint32_t type, std::uint32_t servable) {
    if (type == 0 || type >= kTypeCount || (servable & 1u << type) == 0) return nullptr;
    return kProcessors[type];
}

}  // namespace

void process_volume(Request& request) {
    Volume* source = request.source;
    if (source == nullptr || source->device == nullptr) {
        Common::Raise(ERROR_TAG, Common::RESIZER_INTERNAL, "Internal error: source drive not specified");
    }
    std::uint32_t servable = ServableTypes(source->type_mask);
    ProcessorMaker maker = MakerFor(source->type, servable);
    if (maker == nullptr) throw InvalidFileSystem(ERROR_TAG);
    std::unique_ptr<FSProcessor> processor(maker(*source));
    if ((request.actions & kActionDeviceFromProcessor) != 0 && request.device_out != nullptr) {
        *request.device_out = processor->make_device();
    }
}

}  // namespace resizer
