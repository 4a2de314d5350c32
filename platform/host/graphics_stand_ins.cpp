#include "platform/host/graphics_stand_ins.h"

#include "launch/video_protocols.h"
#include "platform/host/simulator.h"

namespace HostFirmware {
namespace {

// Installed on a handle of its own: the firmware gives each adapter and
// each root bridge a controller handle.
void InstallOnNewHandle(HandleDatabase& handles, const EFI_GUID& guid, void* interface) {
    handles.Install(nullptr, guid, interface);
}

}  // namespace

GraphicsStandIns::GraphicsStandIns(HandleDatabase& handles) : handles_(handles) {}

SimulatedGop& GraphicsStandIns::InstallGop(const std::vector<GopModeSpec>& modes, std::uint32_t present) {
    gops_.push_back(std::make_unique<SimulatedGop>(framebuffer_, modes, present));
    InstallOnNewHandle(handles_, EfiLoader::kGraphicsOutputProtocolGuid, gops_.back()->Protocol());
    return *gops_.back();
}

SimulatedUga& GraphicsStandIns::InstallUga(const std::vector<UgaModeSpec>& modes, int present) {
    ugas_.push_back(std::make_unique<SimulatedUga>(framebuffer_, modes, present));
    InstallOnNewHandle(handles_, EfiLoader::kUgaDrawProtocolGuid, ugas_.back()->Protocol());
    return *ugas_.back();
}

SimulatedEdid& GraphicsStandIns::InstallEdid(const std::vector<std::uint8_t>& bytes) {
    edids_.push_back(std::make_unique<SimulatedEdid>(bytes));
    InstallOnNewHandle(handles_, EfiLoader::kEdidActiveProtocolGuid, edids_.back()->Protocol());
    return *edids_.back();
}

SimulatedRootBridge& GraphicsStandIns::InstallRootBridge() {
    bridges_.push_back(std::make_unique<SimulatedRootBridge>());
    InstallOnNewHandle(handles_, EfiLoader::kPciRootBridgeIoProtocolGuid, bridges_.back()->Protocol());
    return *bridges_.back();
}

SimulatedRootBridge& GraphicsStandIns::InstallDisplayAdapter() {
    SimulatedRootBridge& bridge = InstallRootBridge();
    bridge.AddFunction(0, 2, 0, FunctionHeader(0x1234, 3, {PrefetchableWindow(framebuffer_.Base()), 0, 0, 0, 0, 0}));
    return bridge;
}

LowMemory& GraphicsStandIns::AddWindow(std::size_t bytes) {
    windows_.push_back(std::make_unique<LowMemory>(bytes));
    return *windows_.back();
}

// ---- the simulator's accessor ----

GraphicsStandIns& Simulator::Graphics() {
    if (!graphics_) {
        graphics_ = std::unique_ptr<GraphicsStandIns, void (*)(GraphicsStandIns*)>(
            new GraphicsStandIns(Handles()), [](GraphicsStandIns* graphics) { delete graphics; });
    }
    return *graphics_;
}

}  // namespace HostFirmware
