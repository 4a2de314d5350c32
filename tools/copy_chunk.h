#pragma once
// The buffer through which cp-in and cp-out move a file's bytes: 1 MiB,
// aligned to the largest sector a volume has. The drivers move whole runs
// of sectors straight between the device and a buffer that lies on a
// sector boundary; one that doesn't (a plain vector of this size starts 16
// bytes past a page) sends every block through the cache instead.
#include <cstddef>
#include <cstdint>
#include <vector>

namespace MorvaneTool {

class CopyChunk {
public:
    static constexpr std::size_t kSize = 1024 * 1024;

    CopyChunk() : storage_(kSize + kAlignment) {
        const std::uintptr_t misalignment = reinterpret_cast<std::uintptr_t>(storage_.data()) % kAlignment;
        data_ = storage_.data() + (kAlignment - misalignment) % kAlignment;
    }
    unsigned char* data() { return data_; }
    std::size_t size() const { return kSize; }

private:
    static constexpr std::uintptr_t kAlignment = 4096;
    std::vector<unsigned char> storage_;
    unsigned char* data_;
};

}  // namespace MorvaneTool
