#pragma once
// The monitor as its EDID 1.x base block describes it, and the filter that
// keeps the graphics modes such a monitor can show.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "launch/video_modes.h"

namespace EfiLoader {

constexpr std::size_t kEdidBlockSize = 128;

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

    bool HasEdid() const { return !edid_.empty(); }

    // Whether the monitor can show the candidate's width and height. Sets
    // the candidate's `refresh` and `preferred` as far as the EDID knows them.
    bool Accept(ModeCandidate& candidate) const;

private:
    std::uint8_t StandardTimingRate(std::uint32_t width, std::uint32_t height) const;
    std::uint8_t EstablishedTimingRate(std::uint32_t width, std::uint32_t height) const;
    const std::uint8_t* Descriptor(unsigned index) const;
    RangeLimits Limits() const;

    std::vector<std::uint8_t> edid_;  // the base block, or empty
};

}  // namespace EfiLoader
