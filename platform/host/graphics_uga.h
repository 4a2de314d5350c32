#pragma once
// A UGA Draw protocol over a simulated framebuffer: modes that SetMode
// accepts, GetMode of the present one, and a Blt whose fill paints into
// the memory in the mode's pixel layout. UGA tells no framebuffer address:
// the loader has to find the memory through the PCI windows.
#include <cstdint>
#include <vector>

#include "launch/video_protocols.h"
#include "platform/host/graphics_framebuffer.h"

namespace HostFirmware {

struct UgaModeSpec {
    std::uint32_t width;
    std::uint32_t height;
    std::uint32_t depth;
    std::uint32_t refresh;
    std::uint32_t bytes_per_pixel = 4;        // how the adapter stores a pixel, whatever the depth says
    PixelOrder order = PixelOrder::kBlueFirst;
    std::uint32_t stride = 0;                 // pixels per line; 0 for the width
};

struct UgaModeCall {
    std::uint32_t width, height, depth, refresh;
};

inline bool operator==(const UgaModeCall& a, const UgaModeCall& b) {
    return a.width == b.width && a.height == b.height && a.depth == b.depth && a.refresh == b.refresh;
}

class SimulatedUga {
public:
    static constexpr int kNoMode = -1;

    // Starts in mode `present`, or with no mode set (GetMode then fails).
    SimulatedUga(SimulatedFramebuffer& framebuffer, const std::vector<UgaModeSpec>& modes, int present);
    SimulatedUga(const SimulatedUga&) = delete;
    SimulatedUga& operator=(const SimulatedUga&) = delete;

    EfiLoader::EFI_UGA_DRAW_PROTOCOL* Protocol() { return &wrapper_.protocol; }

    std::vector<UgaModeCall> set_mode_calls;
    std::uint32_t get_mode_calls = 0;
    std::uint32_t fills = 0;
    bool fail_get_mode = false;
    bool fail_blt = false;

private:
    struct Wrapper {
        EfiLoader::EFI_UGA_DRAW_PROTOCOL protocol;
        SimulatedUga* owner;
    };
    static SimulatedUga& Of(EfiLoader::EFI_UGA_DRAW_PROTOCOL* protocol);
    static EFI_STATUS EFIAPI GetMode(EfiLoader::EFI_UGA_DRAW_PROTOCOL* self, UINT32* width, UINT32* height, UINT32* depth,
                                     UINT32* refresh);
    static EFI_STATUS EFIAPI SetMode(EfiLoader::EFI_UGA_DRAW_PROTOCOL* self, UINT32 width, UINT32 height, UINT32 depth,
                                     UINT32 refresh);
    static EFI_STATUS EFIAPI Blt(EfiLoader::EFI_UGA_DRAW_PROTOCOL* self, EfiLoader::EFI_UGA_PIXEL* buffer,
                                 EfiLoader::EFI_UGA_BLT_OPERATION operation, UINTN source_x, UINTN source_y, UINTN destination_x,
                                 UINTN destination_y, UINTN width, UINTN height, UINTN delta);
    bool Switch(int mode);

    SimulatedFramebuffer& framebuffer_;
    std::vector<UgaModeSpec> modes_;
    int present_ = kNoMode;
    Wrapper wrapper_{};
};

}  // namespace HostFirmware
