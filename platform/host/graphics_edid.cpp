#include "platform/host/graphics_edid.h"

namespace HostFirmware {
namespace {
constexpr unsigned kStandardTimings = 38;
constexpr unsigned kDescriptors = 54;
constexpr unsigned kDescriptorSize = 18;
}  // namespace

EdidBlock::EdidBlock() : bytes_(128, 0) {
    const std::uint8_t header[8] = {0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x00};
    for (unsigned i = 0; i < 8; ++i) bytes_[i] = header[i];
    bytes_[8] = 0x34;  // manufacturer "MOR", product and serial left 0
    bytes_[9] = 0x52;
    bytes_[18] = 1;
    bytes_[19] = 3;
    bytes_[20] = 0x80;  // digital input
    for (unsigned slot = 0; slot < 8; ++slot) StandardTiming(slot, 0x01, 0x01);
}

EdidBlock& EdidBlock::StandardTiming(unsigned slot, std::uint8_t first, std::uint8_t second) {
    bytes_[kStandardTimings + 2 * slot] = first;
    bytes_[kStandardTimings + 2 * slot + 1] = second;
    return *this;
}

EdidBlock& EdidBlock::StandardTiming(unsigned slot, std::uint32_t width, unsigned aspect, std::uint32_t rate) {
    return StandardTiming(slot, static_cast<std::uint8_t>((width - 248) / 8), static_cast<std::uint8_t>(aspect << 6 | (rate - 60)));
}

EdidBlock& EdidBlock::EstablishedTimings(std::uint16_t bits) {
    bytes_[35] = static_cast<std::uint8_t>(bits);
    bytes_[36] = static_cast<std::uint8_t>(bits >> 8);
    return *this;
}

EdidBlock& EdidBlock::DetailedTiming(unsigned slot, std::uint32_t width, std::uint32_t height, std::uint16_t clock_10khz) {
    std::uint8_t* d = &bytes_[kDescriptors + kDescriptorSize * slot];
    for (unsigned i = 0; i < kDescriptorSize; ++i) d[i] = 0;
    d[0] = static_cast<std::uint8_t>(clock_10khz);
    d[1] = static_cast<std::uint8_t>(clock_10khz >> 8);
    d[2] = static_cast<std::uint8_t>(width);
    d[4] = static_cast<std::uint8_t>((width >> 8) << 4);
    d[5] = static_cast<std::uint8_t>(height);
    d[7] = static_cast<std::uint8_t>((height >> 8) << 4);
    return *this;
}

EdidBlock& EdidBlock::RangeLimits(unsigned slot, std::uint8_t min_vertical, std::uint8_t max_vertical,
                                  std::uint8_t min_horizontal, std::uint8_t max_horizontal, std::uint8_t max_clock_10mhz) {
    std::uint8_t* d = &bytes_[kDescriptors + kDescriptorSize * slot];
    for (unsigned i = 0; i < kDescriptorSize; ++i) d[i] = 0;
    d[3] = 0xFD;
    d[5] = min_vertical;
    d[6] = max_vertical;
    d[7] = min_horizontal;
    d[8] = max_horizontal;
    d[9] = max_clock_10mhz;
    d[10] = 0x0A;
    for (unsigned i = 11; i < kDescriptorSize; ++i) d[i] = 0x20;
    return *this;
}

EdidBlock& EdidBlock::PreferredTimingMode(bool on) {
    bytes_[24] = static_cast<std::uint8_t>(on ? bytes_[24] | 0x02 : bytes_[24] & ~0x02);
    return *this;
}

EdidBlock& EdidBlock::Byte(unsigned offset, std::uint8_t value) {
    bytes_[offset] = value;
    return *this;
}

std::vector<std::uint8_t> EdidBlock::Bytes(bool break_checksum) const {
    std::vector<std::uint8_t> bytes = bytes_;
    std::uint8_t sum = 0;
    for (unsigned i = 0; i < 127; ++i) sum = static_cast<std::uint8_t>(sum + bytes[i]);
    bytes[127] = static_cast<std::uint8_t>(0x100 - sum + (break_checksum ? 1 : 0));
    return bytes;
}

SimulatedEdid::SimulatedEdid(const std::vector<std::uint8_t>& bytes) : bytes_(bytes) {
    protocol_.SizeOfEdid = static_cast<UINT32>(bytes_.size());
    protocol_.Edid = bytes_.empty() ? nullptr : bytes_.data();
}

}  // namespace HostFirmware
