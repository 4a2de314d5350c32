// Standard output is the firmware's text console. The console wants CR LF,
// as a C runtime in text mode gives it; lines go out in pieces so that a
// long text never needs one large buffer.
#include <efi.h>

#include "platform/clib/clib.h"

namespace ClibInternal {
EFI_SYSTEM_TABLE* SystemTable();
}

namespace Clib {

void WriteStdout(const std::u16string& text) {
    EFI_SYSTEM_TABLE* table = ClibInternal::SystemTable();
    if (table == nullptr || table->ConOut == nullptr) return;
    constexpr std::size_t kPiece = 256;
    char16_t piece[kPiece + 3];
    std::size_t used = 0;
    auto send = [&] {
        piece[used] = 0;
        table->ConOut->OutputString(table->ConOut, reinterpret_cast<CHAR16*>(piece));
        used = 0;
    };
    for (char16_t c : text) {
        if (c == u'\n') piece[used++] = u'\r';
        piece[used++] = c;
        if (used >= kPiece) send();
    }
    if (used != 0) send();
}

}  // namespace Clib
