// What libsupc++ and libgcc_eh expect of an operating system, answered for an
// image that is alone in its address space and runs one thread.
#include <cstddef>
#include <cstdint>

extern "C" {
extern char ImageBase[];
extern char _edata[];
extern char __eh_frame_hdr_start[];
}

namespace {

// libsupc++'s own copy lives in thread-local storage, which the firmware
// world does not have; one thread means one copy serves.
struct ExceptionGlobals {
    void* caught_exceptions;
    unsigned int uncaught_exceptions;
};
ExceptionGlobals exception_globals;

}  // namespace

extern "C" {

void* __cxa_get_globals() { return &exception_globals; }
void* __cxa_get_globals_fast() { return &exception_globals; }

// The layout is glibc's (2.35 and later) as the unwinder of Debian 12 reads it.
struct dl_find_object {
    unsigned long long dlfo_flags;
    void* dlfo_map_start;
    void* dlfo_map_end;
    void* dlfo_link_map;
    void* dlfo_eh_frame;
    unsigned long long reserved[7];
};

// The unwinder asks which module holds a code address; there is one module,
// and its unwind table is the image's .eh_frame_hdr.
int _dl_find_object(void* address, dl_find_object* result) {
    auto* pc = static_cast<char*>(address);
    if (pc < ImageBase || pc >= _edata) return -1;
    result->dlfo_flags = 0;
    result->dlfo_map_start = ImageBase;
    result->dlfo_map_end = _edata;
    result->dlfo_link_map = nullptr;
    result->dlfo_eh_frame = __eh_frame_hdr_start;
    return 0;
}

}  // extern "C"

// Global destructors: the image leaves through the firmware's Exit and never
// returns to a C runtime that would run them, so none are registered. What
// they would free is pool memory of an image that is ending anyway.
extern "C" {
__attribute__((visibility("hidden"))) void* __dso_handle = &__dso_handle;
int __cxa_atexit(void (*)(void*), void*, void*) { return 0; }
}
