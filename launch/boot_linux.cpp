#include "launch/boot_linux.h"

#include <cstring>

#include "firmware/firmware_access.h"
#include "launch/boot_params.h"
#include "launch/entry_stub.h"
#include "launch/exit_to_kernel.h"
#include "launch/fill_video.h"
#include "launch/kernel_header.h"
#include "launch/page_buffer.h"
#include "loader/common/error_codes.h"
#include "loader/common/messages.h"

namespace Launch {
namespace {

using namespace BootParamsOffset;

// The parameter area: boot_params, the command line, a cleared stretch whose
// top is the entry stub's stack, and the stub itself.
constexpr std::uint64_t kParameterAreaSize = 0x4000;
constexpr std::uint32_t kCommandLineOffset = 0x1000;
constexpr std::uint32_t kCommandLineLimit = 0x3FF;
constexpr std::uint32_t kStubOffset = 0x3000;
constexpr std::uint32_t kHeaderBytes = 0x400;
constexpr std::uint32_t kSetupHeaderStart = 0x1F1;
constexpr std::uint8_t kCanUseHeap = 0x80;
constexpr std::uint8_t kLoaderType = 0x50;
constexpr std::uint16_t kHeapEnd = 0x2E00;
constexpr std::uint32_t kExtendedMemoryKiB = 0x8000;
constexpr std::uint32_t kEl64 = 0x34364C45;
const char kCommandLinePrefix[] = "reboot=k ";

// Everything but the setup header: it ends where the jump at 0x200 lands.
void ClearAroundSetupHeader(std::uint8_t* area) {
    std::memset(area, 0, kSetupHeaderStart);
    std::uint32_t header_end = kHeader + area[kJumpOffset];
    std::memset(area + header_end, 0, kParameterAreaSize - header_end);
}

void FillHeader(ByteArea params, std::uint64_t kernel_address, const PageBuffer& ramdisk, std::uint64_t ramdisk_size) {
    params.SetU8(kLoadflags, params.U8(kLoadflags) | kCanUseHeap);
    params.SetU8(kTypeOfLoader, kLoaderType);
    params.SetU16(kHeapEndPtr, kHeapEnd);
    if (ramdisk.address() != 0) {
        params.SetU32(kRamdiskImage, static_cast<std::uint32_t>(ramdisk.address()));
        params.SetU32(kRamdiskSize, static_cast<std::uint32_t>(ramdisk_size));
    }
    params.SetU32(kAltMemK, kExtendedMemoryKiB);
    params.SetU32(kCode32Start, static_cast<std::uint32_t>(kernel_address));
}

void FillFirmwareFields(ByteArea params) {
    auto system_table = reinterpret_cast<std::uint64_t>(Uefi::SystemTable());
    params.SetU32(kEfiLoaderSignature, kEl64);
    params.SetU32(kEfiSystab, static_cast<std::uint32_t>(system_table));
    params.SetU32(kEfiSystabHi, static_cast<std::uint32_t>(system_table >> 32));
}

void PlaceCommandLine(std::uint8_t* area, const std::string& command_line) {
    std::string full = kCommandLinePrefix + command_line;
    std::size_t length = full.size() < kCommandLineLimit ? full.size() : kCommandLineLimit;
    std::memcpy(area + kCommandLineOffset, full.data(), length);
    ByteArea(area).SetU32(kCmdLinePtr, static_cast<std::uint32_t>(reinterpret_cast<std::uint64_t>(area) + kCommandLineOffset));
}

}  // namespace

void ReadExact(ri_file& file, void* buffer, std::uint64_t count) {
    std::uint64_t got = 0;
    file.read(buffer, count, got);
    if (!file.failed() && got < count) {
        file.set_error(Common::Error(ERROR_TAG, Common::FILE_EOF, Common::Messages::FILE_EOF));
    }
    if (file.failed()) {
        Common::Error error = file.error();
        file.set_error(Common::Success);
        throw error;
    }
}

void BootLinux(ri_file& kernel, ri_file* ramdisk, const std::string& command_line) {
    std::uint64_t file_size = kernel.size();
    if (file_size <= kHeaderBytes) throw Common::Error(ERROR_TAG, Common::KERNEL_CORRUPT, Common::Messages::KERNEL_CORRUPT);
    PageBuffer parameters(kParameterAreaSize, kBelowOneGiB);
    std::uint8_t* area = parameters.data();
    ByteArea params(area);
    // A short read is left in the file: a damaged start fails the checks,
    // and the next exact read raises what the file stored.
    std::uint64_t got = 0;
    kernel.read(area, kHeaderBytes, got);
    if (!kernel.failed() && got < kHeaderBytes) {
        kernel.set_error(Common::Error(ERROR_TAG, Common::FILE_EOF, Common::Messages::FILE_EOF));
    }
    if (got < kHeaderBytes) std::memset(area + got, 0, kHeaderBytes - got);
    CheckKernelHeader(params, file_size);
    ClearAroundSetupHeader(area);

    std::uint32_t setup_size = SetupSize(params);
    std::uint64_t kernel_size = file_size - setup_size;
    std::uint32_t alignment = 1u << (params.U8(kMinAlignment) % 32);
    params.SetU32(kKernelAlignment, alignment);
    PageBuffer kernel_area(std::uint64_t(params.U32(kInitSize)) + alignment, kBelowOneGiB);
    std::uint64_t kernel_address = (kernel_area.address() + alignment - 1) & ~std::uint64_t(alignment - 1);
    kernel.seek(setup_size);
    ReadExact(kernel, reinterpret_cast<void*>(kernel_address), kernel_size);

    PageBuffer ramdisk_area;
    std::uint64_t ramdisk_size = 0;
    if (ramdisk != nullptr) {
        ramdisk_size = ramdisk->size();
        PageBuffer(ramdisk_size, kBelowFourGiB).swap(ramdisk_area);
        ReadExact(*ramdisk, ramdisk_area.data(), ramdisk_size);
    }
    FillHeader(params, kernel_address, ramdisk_area, ramdisk_size);
    EfiLoader::FillVideo(area);
    FillFirmwareFields(params);
    PlaceCommandLine(area, command_line);

    ExitToKernel(area);
    // Boot services are gone: the pages belong to the kernel now.
    parameters.release();
    kernel_area.release();
    ramdisk_area.release();
    std::uint8_t* stub = area + kStubOffset;
    std::memcpy(stub, EntryStubCode(), EntryStubSize());
    JumpToKernel(kernel_address, area, stub);
}

}  // namespace Launch
