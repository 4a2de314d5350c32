#include "launch/boot_linux.h"

#include <cstddef>
#include <cstring>

#include "firmware/firmware_access.h"
#include "launch/boot_params.h"
#include "launch/entry_stub.h"
#include "launch/exit_to_kernel.h"
#include "launch/fill_video.h"
#include "launch/kernel_header.h"
#include "launch/page_buffer.h"
#include "loader/common/raise.h"

namespace Launch {
namespace {

// The parameter area: boot_params, the command line, a cleared stretch whose
// top is the entry stub's stack, and the stub itself.
constexpr std::uint64_t kParameterAreaSize = 0x4000;
constexpr std::uint32_t kCommandLineOffset = 0x1000;
constexpr std::uint32_t kCommandLineLimit = 0x3FF;
constexpr std::uint32_t kStubOffset = 0x3000;
constexpr std::uint32_t kHeaderBytes = 0x400;
constexpr std::uint8_t kCanUseHeap = 0x80;
constexpr std::uint8_t kLoaderType = 0x50;
constexpr std::uint16_t kHeapEnd = 0x2E00;
constexpr std::uint32_t kExtendedMemoryKiB = 0x8000;
constexpr std::uint32_t kEl64 = 0x34364C45;
const char kCommandLinePrefix[] = "reboot=k ";

static_assert(sizeof(BootParams) <= kCommandLineOffset, "the command line lies behind boot_params");

// Everything but the setup header: it ends where the jump at 0x200 lands.
void ClearAroundSetupHeader(std::uint8_t* area) {
    constexpr std::size_t kSetupHeaderStart = offsetof(BootParams, hdr);
    constexpr std::size_t kJumpTarget = kSetupHeaderStart + offsetof(SetupHeader, header);
    std::memset(area, 0, kSetupHeaderStart);
    std::size_t header_end = kJumpTarget + BootParamsAt(area).hdr.JumpOffset();
    std::memset(area + header_end, 0, kParameterAreaSize - header_end);
}

void FillHeader(BootParams& params, std::uint64_t kernel_address, const PageBuffer& ramdisk, std::uint64_t ramdisk_size) {
    SetupHeader& hdr = params.hdr;
    hdr.loadflags = static_cast<std::uint8_t>(hdr.loadflags | kCanUseHeap);
    hdr.type_of_loader = kLoaderType;
    hdr.heap_end_ptr.set(kHeapEnd);
    if (ramdisk.address() != 0) {
        hdr.ramdisk_image.set(static_cast<std::uint32_t>(ramdisk.address()));
        hdr.ramdisk_size.set(static_cast<std::uint32_t>(ramdisk_size));
    }
    params.alt_mem_k.set(kExtendedMemoryKiB);
    hdr.code32_start.set(static_cast<std::uint32_t>(kernel_address));
}

void FillFirmwareFields(EfiInfo& efi) {
    efi.efi_loader_signature.set(kEl64);
    efi.SetSystemTable(reinterpret_cast<std::uint64_t>(Uefi::SystemTable()));
}

void PlaceCommandLine(std::uint8_t* area, const std::string& command_line) {
    std::string full = kCommandLinePrefix + command_line;
    std::size_t length = full.size() < kCommandLineLimit ? full.size() : kCommandLineLimit;
    std::memcpy(area + kCommandLineOffset, full.data(), length);
    BootParamsAt(area).hdr.cmd_line_ptr.set(static_cast<std::uint32_t>(reinterpret_cast<std::uint64_t>(area) + kCommandLineOffset));
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
    if (file_size <= kHeaderBytes) Common::Raise(ERROR_TAG, Common::Failures::KERNEL_CORRUPT);
    PageBuffer parameters(kParameterAreaSize, kBelowOneGiB);
    std::uint8_t* area = parameters.data();
    BootParams& params = BootParamsAt(area);
    // A short read is left in the file: a damaged start fails the checks,
    // and the next exact read raises what the file stored.
    std::uint64_t got = 0;
    kernel.read(area, kHeaderBytes, got);
    if (!kernel.failed() && got < kHeaderBytes) {
        kernel.set_error(Common::Error(ERROR_TAG, Common::FILE_EOF, Common::Messages::FILE_EOF));
    }
    if (got < kHeaderBytes) std::memset(area + got, 0, kHeaderBytes - got);
    CheckKernelHeader(params.hdr, file_size);
    ClearAroundSetupHeader(area);

    std::uint32_t setup_size = params.hdr.SetupSize();
    std::uint64_t kernel_size = file_size - setup_size;
    std::uint32_t alignment = 1u << (params.hdr.min_alignment % 32);
    params.hdr.kernel_alignment.set(alignment);
    PageBuffer kernel_area(std::uint64_t(params.hdr.init_size.get()) + alignment, kBelowOneGiB);
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
    FillFirmwareFields(params.efi_info);
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
