#pragma once
// Conversions between the system's 16-bit strings and UTF-8 byte strings.
// The 16-bit strings are UTF-16 without surrogate handling: every unit stands
// for itself, so these conversions never make or take a four-byte sequence.
// The ext and HFS+ drivers convert names with them, and the binary document
// reader its texts.
#include <cstddef>
#include <string>

// Each unit by itself: below 0x80 one byte, below 0x800 two, otherwise three.
// A surrogate unit is encoded alone, like any other. Stops at a 0 unit.
std::string utf16_to_utf8(const char16_t* text, std::size_t length);
std::string utf16_to_utf8(const std::u16string& text);

// Lenient decoding that never fails. Sequences of one to three bytes are
// taken, with the lead bytes 0xC2 to 0xEF for the longer ones; an overlong
// three-byte form, a stray continuation byte, a lead byte from 0xF0 up and a
// sequence that the end cuts short each give one '?' for their first byte,
// and decoding goes on at the next byte. Stops at a 0 byte.
std::u16string utf8_to_utf16(const char* bytes, std::size_t length);
std::u16string utf8_to_utf16(const std::string& bytes);
