#include "launch/kernel_header.h"

#include "loader/common/error.h"
#include "loader/common/error_codes.h"
#include "loader/common/messages.h"

namespace Launch {
namespace {

constexpr std::uint32_t kHdrS = 0x53726448;
constexpr std::uint16_t kBootFlagValue = 0xAA55;
constexpr std::uint16_t kOldestProtocol = 0x020A;
constexpr std::uint8_t kLoadedHigh = 0x01;
// The setup header must reach past init_size at 0x260: the jump at 0x200
// skips that many bytes behind 0x202.
constexpr std::uint8_t kShortestJump = 0x62;

[[noreturn]] void Corrupt(std::uint64_t tag) { throw Common::Error(tag, Common::KERNEL_CORRUPT, Common::Messages::KERNEL_CORRUPT); }
[[noreturn]] void Unsupported(std::uint64_t tag) {
    throw Common::Error(tag, Common::KERNEL_UNSUPPORTED, Common::Messages::KERNEL_UNSUPPORTED);
}

}  // namespace

std::uint32_t SetupSize(const ByteArea& header) {
    std::uint32_t sectors = header.U8(BootParamsOffset::kSetupSects);
    if (sectors == 0) sectors = 4;
    return (sectors + 1) * 512;
}

void CheckKernelHeader(const ByteArea& header, std::uint64_t file_size) {
    using namespace BootParamsOffset;
    if (header.U16(kBootFlag) != kBootFlagValue) Corrupt(ERROR_TAG);
    if (header.U32(kHeader) != kHdrS) Corrupt(ERROR_TAG);
    if (!(header.U8(kLoadflags) & kLoadedHigh)) Unsupported(ERROR_TAG);
    if (header.U16(kVersion) < kOldestProtocol) Unsupported(ERROR_TAG);
    if (header.U8(kJumpOffset) < kShortestJump) Corrupt(ERROR_TAG);
    if (header.U8(kRelocatableKernel) == 0) Unsupported(ERROR_TAG);
    std::uint32_t setup_size = SetupSize(header);
    std::uint64_t payload = file_size > setup_size ? file_size - setup_size : 0;
    if (header.U32(kInitSize) < payload) Corrupt(ERROR_TAG);
    std::uint16_t kernel_version = header.U16(kKernelVersion);
    if (kernel_version != 0 && std::uint32_t(kernel_version) + 0x200 >= setup_size) Corrupt(ERROR_TAG);
}

}  // namespace Launch
