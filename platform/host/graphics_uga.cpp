#include "platform/host/graphics_uga.h"

namespace HostFirmware {

using EfiLoader::EFI_UGA_DRAW_PROTOCOL;

SimulatedUga::SimulatedUga(SimulatedFramebuffer& framebuffer, const std::vector<UgaModeSpec>& modes, int present)
    : framebuffer_(framebuffer), modes_(modes) {
    wrapper_.protocol.GetMode = GetMode;
    wrapper_.protocol.SetMode = SetMode;
    wrapper_.protocol.Blt = Blt;
    wrapper_.owner = this;
    if (present >= 0 && static_cast<std::size_t>(present) < modes_.size()) Switch(present);
}

SimulatedUga& SimulatedUga::Of(EFI_UGA_DRAW_PROTOCOL* protocol) { return *reinterpret_cast<Wrapper*>(protocol)->owner; }

bool SimulatedUga::Switch(int mode) {
    const UgaModeSpec& spec = modes_[mode];
    FramebufferLayout layout;
    layout.width = spec.width;
    layout.height = spec.height;
    layout.stride = spec.stride != 0 ? spec.stride : spec.width;
    layout.bytes_per_pixel = spec.bytes_per_pixel;
    layout.order = spec.order;
    if (!framebuffer_.SetLayout(layout)) return false;
    present_ = mode;
    framebuffer_.Fill(0, 0, spec.width, spec.height, 0, 0, 0, 0);
    return true;
}

EFI_STATUS EFIAPI SimulatedUga::GetMode(EFI_UGA_DRAW_PROTOCOL* self, UINT32* width, UINT32* height, UINT32* depth,
                                        UINT32* refresh) {
    SimulatedUga& uga = Of(self);
    ++uga.get_mode_calls;
    if (width == nullptr || height == nullptr || depth == nullptr || refresh == nullptr) return EFI_INVALID_PARAMETER;
    if (uga.fail_get_mode) return EFI_DEVICE_ERROR;
    if (uga.present_ == kNoMode) return EFI_NOT_STARTED;
    const UgaModeSpec& spec = uga.modes_[uga.present_];
    *width = spec.width;
    *height = spec.height;
    *depth = spec.depth;
    *refresh = spec.refresh;
    return EFI_SUCCESS;
}

EFI_STATUS EFIAPI SimulatedUga::SetMode(EFI_UGA_DRAW_PROTOCOL* self, UINT32 width, UINT32 height, UINT32 depth, UINT32 refresh) {
    SimulatedUga& uga = Of(self);
    uga.set_mode_calls.push_back(UgaModeCall{width, height, depth, refresh});
    for (std::size_t i = 0; i < uga.modes_.size(); ++i) {
        const UgaModeSpec& spec = uga.modes_[i];
        if (spec.width == width && spec.height == height && spec.depth == depth && spec.refresh == refresh) {
            return uga.Switch(static_cast<int>(i)) ? EFI_SUCCESS : EFI_DEVICE_ERROR;
        }
    }
    return EFI_UNSUPPORTED;
}

EFI_STATUS EFIAPI SimulatedUga::Blt(EFI_UGA_DRAW_PROTOCOL* self, EfiLoader::EFI_UGA_PIXEL* buffer,
                                    EfiLoader::EFI_UGA_BLT_OPERATION operation, UINTN, UINTN, UINTN destination_x,
                                    UINTN destination_y, UINTN width, UINTN height, UINTN) {
    SimulatedUga& uga = Of(self);
    if (uga.fail_blt) return EFI_DEVICE_ERROR;
    if (operation != EfiLoader::EfiUgaVideoFill) return EFI_UNSUPPORTED;
    if (buffer == nullptr || uga.present_ == kNoMode) return EFI_INVALID_PARAMETER;
    ++uga.fills;
    bool painted = uga.framebuffer_.Fill(destination_x, destination_y, width, height, buffer->Red, buffer->Green, buffer->Blue,
                                         buffer->Reserved);
    return painted ? EFI_SUCCESS : EFI_INVALID_PARAMETER;
}

}  // namespace HostFirmware
