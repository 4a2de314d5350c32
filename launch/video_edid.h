#pragma once
// The monitor as its EDID 1.x base block describes it, and the filter that
// keeps the graphics modes such a monitor can show.
#include <cstddef>
#include <cstdint>

#include "launch/video_modes.h"
#include "loader/common/byte_order.h"

namespace EfiLoader {

// A standard timing: two bytes, or 00 00, 01 01 or 20 20 for an unused slot.
struct EdidStandardTiming {
    std::uint8_t horizontal;    // (width / 8) - 31
    std::uint8_t aspect_rate;   // aspect in bits 6 and 7, refresh - 60 below

    bool IsUnused() const { return horizontal == aspect_rate && (horizontal == 0x00 || horizontal == 0x01 || horizontal == 0x20); }
    std::uint32_t Width() const { return horizontal * 8u + 248; }
    unsigned Aspect() const { return aspect_rate >> 6; }
    std::uint8_t Rate() const { return static_cast<std::uint8_t>((aspect_rate & 0x3F) + 60); }
};

// Bytes 2 to 17 of a detailed timing descriptor. Sizes of 12 bits keep
// their upper nibble in a byte they share with another size.
struct EdidPixelTiming {
    std::uint8_t h_active_lo;            // 0x02
    std::uint8_t h_blanking_lo;          // 0x03
    std::uint8_t h_active_blanking_hi;   // 0x04: active in the upper nibble
    std::uint8_t v_active_lo;            // 0x05
    std::uint8_t v_blanking_lo;          // 0x06
    std::uint8_t v_active_blanking_hi;   // 0x07: active in the upper nibble
    std::uint8_t h_sync_offset_lo;       // 0x08
    std::uint8_t h_sync_width_lo;        // 0x09
    std::uint8_t v_sync_offset_width_lo; // 0x0A
    std::uint8_t sync_hi;                // 0x0B
    std::uint8_t h_image_size_lo;        // 0x0C
    std::uint8_t v_image_size_lo;        // 0x0D
    std::uint8_t image_size_hi;          // 0x0E
    std::uint8_t h_border;               // 0x0F
    std::uint8_t v_border;               // 0x10
    std::uint8_t flags;                  // 0x11
};

// Bytes 2 to 17 of a display descriptor; the range limits kind (tag 0xFD)
// is the only one read.
struct EdidDisplayDescriptor {
    std::uint8_t reserved0;              // 0x02
    std::uint8_t tag;                    // 0x03
    std::uint8_t reserved1;              // 0x04
    std::uint8_t min_vertical_rate;      // 0x05: Hz
    std::uint8_t max_vertical_rate;      // 0x06: Hz
    std::uint8_t min_horizontal_rate;    // 0x07: kHz
    std::uint8_t max_horizontal_rate;    // 0x08: kHz
    std::uint8_t max_pixel_clock;        // 0x09: tens of MHz
    unsigned char timing_formula[8];     // 0x0A
};

// One of the four 18-byte descriptors: a detailed timing when its pixel
// clock isn't 0, else a display descriptor.
struct EdidDescriptor {
    Common::le16 pixel_clock;  // 0x00: tens of kHz
    union {
        EdidPixelTiming timing;
        EdidDisplayDescriptor display;
    };

    bool IsDetailedTiming() const { return pixel_clock.get() != 0; }
    std::uint32_t Width() const { return timing.h_active_lo | (timing.h_active_blanking_hi >> 4) << 8; }
    std::uint32_t Height() const { return timing.v_active_lo | (timing.v_active_blanking_hi >> 4) << 8; }
    bool IsRangeLimits() const { return pixel_clock.get() == 0 && display.reserved0 == 0 && display.tag == 0xFD; }
};
static_assert(sizeof(EdidDescriptor) == 18, "EDID descriptors are 18 bytes");
static_assert(offsetof(EdidDescriptor, timing) == 2, "EDID descriptor layout");

// The EDID 1.x base block.
struct EdidBaseBlock {
    unsigned char header[8];                    // 0x00: 00 FF FF FF FF FF FF 00
    Common::be16 manufacturer_id;               // 0x08: three letters of five bits
    Common::le16 product_code;                  // 0x0A
    Common::le32 serial_number;                 // 0x0C
    std::uint8_t week;                          // 0x10
    std::uint8_t year;                          // 0x11
    std::uint8_t version;                       // 0x12
    std::uint8_t revision;                      // 0x13
    std::uint8_t video_input;                   // 0x14
    std::uint8_t h_size_cm;                     // 0x15
    std::uint8_t v_size_cm;                     // 0x16
    std::uint8_t gamma;                         // 0x17
    std::uint8_t features;                      // 0x18
    unsigned char chromaticity[10];             // 0x19
    unsigned char established_timings[3];       // 0x23: two bytes of modes, one of the maker's
    EdidStandardTiming standard_timings[8];     // 0x26
    EdidDescriptor descriptors[4];              // 0x36
    std::uint8_t extension_count;               // 0x7E
    std::uint8_t checksum;                      // 0x7F

    // The established timings as one word: bit i stands for row i of the
    // standard's table.
    std::uint16_t EstablishedTimingBits() const { return Common::LoadLE16(established_timings); }
};
static_assert(sizeof(EdidBaseBlock) == 128, "the EDID base block is 128 bytes");
static_assert(offsetof(EdidBaseBlock, version) == 18, "EDID layout");
static_assert(offsetof(EdidBaseBlock, features) == 24, "EDID layout");
static_assert(offsetof(EdidBaseBlock, established_timings) == 35, "EDID layout");
static_assert(offsetof(EdidBaseBlock, standard_timings) == 38, "EDID layout");
static_assert(offsetof(EdidBaseBlock, descriptors) == 54, "EDID layout");

constexpr std::size_t kEdidBlockSize = sizeof(EdidBaseBlock);

// Whether `block` (of `size` bytes, possibly null) starts with a valid EDID
// 1.x base block: header, checksum, version 1 and a revision.
bool IsValidEdid(const std::uint8_t* block, std::size_t size);

// The limits of a range limits display descriptor.
struct RangeLimits {
    std::uint32_t min_vertical = 0;    // Hz
    std::uint32_t max_vertical = 0;    // Hz
    std::uint32_t min_horizontal = 0;  // kHz
    std::uint32_t max_horizontal = 0;  // kHz
    std::uint32_t max_clock = 0;       // MHz
};

// Tries the vertical rates of `limits` from the highest down with a rough
// model of the monitor's timing; the first rate that keeps line rate and
// pixel clock inside the limits, or 0 when none does.
std::uint8_t EstimateRefresh(std::uint32_t width, std::uint32_t height, const RangeLimits& limits);

class MonitorFilter {
public:
    // A monitor that told nothing about itself.
    MonitorFilter() = default;
    // Keeps the base block of `block` when it is a valid EDID.
    MonitorFilter(const std::uint8_t* block, std::size_t size);
    // The monitor behind the firmware's EDID Active protocol, if any.
    static MonitorFilter FromFirmware();

    bool HasEdid() const { return has_edid_; }

    // Whether the monitor can show the candidate's width and height. Sets
    // the candidate's `refresh` and `preferred` as far as the EDID knows them.
    bool Accept(ModeCandidate& candidate) const;

private:
    std::uint8_t StandardTimingRate(std::uint32_t width, std::uint32_t height) const;
    std::uint8_t EstablishedTimingRate(std::uint32_t width, std::uint32_t height) const;
    RangeLimits Limits() const;

    bool has_edid_ = false;
    EdidBaseBlock edid_{};  // the base block, when there is one
};

}  // namespace EfiLoader
