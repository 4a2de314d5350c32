// The jump into the kernel, in the host world: instead of entering the stub,
// the prepared machine is handed to whoever runs the loader.
#include <cstring>

#include "launch/entry_stub.h"
#include "platform/host/simulator.h"

namespace Launch {

void JumpToKernel(std::uint64_t kernel_address, std::uint8_t* params, std::uint8_t* stub) {
    HostFirmware::KernelHandOver hand_over;
    hand_over.kernel_address = kernel_address;
    hand_over.params = params;
    hand_over.stub = stub;
    hand_over.params_copy.assign(params, params + 0x4000);
    throw hand_over;
}

}  // namespace Launch
