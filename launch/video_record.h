#pragma once
// The video record: the first 64 bytes of boot_params, laid out as the
// kernel's screen_info. The loader fills only the linear framebuffer part;
// the text-mode fields stay 0. Loader and kernel are both x86, so the fields
// are kept in the machine's own (little-endian) order.
#include <cstddef>
#include <cstdint>

namespace EfiLoader {

#pragma pack(push, 1)
struct VideoRecord {
    std::uint8_t orig_x;              // 0x00
    std::uint8_t orig_y;              // 0x01
    std::uint16_t ext_mem_k;          // 0x02
    std::uint16_t orig_video_page;    // 0x04
    std::uint8_t orig_video_mode;     // 0x06
    std::uint8_t orig_video_cols;     // 0x07
    std::uint8_t flags;               // 0x08
    std::uint8_t unused2;             // 0x09
    std::uint16_t orig_video_ega_bx;  // 0x0A
    std::uint16_t unused3;            // 0x0C
    std::uint8_t orig_video_lines;    // 0x0E
    std::uint8_t orig_video_isVGA;    // 0x0F
    std::uint16_t orig_video_points;  // 0x10
    std::uint16_t lfb_width;          // 0x12
    std::uint16_t lfb_height;         // 0x14
    std::uint16_t lfb_depth;          // 0x16
    std::uint32_t lfb_base;           // 0x18
    std::uint32_t lfb_size;           // 0x1C
    std::uint16_t cl_magic;           // 0x20
    std::uint16_t cl_offset;          // 0x22
    std::uint16_t lfb_linelength;     // 0x24
    std::uint8_t red_size;            // 0x26
    std::uint8_t red_pos;             // 0x27
    std::uint8_t green_size;          // 0x28
    std::uint8_t green_pos;           // 0x29
    std::uint8_t blue_size;           // 0x2A
    std::uint8_t blue_pos;            // 0x2B
    std::uint8_t rsvd_size;           // 0x2C
    std::uint8_t rsvd_pos;            // 0x2D
    std::uint16_t vesapm_seg;         // 0x2E
    std::uint16_t vesapm_off;         // 0x30
    std::uint16_t pages;              // 0x32
    std::uint16_t vesa_attributes;    // 0x34
    std::uint32_t capabilities;       // 0x36
    std::uint32_t ext_lfb_base;       // 0x3A
    std::uint8_t reserved[2];         // 0x3E
};
#pragma pack(pop)

static_assert(sizeof(VideoRecord) == 64, "screen_info is 64 bytes");
static_assert(offsetof(VideoRecord, lfb_width) == 0x12, "screen_info layout");
static_assert(offsetof(VideoRecord, lfb_base) == 0x18, "screen_info layout");
static_assert(offsetof(VideoRecord, lfb_linelength) == 0x24, "screen_info layout");
static_assert(offsetof(VideoRecord, rsvd_pos) == 0x2D, "screen_info layout");

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
