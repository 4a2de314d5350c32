#include "platform/clib/clib.h"

#include <new>

namespace {

bool initialized = false;
EFI_HANDLE image_handle = nullptr;
EFI_SYSTEM_TABLE* system_table = nullptr;
int last_error = 0;
constexpr int kOutOfMemory = 12;

}  // namespace

namespace ClibInternal {
EFI_SYSTEM_TABLE* SystemTable() { return system_table; }
}  // namespace ClibInternal

namespace Clib {

bool Initialize(EFI_HANDLE image, EFI_SYSTEM_TABLE* table) {
    if (initialized) return true;
    if (table == nullptr || table->BootServices == nullptr) return false;
    table->BootServices->SetWatchdogTimer(0, 0, 0, nullptr);
    if (table->ConOut == nullptr) return false;
    image_handle = image;
    system_table = table;
    initialized = true;
    return true;
}

void Exit(int status) {
    if (system_table != nullptr) {
        system_table->BootServices->Exit(image_handle, static_cast<EFI_STATUS>(status), 0, nullptr);
    }
    // Exit does not come back; if a firmware ever lets it, stay here.
    for (;;) {
    }
}

EFI_HANDLE ImageHandle() { return image_handle; }
EFI_SYSTEM_TABLE* SystemTable() { return system_table; }

int LastError() { return last_error; }
void SetLastError(int error) { last_error = error; }

void* Allocate(std::size_t size) {
    void* block = ::operator new(size, std::nothrow);
    if (block == nullptr) last_error = kOutOfMemory;
    return block;
}

void Release(void* block) { ::operator delete(block); }

}  // namespace Clib

namespace ClibTesting {
void ForgetImage() {
    initialized = false;
    image_handle = nullptr;
    system_table = nullptr;
    last_error = 0;
}
}  // namespace ClibTesting
