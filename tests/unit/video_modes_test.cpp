// Ranking of graphics modes and the monitor filter over EDID blocks built
// byte by byte.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "launch/video_edid.h"
#include "launch/video_modes.h"
#include "platform/host/graphics_edid.h"

namespace {

using EfiLoader::ModeCandidate;
using EfiLoader::MonitorFilter;
using HostFirmware::EdidBlock;

ModeCandidate Candidate(std::uint16_t width, std::uint16_t height, std::uint8_t preferred = 0, std::uint8_t refresh = 0,
                        std::uint16_t depth = 32, std::uint32_t mode = 0) {
    ModeCandidate candidate{};
    candidate.record.lfb_width = width;
    candidate.record.lfb_height = height;
    candidate.record.lfb_depth = depth;
    candidate.preferred = preferred;
    candidate.refresh = refresh;
    candidate.mode = mode;
    return candidate;
}

TEST(VideoModes, RankingFromWorstToBest) {
    struct Case {
        const char* why;
        ModeCandidate worse;
        ModeCandidate better;
    };
    const Case cases[] = {
        {"preferred beats a larger area", Candidate(1024, 768), Candidate(640, 480, 1)},
        {"preferred beats more refresh", Candidate(800, 600, 0, 85), Candidate(800, 600, 1, 60)},
        {"larger area", Candidate(800, 600, 0, 85), Candidate(1024, 768, 0, 60)},
        {"larger area though narrower", Candidate(1024, 600), Candidate(960, 720)},
        {"deeper pixel", Candidate(800, 600, 0, 85, 24), Candidate(800, 600, 0, 60, 32)},
        {"more refresh", Candidate(800, 600, 0, 60), Candidate(800, 600, 0, 75)},
        {"same area, other shape: depth decides", Candidate(1200, 400, 0, 0, 24), Candidate(800, 600, 0, 0, 32)},
        {"same area, other shape: refresh decides", Candidate(800, 600, 0, 60), Candidate(1200, 400, 0, 70)},
    };
    for (const Case& c : cases) {
        EXPECT_TRUE(EfiLoader::IsWorse(c.worse, c.better)) << c.why;
        EXPECT_FALSE(EfiLoader::IsWorse(c.better, c.worse)) << c.why;
    }
    ModeCandidate a = Candidate(800, 600, 0, 60);
    EXPECT_FALSE(EfiLoader::IsWorse(a, a));
}

TEST(VideoModes, BestCandidateIsTheEarliestOfEquals) {
    EXPECT_EQ(EfiLoader::BestCandidate({}), nullptr);
    std::vector<ModeCandidate> candidates = {
        Candidate(800, 600, 0, 60, 32, 0),
        Candidate(1024, 768, 0, 60, 32, 1),
        Candidate(640, 480, 0, 75, 32, 2),
        Candidate(1024, 768, 0, 60, 32, 3),
    };
    ASSERT_NE(EfiLoader::BestCandidate(candidates), nullptr);
    EXPECT_EQ(EfiLoader::BestCandidate(candidates)->mode, 1u);
    candidates[3].refresh = 61;
    EXPECT_EQ(EfiLoader::BestCandidate(candidates)->mode, 3u);
}

TEST(VideoModes, EdidValidity) {
    struct Case {
        const char* why;
        std::vector<std::uint8_t> bytes;
        bool valid;
    };
    std::vector<std::uint8_t> good = EdidBlock().Bytes();
    std::vector<std::uint8_t> longer = good;
    longer.resize(256, 0);  // an extension block behind it does not matter
    std::vector<std::uint8_t> shorter(good.begin(), good.end() - 1);
    const Case cases[] = {
        {"a plain 1.3 block", good, true},
        {"with an extension", longer, true},
        {"127 bytes", shorter, false},
        {"wrong checksum", EdidBlock().Bytes(true), false},
        {"broken header", EdidBlock().Byte(7, 0xFF).Bytes(), false},
        {"version 2", EdidBlock().Byte(18, 2).Bytes(), false},
        {"revision 0", EdidBlock().Byte(19, 0).Bytes(), false},
        {"revision 4", EdidBlock().Byte(19, 4).Bytes(), true},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(EfiLoader::IsValidEdid(c.bytes.data(), c.bytes.size()), c.valid) << c.why;
        EXPECT_EQ(MonitorFilter(c.bytes.data(), c.bytes.size()).HasEdid(), c.valid) << c.why;
    }
    EXPECT_FALSE(EfiLoader::IsValidEdid(nullptr, 128));
}

struct FilterCase {
    const char* why;
    std::vector<std::uint8_t> edid;  // empty: no EDID
    std::uint16_t width;
    std::uint16_t height;
    bool accepted;
    std::uint8_t refresh;
    std::uint8_t preferred;
};

void CheckFilter(const std::vector<FilterCase>& cases) {
    for (const FilterCase& c : cases) {
        MonitorFilter monitor = c.edid.empty() ? MonitorFilter() : MonitorFilter(c.edid.data(), c.edid.size());
        // Both are overwritten when there is a valid EDID, and only then.
        ModeCandidate candidate = Candidate(c.width, c.height, 7, 7);
        std::string what = std::string(c.why) + " " + std::to_string(c.width) + "x" + std::to_string(c.height);
        EXPECT_EQ(monitor.Accept(candidate), c.accepted) << what;
        if (!c.accepted) continue;
        EXPECT_EQ(candidate.refresh, monitor.HasEdid() ? c.refresh : 7) << what;
        EXPECT_EQ(candidate.preferred, monitor.HasEdid() ? c.preferred : 7) << what;
    }
}

TEST(VideoModes, WithoutEdidOnlyFourByThreePasses) {
    std::vector<std::uint8_t> broken = EdidBlock().StandardTiming(0, 1280, 2, 75).Bytes(true);
    CheckFilter({
        {"no EDID", {}, 640, 480, true, 0, 0},
        {"no EDID", {}, 1024, 768, true, 0, 0},
        {"no EDID", {}, 1600, 1200, true, 0, 0},
        {"no EDID", {}, 1280, 1024, false, 0, 0},
        {"no EDID", {}, 1024, 600, false, 0, 0},
        {"no EDID", {}, 1280, 720, false, 0, 0},
        // A block with a bad checksum counts as none: its timings are not read.
        {"broken EDID", broken, 1280, 1024, false, 0, 0},
        {"broken EDID", broken, 800, 600, true, 0, 0},
    });
}

TEST(VideoModes, StandardAndEstablishedTimingsGiveTheRefresh) {
    std::vector<std::uint8_t> standard = EdidBlock()
                                             .StandardTiming(0, 1280, 2, 75)  // 1280x1024, 5:4
                                             .StandardTiming(1, 1024, 1, 70)  // 1024x768, 4:3
                                             .StandardTiming(2, 1024, 1, 85)
                                             .StandardTiming(3, 1440, 0, 60)  // 1440x900, 16:10
                                             .StandardTiming(4, 1920, 3, 60)  // 1920x1080, 16:9
                                             .Bytes();
    std::vector<std::uint8_t> established = EdidBlock().EstablishedTimings(1u << 11 | 1u << 9 | 1u << 0 | 1u << 5).Bytes();
    std::vector<std::uint8_t> both = EdidBlock().EstablishedTimings(1u << 14).StandardTiming(0, 800, 1, 70).Bytes();
    std::vector<std::uint8_t> interlaced_only = EdidBlock().EstablishedTimings(1u << 12).Bytes();
    std::vector<std::uint8_t> wide_established = EdidBlock().EstablishedTimings(1u << 8 | 1u << 6).Bytes();
    CheckFilter({
        {"standard 5:4", standard, 1280, 1024, true, 75, 0},
        {"highest of two standard", standard, 1024, 768, true, 85, 0},
        {"standard 16:10", standard, 1440, 900, true, 60, 0},
        {"standard 16:9", standard, 1920, 1080, true, 60, 0},
        {"not listed, no limits: 4:3 still passes", standard, 800, 600, true, 0, 0},
        {"not listed, no limits", standard, 1280, 720, false, 0, 0},
        {"established, highest of 60 and 75", established, 1024, 768, true, 75, 0},
        {"established 800x600", established, 800, 600, true, 60, 0},
        {"established 640x480", established, 640, 480, true, 60, 0},
        {"established 1280x1024", wide_established, 1280, 1024, true, 75, 0},
        {"established 720x400", wide_established, 720, 400, true, 88, 0},
        {"higher of standard and established", both, 800, 600, true, 75, 0},
        // The interlaced row has rate 0: it doesn't pass by itself, and the
        // 4:3 rule of a monitor without limits lets it through.
        {"interlaced 1024x768", interlaced_only, 1024, 768, true, 0, 0},
    });
}

TEST(VideoModes, UnusedStandardTimingsMatchNothing) {
    // Read as timings, 01 01 would be 256x160 at 61 Hz and 20 20 would be
    // 504x315 at 92 Hz; neither size is 4:3, so only a timing lets them pass.
    std::vector<std::uint8_t> unused = EdidBlock().StandardTiming(0, 0x01, 0x01).StandardTiming(1, 0x20, 0x20).Bytes();
    std::vector<std::uint8_t> used = EdidBlock().StandardTiming(0, 0x01, 0x02).StandardTiming(1, 0x20, 0x21).Bytes();
    CheckFilter({
        {"0x0101", unused, 256, 160, false, 0, 0},
        {"0x2020", unused, 504, 315, false, 0, 0},
        {"0x0000", EdidBlock().StandardTiming(0, 0x00, 0x00).Bytes(), 248, 155, false, 0, 0},
        {"0x0201", used, 256, 160, true, 62, 0},
        {"0x2120", used, 504, 315, true, 93, 0},
    });
}

TEST(VideoModes, DetailedTimingsAndThePreferredMode) {
    std::vector<std::uint8_t> edid = EdidBlock()
                                         .DetailedTiming(0, 1024, 768)
                                         .DetailedTiming(1, 1366, 768)
                                         .DetailedTiming(2, 2560, 1440, 0)  // clock 0: not a timing
                                         .StandardTiming(0, 1024, 1, 75)
                                         .Bytes();
    CheckFilter({
        {"first descriptor", edid, 1024, 768, true, 75, 1},
        {"second descriptor", edid, 1366, 768, true, 0, 0},
        {"descriptor without clock", edid, 2560, 1440, false, 0, 0},
    });
    // Width and height above 255 take their upper nibbles from bytes 4 and 7.
    std::vector<std::uint8_t> large = EdidBlock().DetailedTiming(0, 0xABC, 0x5DE).Bytes();
    CheckFilter({
        {"12-bit sizes", large, 0xABC, 0x5DE, true, 0, 1},
        {"upper nibbles matter", large, 0xBC, 0xDE, false, 0, 0},
    });
}

TEST(VideoModes, MonitorLimitsDecideForModesNotListed) {
    std::vector<std::uint8_t> preferred_size = EdidBlock().DetailedTiming(0, 1280, 1024).PreferredTimingMode(true).Bytes();
    std::vector<std::uint8_t> no_preferred_bit = EdidBlock().DetailedTiming(0, 1280, 1024).Bytes();
    // Range limits: 50-75 Hz, 30-50 kHz, 170 MHz.
    std::vector<std::uint8_t> limits = EdidBlock().RangeLimits(1, 50, 75, 30, 50, 17).Bytes();
    // The same with 80 MHz: the pixel clock now decides.
    std::vector<std::uint8_t> slow_clock = EdidBlock().RangeLimits(2, 50, 75, 30, 50, 8).Bytes();
    std::vector<std::uint8_t> no_min_horizontal = EdidBlock().RangeLimits(0, 50, 75, 0, 50, 17).Bytes();
    std::vector<std::uint8_t> no_min_vertical = EdidBlock().RangeLimits(0, 0, 75, 30, 50, 17).Bytes();
    std::vector<std::uint8_t> crossed_vertical = EdidBlock().RangeLimits(0, 76, 75, 30, 50, 17).Bytes();
    CheckFilter({
        {"inside the preferred size", preferred_size, 1152, 864, true, 0, 0},
        {"as high, narrower", preferred_size, 1024, 1024, true, 0, 0},
        {"wider than the preferred size", preferred_size, 1600, 900, false, 0, 0},
        {"higher than the preferred size", preferred_size, 1024, 1080, false, 0, 0},
        {"without the feature bit: 4:3", no_preferred_bit, 1152, 864, true, 0, 0},
        {"without the feature bit: 4:3", no_preferred_bit, 1024, 600, false, 0, 0},
        // 75 Hz down to 64 Hz put the line rate above 50 kHz; 63 Hz gives
        // 50.19 kHz and a clock of 86 MHz.
        {"estimated", limits, 1024, 768, true, 63, 0},
        {"estimated, not 4:3", limits, 1024, 600, true, 75, 0},
        // 63 to 60 Hz need 86 to 82 MHz; 59 Hz needs 80.4.
        {"estimated with a slow clock", slow_clock, 1024, 768, true, 59, 0},
        {"line rate never low enough", limits, 1280, 1024, false, 0, 0},
        {"no lowest line rate: 4:3", no_min_horizontal, 1024, 768, true, 0, 0},
        {"no lowest line rate: 4:3", no_min_horizontal, 1024, 600, false, 0, 0},
        {"no lowest vertical rate", no_min_vertical, 1024, 768, false, 0, 0},
        {"lowest vertical rate above the highest", crossed_vertical, 1024, 768, false, 0, 0},
    });
}

TEST(VideoModes, TimingEstimateArithmetic) {
    struct Case {
        const char* why;
        std::uint32_t width, height;
        EfiLoader::RangeLimits limits;
        std::uint8_t rate;
    };
    const Case cases[] = {
        {"first rate fits", 1024, 768, {50, 75, 30, 80, 170}, 75},
        {"line rate", 1024, 768, {50, 75, 30, 50, 170}, 63},
        {"line rate rounds 50.19 down to 50", 1024, 768, {50, 63, 50, 50, 170}, 63},
        {"too low a line rate", 1024, 768, {50, 63, 51, 60, 170}, 0},
        {"pixel clock", 1024, 768, {50, 75, 30, 50, 80}, 59},
        // At 5 Hz the blanking is negative; cut to 16 bits it makes the
        // clock 332 MHz, so only 4 Hz (265 MHz) fits under 331.
        {"blanking cut to 16 bits", 1024, 768, {1, 5, 1, 255, 331}, 4},
        {"no vertical range", 1024, 768, {0, 0, 0, 0, 0}, 0},
    };
    for (const Case& c : cases) EXPECT_EQ(EfiLoader::EstimateRefresh(c.width, c.height, c.limits), c.rate) << c.why;
}

}  // namespace
