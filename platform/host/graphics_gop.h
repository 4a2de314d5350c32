#pragma once
// A Graphics Output Protocol over a simulated framebuffer: a list of
// modes, a present mode whose Mode block tells the framebuffer's address
// and size, and a Blt whose fill really paints into the memory.
#include <efi.h>

#include <cstdint>
#include <set>
#include <vector>

#include "platform/host/graphics_framebuffer.h"

namespace HostFirmware {

struct GopModeSpec {
    std::uint32_t width;
    std::uint32_t height;
    std::uint32_t pixels_per_scan_line;
    EFI_GRAPHICS_PIXEL_FORMAT format;
};

class SimulatedGop {
public:
    // Starts in mode `present`; the framebuffer takes that mode's layout.
    SimulatedGop(SimulatedFramebuffer& framebuffer, const std::vector<GopModeSpec>& modes, std::uint32_t present);
    SimulatedGop(const SimulatedGop&) = delete;
    SimulatedGop& operator=(const SimulatedGop&) = delete;

    EFI_GRAPHICS_OUTPUT_PROTOCOL* Protocol() { return &wrapper_.protocol; }
    // The Mode block the protocol points at; tests may break it on purpose.
    EFI_GRAPHICS_OUTPUT_PROTOCOL_MODE& Mode() { return mode_; }
    // What the loader did, and how the stand-in misbehaves.
    std::vector<std::uint32_t> set_mode_calls;
    std::uint32_t query_mode_calls = 0;
    std::uint32_t fills = 0;
    std::set<std::uint32_t> failing_set_modes;    // SetMode answers EFI_DEVICE_ERROR
    std::set<std::uint32_t> failing_query_modes;  // QueryMode answers EFI_DEVICE_ERROR
    bool fail_blt = false;

private:
    struct Wrapper {
        EFI_GRAPHICS_OUTPUT_PROTOCOL protocol;
        SimulatedGop* owner;
    };
    static SimulatedGop& Of(EFI_GRAPHICS_OUTPUT_PROTOCOL* protocol);
    static EFI_STATUS EFIAPI QueryMode(EFI_GRAPHICS_OUTPUT_PROTOCOL* self, UINT32 mode, UINTN* size,
                                       EFI_GRAPHICS_OUTPUT_MODE_INFORMATION** info);
    static EFI_STATUS EFIAPI SetMode(EFI_GRAPHICS_OUTPUT_PROTOCOL* self, UINT32 mode);
    static EFI_STATUS EFIAPI Blt(EFI_GRAPHICS_OUTPUT_PROTOCOL* self, EFI_GRAPHICS_OUTPUT_BLT_PIXEL* buffer,
                                 EFI_GRAPHICS_OUTPUT_BLT_OPERATION operation, UINTN source_x, UINTN source_y,
                                 UINTN destination_x, UINTN destination_y, UINTN width, UINTN height, UINTN delta);
    EFI_GRAPHICS_OUTPUT_MODE_INFORMATION InformationOf(std::uint32_t mode) const;
    // Switches as SetMode does: new layout, black screen.
    bool Switch(std::uint32_t mode);

    SimulatedFramebuffer& framebuffer_;
    std::vector<GopModeSpec> modes_;
    Wrapper wrapper_{};
    EFI_GRAPHICS_OUTPUT_PROTOCOL_MODE mode_{};
    EFI_GRAPHICS_OUTPUT_MODE_INFORMATION info_{};
};

}  // namespace HostFirmware
