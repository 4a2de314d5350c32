// Ends of the C++ runtime that the hosted library would supply: abort, the
// throw helpers of the standard containers, and the assertion hook. A fault
// of this kind is not a Common::Error: the image reports it on the console
// and leaves through the firmware with EFI_ABORTED.
#include "platform/efi/runtime_support.h"

#include <new>

namespace {

EFI_HANDLE image_handle = nullptr;
EFI_SYSTEM_TABLE* system_table = nullptr;

void Say(const char* text) {
    if (system_table == nullptr || system_table->ConOut == nullptr) return;
    CHAR16 line[160];
    unsigned length = 0;
    for (; *text != 0 && length + 3 < sizeof(line) / sizeof(line[0]); ++text) line[length++] = static_cast<unsigned char>(*text);
    line[length++] = u'\r';
    line[length++] = u'\n';
    line[length] = 0;
    system_table->ConOut->OutputString(system_table->ConOut, line);
}

[[noreturn]] void Leave(const char* why) {
    Say(why);
    if (system_table != nullptr) {
        system_table->BootServices->Exit(image_handle, EFI_ABORTED, 0, nullptr);
    }
    for (;;) {
    }
}

}  // namespace

namespace RuntimeSupport {

void Attach(EFI_HANDLE image, EFI_SYSTEM_TABLE* table) {
    image_handle = image;
    system_table = table;
}

}  // namespace RuntimeSupport

extern "C" [[noreturn]] void abort() { Leave("abort"); }

namespace std {

[[noreturn]] void __throw_bad_alloc() { throw std::bad_alloc(); }
[[noreturn]] void __throw_bad_array_new_length() { throw std::bad_array_new_length(); }
[[noreturn]] void __throw_length_error(const char* what) { Leave(what); }
[[noreturn]] void __throw_logic_error(const char* what) { Leave(what); }
[[noreturn]] void __throw_out_of_range(const char* what) { Leave(what); }
[[noreturn]] void __throw_out_of_range_fmt(const char* what, ...) { Leave(what); }
[[noreturn]] void __throw_invalid_argument(const char* what) { Leave(what); }
[[noreturn]] void __throw_bad_function_call() { Leave("bad function call"); }
[[noreturn]] void __glibcxx_assert_fail(const char*, int, const char* function, const char* condition) noexcept {
    Say(function);
    Leave(condition);
}

}  // namespace std
