// Runtime services of the simulator. Variables come with the variable
// store; until then every service answers EFI_UNSUPPORTED.
#include "platform/host/simulator.h"

namespace HostFirmware {
namespace {
EFI_STATUS EFIAPI Unsupported() { return EFI_UNSUPPORTED; }
}  // namespace

void FillRuntimeServices(EFI_RUNTIME_SERVICES& services) {
    auto** slot = reinterpret_cast<void**>(reinterpret_cast<char*>(&services) + sizeof(EFI_TABLE_HEADER));
    auto** end = reinterpret_cast<void**>(reinterpret_cast<char*>(&services) + sizeof(services));
    for (; slot < end; ++slot) *slot = reinterpret_cast<void*>(&Unsupported);
}

}  // namespace HostFirmware
