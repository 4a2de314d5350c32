// The Graphics Output road: mode choice with and without an EDID, the
// present mode, and the protocol's failures, against the simulator's GOP.
#include <efi.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <set>
#include <vector>

#include "firmware/firmware_access.h"
#include "launch/efi_video.h"
#include "launch/video_record.h"
#include "loader/common/error.h"
#include "loader/common/error_codes.h"
#include "platform/host/graphics_stand_ins.h"
#include "platform/host/simulator.h"
#include "tests/support/graphics_machine.h"
#include "tests/support/raised_code.h"

namespace {

using EfiLoader::VideoRecord;
using HostFirmware::EdidBlock;
using HostFirmware::GopModeSpec;

constexpr EFI_GRAPHICS_PIXEL_FORMAT kRgb = PixelRedGreenBlueReserved8BitPerColor;
constexpr EFI_GRAPHICS_PIXEL_FORMAT kBgr = PixelBlueGreenRedReserved8BitPerColor;

using Machine = TestSupport::GraphicsMachine;
using TestSupport::RaisedCode;

// What Query must tell of a 32-bit mode, built from the mode's description.
VideoRecord ExpectedRecord(const GopModeSpec& mode, std::uint32_t base, std::uint32_t size) {
    VideoRecord record{};
    record.lfb_width = static_cast<std::uint16_t>(mode.width);
    record.lfb_height = static_cast<std::uint16_t>(mode.height);
    record.lfb_depth = 32;
    record.lfb_base = base;
    record.lfb_size = size;
    record.lfb_linelength = static_cast<std::uint16_t>(4 * mode.pixels_per_scan_line);
    record.red_size = record.green_size = record.blue_size = record.rsvd_size = 8;
    record.red_pos = mode.format == kRgb ? 0 : 16;
    record.green_pos = 8;
    record.blue_pos = mode.format == kRgb ? 16 : 0;
    record.rsvd_pos = 24;
    return record;
}

void ExpectSameRecord(const VideoRecord& got, const VideoRecord& expected, const char* why) {
    EXPECT_EQ(got.lfb_width, expected.lfb_width) << why;
    EXPECT_EQ(got.lfb_height, expected.lfb_height) << why;
    EXPECT_EQ(got.lfb_depth, expected.lfb_depth) << why;
    EXPECT_EQ(got.lfb_base, expected.lfb_base) << why;
    EXPECT_EQ(got.lfb_size, expected.lfb_size) << why;
    EXPECT_EQ(got.lfb_linelength, expected.lfb_linelength) << why;
    EXPECT_EQ(got.red_pos, expected.red_pos) << why;
    EXPECT_EQ(got.blue_pos, expected.blue_pos) << why;
    // Everything else, the colour sizes included, byte for byte.
    EXPECT_EQ(std::memcmp(&got, &expected, sizeof(got)), 0) << why;
}

TEST(VideoGop, ModeChoice) {
    struct Case {
        const char* why;
        std::vector<GopModeSpec> modes;
        std::uint32_t present;
        std::vector<std::uint8_t> edid;  // empty: no EDID protocol
        std::set<std::uint32_t> failing_set_modes;
        std::set<std::uint32_t> failing_query_modes;
        std::uint32_t chosen;
        std::vector<std::uint32_t> set_mode_calls;
    };
    const std::vector<GopModeSpec> mixed = {
        {640, 480, 640, kBgr},   {800, 600, 800, kBgr},    {1024, 768, 1056, kBgr},
        {1280, 1024, 1280, kBgr}, {1024, 600, 1024, kBgr}, {1280, 960, 1280, kBgr},
    };
    const std::vector<GopModeSpec> three = {{1024, 768, 1024, kRgb}, {800, 600, 832, kRgb}, {640, 480, 640, kRgb}};
    const Case cases[] = {
        {"no EDID: the largest 4:3 mode up to 1024 wide", mixed, 0, {}, {}, {}, 2, {2}},
        {"first detailed timing beats more area and refresh", three, 2,
         EdidBlock().DetailedTiming(0, 800, 600).StandardTiming(0, 1024, 1, 85).Bytes(), {}, {}, 1, {1}},
        {"first detailed timing 1024x768", three, 2,
         EdidBlock().DetailedTiming(0, 1024, 768).EstablishedTimings(1u << 14 | 1u << 2).Bytes(), {}, {}, 0, {0}},
        {"1280x1024 that the EDID lists is still too wide", mixed, 0,
         EdidBlock().DetailedTiming(0, 1280, 1024).StandardTiming(0, 1024, 1, 60).Bytes(), {}, {}, 2, {2}},
        {"the best is the present mode: no SetMode", three, 0, {}, {}, {}, 0, {}},
        {"SetMode fails: the present mode stays", three, 2, {}, {0}, {}, 2, {0}},
        {"a failing QueryMode drops the mode", three, 2, {}, {}, {0}, 1, {1}},
        {"formats other than 32-bit RGB or BGR are not candidates",
         {{800, 600, 800, kBgr}, {1024, 768, 1024, PixelBitMask}, {1024, 768, 1024, PixelBltOnly}}, 0, {}, {}, {}, 0, {}},
    };
    for (const Case& c : cases) {
        Machine machine;
        HostFirmware::SimulatedGop& gop = machine.Graphics().InstallGop(c.modes, c.present);
        gop.failing_set_modes = c.failing_set_modes;
        gop.failing_query_modes = c.failing_query_modes;
        if (!c.edid.empty()) machine.Graphics().InstallEdid(c.edid);
        std::uint64_t size_before = gop.Mode().FrameBufferSize;
        std::size_t pool_before = machine.simulator.LivePoolBlocks();

        EfiLoader::EfiVideoGop video;
        VideoRecord record{};
        video.Query(record);

        EXPECT_EQ(gop.set_mode_calls, c.set_mode_calls) << c.why;
        EXPECT_EQ(gop.Mode().Mode, c.chosen) << c.why;
        EXPECT_EQ(gop.query_mode_calls, c.modes.size()) << c.why;
        // The size is the framebuffer's as the firmware told it when asked.
        ExpectSameRecord(record, ExpectedRecord(c.modes[c.chosen], machine.Graphics().Framebuffer().Base(), size_before), c.why);
        EXPECT_EQ(machine.simulator.LivePoolBlocks(), pool_before) << c.why << ": every mode information block is freed";
    }
}

TEST(VideoGop, WithoutModesThePresentModeIsDescribed) {
    Machine machine;
    const GopModeSpec mode = {800, 600, 832, kRgb};
    HostFirmware::SimulatedGop& gop = machine.Graphics().InstallGop({mode, {1024, 768, 1024, kRgb}}, 0);
    gop.Mode().MaxMode = 0;
    EfiLoader::EfiVideoGop video;
    VideoRecord record{};
    std::memset(&record, 0xEE, sizeof(record));  // the present mode's record leaves nothing behind
    video.Query(record);
    EXPECT_EQ(gop.query_mode_calls, 0u);
    EXPECT_TRUE(gop.set_mode_calls.empty());
    ExpectSameRecord(record, ExpectedRecord(mode, machine.Graphics().Framebuffer().Base(), 832 * 600 * 4), "MaxMode 0");
}

TEST(VideoGop, TheEdidIsAskedOnceAndRemembered) {
    Machine machine;
    const std::vector<GopModeSpec> modes = {{800, 600, 800, kBgr}, {1024, 600, 1024, kBgr}};
    HostFirmware::SimulatedGop& gop = machine.Graphics().InstallGop(modes, 0);
    EfiLoader::EfiVideoGop video;
    VideoRecord record{};
    video.Query(record);
    EXPECT_EQ(record.lfb_width, 800);

    // A monitor that wants 1024x600 appears; the same object doesn't ask again.
    machine.Graphics().InstallEdid(EdidBlock().DetailedTiming(0, 1024, 600).Bytes());
    video.Query(record);
    EXPECT_EQ(record.lfb_width, 800);
    EXPECT_TRUE(gop.set_mode_calls.empty());

    EfiLoader::EfiVideoGop fresh;
    fresh.Query(record);
    EXPECT_EQ(record.lfb_width, 1024);
    EXPECT_EQ(record.lfb_height, 600);
    EXPECT_EQ(gop.set_mode_calls, std::vector<std::uint32_t>{1});
}

TEST(VideoGop, QueryFailures) {
    using Gop = HostFirmware::SimulatedGop;
    struct Case {
        const char* why;
        void (*damage)(Gop&);
        std::uint32_t code;
    };
    const Case cases[] = {
        {"no Mode block", [](Gop& gop) { gop.Protocol()->Mode = nullptr; }, Common::VIDEO_NOT_DETECTED},
        {"no framebuffer address", [](Gop& gop) { gop.Mode().FrameBufferBase = 0; }, Common::VIDEO_NOT_LINEAR},
        {"no framebuffer size", [](Gop& gop) { gop.Mode().FrameBufferSize = 0; }, Common::VIDEO_NOT_LINEAR},
        {"framebuffer ends at 4 GiB",
         [](Gop& gop) {
             gop.Mode().FrameBufferBase = 0xFFFFF000;
             gop.Mode().FrameBufferSize = 0xFFF;
         },
         0},
        {"framebuffer passes 4 GiB",
         [](Gop& gop) {
             gop.Mode().FrameBufferBase = 0xFFFFF000;
             gop.Mode().FrameBufferSize = 0x1000;
         },
         Common::VIDEO_BAD_FRAMEBUFFER},
        {"framebuffer above 4 GiB", [](Gop& gop) { gop.Mode().FrameBufferBase = 0x100000000; }, Common::VIDEO_BAD_FRAMEBUFFER},
        {"present mode of another format",
         [](Gop& gop) {
             gop.Mode().MaxMode = 0;
             gop.Mode().Info->PixelFormat = PixelBitMask;
         },
         Common::VIDEO_BAD_PIXEL_FORMAT},
        {"present mode without information",
         [](Gop& gop) {
             gop.Mode().MaxMode = 0;
             gop.Mode().Info = nullptr;
         },
         Common::VIDEO_NOT_DETECTED},
        {"present mode wider than a record can tell",
         [](Gop& gop) {
             gop.Mode().MaxMode = 0;
             gop.Mode().Info->HorizontalResolution = 0x10000;
         },
         Common::VIDEO_BAD_FRAMEBUFFER},
    };
    for (const Case& c : cases) {
        Machine machine;
        Gop& gop = machine.Graphics().InstallGop({{1024, 768, 1024, kBgr}}, 0);
        c.damage(gop);
        EfiLoader::EfiVideoGop video;
        VideoRecord record{};
        EXPECT_EQ(RaisedCode([&] { video.Query(record); }), c.code) << c.why;
    }
    Machine bare;
    EfiLoader::EfiVideoGop video;
    VideoRecord record{};
    EXPECT_EQ(RaisedCode([&] { video.Query(record); }), Common::VIDEO_NOT_DETECTED) << "no GOP at all";
    EXPECT_EQ(RaisedCode([&] { video.FillRectangle(0, 0, 1, 1, 0, 0, 0, 0); }), Common::VIDEO_NOT_DETECTED);
}

TEST(VideoGop, FillRectanglePaintsThroughBlt) {
    Machine machine;
    HostFirmware::SimulatedGop& gop = machine.Graphics().InstallGop({{640, 480, 704, kRgb}}, 0);
    HostFirmware::SimulatedFramebuffer& framebuffer = machine.Graphics().Framebuffer();
    EfiLoader::EfiVideoGop video;
    video.FillRectangle(10, 20, 30, 2, 0x11, 0x22, 0x33, 0x44);
    EXPECT_EQ(framebuffer.ColourAt(10, 20), 0x112233u);
    EXPECT_EQ(framebuffer.ColourAt(39, 21), 0x112233u);
    EXPECT_EQ(framebuffer.ColourAt(40, 20), 0u);
    EXPECT_EQ(framebuffer.ColourAt(10, 22), 0u);
    EXPECT_EQ(framebuffer.ColourAt(9, 21), 0u);
    // Red first in memory for this format, and the reserved byte as given.
    const std::uint8_t* pixel = framebuffer.Bytes() + (21 * 704 + 10) * 4;
    EXPECT_EQ(pixel[0], 0x11);
    EXPECT_EQ(pixel[1], 0x22);
    EXPECT_EQ(pixel[2], 0x33);
    EXPECT_EQ(pixel[3], 0x44);

    EXPECT_EQ(RaisedCode([&] { video.FillRectangle(630, 0, 11, 1, 1, 1, 1, 0); }), Common::VIDEO_NOT_DETECTED)
        << "a rectangle the firmware refuses";
    gop.fail_blt = true;
    EXPECT_EQ(RaisedCode([&] { video.FillRectangle(0, 0, 1, 1, 1, 1, 1, 0); }), Common::VIDEO_NOT_DETECTED);
}

}  // namespace
