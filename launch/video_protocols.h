#pragma once
// The firmware protocols that video discovery asks. Graphics Output, EDID
// Active and PCI Root Bridge I/O come with the firmware headers; UGA Draw,
// the protocol of EFI 1.1 adapters that GOP replaced, is declared here as
// the UEFI specification publishes it.
#include <efi.h>

namespace EfiLoader {

struct EFI_UGA_DRAW_PROTOCOL;

struct EFI_UGA_PIXEL {
    UINT8 Blue;
    UINT8 Green;
    UINT8 Red;
    UINT8 Reserved;
};

enum EFI_UGA_BLT_OPERATION { EfiUgaVideoFill, EfiUgaVideoToBltBuffer, EfiUgaBltBufferToVideo, EfiUgaVideoToVideo, EfiUgaBltMax };

using EFI_UGA_DRAW_PROTOCOL_GET_MODE = EFI_STATUS(EFIAPI*)(EFI_UGA_DRAW_PROTOCOL* This, UINT32* HorizontalResolution,
                                                           UINT32* VerticalResolution, UINT32* ColorDepth, UINT32* RefreshRate);
using EFI_UGA_DRAW_PROTOCOL_SET_MODE = EFI_STATUS(EFIAPI*)(EFI_UGA_DRAW_PROTOCOL* This, UINT32 HorizontalResolution,
                                                           UINT32 VerticalResolution, UINT32 ColorDepth, UINT32 RefreshRate);
using EFI_UGA_DRAW_PROTOCOL_BLT = EFI_STATUS(EFIAPI*)(EFI_UGA_DRAW_PROTOCOL* This, EFI_UGA_PIXEL* BltBuffer,
                                                      EFI_UGA_BLT_OPERATION BltOperation, UINTN SourceX, UINTN SourceY,
                                                      UINTN DestinationX, UINTN DestinationY, UINTN Width, UINTN Height,
                                                      UINTN Delta);

struct EFI_UGA_DRAW_PROTOCOL {
    EFI_UGA_DRAW_PROTOCOL_GET_MODE GetMode;
    EFI_UGA_DRAW_PROTOCOL_SET_MODE SetMode;
    EFI_UGA_DRAW_PROTOCOL_BLT Blt;
};

constexpr EFI_GUID kGraphicsOutputProtocolGuid = {0x9042A9DE, 0x23DC, 0x4A38, {0x96, 0xFB, 0x7A, 0xDE, 0xD0, 0x80, 0x51, 0x6A}};
constexpr EFI_GUID kUgaDrawProtocolGuid = {0x982C298B, 0xF4FA, 0x41CB, {0xB8, 0x38, 0x77, 0xAA, 0x68, 0x8F, 0xB8, 0x39}};
constexpr EFI_GUID kEdidActiveProtocolGuid = {0xBD8C1056, 0x9F36, 0x44EC, {0x92, 0xA8, 0xA6, 0x33, 0x7F, 0x81, 0x79, 0x86}};
constexpr EFI_GUID kPciRootBridgeIoProtocolGuid = {0x2F707EBB, 0x4A1A, 0x11D4, {0x9A, 0x38, 0x00, 0x90, 0x27, 0x3F, 0xC1, 0x4D}};

}  // namespace EfiLoader
