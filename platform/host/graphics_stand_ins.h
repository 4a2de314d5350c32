#pragma once
// The simulated display hardware of a machine: one framebuffer in memory
// below 4 GiB, and the firmware protocols over it (GOP, UGA Draw, EDID
// Active, PCI root bridges), each installed on a handle of its own when a
// test asks for it.
#include <cstdint>
#include <memory>
#include <vector>

#include "platform/host/graphics_edid.h"
#include "platform/host/graphics_framebuffer.h"
#include "platform/host/graphics_gop.h"
#include "platform/host/graphics_pci.h"
#include "platform/host/graphics_uga.h"
#include "platform/host/handle_database.h"

namespace HostFirmware {

class GraphicsStandIns {
public:
    explicit GraphicsStandIns(HandleDatabase& handles);
    GraphicsStandIns(const GraphicsStandIns&) = delete;
    GraphicsStandIns& operator=(const GraphicsStandIns&) = delete;

    SimulatedFramebuffer& Framebuffer() { return framebuffer_; }

    SimulatedGop& InstallGop(const std::vector<GopModeSpec>& modes, std::uint32_t present);
    SimulatedUga& InstallUga(const std::vector<UgaModeSpec>& modes, int present);
    SimulatedEdid& InstallEdid(const std::vector<std::uint8_t>& bytes);
    // A root bridge with buses 0 to 255 and nothing on them yet.
    SimulatedRootBridge& InstallRootBridge();
    // A root bridge with a display controller at bus 0, device 2 whose only
    // window is the framebuffer: the machine a UGA adapter sits in.
    SimulatedRootBridge& InstallDisplayAdapter();
    // More memory below 4 GiB, for windows other than the framebuffer.
    LowMemory& AddWindow(std::size_t bytes);

private:
    HandleDatabase& handles_;
    SimulatedFramebuffer framebuffer_;
    std::vector<std::unique_ptr<SimulatedGop>> gops_;
    std::vector<std::unique_ptr<SimulatedUga>> ugas_;
    std::vector<std::unique_ptr<SimulatedEdid>> edids_;
    std::vector<std::unique_ptr<SimulatedRootBridge>> bridges_;
    std::vector<std::unique_ptr<LowMemory>> windows_;
};

}  // namespace HostFirmware
