#pragma once
// Splitting the image's load options into arguments.
#include <cstddef>
#include <string>
#include <vector>

namespace EfiLoader {

// `options` holds `bytes` bytes of 16-bit characters; an odd last byte and
// everything behind a zero character are not part of the text. Tabs and
// blanks separate arguments; an argument that begins with a double quote
// runs to the next double quote (quotes dropped); a double quote inside an
// unquoted argument ends it.
std::vector<std::u16string> SplitLoadOptions(const void* options, std::size_t bytes);

}  // namespace EfiLoader
