#include "launch/pci_framebuffer.h"

#include "launch/boot_params.h"
#include "launch/video_memory.h"
#include "loader/common/raise.h"

namespace EfiLoader {

using Launch::kBelowFourGiB;
namespace {

constexpr std::uint8_t kDisplayController = 3;
constexpr unsigned kRegisterCount = 6;
constexpr std::uint32_t kIoSpace = 0x1;
constexpr std::uint32_t kPrefetchable = 0x8;
constexpr std::uint32_t kTypeMask = 0x6;
constexpr std::uint32_t kType64 = 0x4;
constexpr std::uint32_t kAddressMask = ~std::uint32_t(0xF);

// The colour the test line is painted with.
constexpr std::uint8_t kRed = 0x11;
constexpr std::uint8_t kGreen = 0x12;
constexpr std::uint8_t kBlue = 0x13;

// A pixel layout the test line can be recognised in: the line's first
// `pixels` pixels of `bytes_per_pixel` bytes each begin with these three bytes.
struct PixelPattern {
    unsigned bytes_per_pixel;
    std::uint8_t first, second, third;
    std::uint16_t depth;
    ColourField red, green, blue, rsvd;
};

constexpr PixelPattern kPatterns[] = {
    {3, kRed, kGreen, kBlue, 24, {8, 0}, {8, 8}, {8, 16}, {0, 24}},
    {3, kBlue, kGreen, kRed, 24, {8, 16}, {8, 8}, {8, 0}, {0, 24}},
    {4, kRed, kGreen, kBlue, 32, {8, 0}, {8, 8}, {8, 16}, {8, 24}},
    {4, kBlue, kGreen, kRed, 32, {8, 16}, {8, 8}, {8, 0}, {8, 24}},
};

// How many pixels of the line are compared. A 24-bit line is compared in
// whole groups of four pixels (twelve bytes), so a line narrower than four
// pixels has nothing to compare and matches at once.
std::uint32_t ComparedPixels(const PixelPattern& pattern, std::uint32_t width) {
    return pattern.bytes_per_pixel == 3 ? width / 4 * 4 : width;
}

bool ShowsPattern(std::uint32_t window, const PixelPattern& pattern, std::uint32_t width) {
    std::uint32_t pixels = ComparedPixels(pattern, width);
    // A line that would run past 4 GiB can't be described in the record.
    if (std::uint64_t(window) + std::uint64_t(pixels) * pattern.bytes_per_pixel > kBelowFourGiB) return false;
    for (std::uint32_t i = 0; i < pixels; ++i) {
        std::uint64_t pixel = std::uint64_t(window) + std::uint64_t(i) * pattern.bytes_per_pixel;
        if (PhysicalByte(pixel) != pattern.first || PhysicalByte(pixel + 1) != pattern.second ||
            PhysicalByte(pixel + 2) != pattern.third) {
            return false;
        }
    }
    return true;
}

}  // namespace

std::set<std::uint32_t> DisplayWindows(const PciDeviceTable& devices) {
    std::set<std::uint32_t> windows;
    for (const auto& device : devices) {
        const PciDeviceHeader& header = DeviceHeaderOf(device.second);
        if (header.BaseClass() != kDisplayController) continue;
        for (unsigned index = 0; index < kRegisterCount; ++index) {
            std::uint32_t value = header.Bar[index].get();
            if (value == 0 || (value & kIoSpace) != 0 || (value & kPrefetchable) == 0) continue;
            if ((value & kTypeMask) == kType64) {
                // The next register is the upper half; a window above 4 GiB
                // can't be told in the record.
                if (index + 1 == kRegisterCount) break;
                std::uint32_t upper = header.Bar[++index].get();
                if (upper != 0) continue;
            }
            // Address 0 is a window the firmware never assigned.
            if ((value & kAddressMask) != 0) windows.insert(value & kAddressMask);
        }
    }
    return windows;
}

void DetectFramebuffer(EfiVideo& video, VideoRecord& record) {
    std::set<std::uint32_t> windows = DisplayWindows(ScanPciDevices());
    if (windows.empty()) Common::Raise(ERROR_TAG, Common::Failures::VIDEO_NOT_LINEAR);

    video.FillRectangle(0, 0, record.lfb_width, record.lfb_height, 0, 0, 0, 0);
    video.FillRectangle(0, 0, record.lfb_width, 1, kRed, kGreen, kBlue, 0);

    for (std::uint32_t window : windows) {
        for (const PixelPattern& pattern : kPatterns) {
            if (!ShowsPattern(window, pattern, record.lfb_width)) continue;
            record.lfb_base = window;
            record.lfb_depth = pattern.depth;
            SetColourFields(record, pattern.red, pattern.green, pattern.blue, pattern.rsvd);
            return;
        }
    }
    Common::Raise(ERROR_TAG, Common::Failures::VIDEO_BAD_PIXEL_FORMAT);
}

}  // namespace EfiLoader
