#pragma once
// Zeroed bytes whose start lies on a multiple of `alignment`: the device
// reads and writes whole sectors straight through such a buffer, and
// through no other. Shared by the drivers that move data past the cache.
#include <cstddef>
#include <cstdint>
#include <memory>

class AlignedBuffer {
public:
    static constexpr std::size_t kAlignment = 4096;  // the largest sector served

    explicit AlignedBuffer(std::size_t size, std::size_t alignment = kAlignment)
        : storage(new unsigned char[size + alignment]()), bytes(size) {
        const auto address = reinterpret_cast<std::uintptr_t>(storage.get());
        aligned = storage.get() + ((alignment - address % alignment) % alignment);
    }
    unsigned char* data() const { return aligned; }
    std::size_t size() const { return bytes; }

private:
    std::unique_ptr<unsigned char[]> storage;
    unsigned char* aligned = nullptr;
    std::size_t bytes = 0;
};
