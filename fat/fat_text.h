#pragma once
// Case mapping and the OEM code page of short names. Both belong to the
// firmware's collation protocol when it has one; without it only ASCII is
// known, and anything else in a short name is refused rather than guessed.
#include <cstddef>
#include <string>

#include "fat/fat_driver.h"

class FATDriver::FATText {
public:
    // In place; characters without a case mapping stay as they are.
    static void text_upper(std::u16string& text);
    static void text_lower(std::u16string& text);
    // Decodes up to n OEM bytes, stopping at a 0 byte; false on failure.
    static bool oem_to_text(const unsigned char* bytes, std::size_t n, std::u16string& text);
    // Encodes text to OEM bytes; false when a unit can't be encoded losslessly.
    static bool text_to_oem(const std::u16string& text, std::string& bytes);
};
