// Runtime services of the simulator: the variable services answer from the
// simulator's variable store; everything else is EFI_UNSUPPORTED.
#include "platform/host/simulator.h"

namespace HostFirmware {
namespace {

EFI_STATUS EFIAPI Unsupported() { return EFI_UNSUPPORTED; }

EFI_STATUS EFIAPI GetVariable(CHAR16* name, EFI_GUID* vendor, UINT32* attributes, UINTN* size, VOID* data) {
    return Simulator::Current().Variables().GetVariable(name, vendor, attributes, size, data);
}

EFI_STATUS EFIAPI SetVariable(CHAR16* name, EFI_GUID* vendor, UINT32 attributes, UINTN size, VOID* data) {
    return Simulator::Current().Variables().SetVariable(name, vendor, attributes, size, data);
}

EFI_STATUS EFIAPI GetNextVariableName(UINTN* name_size, CHAR16* name, EFI_GUID* vendor) {
    return Simulator::Current().Variables().GetNextVariableName(name_size, name, vendor);
}

EFI_STATUS EFIAPI QueryVariableInfo(UINT32 attributes, UINT64* maximum_storage, UINT64* remaining_storage,
                                    UINT64* maximum_variable) {
    return Simulator::Current().Variables().QueryVariableInfo(attributes, maximum_storage, remaining_storage,
                                                              maximum_variable);
}

}  // namespace

void FillRuntimeServices(EFI_RUNTIME_SERVICES& services) {
    auto** slot = reinterpret_cast<void**>(reinterpret_cast<char*>(&services) + sizeof(EFI_TABLE_HEADER));
    auto** end = reinterpret_cast<void**>(reinterpret_cast<char*>(&services) + sizeof(services));
    for (; slot < end; ++slot) *slot = reinterpret_cast<void*>(&Unsupported);
    services.GetVariable = GetVariable;
    services.SetVariable = SetVariable;
    services.GetNextVariableName = GetNextVariableName;
    services.QueryVariableInfo = QueryVariableInfo;
}

}  // namespace HostFirmware
