#include "launch/video_edid.h"

#include <cstring>
#include <iterator>

#include "firmware/firmware_access.h"
#include "launch/video_protocols.h"

namespace EfiLoader {
namespace {

constexpr std::uint8_t kEdidHeader[8] = {0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x00};
constexpr std::uint8_t kPreferredTimingMode = 0x02;

struct EstablishedTiming {
    std::uint16_t width;
    std::uint16_t height;
    std::uint8_t rate;
};

// Bit i of the established timings word stands for row i.
constexpr EstablishedTiming kEstablishedTimingRows[16] = {
    {800, 600, 60},  {800, 600, 56},  {640, 480, 75},   {640, 480, 72}, {640, 480, 67}, {640, 480, 60},
    {720, 400, 88},  {720, 400, 70},  {1280, 1024, 75}, {1024, 768, 75}, {1024, 768, 70}, {1024, 768, 60},
    {1024, 768, 0},  {832, 624, 75},  {800, 600, 75},   {800, 600, 72},
};

// Height = width * numerator / denominator, by the two aspect bits.
struct Aspect {
    std::uint32_t numerator;
    std::uint32_t denominator;
};
constexpr Aspect kStandardTimingAspects[4] = {{10, 16}, {3, 4}, {4, 5}, {9, 16}};

bool IsFourByThree(std::uint32_t width, std::uint32_t height) { return width * 3 == height * 4; }

// Thousandths, rounded half up.
std::uint64_t RoundedThousandths(std::uint64_t value) { return value / 1000 + (value % 1000 >= 500 ? 1 : 0); }

}  // namespace

bool IsValidEdid(const std::uint8_t* block, std::size_t size) {
    if (block == nullptr || size < kEdidBlockSize) return false;
    std::uint8_t sum = 0;
    for (std::size_t i = 0; i < kEdidBlockSize; ++i) sum = static_cast<std::uint8_t>(sum + block[i]);
    if (sum != 0) return false;
    const auto& edid = *reinterpret_cast<const EdidBaseBlock*>(block);
    if (std::memcmp(edid.header, kEdidHeader, sizeof(kEdidHeader)) != 0) return false;
    return edid.version == 1 && edid.revision != 0;
}

std::uint8_t EstimateRefresh(std::uint32_t width, std::uint32_t height, const RangeLimits& limits) {
    if (limits.min_vertical == 0 || limits.min_vertical > limits.max_vertical) return 0;
    for (std::uint32_t v = limits.max_vertical; v >= limits.min_vertical; --v) {
        // The line rate with a fixed 550 us of vertical blanking per frame.
        std::uint64_t line_rate = std::uint64_t(v) * (std::uint64_t(height) + 1) * 1000000 / (1000000 - 550 * std::uint64_t(v));
        std::uint64_t line_khz = RoundedThousandths(line_rate);
        if (line_khz < limits.min_horizontal || line_khz > limits.max_horizontal) continue;
        // The share of horizontal blanking, in thousandths of a percent.
        std::int32_t duty = 30000 - 300000 / static_cast<std::int32_t>(v);
        auto blank = static_cast<std::uint16_t>(std::int64_t(width) * duty / (100000 - duty));
        std::uint64_t clock = (std::uint64_t(blank) + width) * v;
        if (RoundedThousandths(clock) <= limits.max_clock) return static_cast<std::uint8_t>(v);
    }
    return 0;
}

MonitorFilter::MonitorFilter(const std::uint8_t* block, std::size_t size) {
    if (!IsValidEdid(block, size)) return;
    std::memcpy(&edid_, block, sizeof(edid_));
    has_edid_ = true;
}

MonitorFilter MonitorFilter::FromFirmware() {
    EFI_GUID guid = kEdidActiveProtocolGuid;
    void* interface = nullptr;
    EFI_STATUS status = Uefi::BootServices()->LocateProtocol(&guid, nullptr, &interface);
    if (EFI_ERROR(status) || interface == nullptr) return MonitorFilter();
    auto* edid = static_cast<EFI_EDID_ACTIVE_PROTOCOL*>(interface);
    return MonitorFilter(edid->Edid, edid->SizeOfEdid);
}

std::uint8_t MonitorFilter::StandardTimingRate(std::uint32_t width, std::uint32_t height) const {
    std::uint8_t best = 0;
    for (const EdidStandardTiming& timing : edid_.standard_timings) {
        if (timing.IsUnused()) continue;
        std::uint32_t timing_width = timing.Width();
        const Aspect& aspect = kStandardTimingAspects[timing.Aspect()];
        std::uint32_t timing_height = timing_width * aspect.numerator / aspect.denominator;
        if (width != timing_width || height != timing_height) continue;
        std::uint8_t rate = timing.Rate();
        if (rate > best) best = rate;
    }
    return best;
}

std::uint8_t MonitorFilter::EstablishedTimingRate(std::uint32_t width, std::uint32_t height) const {
    std::uint16_t bits = edid_.EstablishedTimingBits();
    std::uint8_t best = 0;
    for (unsigned bit = 0; bit < 16; ++bit) {
        const EstablishedTiming& row = kEstablishedTimingRows[bit];
        if ((bits >> bit & 1) == 0 || row.width != width || row.height != height) continue;
        if (row.rate > best) best = row.rate;
    }
    return best;
}

RangeLimits MonitorFilter::Limits() const {
    RangeLimits limits;
    for (const EdidDescriptor& descriptor : edid_.descriptors) {
        if (!descriptor.IsRangeLimits()) continue;
        const EdidDisplayDescriptor& range = descriptor.display;
        limits.min_vertical = range.min_vertical_rate;
        limits.max_vertical = range.max_vertical_rate;
        limits.min_horizontal = range.min_horizontal_rate;
        limits.max_horizontal = range.max_horizontal_rate;
        limits.max_clock = range.max_pixel_clock * 10u;
        break;
    }
    return limits;
}

bool MonitorFilter::Accept(ModeCandidate& candidate) const {
    std::uint32_t width = candidate.record.lfb_width;
    std::uint32_t height = candidate.record.lfb_height;
    if (!HasEdid()) return IsFourByThree(width, height);

    std::uint8_t standard = StandardTimingRate(width, height);
    std::uint8_t established = EstablishedTimingRate(width, height);
    candidate.refresh = standard > established ? standard : established;
    candidate.preferred = 0;

    for (std::size_t i = 0; i < std::size(edid_.descriptors); ++i) {
        const EdidDescriptor& descriptor = edid_.descriptors[i];
        if (!descriptor.IsDetailedTiming() || descriptor.Width() != width || descriptor.Height() != height) continue;
        // The first detailed timing is the monitor's preferred mode.
        if (i == 0) candidate.preferred = 1;
        return true;
    }
    if (candidate.refresh != 0) return true;

    // Not listed: judge by what the monitor says of its limits.
    const EdidDescriptor& first = edid_.descriptors[0];
    if ((edid_.features & kPreferredTimingMode) != 0 && first.IsDetailedTiming()) {
        return width <= first.Width() && height <= first.Height();
    }
    RangeLimits limits = Limits();
    if (limits.min_horizontal == 0) return IsFourByThree(width, height);
    std::uint8_t rate = EstimateRefresh(width, height, limits);
    if (rate == 0) return false;
    candidate.refresh = rate;
    return true;
}

}  // namespace EfiLoader
