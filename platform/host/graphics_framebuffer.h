#pragma once
// Memory that stands for a display adapter's: blocks at real addresses
// below 4 GiB, so that the loader's detection code reads the same
// addresses the stand-in protocols report, and a framebuffer painted the
// way an adapter lays its pixels out.
#include <cstddef>
#include <cstdint>

namespace HostFirmware {

// A block of zeroed memory below 4 GiB, given back when the object goes.
class LowMemory {
public:
    explicit LowMemory(std::size_t bytes);
    ~LowMemory();
    LowMemory(const LowMemory&) = delete;
    LowMemory& operator=(const LowMemory&) = delete;

    std::uint32_t Address() const { return static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(bytes_)); }
    std::uint8_t* Bytes() const { return bytes_; }
    std::size_t Size() const { return size_; }

private:
    std::uint8_t* bytes_ = nullptr;
    std::size_t size_ = 0;
};

// The order of the colour bytes of one pixel in memory.
enum class PixelOrder { kRedFirst, kBlueFirst };

struct FramebufferLayout {
    std::uint32_t width = 0;
    std::uint32_t height = 0;
    std::uint32_t stride = 0;           // pixels from one line's start to the next
    std::uint32_t bytes_per_pixel = 4;  // 3 or 4; the fourth byte is the reserved one
    PixelOrder order = PixelOrder::kBlueFirst;
};

// An adapter's memory window with the visible screen at its start.
class SimulatedFramebuffer {
public:
    // Large enough that a search for the line length that strays up to 4096
    // pixels per line still reads inside the window.
    static constexpr std::size_t kDefaultWindow = 32u << 20;

    explicit SimulatedFramebuffer(std::size_t window_bytes = kDefaultWindow);

    std::uint32_t Base() const { return memory_.Address(); }
    std::size_t WindowBytes() const { return memory_.Size(); }
    std::uint8_t* Bytes() const { return memory_.Bytes(); }

    const FramebufferLayout& Layout() const { return layout_; }
    // Switches to another screen layout, as a mode change does; false when
    // the screen would not fit the window. The memory keeps its bytes.
    bool SetLayout(const FramebufferLayout& layout);
    // Bytes of the visible screen, stride included.
    std::uint64_t ScreenBytes() const;

    // Paints a rectangle as the adapter's fill operation does; false when
    // it leaves the screen.
    bool Fill(std::uint64_t x, std::uint64_t y, std::uint64_t width, std::uint64_t height, std::uint8_t red, std::uint8_t green,
              std::uint8_t blue, std::uint8_t reserved);
    // The colour at (x, y) as 0xRRGGBB.
    std::uint32_t ColourAt(std::uint32_t x, std::uint32_t y) const;

private:
    std::uint8_t* PixelAddress(std::uint32_t x, std::uint32_t y) const;

    LowMemory memory_;
    FramebufferLayout layout_;
};

}  // namespace HostFirmware
