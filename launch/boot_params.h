#pragma once
// The Linux boot parameter block ("zero page") and the setup header inside
// it, read and written at their byte offsets in little-endian order. The
// block is a plain byte area: it begins as a copy of the kernel file's
// first sectors and goes to the kernel as it is.
#include <cstdint>
#include <cstring>

namespace Launch {

namespace BootParamsOffset {
constexpr std::uint32_t kScreenInfo = 0x000;
constexpr std::uint32_t kEfiLoaderSignature = 0x1C0;
constexpr std::uint32_t kEfiSystab = 0x1C4;
constexpr std::uint32_t kEfiMemdescSize = 0x1C8;
constexpr std::uint32_t kEfiMemdescVersion = 0x1CC;
constexpr std::uint32_t kEfiMemmap = 0x1D0;
constexpr std::uint32_t kEfiMemmapSize = 0x1D4;
constexpr std::uint32_t kEfiSystabHi = 0x1D8;
constexpr std::uint32_t kEfiMemmapHi = 0x1DC;
constexpr std::uint32_t kAltMemK = 0x1E0;
constexpr std::uint32_t kE820Entries = 0x1E8;
constexpr std::uint32_t kSetupSects = 0x1F1;
constexpr std::uint32_t kBootFlag = 0x1FE;
constexpr std::uint32_t kJumpOffset = 0x201;
constexpr std::uint32_t kHeader = 0x202;
constexpr std::uint32_t kVersion = 0x206;
constexpr std::uint32_t kKernelVersion = 0x20E;
constexpr std::uint32_t kTypeOfLoader = 0x210;
constexpr std::uint32_t kLoadflags = 0x211;
constexpr std::uint32_t kCode32Start = 0x214;
constexpr std::uint32_t kRamdiskImage = 0x218;
constexpr std::uint32_t kRamdiskSize = 0x21C;
constexpr std::uint32_t kHeapEndPtr = 0x224;
constexpr std::uint32_t kCmdLinePtr = 0x228;
constexpr std::uint32_t kKernelAlignment = 0x230;
constexpr std::uint32_t kRelocatableKernel = 0x234;
constexpr std::uint32_t kMinAlignment = 0x235;
constexpr std::uint32_t kSetupData = 0x250;
constexpr std::uint32_t kInitSize = 0x260;
constexpr std::uint32_t kE820Table = 0x2D0;
}  // namespace BootParamsOffset

// The boot protocol's fields and its 32-bit entry reach only the low 4 GiB;
// the kernel itself must lie below 1 GiB.
constexpr std::uint64_t kBelowOneGiB = 0x40000000;
constexpr std::uint64_t kBelowFourGiB = 0x100000000;

constexpr std::uint32_t kBootParamsSize = 0x1000;
constexpr std::uint32_t kE820EntrySize = 20;
constexpr std::uint32_t kE820EntriesInParams = 128;

// Little-endian access to a byte area; the caller keeps offsets in range.
class ByteArea {
public:
    explicit ByteArea(std::uint8_t* bytes) : bytes_(bytes) {}
    std::uint8_t U8(std::uint32_t offset) const { return bytes_[offset]; }
    std::uint16_t U16(std::uint32_t offset) const { return static_cast<std::uint16_t>(bytes_[offset] | bytes_[offset + 1] << 8); }
    std::uint32_t U32(std::uint32_t offset) const { return U16(offset) | static_cast<std::uint32_t>(U16(offset + 2)) << 16; }
    std::uint64_t U64(std::uint32_t offset) const { return U32(offset) | static_cast<std::uint64_t>(U32(offset + 4)) << 32; }
    void SetU8(std::uint32_t offset, std::uint8_t value) { bytes_[offset] = value; }
    void SetU16(std::uint32_t offset, std::uint16_t value) {
        bytes_[offset] = static_cast<std::uint8_t>(value);
        bytes_[offset + 1] = static_cast<std::uint8_t>(value >> 8);
    }
    void SetU32(std::uint32_t offset, std::uint32_t value) {
        SetU16(offset, static_cast<std::uint16_t>(value));
        SetU16(offset + 2, static_cast<std::uint16_t>(value >> 16));
    }
    void SetU64(std::uint32_t offset, std::uint64_t value) {
        SetU32(offset, static_cast<std::uint32_t>(value));
        SetU32(offset + 4, static_cast<std::uint32_t>(value >> 32));
    }
    std::uint8_t* At(std::uint32_t offset) const { return bytes_ + offset; }

private:
    std::uint8_t* bytes_;
};

}  // namespace Launch
