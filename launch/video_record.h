#pragma once
// The video record: what video discovery learns of a framebuffer, under the
// names of the kernel's screen_info fields that the loader fills. It is the
// working form, in host numbers: protocols fill it, the checks and the mode
// ranking compare and multiply its fields. It never lies where the kernel or
// the firmware reads it; FillVideo writes it into the screen_info record of
// the boot parameter block, which has the kernel's byte layout.
#include <cstdint>

namespace EfiLoader {

struct VideoRecord {
    std::uint16_t ext_mem_k;
    std::uint8_t orig_video_isVGA;
    std::uint16_t lfb_width;
    std::uint16_t lfb_height;
    std::uint16_t lfb_depth;
    std::uint32_t lfb_base;
    std::uint32_t lfb_size;
    std::uint16_t lfb_linelength;
    std::uint8_t red_size;
    std::uint8_t red_pos;
    std::uint8_t green_size;
    std::uint8_t green_pos;
    std::uint8_t blue_size;
    std::uint8_t blue_pos;
    std::uint8_t rsvd_size;
    std::uint8_t rsvd_pos;
};

// Values the kernel expects of a record that describes a framebuffer.
constexpr std::uint8_t kVideoTypeEfi = 0x70;
constexpr std::uint16_t kExtendedMemoryK = 0x8000;

// One colour field of a pixel: its width in bits and its lowest bit.
struct ColourField {
    std::uint8_t size;
    std::uint8_t pos;
};

inline void SetColourFields(VideoRecord& record, ColourField red, ColourField green, ColourField blue, ColourField rsvd) {
    record.red_size = red.size;
    record.red_pos = red.pos;
    record.green_size = green.size;
    record.green_pos = green.pos;
    record.blue_size = blue.size;
    record.blue_pos = blue.pos;
    record.rsvd_size = rsvd.size;
    record.rsvd_pos = rsvd.pos;
}

}  // namespace EfiLoader
