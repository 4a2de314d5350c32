#pragma once
// A bzImage as small as the boot protocol allows, written field by field:
// a setup part with the header, then a payload of known bytes.
#include <cstdint>
#include <string>

namespace TestSupport {

struct SyntheticKernel {
    std::uint8_t setup_sects = 1;
    std::uint16_t version = 0x020F;
    std::uint8_t jump_offset = 0x66;
    std::uint8_t loadflags = 0x01;
    std::uint8_t relocatable = 1;
    std::uint8_t min_alignment = 21;
    std::uint16_t kernel_version = 0;
    std::uint32_t payload_size = 0x3000;
    std::int64_t init_size_delta = 0x1000;  // init_size = payload + delta
    bool bad_boot_flag = false;
    bool bad_magic = false;

    std::uint32_t SetupSize() const { return (setup_sects == 0 ? 4u : setup_sects) * 512u + 512u; }

    std::string Bytes() const {
        std::string image(SetupSize() + payload_size, '\0');
        auto put16 = [&](std::size_t at, std::uint32_t v) {
            image[at] = static_cast<char>(v);
            image[at + 1] = static_cast<char>(v >> 8);
        };
        auto put32 = [&](std::size_t at, std::uint32_t v) {
            put16(at, v & 0xFFFF);
            put16(at + 2, v >> 16);
        };
        for (std::size_t i = 0; i < 0x1F1; ++i) image[i] = static_cast<char>(0x5A);  // must be cleared
        image[0x1F1] = static_cast<char>(setup_sects);
        put16(0x1FE, bad_boot_flag ? 0x55AA : 0xAA55);
        image[0x200] = static_cast<char>(0xEB);
        image[0x201] = static_cast<char>(jump_offset);
        put32(0x202, bad_magic ? 0x53726449 : 0x53726448);
        put16(0x206, version);
        put16(0x20E, kernel_version);
        image[0x211] = static_cast<char>(loadflags);
        put32(0x214, 0x100000);  // code32_start as a file would have it
        put32(0x230, 0x200000);  // kernel_alignment, replaced by the loader
        image[0x234] = static_cast<char>(relocatable);
        image[0x235] = static_cast<char>(min_alignment);
        put32(0x260, static_cast<std::uint32_t>(payload_size + init_size_delta));
        // Bytes behind the header inside the setup part must be cleared too.
        for (std::size_t i = 0x202 + jump_offset; i < SetupSize(); ++i) image[i] = static_cast<char>(0x77);
        for (std::uint32_t i = 0; i < payload_size; ++i) image[SetupSize() + i] = static_cast<char>((i * 13 + 7) & 0xFF);
        return image;
    }
};

}  // namespace TestSupport
