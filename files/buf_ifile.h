#pragma once
// A readable stream over bytes in memory. It may own the bytes (`storage`,
// freed at destruction with delete[]) or only look at them. Positions are
// not checked when set: a read outside the contents simply gives 0 bytes.
#include <cstdint>
#include <cstring>

#include "files/file_object.h"

template <typename T>
class buf_ifile;

template <>
class buf_ifile<unsigned char> : public ri_file {
public:
    // Looks at bytes that the caller keeps alive.
    buf_ifile(const unsigned char* data, std::uint64_t length) : data_(data), length_(length) {}
    // Takes over an allocation made with new[].
    buf_ifile(unsigned char* storage, std::uint64_t length, bool owned)
        : storage_(owned ? storage : nullptr), data_(storage), length_(length) {}
    ~buf_ifile() override { delete[] storage_; }
    buf_ifile(const buf_ifile&) = delete;
    buf_ifile& operator=(const buf_ifile&) = delete;

    void read(void* buffer, std::uint64_t size, std::uint64_t& got) override {
        got = 0;
        if (failed()) return;
        if (position_ < 0 || static_cast<std::uint64_t>(position_) >= length_) return;
        std::uint64_t left = length_ - static_cast<std::uint64_t>(position_);
        std::uint64_t count = size < left ? size : left;
        std::memcpy(buffer, data_ + position_, count);
        got = count;
        position_ += static_cast<std::int64_t>(count);
    }

    std::int64_t seek(std::int64_t position) override {
        if (failed()) return position_;
        position_ = position;
        return position_;
    }
    std::int64_t seek_relative(std::int64_t delta) override {
        if (failed()) return position_;
        position_ += delta;
        return position_;
    }
    std::int64_t seek_end(std::int64_t delta) override {
        if (failed()) return position_;
        position_ = static_cast<std::int64_t>(length_) + delta;
        return position_;
    }

    const unsigned char* data() const { return data_; }

private:
    unsigned char* storage_ = nullptr;
    const unsigned char* data_;
    std::int64_t position_ = 0;
    std::uint64_t length_;
};
