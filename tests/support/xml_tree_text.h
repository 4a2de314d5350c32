#pragma once
// A document tree as one line of text, so that tests compare whole trees:
// name{attribute="value",...}["text" child "text" ...]
#include <cstdio>
#include <string>

#include "files/xml_element.h"

namespace TestSupport {

// A 16-bit text in quotes: printable ASCII as it is, '"' and '\' behind a
// backslash, anything else as \uXXXX.
inline std::string Quote(const std::u16string& text) {
    std::string out = "\"";
    for (char16_t unit : text) {
        if (unit == u'"' || unit == u'\\') {
            out.push_back('\\');
            out.push_back(static_cast<char>(unit));
        } else if (unit >= 0x20 && unit < 0x7F) {
            out.push_back(static_cast<char>(unit));
        } else {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\u%04X", static_cast<unsigned>(unit));
            out += escape;
        }
    }
    return out + "\"";
}

inline std::string Describe(const xml_element& element) {
    std::string out = element.name;
    if (!element.attributes.empty()) {
        out += "{";
        for (const auto& attribute : element.attributes) {
            if (out.back() != '{') out += ",";
            out += attribute.first + "=" + Quote(attribute.second);
        }
        out += "}";
    }
    out += "[";
    for (std::size_t i = 0; i < element.texts.size(); ++i) {
        if (i > 0) out += " ";
        out += Quote(element.texts[i]);
        if (i < element.children.size()) out += " " + Describe(*element.children[i]);
    }
    return out + "]";
}

}  // namespace TestSupport
