// Where a refused file was looked for, in words: the loader's lead joined
// with the GPTs of the attached images, which the lead cannot know.
#include "tools/file_leads.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "platform/clib/clib.h"
#include "platform/host/block_io_devices.h"

namespace MorvaneTool {
namespace {

// The simulator attaches images with 512-byte sectors; their GPTs are read
// the same way here.
std::vector<HostFirmware::GptPartition> ImageGpt(const std::string& image) {
    std::vector<HostFirmware::GptPartition> gpt;
    int file = ::open(image.c_str(), O_RDONLY);
    if (file < 0) return gpt;
    struct stat info {};
    if (fstat(file, &info) == 0) gpt = HostFirmware::ReadGpt(file, static_cast<std::uint64_t>(info.st_size), 512);
    ::close(file);
    return gpt;
}

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

std::string GuidText(const std::uint8_t* b) {
    char text[40];
    std::snprintf(text, sizeof(text), "%02X%02X%02X%02X-%02X%02X-%02X%02X-%02X%02X-%02X%02X%02X%02X%02X%02X", b[3], b[2], b[1],
                  b[0], b[5], b[4], b[7], b[6], b[8], b[9], b[10], b[11], b[12], b[13], b[14], b[15]);
    return text;
}

std::string PartitionPlace(const std::vector<std::string>& images, const std::uint8_t guid[16]) {
    if (std::all_of(guid, guid + 16, [](std::uint8_t byte) { return byte == 0; })) return "the ESP";
    for (const std::string& image : images) {
        for (const HostFirmware::GptPartition& partition : ImageGpt(image)) {
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
