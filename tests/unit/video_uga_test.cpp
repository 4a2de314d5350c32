// The UGA road: mode choice, the PCI walk, the display windows, and the
// search for the painted test line in the windows' memory.
#include <efi.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <set>
#include <vector>

#include "firmware/firmware_access.h"
#include "launch/efi_video.h"
#include "launch/pci_framebuffer.h"
#include "launch/video_pci_scan.h"
#include "launch/video_record.h"
#include "loader/common/error.h"
#include "loader/common/error_codes.h"
#include "platform/host/graphics_stand_ins.h"
#include "platform/host/simulator.h"
#include "tests/support/graphics_machine.h"
#include "tests/support/raised_code.h"

namespace {

using EfiLoader::PciAddress;
using EfiLoader::VideoRecord;
using HostFirmware::FunctionHeader;
using HostFirmware::PixelOrder;
using HostFirmware::PrefetchableWindow;
using HostFirmware::UgaModeSpec;

using Machine = TestSupport::GraphicsMachine;
using TestSupport::RaisedCode;

TEST(VideoUga, ModeChoice) {
    struct Case {
        const char* why;
        std::vector<UgaModeSpec> modes;
        int present;
        bool fail_get_mode;
        std::vector<HostFirmware::UgaModeCall> set_mode_calls;
        std::uint32_t code;
        std::uint16_t width, height, depth;
    };
    const UgaModeSpec m1024 = {1024, 768, 32, 60};
    const UgaModeSpec m800 = {800, 600, 32, 60};
    const UgaModeSpec m800x24 = {800, 600, 24, 60, 3};
    const UgaModeSpec m1280 = {1280, 1024, 32, 60};
    const UgaModeSpec m640 = {640, 480, 32, 60};
    const std::vector<HostFirmware::UgaModeCall> all_three = {{1024, 768, 32, 60}, {800, 600, 32, 60}, {800, 600, 24, 60}};
    const int none = HostFirmware::SimulatedUga::kNoMode;
    const Case cases[] = {
        {"1024 wide is kept", {m1280, m1024}, 1, false, {}, 0, 1024, 768, 32},
        {"800 wide is kept", {m1024, m800}, 1, false, {}, 0, 800, 600, 32},
        {"1280 wide is replaced", {m1280, m1024}, 0, false, {{1024, 768, 32, 60}}, 0, 1024, 768, 32},
        {"640 wide is replaced, down to 24 bits", {m640, m800x24}, 0, false, all_three, 0, 800, 600, 24},
        {"no mode set yet", {m1024, m800}, none, false, {{1024, 768, 32, 60}}, 0, 1024, 768, 32},
        {"no mode to set", {m640}, 0, false, all_three, Common::VIDEO_NOT_DETECTED, 0, 0, 0},
        {"GetMode fails before and after", {m1024}, 0, true, {{1024, 768, 32, 60}}, Common::VIDEO_NOT_DETECTED, 0, 0, 0},
        {"a depth of 0", {{1024, 768, 0, 60}}, 0, false, {}, Common::VIDEO_NOT_DETECTED, 0, 0, 0},
    };
    for (const Case& c : cases) {
        Machine machine;
        HostFirmware::SimulatedUga& uga = machine.Graphics().InstallUga(c.modes, c.present);
        uga.fail_get_mode = c.fail_get_mode;
        EfiLoader::EfiVideoUga video;
        VideoRecord record{};
        record.lfb_base = 0x1234;  // Query tells only the size; the rest stays
        record.red_size = 5;
        EXPECT_EQ(RaisedCode([&] { video.Query(record); }), c.code) << c.why;
        EXPECT_EQ(uga.set_mode_calls, c.set_mode_calls) << c.why;
        if (c.code != 0) continue;
        EXPECT_EQ(record.lfb_width, c.width) << c.why;
        EXPECT_EQ(record.lfb_height, c.height) << c.why;
        EXPECT_EQ(record.lfb_depth, c.depth) << c.why;
        EXPECT_EQ(record.lfb_base, 0x1234u) << c.why;
        EXPECT_EQ(record.red_size, 5) << c.why;
        EXPECT_EQ(record.lfb_linelength, 0) << c.why;
    }
    Machine bare;
    EfiLoader::EfiVideoUga video;
    VideoRecord record{};
    EXPECT_EQ(RaisedCode([&] { video.Query(record); }), Common::VIDEO_NOT_DETECTED) << "no UGA at all";
    EXPECT_EQ(RaisedCode([&] { video.FillRectangle(0, 0, 1, 1, 0, 0, 0, 0); }), Common::VIDEO_NOT_DETECTED);
}

// ---- ACPI resource descriptors ----

std::vector<std::uint8_t> Join(const std::vector<std::vector<std::uint8_t>>& parts) {
    std::vector<std::uint8_t> bytes;
    for (const auto& part : parts) bytes.insert(bytes.end(), part.begin(), part.end());
    return bytes;
}

// A QWORD address space descriptor of `type` with a raw minimum and maximum.
std::vector<std::uint8_t> Qword(std::uint8_t type, std::uint32_t minimum, std::uint32_t maximum) {
    std::vector<std::uint8_t> item(46, 0);
    item[0] = 0x8A;
    item[1] = 43;
    item[3] = type;
    for (int i = 0; i < 4; ++i) {
        item[14 + i] = static_cast<std::uint8_t>(minimum >> (8 * i));
        item[22 + i] = static_cast<std::uint8_t>(maximum >> (8 * i));
    }
    return item;
}

TEST(VideoUga, BusRangesFromResourceDescriptors) {
    struct Case {
        const char* why;
        std::vector<std::uint8_t> bytes;
        std::vector<std::pair<std::uint32_t, std::uint32_t>> ranges;
    };
    const std::vector<std::uint8_t> end = {0x79, 0};
    const std::vector<std::uint8_t> io_port = {0x47, 1, 0xF8, 0x0C, 0xF8, 0x0C, 1, 8};   // small item, 8 bytes
    const std::vector<std::uint8_t> dword_memory = Join({{0x87, 0x17, 0}, std::vector<std::uint8_t>(0x17, 0xFF)});
    const Case cases[] = {
        {"nothing", end, {}},
        {"one range", Join({Qword(2, 0, 0x3F), end}), {{0, 0x3F}}},
        {"two ranges", Join({Qword(2, 0, 0), Qword(2, 0x80, 0x81), end}), {{0, 0}, {0x80, 0x81}}},
        {"memory and I/O windows are passed over", Join({Qword(0, 5, 6), Qword(1, 7, 8), Qword(2, 9, 9), end}), {{9, 9}}},
        {"small and other large items are stepped over", Join({io_port, dword_memory, Qword(2, 3, 4), end}), {{3, 4}}},
        {"minimum above maximum", Join({Qword(2, 5, 4), Qword(2, 6, 6), end}), {{6, 6}}},
        {"bus numbers end at 255", Join({Qword(2, 0xF0, 0x1FF), Qword(2, 0x100, 0x1FF), end}), {{0xF0, 0xFF}}},
        {"only the low 32 bits count", Join({[] {
                                                 auto item = Qword(2, 1, 2);
                                                 item[18] = 0x55;  // upper half of the minimum
                                                 return item;
                                             }(),
                                             end}),
         {{1, 2}}},
    };
    for (const Case& c : cases) {
        std::vector<EfiLoader::PciBusRange> got = EfiLoader::BusRangesOf(c.bytes.data());
        std::vector<std::pair<std::uint32_t, std::uint32_t>> pairs;
        for (const auto& range : got) pairs.emplace_back(range.first, range.last);
        EXPECT_EQ(pairs, c.ranges) << c.why;
    }
    // A list without an end is not followed into the unknown.
    std::vector<std::uint8_t> endless;
    while (endless.size() < 0x11000) endless.insert(endless.end(), io_port.begin(), io_port.end());
    EXPECT_EQ(RaisedCode([&] { EfiLoader::BusRangesOf(endless.data()); }), Common::EFI_INTERNAL);
}

// ---- the PCI walk ----

std::set<std::uint32_t> KeysOf(const EfiLoader::PciDeviceTable& table) {
    std::set<std::uint32_t> keys;
    for (const auto& entry : table) keys.insert(entry.first);
    return keys;
}

TEST(VideoUga, PciWalkOverBusesDevicesAndFunctions) {
    Machine machine;
    HostFirmware::SimulatedRootBridge& bridge = machine.Graphics().InstallRootBridge();
    bridge.resources = HostFirmware::BusRangeDescriptors({{0, 0}, {2, 3}});
    const std::array<std::uint32_t, 6> none = {0, 0, 0, 0, 0, 0};
    bridge.AddFunction(0, 0, 0, FunctionHeader(0x8086, 6, none));
    bridge.AddFunction(0, 0, 1, FunctionHeader(0x8086, 6, none));  // not multi-function: never asked
    bridge.AddFunction(0, 2, 0, FunctionHeader(0x1234, 3, {PrefetchableWindow(0xC0000000), 0, 0, 0, 0, 0}, true));
    bridge.AddFunction(0, 2, 1, FunctionHeader(0x1234, 4, none));
    bridge.AddFunction(0, 2, 5, FunctionHeader(0x1234, 4, none));  // functions 2 to 4 missing
    bridge.AddFunction(0, 31, 0, FunctionHeader(0x8086, 1, none));
    bridge.AddFunction(1, 0, 0, FunctionHeader(0x10DE, 3, none));   // bus 1 is not the bridge's
    bridge.AddFunction(3, 4, 0, FunctionHeader(0x10DE, 3, none));
    bridge.AddFunction(2, 5, 0, FunctionHeader(0x10DE, 2, none));
    bridge.failing_functions.insert(PciAddress(2, 5, 0));
    bridge.AddFunction(2, 6, 0, FunctionHeader(0x10DE, 2, none, true));
    bridge.AddFunction(2, 6, 1, FunctionHeader(0x10DE, 2, none));
    bridge.failing_header_reads.insert(PciAddress(2, 6, 0));  // header unreadable: no device, no functions

    // A second bridge with unknown bus ranges: every bus is walked.
    HostFirmware::SimulatedRootBridge& second = machine.Graphics().InstallRootBridge();
    second.configuration_status = EFI_UNSUPPORTED;
    second.AddFunction(200, 7, 0, FunctionHeader(0x1AF4, 3, none));

    EfiLoader::PciDeviceTable table = EfiLoader::ScanPciDevices();
    const std::set<std::uint32_t> expected = {PciAddress(0, 0, 0), PciAddress(0, 2, 0),  PciAddress(0, 2, 1),
                                              PciAddress(0, 2, 5), PciAddress(0, 31, 0), PciAddress(3, 4, 0),
                                              PciAddress(200, 7, 0)};
    EXPECT_EQ(KeysOf(table), expected);
    EXPECT_EQ(table[PciAddress(0, 2, 0)][0x0B], 3);
    EXPECT_EQ(table[PciAddress(0, 2, 0)][0x13], 0xC0);
    EXPECT_EQ(table[PciAddress(0, 2, 5)][0x0B], 4);
    EXPECT_EQ(table[PciAddress(200, 7, 0)][0], 0xF4);
    // A vendor read per device of the three buses, five header reads (one
    // fails), and for the multi-function device seven vendor reads and two
    // header reads; on the second bridge every device of every bus.
    EXPECT_EQ(bridge.reads.size(), 3u * 32 + 5 + 7 + 2);
    EXPECT_EQ(second.reads.size(), 256u * 32 + 1);
}

TEST(VideoUga, PciWalkFailures) {
    struct Case {
        const char* why;
        void (*setup)(HostFirmware::GraphicsStandIns&);
        std::uint32_t code;
    };
    const Case cases[] = {
        {"no root bridge", [](HostFirmware::GraphicsStandIns&) {}, Common::EFI_INTERNAL},
        {"Configuration fails",
         [](HostFirmware::GraphicsStandIns& graphics) { graphics.InstallRootBridge().configuration_status = EFI_DEVICE_ERROR; },
         Common::EFI_INTERNAL},
        {"Configuration gives nothing",
         [](HostFirmware::GraphicsStandIns& graphics) { graphics.InstallRootBridge().null_resources = true; }, Common::EFI_INTERNAL},
        {"an empty bridge", [](HostFirmware::GraphicsStandIns& graphics) { graphics.InstallRootBridge(); }, 0},
    };
    for (const Case& c : cases) {
        Machine machine;
        c.setup(machine.Graphics());
        EXPECT_EQ(RaisedCode([] { EfiLoader::ScanPciDevices(); }), c.code) << c.why;
    }
    Machine machine;
    machine.Graphics().InstallRootBridge();
    // The handle is there, but its protocol entry has no interface.
    EFI_GUID guid = EFI_PCI_ROOT_BRIDGE_IO_PROTOCOL_GUID;
    EFI_HANDLE handle = machine.simulator.Handles().HandlesWith(&guid).front();
    machine.simulator.Handles().Find(handle, guid)->interface = nullptr;
    EXPECT_EQ(RaisedCode([] { EfiLoader::ScanPciDevices(); }), Common::EFI_INTERNAL) << "no interface";
}

// ---- display windows ----

TEST(VideoUga, DisplayWindowsOfPrefetchableMemory) {
    struct Case {
        const char* why;
        std::uint8_t class_code;
        std::array<std::uint32_t, 6> bars;
        std::set<std::uint32_t> windows;
    };
    const Case cases[] = {
        {"32-bit prefetchable", 3, {0xE0000008, 0, 0, 0, 0, 0}, {0xE0000000}},
        {"the legacy type is a 32-bit window", 3, {0xE000000A, 0, 0, 0, 0, 0}, {0xE0000000}},
        {"not prefetchable", 3, {0xE0000000, 0, 0, 0, 0, 0}, {}},
        {"I/O", 3, {0x0000C009, 0, 0, 0, 0, 0}, {}},
        {"not a display controller", 2, {0xE0000008, 0, 0, 0, 0, 0}, {}},
        {"every register", 3, {0xA0000008, 0xB0000000, 0xC0000008, 0xD0000008, 0xE0000008, 0xF0000008},
         {0xA0000000, 0xC0000000, 0xD0000000, 0xE0000000, 0xF0000000}},
        {"64-bit below 4 GiB, then what follows its upper half", 3, {0xC000000C, 0, 0xA0000008, 0, 0, 0},
         {0xC0000000, 0xA0000000}},
        {"64-bit above 4 GiB: both halves skipped", 3, {0xC000000C, 0x90000008, 0xA0000008, 0, 0, 0}, {0xA0000000}},
        {"64-bit in the sixth register ends the device", 3, {0xA0000008, 0, 0, 0, 0, 0xC000000C}, {0xA0000000}},
        {"an unassigned window", 3, {0x00000008, 0, 0, 0, 0, 0}, {}},
    };
    for (const Case& c : cases) {
        EfiLoader::PciDeviceTable table;
        HostFirmware::PciConfigSpace space = FunctionHeader(0x1234, c.class_code, c.bars);
        std::copy(space.begin(), space.begin() + 64, table[PciAddress(0, 1, 0)].begin());
        EXPECT_EQ(EfiLoader::DisplayWindows(table), c.windows) << c.why;
    }
    // Windows of several devices come in one ordered set.
    EfiLoader::PciDeviceTable table;
    for (std::uint32_t device = 1; device <= 3; ++device) {
        HostFirmware::PciConfigSpace space = FunctionHeader(0x1234, 3, {PrefetchableWindow(0xF0000000 - device * 0x10000000),
                                                                         PrefetchableWindow(0xD0000000), 0, 0, 0, 0});
        std::copy(space.begin(), space.begin() + 64, table[PciAddress(0, device, 0)].begin());
    }
    EXPECT_EQ(EfiLoader::DisplayWindows(table), (std::set<std::uint32_t>{0xC0000000, 0xD0000000, 0xE0000000}));
}

// ---- finding the framebuffer ----

TEST(VideoUga, FramebufferFoundByItsPaintedLine) {
    struct Case {
        const char* why;
        std::uint32_t bytes_per_pixel;
        PixelOrder order;
        std::uint16_t depth;
        std::uint8_t red_pos, blue_pos, rsvd_size;
    };
    const Case cases[] = {
        {"24-bit RGB", 3, PixelOrder::kRedFirst, 24, 0, 16, 0},
        {"24-bit BGR", 3, PixelOrder::kBlueFirst, 24, 16, 0, 0},
        {"32-bit RGB", 4, PixelOrder::kRedFirst, 32, 0, 16, 8},
        {"32-bit BGR", 4, PixelOrder::kBlueFirst, 32, 16, 0, 8},
    };
    for (const Case& c : cases) {
        Machine machine;
        HostFirmware::GraphicsStandIns& graphics = machine.Graphics();
        UgaModeSpec mode = {1024, 768, 32, 60, c.bytes_per_pixel, c.order};
        graphics.InstallUga({mode}, 0);
        graphics.InstallDisplayAdapter();
        EfiLoader::EfiVideoUga video;
        VideoRecord record{};
        record.lfb_width = 1024;
        record.lfb_height = 768;
        record.lfb_depth = 32;
        EfiLoader::DetectFramebuffer(video, record);
        EXPECT_EQ(record.lfb_base, graphics.Framebuffer().Base()) << c.why;
        EXPECT_EQ(record.lfb_depth, c.depth) << c.why;
        EXPECT_EQ(record.red_size, 8) << c.why;
        EXPECT_EQ(record.green_size, 8) << c.why;
        EXPECT_EQ(record.blue_size, 8) << c.why;
        EXPECT_EQ(record.red_pos, c.red_pos) << c.why;
        EXPECT_EQ(record.green_pos, 8) << c.why;
        EXPECT_EQ(record.blue_pos, c.blue_pos) << c.why;
        EXPECT_EQ(record.rsvd_size, c.rsvd_size) << c.why;
        EXPECT_EQ(record.rsvd_pos, 24) << c.why;
        // The screen is black but for the top line.
        EXPECT_EQ(graphics.Framebuffer().ColourAt(0, 0), 0x111213u) << c.why;
        EXPECT_EQ(graphics.Framebuffer().ColourAt(1023, 0), 0x111213u) << c.why;
        EXPECT_EQ(graphics.Framebuffer().ColourAt(0, 1), 0u) << c.why;
    }
}

// Writes `pixels` pixels of the test colour in a layout straight into memory.
void WriteLine(std::uint8_t* bytes, std::uint32_t pixels, std::uint32_t bytes_per_pixel, bool red_first) {
    for (std::uint32_t i = 0; i < pixels; ++i) {
        std::uint8_t* pixel = bytes + i * bytes_per_pixel;
        pixel[0] = red_first ? 0x11 : 0x13;
        pixel[1] = 0x12;
        pixel[2] = red_first ? 0x13 : 0x11;
        if (bytes_per_pixel == 4) pixel[3] = 0x77;
    }
}

TEST(VideoUga, TheLowestMatchingWindowWinsAnd24BitsIsTriedFirst) {
    Machine machine;
    HostFirmware::GraphicsStandIns& graphics = machine.Graphics();
    graphics.InstallUga({{803, 600, 32, 60}}, 0);
    HostFirmware::LowMemory& one = graphics.AddWindow(0x10000);
    HostFirmware::LowMemory& two = graphics.AddWindow(0x10000);
    HostFirmware::LowMemory& low = one.Address() < two.Address() ? one : two;
    HostFirmware::LowMemory& high = one.Address() < two.Address() ? two : one;
    // The adapter's own framebuffer is no window here: what the memory
    // shows decides, not what the protocol painted.
    WriteLine(low.Bytes(), 800, 3, false);
    WriteLine(high.Bytes(), 800, 4, true);
    HostFirmware::SimulatedRootBridge& bridge = graphics.InstallRootBridge();
    bridge.AddFunction(0, 3, 0, FunctionHeader(0x1234, 3, {PrefetchableWindow(high.Address()), 0, 0, 0, 0, 0}));
    bridge.AddFunction(0, 4, 0, FunctionHeader(0x1234, 3, {PrefetchableWindow(low.Address()), 0, 0, 0, 0, 0}));

    EfiLoader::EfiVideoUga video;
    VideoRecord record{};
    record.lfb_width = 800;
    record.lfb_height = 600;
    EfiLoader::DetectFramebuffer(video, record);
    EXPECT_EQ(record.lfb_base, low.Address());
    EXPECT_EQ(record.lfb_depth, 24);
    EXPECT_EQ(record.red_pos, 16);

    // With the 24-bit line broken in its last group, the 32-bit window is next.
    low.Bytes()[800 * 3 - 1] = 0;
    EfiLoader::DetectFramebuffer(video, record);
    EXPECT_EQ(record.lfb_base, high.Address());
    EXPECT_EQ(record.lfb_depth, 32);
    EXPECT_EQ(record.red_pos, 0);
    EXPECT_EQ(record.rsvd_size, 8);

    // A 24-bit line is compared in whole groups of four pixels: at 803
    // pixels wide the last three are not looked at, a 32-bit line would be.
    low.Bytes()[800 * 3 - 1] = 0x11;
    record.lfb_width = 803;
    EfiLoader::DetectFramebuffer(video, record);
    EXPECT_EQ(record.lfb_base, low.Address());
    EXPECT_EQ(record.lfb_depth, 24);
}

TEST(VideoUga, DetectionFailures) {
    const std::array<std::uint32_t, 6> none = {0, 0, 0, 0, 0, 0};
    {
        Machine machine;
        machine.Graphics().InstallUga({{800, 600, 32, 60}}, 0);
        machine.Graphics().InstallRootBridge().AddFunction(0, 1, 0, FunctionHeader(0x1234, 3, none));
        EfiLoader::EfiVideoUga video;
        VideoRecord record{};
        record.lfb_width = 800;
        record.lfb_height = 600;
        EXPECT_EQ(RaisedCode([&] { EfiLoader::DetectFramebuffer(video, record); }), Common::VIDEO_NOT_LINEAR) << "no window";
        EXPECT_EQ(machine.Graphics().Framebuffer().ColourAt(0, 0), 0u) << "nothing painted without a window";
    }
    {
        Machine machine;
        machine.Graphics().InstallUga({{800, 600, 32, 60}}, 0);
        HostFirmware::LowMemory& window = machine.Graphics().AddWindow(0x10000);
        machine.Graphics().InstallRootBridge().AddFunction(
            0, 1, 0, FunctionHeader(0x1234, 3, {PrefetchableWindow(window.Address()), 0, 0, 0, 0, 0}));
        EfiLoader::EfiVideoUga video;
        VideoRecord record{};
        record.lfb_width = 800;
        record.lfb_height = 600;
        EXPECT_EQ(RaisedCode([&] { EfiLoader::DetectFramebuffer(video, record); }), Common::VIDEO_BAD_PIXEL_FORMAT)
            << "the line shows nowhere";
        EXPECT_EQ(record.lfb_base, 0u);
    }
    {
        // Narrower than one group of four pixels, the 24-bit RGB pattern
        // has nothing to compare and matches whatever the memory holds.
        Machine machine;
        machine.Graphics().InstallUga({{3, 2, 32, 60}}, 0);
        machine.Graphics().InstallDisplayAdapter();
        EfiLoader::EfiVideoUga video;
        VideoRecord record{};
        record.lfb_width = 3;
        record.lfb_height = 2;
        EfiLoader::DetectFramebuffer(video, record);
        EXPECT_EQ(record.lfb_base, machine.Graphics().Framebuffer().Base());
        EXPECT_EQ(record.lfb_depth, 24);
        EXPECT_EQ(record.red_pos, 0);
    }
}

}  // namespace
