#include "launch/video_edid.h"

#include "firmware/firmware_access.h"
#include "launch/video_protocols.h"

namespace EfiLoader {
namespace {

constexpr std::uint8_t kEdidHeader[8] = {0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x00};
constexpr std::size_t kVersion = 18;
constexpr std::size_t kRevision = 19;
constexpr std::size_t kFeatures = 24;
constexpr std::uint8_t kPreferredTimingMode = 0x02;
constexpr std::size_t kEstablishedTimings = 35;
constexpr std::size_t kStandardTimings = 38;
constexpr unsigned kStandardTimingCount = 8;
constexpr std::size_t kDescriptors = 54;
constexpr std::size_t kDescriptorSize = 18;
constexpr unsigned kDescriptorCount = 4;
constexpr std::uint8_t kRangeLimitsTag = 0xFD;

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

std::uint16_t U16(const std::uint8_t* bytes) { return static_cast<std::uint16_t>(bytes[0] | bytes[1] << 8); }

// A detailed timing descriptor; display descriptors have a pixel clock of 0.
bool IsDetailedTiming(const std::uint8_t* descriptor) { return U16(descriptor) != 0; }
std::uint32_t DetailedWidth(const std::uint8_t* descriptor) { return descriptor[2] | (descriptor[4] >> 4) << 8; }
std::uint32_t DetailedHeight(const std::uint8_t* descriptor) { return descriptor[5] | (descriptor[7] >> 4) << 8; }

// Thousandths, rounded half up.
std::uint64_t RoundedThousandths(std::uint64_t value) { return value / 1000 + (value % 1000 >= 500 ? 1 : 0); }

}  // namespace

bool IsValidEdid(const std::uint8_t* block, std::size_t size) {
    if (block == nullptr || size < kEdidBlockSize) return false;
    std::uint8_t sum = 0;
    for (std::size_t i = 0; i < kEdidBlockSize; ++i) sum = static_cast<std::uint8_t>(sum + block[i]);
    if (sum != 0) return false;
    for (std::size_t i = 0; i < sizeof(kEdidHeader); ++i) {
        if (block[i] != kEdidHeader[i]) return false;
    }
    return block[kVersion] == 1 && block[kRevision] != 0;
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
    if (IsValidEdid(block, size)) edid_.assign(block, block + kEdidBlockSize);
}

MonitorFilter MonitorFilter::FromFirmware() {
    EFI_GUID guid = kEdidActiveProtocolGuid;
    void* interface = nullptr;
    EFI_STATUS status = Uefi::BootServices()->LocateProtocol(&guid, nullptr, &interface);
    if (EFI_ERROR(status) || interface == nullptr) return MonitorFilter();
    auto* edid = static_cast<EFI_EDID_ACTIVE_PROTOCOL*>(interface);
    return MonitorFilter(edid->Edid, edid->SizeOfEdid);
}

const std::uint8_t* MonitorFilter::Descriptor(unsigned index) const { return &edid_[kDescriptors + index * kDescriptorSize]; }

std::uint8_t MonitorFilter::StandardTimingRate(std::uint32_t width, std::uint32_t height) const {
    std::uint8_t best = 0;
    for (unsigned i = 0; i < kStandardTimingCount; ++i) {
        const std::uint8_t* timing = &edid_[kStandardTimings + 2 * i];
        std::uint16_t value = U16(timing);
        if (value == 0 || value == 0x0101 || value == 0x2020) continue;  // unused slots
        std::uint32_t timing_width = timing[0] * 8u + 248;
        const Aspect& aspect = kStandardTimingAspects[timing[1] >> 6];
        std::uint32_t timing_height = timing_width * aspect.numerator / aspect.denominator;
        if (width != timing_width || height != timing_height) continue;
        auto rate = static_cast<std::uint8_t>((timing[1] & 0x3F) + 60);
        if (rate > best) best = rate;
    }
    return best;
}

std::uint8_t MonitorFilter::EstablishedTimingRate(std::uint32_t width, std::uint32_t height) const {
    std::uint16_t bits = U16(&edid_[kEstablishedTimings]);
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
    for (unsigned i = 0; i < kDescriptorCount; ++i) {
        const std::uint8_t* d = Descriptor(i);
        if (d[0] != 0 || d[1] != 0 || d[2] != 0 || d[3] != kRangeLimitsTag) continue;
        limits.min_vertical = d[5];
        limits.max_vertical = d[6];
        limits.min_horizontal = d[7];
        limits.max_horizontal = d[8];
        limits.max_clock = d[9] * 10u;
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

    for (unsigned i = 0; i < kDescriptorCount; ++i) {
        const std::uint8_t* d = Descriptor(i);
        if (!IsDetailedTiming(d) || DetailedWidth(d) != width || DetailedHeight(d) != height) continue;
        if (i == 0) candidate.preferred = 1;
        return true;
    }
    if (candidate.refresh != 0) return true;

    // Not listed: judge by what the monitor says of its limits.
    const std::uint8_t* first = Descriptor(0);
    if ((edid_[kFeatures] & kPreferredTimingMode) != 0 && IsDetailedTiming(first)) {
        return width <= DetailedWidth(first) && height <= DetailedHeight(first);
    }
    RangeLimits limits = Limits();
    if (limits.min_horizontal == 0) return IsFourByThree(width, height);
    std::uint8_t rate = EstimateRefresh(width, height, limits);
    if (rate == 0) return false;
    candidate.refresh = rate;
    return true;
}

}  // namespace EfiLoader
