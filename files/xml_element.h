#pragma once
// The document tree that both readers of the configuration document build.
// Mixed content keeps its order in two parallel sequences: texts[i] stands in
// front of children[i], and the last text behind the last child, so there is
// always exactly one text more than there are children. Names are bytes as
// they stand in the document; values are 16-bit strings.
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

struct xml_element {
    // Orders names by unsigned bytes, the shorter first when one is a prefix
    // of the other.
    struct name_order {
        bool operator()(const std::string& a, const std::string& b) const;
    };

    std::string name;
    std::map<std::string, std::u16string, name_order> attributes;
    std::vector<std::unique_ptr<xml_element>> children;
    std::vector<std::u16string> texts{std::u16string()};
    xml_element* parent = nullptr;
    // Where the start tag stands in the text form, counted from 1, for those
    // who must find the element; 0 when unknown (the binary form).
    std::uint32_t line = 0;
    std::uint32_t column = 0;

    explicit xml_element(std::string element_name) : name(std::move(element_name)) {}
    // Takes the subtree down without recursion, so that no document depth can
    // exhaust the stack.
    ~xml_element();
    xml_element(const xml_element&) = delete;
    xml_element& operator=(const xml_element&) = delete;

    // A new element: no attributes, no children, one empty text, no parent.
    static std::unique_ptr<xml_element> create(const std::string& name);

    // Puts `child` behind the last child and opens a new, empty last text.
    // Answers the child, which this element now owns.
    xml_element* append_child(std::unique_ptr<xml_element> child);
    void append_text(const std::u16string& text);

    // The first child in document order with exactly this name, or null.
    const xml_element* find_child(const std::string& child_name) const;
    xml_element* find_child(const std::string& child_name);

    // The attribute's value when present (even when empty), else `fallback`.
    std::u16string attribute_or(const std::string& attribute, const std::u16string& fallback) const;
};

// The document: one slot that owns the root element, or is empty.
using xml_document = std::unique_ptr<xml_element>;

// Each unit cut to its low 8 bits; no encoding takes place.
std::string to_bytes(const std::u16string& text);

// to_bytes, then the unsigned 32-bit conversion in base 10: leading white
// space and one sign are taken, a minus negates modulo 2^32, conversion stops
// at the first byte that isn't a digit, no digit gives 0 and overflow gives
// 0xFFFFFFFF.
std::uint32_t to_number(const std::u16string& text);
