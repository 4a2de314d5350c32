#include "platform/host/collation_stand_in.h"

#include "firmware/unicode_collation.h"
#include "platform/host/simulator.h"

namespace HostFirmware {
namespace {

// Code page 850, bytes 0x80 to 0xFF.
constexpr CHAR16 kCodePage850[128] = {
    0x00C7, 0x00FC, 0x00E9, 0x00E2, 0x00E4, 0x00E0, 0x00E5, 0x00E7, 0x00EA, 0x00EB, 0x00E8, 0x00EF, 0x00EE,
    0x00EC, 0x00C4, 0x00C5, 0x00C9, 0x00E6, 0x00C6, 0x00F4, 0x00F6, 0x00F2, 0x00FB, 0x00F9, 0x00FF, 0x00D6,
    0x00DC, 0x00F8, 0x00A3, 0x00D8, 0x00D7, 0x0192, 0x00E1, 0x00ED, 0x00F3, 0x00FA, 0x00F1, 0x00D1, 0x00AA,
    0x00BA, 0x00BF, 0x00AE, 0x00AC, 0x00BD, 0x00BC, 0x00A1, 0x00AB, 0x00BB, 0x2591, 0x2592, 0x2593, 0x2502,
    0x2524, 0x00C1, 0x00C2, 0x00C0, 0x00A9, 0x2563, 0x2551, 0x2557, 0x255D, 0x00A2, 0x00A5, 0x2510, 0x2514,
    0x2534, 0x252C, 0x251C, 0x2500, 0x253C, 0x00E3, 0x00C3, 0x255A, 0x2554, 0x2569, 0x2566, 0x2560, 0x2550,
    0x256C, 0x00A4, 0x00F0, 0x00D0, 0x00CA, 0x00CB, 0x00C8, 0x0131, 0x00CD, 0x00CE, 0x00CF, 0x2518, 0x250C,
    0x2588, 0x2584, 0x00A6, 0x00CC, 0x2580, 0x00D3, 0x00DF, 0x00D4, 0x00D2, 0x00F5, 0x00D5, 0x00B5, 0x00FE,
    0x00DE, 0x00DA, 0x00DB, 0x00D9, 0x00FD, 0x00DD, 0x00AF, 0x00B4, 0x00AD, 0x00B1, 0x2017, 0x00BE, 0x00B6,
    0x00A7, 0x00F7, 0x00B8, 0x00B0, 0x00A8, 0x00B7, 0x00B9, 0x00B3, 0x00B2, 0x25A0, 0x00A0,
};

// Latin-1 letters: a-z and the accented block 0xE0 to 0xFE, without the
// division sign, pair with their capitals 0x20 below. The sharp s and y
// with diaeresis have no capital in Latin-1 and stay.
bool IsLowerLetter(CHAR16 c) { return (c >= u'a' && c <= u'z') || (c >= 0xE0 && c <= 0xFE && c != 0xF7); }
bool IsUpperLetter(CHAR16 c) { return (c >= u'A' && c <= u'Z') || (c >= 0xC0 && c <= 0xDE && c != 0xD7); }
CHAR16 ToUpper(CHAR16 c) { return IsLowerLetter(c) ? static_cast<CHAR16>(c - 0x20) : c; }
CHAR16 ToLower(CHAR16 c) { return IsUpperLetter(c) ? static_cast<CHAR16>(c + 0x20) : c; }

INTN EFIAPI StriColl(EFI_UNICODE_COLLATION_PROTOCOL*, CHAR16* s1, CHAR16* s2) {
    while (*s1 != 0 && ToUpper(*s1) == ToUpper(*s2)) {
        ++s1;
        ++s2;
    }
    return static_cast<INTN>(ToUpper(*s1)) - static_cast<INTN>(ToUpper(*s2));
}

// "*" for any run, "?" for one character; no character sets.
BOOLEAN EFIAPI MetaiMatch(EFI_UNICODE_COLLATION_PROTOCOL* self, CHAR16* text, CHAR16* pattern) {
    for (; *pattern != 0; ++pattern, ++text) {
        if (*pattern == u'*') {
            for (CHAR16* rest = text;; ++rest) {
                if (MetaiMatch(self, rest, pattern + 1)) return TRUE;
                if (*rest == 0) return FALSE;
            }
        }
        if (*text == 0) return FALSE;
        if (*pattern != u'?' && ToUpper(*pattern) != ToUpper(*text)) return FALSE;
    }
    return *text == 0;
}

VOID EFIAPI StrLwr(EFI_UNICODE_COLLATION_PROTOCOL*, CHAR16* text) {
    for (; *text != 0; ++text) *text = ToLower(*text);
}

VOID EFIAPI StrUpr(EFI_UNICODE_COLLATION_PROTOCOL*, CHAR16* text) {
    for (; *text != 0; ++text) *text = ToUpper(*text);
}

VOID EFIAPI FatToStr(EFI_UNICODE_COLLATION_PROTOCOL*, UINTN size, CHAR8* fat, CHAR16* text) {
    for (UINTN i = 0; i < size && fat[i] != 0; ++i) {
        *text++ = fat[i] < 0x80 ? fat[i] : kCodePage850[fat[i] - 0x80];
    }
    *text = 0;
}

// A character the page lacks becomes "_", and the answer tells of it.
BOOLEAN EFIAPI StrToFat(EFI_UNICODE_COLLATION_PROTOCOL*, CHAR16* text, UINTN size, CHAR8* fat) {
    BOOLEAN substituted = FALSE;
    for (; *text != 0 && size != 0; ++text, --size) {
        CHAR8 byte = '_';
        if (*text < 0x80) {
            byte = static_cast<CHAR8>(*text);
        } else {
            UINTN i = 0;
            while (i < 128 && kCodePage850[i] != *text) ++i;
            if (i < 128) byte = static_cast<CHAR8>(0x80 + i);
        }
        if (byte == '_' && *text != u'_') substituted = TRUE;
        *fat++ = byte;
    }
    return substituted;
}

}  // namespace

CollationStandIn::CollationStandIn(Simulator& simulator) : simulator_(simulator) {
    protocol_.StriColl = StriColl;
    protocol_.MetaiMatch = MetaiMatch;
    protocol_.StrLwr = StrLwr;
    protocol_.StrUpr = StrUpr;
    protocol_.FatToStr = FatToStr;
    protocol_.StrToFat = StrToFat;
    protocol_.SupportedLanguages = const_cast<CHAR8*>(reinterpret_cast<const CHAR8*>("en"));
    EFI_GUID guid = EFI_UNICODE_COLLATION_PROTOCOL_GUID;
    handle_ = simulator_.Handles().Install(nullptr, guid, &protocol_);
}

CollationStandIn::~CollationStandIn() {
    EFI_GUID guid = EFI_UNICODE_COLLATION_PROTOCOL_GUID;
    simulator_.Handles().Uninstall(handle_, guid, &protocol_);
    // A real firmware never takes the protocol away; the kept pointer must
    // not outlive this one.
    Uefi::ForgetUnicodeCollation();
}

}  // namespace HostFirmware
