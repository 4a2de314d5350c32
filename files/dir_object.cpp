#include "files/dir_object.h"

void i_dir::space(std::uint64_t& total, std::uint64_t& free, std::uint64_t& available) {
    total = 0;
    free = 0;
    available = 0;
    unsupported();
}

void i_dir::label(char16_t* buffer, std::uint32_t capacity) {
    if (buffer != nullptr && capacity != 0) buffer[0] = 0;
    unsupported();
}

void o_dir::link(const char16_t*, const char16_t*) { unsupported(); }

void o_dir::symlink(const char16_t*, const char16_t*) { unsupported(); }

void o_dir::set_attributes(const char16_t*, std::uint32_t) { unsupported(); }

void o_dir::set_permissions(const char16_t*, std::uint32_t) { unsupported(); }

void o_dir::set_owner(const char16_t*, std::uint32_t, std::uint32_t) { unsupported(); }

void o_dir::make_node(const char16_t*, std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t) {
    unsupported();
}
