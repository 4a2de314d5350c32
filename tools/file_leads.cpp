// Where a refused file was looked for, in words: the loader's lead joined
// with the GPTs of the attached images, which the lead cannot know.
#include "tools/file_leads.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "platform/clib/clib.h"
#include "tools/fs_volume.h"

namespace MorvaneTool {
namespace {

const char* CauseText(EfiLoader::FileLeadStep step) {
    switch (step) {
        case EfiLoader::FileLeadStep::partition:
            return "no attached disk has this partition";
        case EfiLoader::FileLeadStep::volume:
            return "no driver mounts this partition";
        case EfiLoader::FileLeadStep::file:
            return "no file at this path";
    }
    return "not opened";
}

}  // namespace

std::string PartitionPlace(const std::vector<std::string>& images, const std::uint8_t guid[16]) {
    if (std::all_of(guid, guid + 16, [](std::uint8_t byte) { return byte == 0; })) return "the ESP";
    for (const std::string& image : images) {
        // The simulator attaches images with 512-byte sectors.
        std::vector<HostFirmware::GptPartition> gpt;
        std::string problem;
        if (!ReadImageGpt(image, 512, gpt, problem)) continue;
        for (const HostFirmware::GptPartition& partition : gpt) {
            if (std::memcmp(partition.unique_guid, guid, 16) == 0) {
                return "partition " + std::to_string(partition.number) + " (" + GuidText(guid) + ") of " + image;
            }
        }
    }
    return "partition " + GuidText(guid);
}

std::string RefusedFileText(const HostFirmware::RefusedFile& refused, const std::vector<std::string>& images) {
    return Clib::ToMultibyte(refused.path.data(), refused.path.size()) + " on " + PartitionPlace(images, refused.guid) +
           ": " + CauseText(refused.step);
}

}  // namespace MorvaneTool
