#include "loader/load_options.h"

#include <cstdint>

#include "loader/common/byte_order.h"

namespace EfiLoader {
namespace {

bool IsSeparator(char16_t c) { return c == u' ' || c == u'\t'; }

std::u16string OptionsText(const void* options, std::size_t bytes) {
    std::u16string text;
    auto* raw = static_cast<const std::uint8_t*>(options);
    for (std::size_t i = 0; i + 1 < bytes; i += 2) {
        auto c = static_cast<char16_t>(Common::LoadLE16(raw + i));
        if (c == 0) break;
        text.push_back(c);
    }
    return text;
}

}  // namespace

std::vector<std::u16string> SplitLoadOptions(const void* options, std::size_t bytes) {
    std::vector<std::u16string> arguments;
    if (options == nullptr) return arguments;
    const std::u16string text = OptionsText(options, bytes);
    std::size_t i = 0;
    while (true) {
        while (i < text.size() && IsSeparator(text[i])) ++i;
        if (i >= text.size()) break;
        std::u16string argument;
        if (text[i] == u'"') {
            ++i;
            while (i < text.size() && text[i] != u'"') argument.push_back(text[i++]);
            if (i < text.size()) ++i;  // the closing quote
        } else {
            while (i < text.size() && !IsSeparator(text[i]) && text[i] != u'"') argument.push_back(text[i++]);
        }
        arguments.push_back(argument);
    }
    return arguments;
}

}  // namespace EfiLoader
