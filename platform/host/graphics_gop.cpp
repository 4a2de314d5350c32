#include "platform/host/graphics_gop.h"

#include "platform/host/simulator.h"

namespace HostFirmware {

SimulatedGop::SimulatedGop(SimulatedFramebuffer& framebuffer, const std::vector<GopModeSpec>& modes, std::uint32_t present)
    : framebuffer_(framebuffer), modes_(modes) {
    wrapper_.protocol.QueryMode = QueryMode;
    wrapper_.protocol.SetMode = SetMode;
    wrapper_.protocol.Blt = Blt;
    wrapper_.protocol.Mode = &mode_;
    wrapper_.owner = this;
    mode_.MaxMode = static_cast<UINT32>(modes_.size());
    mode_.Info = &info_;
    mode_.SizeOfInfo = sizeof(info_);
    mode_.FrameBufferBase = framebuffer_.Base();
    Switch(present);
}

SimulatedGop& SimulatedGop::Of(EFI_GRAPHICS_OUTPUT_PROTOCOL* protocol) { return *reinterpret_cast<Wrapper*>(protocol)->owner; }

EFI_GRAPHICS_OUTPUT_MODE_INFORMATION SimulatedGop::InformationOf(std::uint32_t mode) const {
    EFI_GRAPHICS_OUTPUT_MODE_INFORMATION info{};
    info.Version = 0;
    info.HorizontalResolution = modes_[mode].width;
    info.VerticalResolution = modes_[mode].height;
    info.PixelFormat = modes_[mode].format;
    info.PixelsPerScanLine = modes_[mode].pixels_per_scan_line;
    return info;
}

bool SimulatedGop::Switch(std::uint32_t mode) {
    if (mode >= modes_.size()) return false;
    const GopModeSpec& spec = modes_[mode];
    FramebufferLayout layout;
    layout.width = spec.width;
    layout.height = spec.height;
    layout.stride = spec.pixels_per_scan_line;
    layout.bytes_per_pixel = 4;
    layout.order = spec.format == PixelRedGreenBlueReserved8BitPerColor ? PixelOrder::kRedFirst : PixelOrder::kBlueFirst;
    if (!framebuffer_.SetLayout(layout)) return false;
    mode_.Mode = mode;
    info_ = InformationOf(mode);
    // As the firmware tells it: the visible lines, stride included.
    mode_.FrameBufferSize = framebuffer_.ScreenBytes();
    framebuffer_.Fill(0, 0, spec.width, spec.height, 0, 0, 0, 0);
    return true;
}

EFI_STATUS EFIAPI SimulatedGop::QueryMode(EFI_GRAPHICS_OUTPUT_PROTOCOL* self, UINT32 mode, UINTN* size,
                                          EFI_GRAPHICS_OUTPUT_MODE_INFORMATION** info) {
    SimulatedGop& gop = Of(self);
    ++gop.query_mode_calls;
    if (size == nullptr || info == nullptr || mode >= gop.modes_.size()) return EFI_INVALID_PARAMETER;
    if (gop.failing_query_modes.count(mode) != 0) return EFI_DEVICE_ERROR;
    // The caller frees the block with FreePool, so it comes from the pool.
    VOID* block = nullptr;
    EFI_STATUS status = Simulator::Current().SystemTable()->BootServices->AllocatePool(
        EfiBootServicesData, sizeof(EFI_GRAPHICS_OUTPUT_MODE_INFORMATION), &block);
    if (EFI_ERROR(status)) return status;
    *static_cast<EFI_GRAPHICS_OUTPUT_MODE_INFORMATION*>(block) = gop.InformationOf(mode);
    *info = static_cast<EFI_GRAPHICS_OUTPUT_MODE_INFORMATION*>(block);
    *size = sizeof(EFI_GRAPHICS_OUTPUT_MODE_INFORMATION);
    return EFI_SUCCESS;
}

EFI_STATUS EFIAPI SimulatedGop::SetMode(EFI_GRAPHICS_OUTPUT_PROTOCOL* self, UINT32 mode) {
    SimulatedGop& gop = Of(self);
    gop.set_mode_calls.push_back(mode);
    if (mode >= gop.modes_.size()) return EFI_UNSUPPORTED;
    if (gop.failing_set_modes.count(mode) != 0) return EFI_DEVICE_ERROR;
    return gop.Switch(mode) ? EFI_SUCCESS : EFI_DEVICE_ERROR;
}

EFI_STATUS EFIAPI SimulatedGop::Blt(EFI_GRAPHICS_OUTPUT_PROTOCOL* self, EFI_GRAPHICS_OUTPUT_BLT_PIXEL* buffer,
                                    EFI_GRAPHICS_OUTPUT_BLT_OPERATION operation, UINTN, UINTN, UINTN destination_x,
                                    UINTN destination_y, UINTN width, UINTN height, UINTN) {
    SimulatedGop& gop = Of(self);
    if (gop.fail_blt) return EFI_DEVICE_ERROR;
    if (operation != EfiBltVideoFill) return EFI_UNSUPPORTED;
    if (buffer == nullptr) return EFI_INVALID_PARAMETER;
    ++gop.fills;
    bool painted = gop.framebuffer_.Fill(destination_x, destination_y, width, height, buffer->Red, buffer->Green, buffer->Blue,
                                         buffer->Reserved);
    return painted ? EFI_SUCCESS : EFI_INVALID_PARAMETER;
}

}  // namespace HostFirmware
