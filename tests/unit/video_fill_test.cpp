// Checking a video record, measuring the line length by painting, and the
// whole road from the firmware's protocols to the screen_info bytes.
#include <efi.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "firmware/firmware_access.h"
#include "launch/efi_video.h"
#include "launch/fill_video.h"
#include "launch/video_record.h"
#include "loader/common/error.h"
#include "loader/common/error_codes.h"
#include "platform/host/graphics_stand_ins.h"
#include "platform/host/simulator.h"
#include "tests/support/graphics_machine.h"
#include "tests/support/raised_code.h"

namespace {

using EfiLoader::VideoRecord;
using HostFirmware::FramebufferLayout;
using HostFirmware::PixelOrder;
using HostFirmware::SimulatedFramebuffer;

constexpr EFI_GRAPHICS_PIXEL_FORMAT kBgr = PixelBlueGreenRedReserved8BitPerColor;

using Machine = TestSupport::GraphicsMachine;
using TestSupport::RaisedCode;

// A protocol whose Query answers a fixed record and whose fill paints into a
// simulated framebuffer: the checks and the measurement see real memory.
class ScriptedVideo : public EfiLoader::EfiVideo {
public:
    ScriptedVideo(SimulatedFramebuffer& framebuffer, const VideoRecord& answer) : framebuffer_(framebuffer), answer_(answer) {}
    std::string Name() const override { return "TEST"; }
    void Query(VideoRecord& record) override { record = answer_; }
    void FillRectangle(std::uint32_t x, std::uint32_t y, std::uint32_t width, std::uint32_t height, std::uint8_t red,
                       std::uint8_t green, std::uint8_t blue, std::uint8_t reserved) override {
        ++fills;
        if (!framebuffer_.Fill(x, y, width, height, red, green, blue, reserved)) {
            throw Common::Error(1, Common::VIDEO_NOT_DETECTED);
        }
    }
    int fills = 0;

private:
    SimulatedFramebuffer& framebuffer_;
    VideoRecord answer_;
};

struct Fields {
    std::uint8_t red_size, red_pos, green_size, green_pos, blue_size, blue_pos, rsvd_size, rsvd_pos;
};

VideoRecord RecordOf(std::uint32_t base, std::uint16_t width, std::uint16_t height, std::uint16_t depth, Fields f) {
    VideoRecord record{};
    record.lfb_base = base;
    record.lfb_width = width;
    record.lfb_height = height;
    record.lfb_depth = depth;
    EfiLoader::SetColourFields(record, {f.red_size, f.red_pos}, {f.green_size, f.green_pos}, {f.blue_size, f.blue_pos},
                               {f.rsvd_size, f.rsvd_pos});
    return record;
}

TEST(VideoFill, CheckVideoRulesOfThePixel) {
    struct Case {
        const char* why;
        std::uint16_t depth;
        Fields fields;
        std::uint32_t code;
    };
    const Case cases[] = {
        {"32-bit BGR", 32, {8, 16, 8, 8, 8, 0, 8, 24}, 0},
        {"24-bit, a reserved field of size 0 lies anywhere", 24, {8, 16, 8, 8, 8, 0, 0, 200}, 0},
        {"depth not a multiple of 8", 12, {4, 8, 4, 4, 4, 0, 0, 0}, Common::VIDEO_BAD_PIXEL_FORMAT},
        {"sizes short of the depth", 32, {8, 16, 8, 8, 8, 0, 0, 24}, Common::VIDEO_BAD_FRAMEBUFFER},
        {"sizes beyond the depth", 24, {8, 16, 8, 8, 8, 0, 8, 24}, Common::VIDEO_BAD_FRAMEBUFFER},
        {"red outside the pixel", 24, {8, 20, 8, 8, 8, 0, 0, 0}, Common::VIDEO_BAD_FRAMEBUFFER},
        {"reserved outside the pixel", 32, {8, 16, 8, 8, 8, 0, 8, 28}, Common::VIDEO_BAD_FRAMEBUFFER},
        {"wider than 64 bits", 72, {24, 0, 24, 24, 16, 48, 8, 64}, Common::VIDEO_BAD_PIXEL_FORMAT},
        {"green overlaps red", 32, {8, 0, 8, 4, 8, 16, 8, 24}, Common::VIDEO_BAD_FRAMEBUFFER},
        {"reserved overlaps blue", 32, {8, 0, 8, 8, 8, 16, 8, 16}, Common::VIDEO_BAD_FRAMEBUFFER},
        // A colour of size 0 sends the check looking for the framebuffer on
        // the PCI buses, and this machine has no root bridge.
        {"no green", 32, {8, 16, 0, 8, 8, 0, 16, 24}, Common::EFI_INTERNAL},
    };
    for (const Case& c : cases) {
        Machine machine;
        SimulatedFramebuffer& framebuffer = machine.Graphics().Framebuffer();
        FramebufferLayout layout;
        layout.width = 64;
        layout.height = 4;
        layout.stride = 64;
        layout.bytes_per_pixel = c.depth == 24 ? 3 : 4;
        layout.order = PixelOrder::kBlueFirst;
        ASSERT_TRUE(framebuffer.SetLayout(layout));
        ScriptedVideo video(framebuffer, RecordOf(framebuffer.Base(), 64, 4, c.depth, c.fields));
        VideoRecord record{};
        EXPECT_EQ(EfiLoader::CheckVideo(video, record).Code(), c.code) << c.why;
        if (c.code != 0) {
            EXPECT_EQ(video.fills, 0) << c.why << ": nothing painted before the fields pass";
            continue;
        }
        EXPECT_EQ(record.lfb_linelength, 64 * c.depth / 8) << c.why;
        EXPECT_EQ(record.lfb_size, 4u * 64 * c.depth / 8) << c.why;
        EXPECT_EQ(record.orig_video_isVGA, 0x70) << c.why;
        EXPECT_EQ(record.ext_mem_k, 0x8000) << c.why;
    }
    // Depth and base must be there once the search had its say.
    Machine machine;
    ScriptedVideo zero_base(machine.Graphics().Framebuffer(), RecordOf(0, 64, 4, 32, {8, 16, 8, 8, 8, 0, 8, 24}));
    VideoRecord record{};
    EXPECT_EQ(EfiLoader::CheckVideo(zero_base, record).Code(), Common::EFI_INTERNAL) << "a base of 0 is searched for";
}

TEST(VideoFill, LineLengthMeasuredByPainting) {
    struct Case {
        const char* why;
        std::uint32_t width, height, stride, bytes_per_pixel;
        std::uint32_t told_size;  // lfb_size as the protocol told it; 0 when unknown
        std::uint32_t line_length;
    };
    const Case cases[] = {
        {"800x600, 832 pixels per line", 800, 600, 832, 4, 0, 3328},
        {"no padding", 1024, 768, 1024, 4, 0, 4096},
        {"24-bit", 1024, 768, 1024, 3, 0, 3072},
        {"24-bit with padding", 1000, 10, 1024, 3, 0, 3072},
        {"one line: from the width", 640, 1, 700, 4, 0, 2560},
        {"4096 pixels per line", 4000, 3, 4096, 4, 0, 16384},
        {"more than 4096 pixels per line", 1000, 3, 4100, 4, 0, 0},
        {"wider than 4096", 4097, 2, 4097, 4, 0, 0},
        // The size told by the protocol is no limit: GOP tells the size of
        // the mode before its switch.
        {"a told size too small for the lines", 800, 600, 832, 4, 640 * 480 * 4, 3328},
    };
    for (const Case& c : cases) {
        Machine machine;
        SimulatedFramebuffer& framebuffer = machine.Graphics().Framebuffer();
        FramebufferLayout layout;
        layout.width = c.width;
        layout.height = c.height;
        layout.stride = c.stride;
        layout.bytes_per_pixel = c.bytes_per_pixel;
        ASSERT_TRUE(framebuffer.SetLayout(layout)) << c.why;
        // Stale colour everywhere: the painting must cover what counts.
        framebuffer.Fill(0, 0, c.width, c.height, 0x11, 0x12, 0x13, 0);
        std::uint16_t depth = static_cast<std::uint16_t>(c.bytes_per_pixel * 8);
        VideoRecord record = RecordOf(framebuffer.Base(), static_cast<std::uint16_t>(c.width), static_cast<std::uint16_t>(c.height),
                                      depth, {8, 16, 8, 8, 8, 0, static_cast<std::uint8_t>(depth - 24), 24});
        record.lfb_size = c.told_size;
        record.lfb_linelength = 1;
        ScriptedVideo video(framebuffer, record);
        std::uint32_t code = RaisedCode([&] { EfiLoader::FindLineLength(video, record); });
        if (c.line_length == 0) {
            EXPECT_EQ(code, Common::VIDEO_BAD_FRAMEBUFFER) << c.why;
            continue;
        }
        EXPECT_EQ(code, 0u) << c.why;
        EXPECT_EQ(record.lfb_linelength, c.line_length) << c.why;
        // Black, but for the left column.
        EXPECT_EQ(framebuffer.ColourAt(0, 0), 0x111213u) << c.why;
        EXPECT_EQ(framebuffer.ColourAt(0, c.height - 1), 0x111213u) << c.why;
        EXPECT_EQ(framebuffer.ColourAt(1, 0), 0u) << c.why;
        EXPECT_EQ(framebuffer.ColourAt(c.width - 1, c.height - 1), 0u) << c.why;
    }
}

// ---- the whole road ----

std::uint16_t U16(const std::vector<std::uint8_t>& bytes, std::size_t offset) {
    return static_cast<std::uint16_t>(bytes[offset] | bytes[offset + 1] << 8);
}
std::uint32_t U32(const std::vector<std::uint8_t>& bytes, std::size_t offset) {
    return U16(bytes, offset) | static_cast<std::uint32_t>(U16(bytes, offset + 2)) << 16;
}

struct Screen {
    std::uint16_t width, height, depth;
    std::uint32_t base;
    std::uint16_t line_length;
    std::uint8_t colours[8];  // sizes and positions, red to reserved
};

// The boot parameter block must hold exactly `screen` in its first 64
// bytes and nothing else of ours.
void ExpectScreenInfo(const std::vector<std::uint8_t>& params, const Screen& screen, const char* why) {
    EXPECT_EQ(U16(params, 0x02), 0x8000) << why;
    EXPECT_EQ(params[0x0F], 0x70) << why;
    EXPECT_EQ(U16(params, 0x12), screen.width) << why;
    EXPECT_EQ(U16(params, 0x14), screen.height) << why;
    EXPECT_EQ(U16(params, 0x16), screen.depth) << why;
    EXPECT_EQ(U32(params, 0x18), screen.base) << why;
    EXPECT_EQ(U32(params, 0x1C), std::uint32_t(screen.height) * screen.line_length) << why;
    EXPECT_EQ(U16(params, 0x24), screen.line_length) << why;
    for (int i = 0; i < 8; ++i) EXPECT_EQ(params[0x26 + i], screen.colours[i]) << why << " colour byte " << i;
    // Every other byte of screen_info is 0: ext_mem_k, isVGA, the lfb_
    // fields from width to size, the line length and the colours are ours.
    for (std::size_t offset = 0; offset < 64; ++offset) {
        bool ours = offset == 0x02 || offset == 0x03 || offset == 0x0F || (offset >= 0x12 && offset < 0x20) ||
                    offset == 0x24 || offset == 0x25 || (offset >= 0x26 && offset < 0x2E);
        if (!ours) {
            EXPECT_EQ(params[offset], 0) << why << " offset " << offset;
        }
    }
    for (std::size_t offset = 64; offset < params.size(); ++offset) {
        if (params[offset] != 0xCC) {
            ADD_FAILURE() << why << ": byte " << offset << " behind screen_info changed";
            break;
        }
    }
}

TEST(VideoFill, ScreenInfoFromGop) {
    Machine machine;
    machine.Graphics().InstallGop({{640, 480, 640, kBgr}, {800, 600, 800, kBgr}, {1024, 768, 1088, kBgr}}, 0);
    std::vector<std::uint8_t> params(4096, 0xCC);
    EfiLoader::FillVideo(params.data());
    ExpectScreenInfo(params, {1024, 768, 32, machine.Graphics().Framebuffer().Base(), 4352, {8, 16, 8, 8, 8, 0, 8, 24}}, "GOP");
}

TEST(VideoFill, ScreenInfoFromUga) {
    struct Case {
        const char* why;
        HostFirmware::UgaModeSpec mode;
        bool broken_gop;
        std::uint16_t depth, line_length;
        std::uint8_t colours[8];
    };
    const Case cases[] = {
        {"32-bit BGR", {1024, 768, 32, 60, 4, PixelOrder::kBlueFirst, 0}, false, 32, 4096, {8, 16, 8, 8, 8, 0, 8, 24}},
        {"24-bit RGB with padding", {800, 600, 24, 60, 3, PixelOrder::kRedFirst, 832}, false, 24, 2496, {8, 0, 8, 8, 8, 16, 0, 24}},
        {"after a GOP without framebuffer", {800, 600, 32, 60, 4, PixelOrder::kRedFirst, 0}, true, 32, 3200,
         {8, 0, 8, 8, 8, 16, 8, 24}},
    };
    for (const Case& c : cases) {
        Machine machine;
        if (c.broken_gop) machine.Graphics().InstallGop({{1024, 768, 1024, kBgr}}, 0).Mode().FrameBufferBase = 0;
        machine.Graphics().InstallUga({c.mode}, 0);
        machine.Graphics().InstallDisplayAdapter();
        std::vector<std::uint8_t> params(4096, 0xCC);
        EfiLoader::FillVideo(params.data());
        Screen screen = {static_cast<std::uint16_t>(c.mode.width), static_cast<std::uint16_t>(c.mode.height), c.depth,
                         machine.Graphics().Framebuffer().Base(), c.line_length, {}};
        std::memcpy(screen.colours, c.colours, 8);
        ExpectScreenInfo(params, screen, c.why);
    }
}

TEST(VideoFill, UgaGoesOnWithWhatGopLeftInTheRecord) {
    // GOP describes its framebuffer and then can't paint. The record is not
    // cleared, so UGA's sizes join GOP's address and colours, and no PCI
    // search happens (this machine has no root bridge at all).
    Machine machine;
    machine.Graphics().InstallGop({{1024, 768, 1024, kBgr}}, 0).fail_blt = true;
    machine.Graphics().InstallUga({{800, 600, 32, 60}}, 0);
    std::vector<std::uint8_t> params(4096, 0xCC);
    EfiLoader::FillVideo(params.data());
    ExpectScreenInfo(params, {800, 600, 32, machine.Graphics().Framebuffer().Base(), 3200, {8, 16, 8, 8, 8, 0, 8, 24}},
                     "UGA after GOP");
}

TEST(VideoFill, TheLastProtocolsFailureIsRaised) {
    struct Case {
        const char* why;
        void (*setup)(HostFirmware::GraphicsStandIns&);
        std::uint32_t code;
    };
    const Case cases[] = {
        {"nothing at all", [](HostFirmware::GraphicsStandIns&) {}, Common::VIDEO_NOT_DETECTED},
        {"GOP without framebuffer, no UGA",
         [](HostFirmware::GraphicsStandIns& graphics) { graphics.InstallGop({{800, 600, 800, kBgr}}, 0).Mode().FrameBufferSize = 0; },
         Common::VIDEO_NOT_DETECTED},
        {"GOP without framebuffer, UGA without a PCI bus",
         [](HostFirmware::GraphicsStandIns& graphics) {
             graphics.InstallGop({{800, 600, 800, kBgr}}, 0).Mode().FrameBufferBase = 0;
             graphics.InstallUga({{800, 600, 32, 60}}, 0);
         },
         Common::EFI_INTERNAL},
        {"UGA without a display window",
         [](HostFirmware::GraphicsStandIns& graphics) {
             graphics.InstallUga({{800, 600, 32, 60}}, 0);
             graphics.InstallRootBridge().AddFunction(0, 1, 0, HostFirmware::FunctionHeader(0x1234, 3, {0, 0, 0, 0, 0, 0}));
         },
         Common::VIDEO_NOT_LINEAR},
        {"UGA whose window shows no line",
         [](HostFirmware::GraphicsStandIns& graphics) {
             graphics.InstallUga({{800, 600, 32, 60}}, 0);
             HostFirmware::LowMemory& other = graphics.AddWindow(0x10000);
             graphics.InstallRootBridge().AddFunction(
                 0, 1, 0,
                 HostFirmware::FunctionHeader(0x1234, 3, {HostFirmware::PrefetchableWindow(other.Address()), 0, 0, 0, 0, 0}));
         },
         Common::VIDEO_BAD_PIXEL_FORMAT},
    };
    for (const Case& c : cases) {
        Machine machine;
        c.setup(machine.Graphics());
        std::vector<std::uint8_t> params(4096, 0xCC);
        EXPECT_EQ(RaisedCode([&] { EfiLoader::FillVideo(params.data()); }), c.code) << c.why;
        EXPECT_EQ(params, std::vector<std::uint8_t>(4096, 0xCC)) << c.why << ": the block stays as it was";
    }
}

}  // namespace
