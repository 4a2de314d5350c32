#pragma once
// A simulated machine whose firmware the loader's code is attached to, with
// its display stand-ins at hand.
#include "firmware/firmware_access.h"
#include "platform/host/graphics_stand_ins.h"
#include "platform/host/simulator.h"

namespace TestSupport {

struct GraphicsMachine {
    HostFirmware::Simulator simulator;
    GraphicsMachine() { Uefi::InitializeFirmwareAccess(simulator.ImageHandle(), simulator.SystemTable()); }
    HostFirmware::GraphicsStandIns& Graphics() { return simulator.Graphics(); }
};

}  // namespace TestSupport
