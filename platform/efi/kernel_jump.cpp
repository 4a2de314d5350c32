// The jump into the entry stub, in the firmware world: a plain call of the
// copied code, which never returns.
#include "launch/entry_stub.h"

namespace Launch {

void JumpToKernel(std::uint64_t kernel_address, std::uint8_t* params, std::uint8_t* stub) {
    using Stub = void (*)(std::uint64_t kernel, std::uint64_t boot_params, std::uint64_t self);
    auto enter = reinterpret_cast<Stub>(stub);
    enter(kernel_address, reinterpret_cast<std::uint64_t>(params), reinterpret_cast<std::uint64_t>(stub));
    for (;;) {
    }
}

}  // namespace Launch
