#pragma once
// What the tool says of a file that the loader could not open: its path,
// and the partition it was looked for on, by attached image and number.
#include <cstdint>
#include <string>
#include <vector>

#include "platform/host/file_leads.h"

namespace MorvaneTool {

// "the ESP" for the all-zero GUID; "partition N (GUID) of IMAGE" for a
// partition of an attached image's GPT; "partition GUID" otherwise.
std::string PartitionPlace(const std::vector<std::string>& images, const std::uint8_t guid[16]);

// "PATH on PLACE: CAUSE", the images being the attached disks in order.
std::string RefusedFileText(const HostFirmware::RefusedFile& refused, const std::vector<std::string>& images);

}  // namespace MorvaneTool
