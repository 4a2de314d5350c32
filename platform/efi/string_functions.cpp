// The few C string and memory functions that the compiler, libsupc++ and
// libgcc_eh call in an image that links no C library.
#include <cstddef>
#include <cstdint>

extern "C" {

void* memcpy(void* destination, const void* source, std::size_t count) {
    auto* to = static_cast<unsigned char*>(destination);
    auto* from = static_cast<const unsigned char*>(source);
    while (count-- != 0) *to++ = *from++;
    return destination;
}

void* memmove(void* destination, const void* source, std::size_t count) {
    auto* to = static_cast<unsigned char*>(destination);
    auto* from = static_cast<const unsigned char*>(source);
    if (to == from || count == 0) return destination;
    if (to < from || to >= from + count) return memcpy(destination, source, count);
    while (count-- != 0) to[count] = from[count];
    return destination;
}

void* memset(void* destination, int value, std::size_t count) {
    auto* to = static_cast<unsigned char*>(destination);
    while (count-- != 0) *to++ = static_cast<unsigned char>(value);
    return destination;
}

int memcmp(const void* left, const void* right, std::size_t count) {
    auto* a = static_cast<const unsigned char*>(left);
    auto* b = static_cast<const unsigned char*>(right);
    for (; count != 0; --count, ++a, ++b) {
        if (*a != *b) return *a < *b ? -1 : 1;
    }
    return 0;
}

void* memchr(const void* block, int value, std::size_t count) {
    auto* bytes = static_cast<const unsigned char*>(block);
    for (std::size_t i = 0; i < count; ++i) {
        if (bytes[i] == static_cast<unsigned char>(value)) return const_cast<unsigned char*>(bytes + i);
    }
    return nullptr;
}

std::size_t strlen(const char* text) {
    std::size_t length = 0;
    while (text[length] != 0) ++length;
    return length;
}

int strcmp(const char* left, const char* right) {
    while (*left != 0 && *left == *right) ++left, ++right;
    return static_cast<unsigned char>(*left) - static_cast<unsigned char>(*right);
}

}  // extern "C"
