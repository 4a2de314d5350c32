#pragma once
// Finding a UGA adapter's framebuffer: the protocol paints a test line, and
// the prefetchable memory windows of the display devices on the PCI buses
// are searched for it.
#include <cstdint>
#include <set>

#include "launch/efi_video.h"
#include "launch/video_pci_scan.h"
#include "launch/video_record.h"

namespace EfiLoader {

// The prefetchable memory windows below 4 GiB of the display controllers
// in `devices`, lowest first.
std::set<std::uint32_t> DisplayWindows(const PciDeviceTable& devices);

// Sets `lfb_base`, depth and colour fields from the first window whose
// memory shows the painted line in a pixel format the loader knows. Raises
// VIDEO_NOT_LINEAR without windows, VIDEO_BAD_PIXEL_FORMAT when none shows it.
void DetectFramebuffer(EfiVideo& video, VideoRecord& record);

}  // namespace EfiLoader
