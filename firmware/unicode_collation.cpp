#include "firmware/unicode_collation.h"

#include "firmware/firmware_access.h"

namespace {
bool located = false;
EFI_UNICODE_COLLATION_PROTOCOL* collation = nullptr;
}  // namespace

namespace Uefi {

EFI_UNICODE_COLLATION_PROTOCOL* UnicodeCollation() {
    if (located) return collation;
    // The host tool may run with no firmware tables at all: then there is
    // nothing to locate, and nothing is kept, so a firmware set up later
    // is still asked.
    EFI_SYSTEM_TABLE* table = SystemTable();
    if (table == nullptr || table->BootServices == nullptr) return nullptr;
    EFI_GUID guid = EFI_UNICODE_COLLATION_PROTOCOL_GUID;
    void* found = nullptr;
    EFI_STATUS status = table->BootServices->LocateProtocol(&guid, nullptr, &found);
    collation = EFI_ERROR(status) ? nullptr : static_cast<EFI_UNICODE_COLLATION_PROTOCOL*>(found);
    located = true;
    return collation;
}

void ForgetUnicodeCollation() {
    located = false;
    collation = nullptr;
}

}  // namespace Uefi
