// The little of stdio and pthreads that libsupc++ and libgcc_eh name: the
// terminate handler writes to stderr (the firmware console here), the
// demangler formats numbers with sprintf, and the unwinder takes mutexes
// that one thread never contends for.
#include <cstdarg>
#include <cstddef>
#include <cstdio>

#include "platform/clib/clib.h"

extern "C" {

struct EfiStream {
    int unused;
};
EfiStream efi_stderr_stream;
FILE* stderr = reinterpret_cast<FILE*>(&efi_stderr_stream);

std::size_t fwrite(const void* data, std::size_t size, std::size_t count, FILE*) {
    auto* bytes = static_cast<const char*>(data);
    Clib::WriteStdout(Clib::FromMultibyte(bytes, size * count));
    return count;
}

int fputs(const char* text, FILE* stream) {
    std::size_t length = 0;
    while (text[length] != 0) ++length;
    fwrite(text, 1, length, stream);
    return 0;
}

int fputc(int c, FILE* stream) {
    char byte = static_cast<char>(c);
    fwrite(&byte, 1, 1, stream);
    return c;
}

int sprintf(char* out, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    std::u16string text = Clib::FormatV(format, arguments);
    va_end(arguments);
    std::string narrow = Clib::ToMultibyte(text.data(), text.size());
    for (std::size_t i = 0; i < narrow.size(); ++i) out[i] = narrow[i];
    out[narrow.size()] = 0;
    return static_cast<int>(narrow.size());
}

int strncmp(const char* left, const char* right, std::size_t count) {
    for (; count != 0; --count, ++left, ++right) {
        if (*left != *right || *left == 0) {
            return static_cast<unsigned char>(*left) - static_cast<unsigned char>(*right);
        }
    }
    return 0;
}

int pthread_mutex_lock(void*) { return 0; }
int pthread_mutex_unlock(void*) { return 0; }

}  // extern "C"
