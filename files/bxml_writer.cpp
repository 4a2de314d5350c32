#include "files/bxml_writer.h"

#include <cstdint>
#include <map>
#include <vector>

#include "files/utf_conversion.h"

namespace {

class bxml_output {
public:
    explicit bxml_output(std::string& out) : out_(out) {}

    void number(std::uint32_t value) {
        while (value >= 0x80) {
            out_.push_back(static_cast<char>(0x80 | (value & 0x7F)));
            value >>= 7;
        }
        out_.push_back(static_cast<char>(value));
    }

    void name(const std::string& text) {
        auto known = ids_.find(text);
        if (known != ids_.end()) {
            number(known->second);
            return;
        }
        std::uint32_t id = static_cast<std::uint32_t>(ids_.size());
        ids_.emplace(text, id);
        number(id);
        number(static_cast<std::uint32_t>(text.size()));
        out_ += text;
    }

    // The reader's decoding stops at a 0 byte, so U+0000 has no form here.
    bool value(const std::u16string& text) {
        if (text.find(u'\0') != std::u16string::npos) return false;
        std::string bytes = utf16_to_utf8(text);
        number(static_cast<std::uint32_t>(bytes.size()));
        out_ += bytes;
        return true;
    }

    void byte(unsigned char value) { out_.push_back(static_cast<char>(value)); }

private:
    std::string& out_;
    std::map<std::string, std::uint32_t> ids_;
};

struct open_element {
    const xml_element* element;
    std::size_t next_child;
};

}  // namespace

xml_write_failure write_bxml(const xml_element& root, std::string& out) {
    out.assign("BXML\x01\x01", 6);
    bxml_output output(out);
    std::vector<open_element> open;
    const xml_element* element = &root;
    for (;;) {
        if (element != nullptr) {
            if (element->attributes.size() > 0xFF) return {xml_write_problem::too_many_attributes, element};
            output.name(element->name);
            output.byte(static_cast<unsigned char>(element->attributes.size()));
            for (const auto& attribute : element->attributes) {
                output.name(attribute.first);
                if (!output.value(attribute.second)) return {xml_write_problem::unwritable_character, element};
            }
            output.number(static_cast<std::uint32_t>(element->children.size() + 1));
            if (!output.value(element->texts.front())) return {xml_write_problem::unwritable_character, element};
            open.push_back({element, 0});
            element = nullptr;
        }
        open_element& current = open.back();
        if (current.next_child < current.element->children.size()) {
            element = current.element->children[current.next_child++].get();
            continue;
        }
        open.pop_back();
        if (open.empty()) break;
        const open_element& parent = open.back();
        const std::vector<std::u16string>& texts = parent.element->texts;
        if (parent.next_child < texts.size() && !output.value(texts[parent.next_child])) {
            return {xml_write_problem::unwritable_character, parent.element};
        }
    }
    return {};
}
