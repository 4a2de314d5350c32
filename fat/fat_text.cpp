#include "fat/fat_text.h"

#include <efi.h>

#include <vector>

#include "firmware/unicode_collation.h"

namespace {

using CaseMapping = EFI_UNICODE_STRUPR;  // StrLwr has the same shape

// The firmware stops at a 0 unit, so each run between zeros goes to it
// on its own.
void MapCase(EFI_UNICODE_COLLATION_PROTOCOL* collation, CaseMapping mapping, std::u16string& text) {
    std::vector<CHAR16> units(text.begin(), text.end());
    units.push_back(0);
    for (std::size_t start = 0; start < text.size(); ++start) {
        if (units[start] == 0) continue;
        mapping(collation, &units[start]);
        while (units[start] != 0) ++start;
    }
    for (std::size_t i = 0; i < text.size(); ++i) text[i] = units[i];
}

void MapAsciiCase(std::u16string& text, char16_t from, char16_t to) {
    for (char16_t& unit : text) {
        if (unit >= from && unit < from + 26) unit = static_cast<char16_t>(unit - from + to);
    }
}

std::size_t LengthBeforeZero(const unsigned char* bytes, std::size_t n) {
    std::size_t length = 0;
    while (length < n && bytes[length] != 0) ++length;
    return length;
}

bool AllAscii(const unsigned char* bytes, std::size_t n) {
    for (std::size_t i = 0; i < n; ++i) {
        if (bytes[i] >= 0x80) return false;
    }
    return true;
}

// One unit of 0x80 or more through StrToFat. A substitution, or no byte at
// all, is a loss.
bool EncodeThroughFirmware(EFI_UNICODE_COLLATION_PROTOCOL* collation, char16_t unit, std::string& bytes) {
    CHAR16 text[2] = {unit, 0};
    CHAR8 encoded[3] = {0, 0, 0};
    if (collation->StrToFat(collation, text, 2, encoded)) return false;
    if (encoded[0] == 0) return false;
    for (std::size_t i = 0; i < 2 && encoded[i] != 0; ++i) bytes.push_back(static_cast<char>(encoded[i]));
    return true;
}

}  // namespace

void FATDriver::FATText::text_upper(std::u16string& text) {
    EFI_UNICODE_COLLATION_PROTOCOL* collation = Uefi::UnicodeCollation();
    if (collation != nullptr) {
        MapCase(collation, collation->StrUpr, text);
    } else {
        MapAsciiCase(text, u'a', u'A');
    }
}

void FATDriver::FATText::text_lower(std::u16string& text) {
    EFI_UNICODE_COLLATION_PROTOCOL* collation = Uefi::UnicodeCollation();
    if (collation != nullptr) {
        MapCase(collation, collation->StrLwr, text);
    } else {
        MapAsciiCase(text, u'A', u'a');
    }
}

bool FATDriver::FATText::oem_to_text(const unsigned char* bytes, std::size_t n, std::u16string& text) {
    text.clear();
    std::size_t length = LengthBeforeZero(bytes, n);
    if (AllAscii(bytes, length)) {
        text.assign(bytes, bytes + length);
        return true;
    }
    EFI_UNICODE_COLLATION_PROTOCOL* collation = Uefi::UnicodeCollation();
    if (collation == nullptr) return false;
    std::vector<CHAR8> source(bytes, bytes + length);
    std::vector<CHAR16> decoded(length + 1, 0);
    collation->FatToStr(collation, length, source.data(), decoded.data());
    // A double-byte code page gives fewer units than bytes, never more.
    for (std::size_t i = 0; i < length && decoded[i] != 0; ++i) text.push_back(decoded[i]);
    return true;
}

bool FATDriver::FATText::text_to_oem(const std::u16string& text, std::string& bytes) {
    bytes.clear();
    EFI_UNICODE_COLLATION_PROTOCOL* collation = nullptr;
    for (char16_t unit : text) {
        if (unit < 0x80) {
            bytes.push_back(static_cast<char>(unit));
            continue;
        }
        if (collation == nullptr) collation = Uefi::UnicodeCollation();
        if (collation == nullptr || !EncodeThroughFirmware(collation, unit, bytes)) {
            bytes.clear();
            return false;
        }
    }
    return true;
}
