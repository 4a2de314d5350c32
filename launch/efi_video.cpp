#include "launch/efi_video.h"

#include <efi.h>

#include <vector>

#include "firmware/firmware_access.h"
#include "launch/boot_params.h"
#include "launch/video_modes.h"
#include "launch/video_protocols.h"
#include "loader/common/raise.h"

namespace EfiLoader {

using Launch::kBelowFourGiB;
namespace {

// Wider modes cost the kernel's console more than they give.
constexpr std::uint32_t kWidestMode = 1024;
// No adapter has this many modes; a broken MaxMode must not keep the loader
// asking for ever.
constexpr std::uint32_t kModeLimit = 1024;
constexpr std::uint32_t kLargestField = 0xFFFF;

template <typename Protocol>
Protocol* Locate(const EFI_GUID& guid) {
    EFI_GUID wanted = guid;
    void* interface = nullptr;
    EFI_STATUS status = Uefi::BootServices()->LocateProtocol(&wanted, nullptr, &interface);
    if (EFI_ERROR(status) || interface == nullptr) Common::Raise(ERROR_TAG, Common::Failures::VIDEO_NOT_DETECTED);
    return static_cast<Protocol*>(interface);
}

// ---- Graphics Output ----

// The framebuffer of the present mode, which must lie below 4 GiB since
// the record keeps a 32-bit address.
struct Framebuffer {
    std::uint32_t base;
    std::uint32_t size;
};

Framebuffer FramebufferOf(const EFI_GRAPHICS_OUTPUT_PROTOCOL_MODE& mode) {
    if (mode.FrameBufferBase == 0 || mode.FrameBufferSize == 0) Common::Raise(ERROR_TAG, Common::Failures::VIDEO_NOT_LINEAR);
    if (mode.FrameBufferBase >= kBelowFourGiB || mode.FrameBufferSize > kBelowFourGiB - 1 - mode.FrameBufferBase) {
        Common::Raise(ERROR_TAG, Common::Failures::VIDEO_BAD_FRAMEBUFFER);
    }
    return Framebuffer{static_cast<std::uint32_t>(mode.FrameBufferBase), static_cast<std::uint32_t>(mode.FrameBufferSize)};
}

enum class ModeFit { kUsable, kOtherFormat, kTooLarge };

// The record of one GOP mode: 32-bit pixels of 8-bit colours, in one of
// the two byte orders the loader can describe.
ModeFit DescribeMode(const EFI_GRAPHICS_OUTPUT_MODE_INFORMATION& info, Framebuffer framebuffer, VideoRecord& record) {
    record = VideoRecord{};
    switch (info.PixelFormat) {
        case PixelRedGreenBlueReserved8BitPerColor: SetColourFields(record, {8, 0}, {8, 8}, {8, 16}, {8, 24}); break;
        case PixelBlueGreenRedReserved8BitPerColor: SetColourFields(record, {8, 16}, {8, 8}, {8, 0}, {8, 24}); break;
        default: return ModeFit::kOtherFormat;
    }
    if (info.HorizontalResolution > kLargestField || info.VerticalResolution > kLargestField ||
        info.PixelsPerScanLine > kLargestField / 4) {
        return ModeFit::kTooLarge;
    }
    record.lfb_depth = 32;
    record.lfb_base = framebuffer.base;
    record.lfb_size = framebuffer.size;
    record.lfb_width = static_cast<std::uint16_t>(info.HorizontalResolution);
    record.lfb_height = static_cast<std::uint16_t>(info.VerticalResolution);
    record.lfb_linelength = static_cast<std::uint16_t>(4 * info.PixelsPerScanLine);
    return ModeFit::kUsable;
}

// The information block QueryMode allocates, given back when it goes.
class ModeInformation {
public:
    ModeInformation() = default;
    ModeInformation(const ModeInformation&) = delete;
    ModeInformation& operator=(const ModeInformation&) = delete;
    ~ModeInformation() {
        if (info != nullptr) Uefi::BootServices()->FreePool(info);
    }
    UINTN size = 0;
    EFI_GRAPHICS_OUTPUT_MODE_INFORMATION* info = nullptr;
};

// The record of the mode the adapter shows now.
void DescribePresentMode(EFI_GRAPHICS_OUTPUT_PROTOCOL* gop, VideoRecord& record) {
    const EFI_GRAPHICS_OUTPUT_PROTOCOL_MODE* mode = gop->Mode;
    if (mode == nullptr || mode->Info == nullptr) Common::Raise(ERROR_TAG, Common::Failures::VIDEO_NOT_DETECTED);
    Framebuffer framebuffer = FramebufferOf(*mode);
    switch (DescribeMode(*mode->Info, framebuffer, record)) {
        case ModeFit::kUsable: return;
        case ModeFit::kOtherFormat: Common::Raise(ERROR_TAG, Common::Failures::VIDEO_BAD_PIXEL_FORMAT);
        case ModeFit::kTooLarge: Common::Raise(ERROR_TAG, Common::Failures::VIDEO_BAD_FRAMEBUFFER);
    }
}

// ---- UGA Draw ----

struct UgaMode {
    std::uint32_t width;
    std::uint32_t height;
    std::uint32_t depth;
    std::uint32_t refresh;
};
constexpr UgaMode kUgaModesToTry[] = {{1024, 768, 32, 60}, {800, 600, 32, 60}, {800, 600, 24, 60}};
constexpr std::uint32_t kNarrowestUgaMode = 800;

}  // namespace

const MonitorFilter& EfiVideoGop::Monitor() {
    if (!monitor_) monitor_ = std::make_unique<MonitorFilter>(MonitorFilter::FromFirmware());
    return *monitor_;
}

void EfiVideoGop::Query(VideoRecord& record) {
    auto* gop = Locate<EFI_GRAPHICS_OUTPUT_PROTOCOL>(kGraphicsOutputProtocolGuid);
    if (gop->Mode == nullptr) Common::Raise(ERROR_TAG, Common::Failures::VIDEO_NOT_DETECTED);
    Framebuffer framebuffer = FramebufferOf(*gop->Mode);

    std::vector<ModeCandidate> candidates;
    std::uint32_t modes = gop->Mode->MaxMode < kModeLimit ? gop->Mode->MaxMode : kModeLimit;
    for (std::uint32_t number = 0; number < modes; ++number) {
        ModeCandidate candidate{};
        candidate.mode = number;
        {
            ModeInformation information;
            EFI_STATUS status = gop->QueryMode(gop, number, &information.size, &information.info);
            if (EFI_ERROR(status)) {
                information.info = nullptr;  // not ours to free
                continue;
            }
            if (information.info == nullptr || information.size < sizeof(EFI_GRAPHICS_OUTPUT_MODE_INFORMATION)) continue;
            if (DescribeMode(*information.info, framebuffer, candidate.record) != ModeFit::kUsable) continue;
        }
        if (!Monitor().Accept(candidate)) continue;
        if (candidate.record.lfb_width > kWidestMode) continue;
        candidates.push_back(candidate);
    }

    const ModeCandidate* best = BestCandidate(candidates);
    if (best != nullptr && best->mode != gop->Mode->Mode && gop->SetMode(gop, best->mode) == EFI_SUCCESS) {
        record = best->record;
        return;
    }
    DescribePresentMode(gop, record);
}

void EfiVideoGop::FillRectangle(std::uint32_t x, std::uint32_t y, std::uint32_t width, std::uint32_t height, std::uint8_t red,
                                std::uint8_t green, std::uint8_t blue, std::uint8_t reserved) {
    auto* gop = Locate<EFI_GRAPHICS_OUTPUT_PROTOCOL>(kGraphicsOutputProtocolGuid);
    EFI_GRAPHICS_OUTPUT_BLT_PIXEL pixel{blue, green, red, reserved};
    EFI_STATUS status = gop->Blt(gop, &pixel, EfiBltVideoFill, 0, 0, x, y, width, height, 0);
    if (EFI_ERROR(status)) Common::Raise(ERROR_TAG, Common::Failures::VIDEO_NOT_DETECTED);
}

void EfiVideoUga::Query(VideoRecord& record) {
    auto* uga = Locate<EFI_UGA_DRAW_PROTOCOL>(kUgaDrawProtocolGuid);
    UINT32 width = 0;
    UINT32 height = 0;
    UINT32 depth = 0;
    UINT32 refresh = 0;
    EFI_STATUS status = uga->GetMode(uga, &width, &height, &depth, &refresh);
    if (EFI_ERROR(status) || width < kNarrowestUgaMode || width > kWidestMode) {
        bool set = false;
        for (const UgaMode& mode : kUgaModesToTry) {
            if (!EFI_ERROR(uga->SetMode(uga, mode.width, mode.height, mode.depth, mode.refresh))) {
                set = true;
                break;
            }
        }
        if (!set) Common::Raise(ERROR_TAG, Common::Failures::VIDEO_NOT_DETECTED);
        if (EFI_ERROR(uga->GetMode(uga, &width, &height, &depth, &refresh))) {
            Common::Raise(ERROR_TAG, Common::Failures::VIDEO_NOT_DETECTED);
        }
    }
    if (width == 0 || height == 0 || depth == 0) Common::Raise(ERROR_TAG, Common::Failures::VIDEO_NOT_DETECTED);
    if (width > kLargestField || height > kLargestField || depth > kLargestField) {
        Common::Raise(ERROR_TAG, Common::Failures::VIDEO_BAD_FRAMEBUFFER);
    }
    record.lfb_width = static_cast<std::uint16_t>(width);
    record.lfb_height = static_cast<std::uint16_t>(height);
    record.lfb_depth = static_cast<std::uint16_t>(depth);
}

void EfiVideoUga::FillRectangle(std::uint32_t x, std::uint32_t y, std::uint32_t width, std::uint32_t height, std::uint8_t red,
                                std::uint8_t green, std::uint8_t blue, std::uint8_t reserved) {
    auto* uga = Locate<EFI_UGA_DRAW_PROTOCOL>(kUgaDrawProtocolGuid);
    EFI_UGA_PIXEL pixel{blue, green, red, reserved};
    EFI_STATUS status = uga->Blt(uga, &pixel, EfiUgaVideoFill, 0, 0, x, y, width, height, 0);
    if (EFI_ERROR(status)) Common::Raise(ERROR_TAG, Common::Failures::VIDEO_NOT_DETECTED);
}

}  // namespace EfiLoader
