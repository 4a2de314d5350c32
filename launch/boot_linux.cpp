#include "launch/boot_linux.h"

#include "loader/common/error_codes.h"
#include "loader/common/messages.h"

namespace Launch {

// The hand-over to the kernel (header checks, placement, boot parameters,
// leaving boot services) is not built yet: until it is, every kernel is
// refused as unsupported, and the report says so.
void BootLinux(ri_file&, ri_file*, const std::string&) {
    throw Common::Error(ERROR_TAG, Common::KERNEL_UNSUPPORTED, Common::Messages::KERNEL_UNSUPPORTED);
}

}  // namespace Launch
