#include "files/xml_element.h"

#include <cstring>

bool xml_element::name_order::operator()(const std::string& a, const std::string& b) const {
    std::size_t common = a.size() < b.size() ? a.size() : b.size();
    int order = std::memcmp(a.data(), b.data(), common);
    if (order != 0) return order < 0;
    return a.size() < b.size();
}

xml_element::~xml_element() {
    // Walk down to a leaf, free it from its parent, climb back, repeat. Each
    // element freed here has no children left, so its own destructor returns
    // at once. The parent links are set on the way down, which keeps the walk
    // right even in a tree that was linked by hand.
    xml_element* node = this;
    for (;;) {
        if (!node->children.empty()) {
            xml_element* child = node->children.back().get();
            if (child == nullptr) {
                node->children.pop_back();
                continue;
            }
            child->parent = node;
            node = child;
            continue;
        }
        if (node == this) break;
        xml_element* up = node->parent;
        up->children.pop_back();
        node = up;
    }
}

std::unique_ptr<xml_element> xml_element::create(const std::string& name) {
    return std::unique_ptr<xml_element>(new xml_element(name));
}

xml_element* xml_element::append_child(std::unique_ptr<xml_element> child) {
    child->parent = this;
    children.push_back(std::move(child));
    texts.emplace_back();
    return children.back().get();
}

void xml_element::append_text(const std::u16string& text) { texts.back() += text; }

const xml_element* xml_element::find_child(const std::string& child_name) const {
    for (const auto& child : children) {
        if (child->name == child_name) return child.get();
    }
    return nullptr;
}

xml_element* xml_element::find_child(const std::string& child_name) {
    return const_cast<xml_element*>(static_cast<const xml_element*>(this)->find_child(child_name));
}

std::u16string xml_element::attribute_or(const std::string& attribute, const std::u16string& fallback) const {
    auto found = attributes.find(attribute);
    return found != attributes.end() ? found->second : fallback;
}

std::string to_bytes(const std::u16string& text) {
    std::string bytes(text.size(), '\0');
    for (std::size_t i = 0; i < text.size(); ++i) bytes[i] = static_cast<char>(text[i] & 0xFF);
    return bytes;
}

std::uint32_t to_number(const std::u16string& text) {
    const std::string bytes = to_bytes(text);
    std::size_t i = 0;
    auto at = [&](std::size_t index) -> unsigned char {
        return index < bytes.size() ? static_cast<unsigned char>(bytes[index]) : 0;
    };
    while (at(i) == ' ' || (at(i) >= '\t' && at(i) <= '\r')) ++i;
    bool negative = false;
    if (at(i) == '+' || at(i) == '-') {
        negative = at(i) == '-';
        ++i;
    }
    std::uint32_t value = 0;
    bool overflow = false;
    for (; at(i) >= '0' && at(i) <= '9'; ++i) {
        std::uint32_t digit = at(i) - '0';
        if (value > (0xFFFFFFFFu - digit) / 10) overflow = true;
        value = value * 10 + digit;
    }
    if (overflow) return 0xFFFFFFFFu;
    return negative ? 0u - value : value;
}
