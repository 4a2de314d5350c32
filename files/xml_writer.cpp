#include "files/xml_writer.h"

#include <vector>

#include "files/utf_conversion.h"

namespace {

bool IsNameStart(unsigned char byte) {
    return (byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z') || byte == '_' || byte == ':';
}

bool IsNameByte(unsigned char byte) {
    return IsNameStart(byte) || (byte >= '0' && byte <= '9') || byte == '-' || byte == '.';
}

bool IsWritableName(const std::string& name) {
    if (name.empty() || !IsNameStart(static_cast<unsigned char>(name[0]))) return false;
    for (char byte : name) {
        if (!IsNameByte(static_cast<unsigned char>(byte))) return false;
    }
    return true;
}

bool IsSpace(char16_t unit) { return unit == 0x09 || unit == 0x0A || unit == 0x0D || unit == 0x20; }

bool IsUnwritable(char16_t unit) { return (unit >= 0xD800 && unit <= 0xDFFF) || unit == 0xFFFE || unit == 0xFFFF; }

void AppendReference(std::string& out, char16_t unit) {
    char digits[8];
    int count = 0;
    unsigned value = unit;
    do {
        digits[count++] = static_cast<char>('0' + value % 10);
        value /= 10;
    } while (value != 0);
    out += "&#";
    while (count > 0) out.push_back(digits[--count]);
    out.push_back(';');
}

// Content and values follow the same rule: a single blank between two other
// characters is written as it is, since the reader makes one blank of it;
// any other white space, every control character and the characters with
// a meaning of their own are references.
bool AppendEscaped(std::string& out, const std::u16string& text, bool in_value) {
    for (std::size_t i = 0; i < text.size(); ++i) {
        char16_t unit = text[i];
        if (IsUnwritable(unit)) return false;
        if (unit == u' ' && i > 0 && i + 1 < text.size() && !IsSpace(text[i - 1]) && !IsSpace(text[i + 1])) {
            out.push_back(' ');
        } else if (unit == u'&') {
            out += "&amp;";
        } else if (unit == u'<') {
            out += "&lt;";
        } else if (unit == u'>') {
            out += "&gt;";
        } else if (unit == u'"' && in_value) {
            out += "&quot;";
        } else if (unit < 0x20 || unit == u' ') {
            AppendReference(out, unit);
        } else {
            out += utf16_to_utf8(&unit, 1);
        }
    }
    return true;
}

bool Preserves(const xml_element& element, bool inherited) {
    if (inherited) return true;
    auto space = element.attributes.find("xml:space");
    return space != element.attributes.end() && space->second == u"preserve";
}

void AppendIndent(std::string& out, std::size_t depth) {
    out.push_back('\n');
    out.append(depth * 2, ' ');
}

struct open_element {
    const xml_element* element;
    std::size_t next_child;
    bool preserve;
};

}  // namespace

xml_write_failure write_xml_text(const xml_element& root, std::string& out) {
    out = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
    std::vector<open_element> open;
    const xml_element* element = &root;
    bool inherited = false;
    for (;;) {
        if (element != nullptr) {
            // A start tag, and the element is done at once if it has no
            // children.
            if (!IsWritableName(element->name)) return {xml_write_problem::bad_name, element};
            out += "<" + element->name;
            for (const auto& attribute : element->attributes) {
                if (!IsWritableName(attribute.first)) return {xml_write_problem::bad_name, element};
                out += " " + attribute.first + "=\"";
                if (!AppendEscaped(out, attribute.second, true)) return {xml_write_problem::unwritable_character, element};
                out.push_back('"');
            }
            if (element->children.empty()) {
                if (element->texts.front().empty()) {
                    out += "/>";
                } else {
                    out.push_back('>');
                    if (!AppendEscaped(out, element->texts.front(), false)) {
                        return {xml_write_problem::unwritable_character, element};
                    }
                    out += "</" + element->name + ">";
                }
            } else {
                out.push_back('>');
                open.push_back({element, 0, Preserves(*element, inherited)});
            }
            element = nullptr;
        }
        if (open.empty()) break;
        open_element& current = open.back();
        const xml_element& parent = *current.element;
        const std::size_t index = current.next_child;
        const std::size_t count = parent.children.size();
        static const std::u16string kNone;
        const std::u16string& text = index < parent.texts.size() ? parent.texts[index] : kNone;
        // Literal white space is safe only where no xml:space="preserve" is
        // in force: the element's own, or that of the child in front, whose
        // setting still holds for the first token behind it.
        bool indent = !current.preserve && (index == 0 || !Preserves(*parent.children[index - 1], current.preserve));
        // Behind a start tag and in front of an end tag the reader drops white
        // space; between two children it makes one blank of it.
        bool dropped = index == 0 || index == count;
        if (indent && ((dropped && text.empty()) || (!dropped && text == u" "))) {
            AppendIndent(out, index == count ? open.size() - 1 : open.size());
        } else if (!AppendEscaped(out, text, false)) {
            return {xml_write_problem::unwritable_character, &parent};
        }
        if (index == count) {
            out += "</" + parent.name + ">";
            open.pop_back();
            continue;
        }
        ++current.next_child;
        element = parent.children[index].get();
        inherited = current.preserve;
    }
    // The token behind the root is scanned with the root's own xml:space
    // setting: under "preserve" a line end there would be text behind the
    // root, which the reader refuses.
    if (!Preserves(root, false)) out.push_back('\n');
    return {};
}
