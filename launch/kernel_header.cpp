#include "launch/kernel_header.h"

#include "loader/common/raise.h"

namespace Launch {
namespace {

constexpr std::uint32_t kHdrS = 0x53726448;
constexpr std::uint16_t kBootFlagValue = 0xAA55;
constexpr std::uint16_t kOldestProtocol = 0x020A;
constexpr std::uint8_t kLoadedHigh = 0x01;
// The setup header must reach past init_size at 0x260: the jump at 0x200
// skips that many bytes behind 0x202.
constexpr std::uint8_t kShortestJump = 0x62;

}  // namespace

void CheckKernelHeader(const SetupHeader& header, std::uint64_t file_size) {
    if (header.boot_flag.get() != kBootFlagValue) Common::Raise(ERROR_TAG, Common::Failures::KERNEL_CORRUPT);
    if (header.header.get() != kHdrS) Common::Raise(ERROR_TAG, Common::Failures::KERNEL_CORRUPT);
    if (!(header.loadflags & kLoadedHigh)) Common::Raise(ERROR_TAG, Common::Failures::KERNEL_UNSUPPORTED);
    if (header.version.get() < kOldestProtocol) Common::Raise(ERROR_TAG, Common::Failures::KERNEL_UNSUPPORTED);
    if (header.JumpOffset() < kShortestJump) Common::Raise(ERROR_TAG, Common::Failures::KERNEL_CORRUPT);
    if (header.relocatable_kernel == 0) Common::Raise(ERROR_TAG, Common::Failures::KERNEL_UNSUPPORTED);
    std::uint32_t setup_size = header.SetupSize();
    std::uint64_t payload = file_size > setup_size ? file_size - setup_size : 0;
    if (header.init_size.get() < payload) Common::Raise(ERROR_TAG, Common::Failures::KERNEL_CORRUPT);
    std::uint16_t kernel_version = header.kernel_version.get();
    if (kernel_version != 0 && std::uint32_t(kernel_version) + 0x200 >= setup_size) {
        Common::Raise(ERROR_TAG, Common::Failures::KERNEL_CORRUPT);
    }
}

}  // namespace Launch
