#pragma once
// A monitor's EDID for the simulator: a builder of EDID 1.3 base blocks,
// and the EDID Active protocol that hands one out.
#include <efi.h>

#include <cstdint>
#include <vector>

namespace HostFirmware {

class EdidBlock {
public:
    // A valid block: header, version 1.3, every standard timing unused,
    // no established timing, no descriptor.
    EdidBlock();

    // Standard timing `slot` (0 to 7) as its two bytes.
    EdidBlock& StandardTiming(unsigned slot, std::uint8_t first, std::uint8_t second);
    // Standard timing for `width` (a multiple of 8, 256 to 2288) with aspect
    // code 0 to 3 (16:10, 4:3, 5:4, 16:9) at `rate` Hz (60 to 123).
    EdidBlock& StandardTiming(unsigned slot, std::uint32_t width, unsigned aspect, std::uint32_t rate);
    EdidBlock& EstablishedTimings(std::uint16_t bits);
    // Detailed timing descriptor `slot` (0 to 3) of `width` x `height` and a
    // pixel clock of `clock_10khz`, which must not be 0 for the descriptor to count.
    EdidBlock& DetailedTiming(unsigned slot, std::uint32_t width, std::uint32_t height, std::uint16_t clock_10khz = 6500);
    // Range limits display descriptor in `slot`.
    EdidBlock& RangeLimits(unsigned slot, std::uint8_t min_vertical, std::uint8_t max_vertical, std::uint8_t min_horizontal,
                           std::uint8_t max_horizontal, std::uint8_t max_clock_10mhz);
    // Bit 1 of the feature byte: the first detailed timing is the preferred one.
    EdidBlock& PreferredTimingMode(bool on);
    EdidBlock& Byte(unsigned offset, std::uint8_t value);

    // The block with its checksum set; `break_checksum` makes it wrong.
    std::vector<std::uint8_t> Bytes(bool break_checksum = false) const;

private:
    std::vector<std::uint8_t> bytes_;
};

class SimulatedEdid {
public:
    explicit SimulatedEdid(const std::vector<std::uint8_t>& bytes);
    SimulatedEdid(const SimulatedEdid&) = delete;
    SimulatedEdid& operator=(const SimulatedEdid&) = delete;

    EFI_EDID_ACTIVE_PROTOCOL* Protocol() { return &protocol_; }

private:
    std::vector<std::uint8_t> bytes_;
    EFI_EDID_ACTIVE_PROTOCOL protocol_{};
};

}  // namespace HostFirmware
