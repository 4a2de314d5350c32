#pragma once
// Text at the host tool's edge. The system's own conversions take every
// 16-bit unit alone, as its drivers must; a person at a shell types and reads
// proper UTF-8, where a character beyond the BMP is one four-byte sequence
// and a surrogate pair on the volume. These conversions are the tool's only.
#include <string>

namespace MorvaneTool {

// Strict UTF-8 to UTF-16 with surrogate pairs. False for anything that isn't
// UTF-8: bad or overlong sequences, encoded surrogates, values above 0x10FFFF.
bool HostTextToVolume(const std::string& utf8, std::u16string& utf16);

// UTF-16 to UTF-8; a pair becomes one four-byte sequence, and a surrogate
// without its partner (a damaged name) becomes U+FFFD.
std::string VolumeTextToHost(const std::u16string& utf16);

}  // namespace MorvaneTool
