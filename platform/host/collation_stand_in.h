#pragma once
// A Unicode collation protocol for the simulator: Latin-1 case mapping, and
// code page 850 as the OEM page of FAT short names. The simulator has none
// of its own, as many firmwares have none; a test that wants the protocol's
// road installs this one for as long as it lives.
#include <efi.h>

namespace HostFirmware {

class Simulator;

class CollationStandIn {
public:
    explicit CollationStandIn(Simulator& simulator);
    ~CollationStandIn();
    CollationStandIn(const CollationStandIn&) = delete;
    CollationStandIn& operator=(const CollationStandIn&) = delete;

    EFI_UNICODE_COLLATION_PROTOCOL* Protocol() { return &protocol_; }

private:
    Simulator& simulator_;
    EFI_HANDLE handle_ = nullptr;
    EFI_UNICODE_COLLATION_PROTOCOL protocol_{};
};

}  // namespace HostFirmware
