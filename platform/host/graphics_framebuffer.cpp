#include "platform/host/graphics_framebuffer.h"

#include <sys/mman.h>

#include <cstring>
#include <new>
#include <utility>

namespace HostFirmware {

LowMemory::LowMemory(std::size_t bytes) : size_(bytes) {
    // MAP_32BIT places the block in the lowest 2 GiB, where a 32-bit
    // address is the pointer itself.
    void* block = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_32BIT, -1, 0);
    if (block == MAP_FAILED) throw std::bad_alloc();
    if (reinterpret_cast<std::uintptr_t>(block) + bytes > 0x100000000ull) {
        munmap(block, bytes);
        throw std::bad_alloc();
    }
    bytes_ = static_cast<std::uint8_t*>(block);
}

LowMemory::~LowMemory() { munmap(bytes_, size_); }

SimulatedFramebuffer::SimulatedFramebuffer(std::size_t window_bytes) : memory_(window_bytes) {}

std::uint64_t SimulatedFramebuffer::ScreenBytes() const {
    return std::uint64_t(layout_.stride) * layout_.height * layout_.bytes_per_pixel;
}

bool SimulatedFramebuffer::SetLayout(const FramebufferLayout& layout) {
    if (layout.bytes_per_pixel != 3 && layout.bytes_per_pixel != 4) return false;
    if (layout.stride < layout.width) return false;
    if (std::uint64_t(layout.stride) * layout.height * layout.bytes_per_pixel > memory_.Size()) return false;
    layout_ = layout;
    return true;
}

std::uint8_t* SimulatedFramebuffer::PixelAddress(std::uint32_t x, std::uint32_t y) const {
    return memory_.Bytes() + (std::uint64_t(y) * layout_.stride + x) * layout_.bytes_per_pixel;
}

bool SimulatedFramebuffer::Fill(std::uint64_t x, std::uint64_t y, std::uint64_t width, std::uint64_t height, std::uint8_t red,
                                std::uint8_t green, std::uint8_t blue, std::uint8_t reserved) {
    if (x > layout_.width || width > layout_.width - x || y > layout_.height || height > layout_.height - y) return false;
    std::uint8_t pixel[4] = {blue, green, red, reserved};
    if (layout_.order == PixelOrder::kRedFirst) {
        pixel[0] = red;
        pixel[2] = blue;
    }
    for (std::uint64_t row = y; row < y + height; ++row) {
        for (std::uint64_t column = x; column < x + width; ++column) {
            std::memcpy(PixelAddress(static_cast<std::uint32_t>(column), static_cast<std::uint32_t>(row)), pixel,
                        layout_.bytes_per_pixel);
        }
    }
    return true;
}

std::uint32_t SimulatedFramebuffer::ColourAt(std::uint32_t x, std::uint32_t y) const {
    const std::uint8_t* pixel = PixelAddress(x, y);
    std::uint32_t first = pixel[0];
    std::uint32_t last = pixel[2];
    if (layout_.order == PixelOrder::kBlueFirst) std::swap(first, last);
    return first << 16 | std::uint32_t(pixel[1]) << 8 | last;
}

}  // namespace HostFirmware
