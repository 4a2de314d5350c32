#pragma once
// A run of firmware pages held by an owning object: allocated below a limit,
// freed when the object goes, unless ownership was given up on the way into
// the kernel.
#include <cstdint>

namespace Launch {

class PageBuffer {
public:
    PageBuffer() = default;
    // `size` rounded up to whole 4 KiB pages, all below `limit`; raises
    // FILE_NO_MEMORY when the firmware has no such run. Not cleared.
    PageBuffer(std::uint64_t size, std::uint64_t limit);
    ~PageBuffer();
    PageBuffer(const PageBuffer&) = delete;
    PageBuffer& operator=(const PageBuffer&) = delete;

    void swap(PageBuffer& other);
    // Forgets the pages without freeing them: the kernel owns them now.
    void release() {
        address_ = 0;
        pages_ = 0;
    }

    std::uint64_t address() const { return address_; }
    std::uint32_t pages() const { return pages_; }
    std::uint64_t bytes() const { return std::uint64_t(pages_) * 4096; }
    std::uint8_t* data() const { return reinterpret_cast<std::uint8_t*>(address_); }

private:
    std::uint64_t address_ = 0;
    std::uint32_t pages_ = 0;
};

}  // namespace Launch
