#pragma once
// The video fields of the kernel's boot parameters: a linear framebuffer
// found through GOP or, failing that, UGA, and checked before the kernel
// is told of it.
#include <cstdint>

#include "launch/efi_video.h"
#include "launch/video_record.h"
#include "loader/common/error.h"

namespace EfiLoader {

// Writes the first 64 bytes (screen_info) of the boot parameter block at
// `params`. Raises the last protocol's error when none gives a usable
// framebuffer; the block is left as it was then.
void FillVideo(std::uint8_t* params);

// Queries `video`, finds its framebuffer where the protocol doesn't tell
// it, checks the pixel format and measures the line length. Returns the
// failure instead of raising it.
Common::Error CheckVideo(EfiVideo& video, VideoRecord& record);

// Measures the bytes from one line's start to the next by painting the left
// column and finding the stride at which every line begins with it. Replaces
// `lfb_linelength`; raises VIDEO_BAD_FRAMEBUFFER when no stride fits.
void FindLineLength(EfiVideo& video, VideoRecord& record);

}  // namespace EfiLoader
