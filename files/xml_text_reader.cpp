#include "files/xml_text_reader.h"

#include <vector>

namespace {

using token_kind = xml_lexer::token_kind;

struct open_element {
    xml_element* element;
    bool preserve;
};

}  // namespace

bool xml_text_reader::refuse(xml_refusal reason) {
    refusal_ = reason;
    return false;
}

xml_refusal xml_text_reader::reason_for_token(xml_refusal otherwise) const {
    if (lexer_.token() == token_kind::End) return xml_refusal::unexpected_end;
    if (lexer_.token() == token_kind::Error) return lexer_.refusal();
    return otherwise;
}

bool xml_text_reader::read(xml_element& element, bool preserve) {
    std::vector<open_element> open;
    open.push_back({&element, preserve});
    std::uint32_t elements = 1;
    bool in_start_tag = true;
    for (;;) {
        open_element& current = open.back();
        if (in_start_tag) {
            switch (lexer_.token()) {
                case token_kind::EmptyTagClose:
                    lexer_.advance();
                    break;
                case token_kind::AttributeName: {
                    std::string name = lexer_.name();
                    if (current.element->attributes.count(name) != 0) return refuse(xml_refusal::duplicate_attribute);
                    lexer_.advance();
                    if (lexer_.token() != token_kind::ValueOpen) {
                        return refuse(reason_for_token(xml_refusal::attribute_without_value));
                    }
                    lexer_.advance();
                    std::u16string& value = current.element->attributes[name];
                    while (lexer_.token() == token_kind::Text) {
                        value += lexer_.text();
                        lexer_.advance();
                    }
                    // Only "preserve" switches; no value switches an inherited
                    // "preserve" off.
                    if (name == "xml:space" && value == u"preserve") {
                        current.preserve = true;
                        lexer_.set_preserve(true);
                    }
                    continue;
                }
                case token_kind::TagClose:
                    lexer_.advance();
                    in_start_tag = false;
                    continue;
                default:
                    return refuse(reason_for_token(xml_refusal::unexpected_token));
            }
        } else {
            switch (lexer_.token()) {
                case token_kind::Text:
                    current.element->append_text(lexer_.text());
                    lexer_.advance();
                    continue;
                case token_kind::StartTagName: {
                    if (open.size() >= xml_max_depth) return refuse(xml_refusal::too_deep);
                    if (elements >= xml_max_elements) return refuse(xml_refusal::too_many_elements);
                    ++elements;
                    xml_element* child = current.element->append_child(xml_element::create(lexer_.name()));
                    child->line = lexer_.line();
                    child->column = lexer_.column() + 1;
                    bool inherited = current.preserve;
                    lexer_.advance();
                    open.push_back({child, inherited});
                    in_start_tag = true;
                    continue;
                }
                case token_kind::EndTagName:
                    if (lexer_.name() != current.element->name) return refuse(xml_refusal::end_tag_mismatch);
                    lexer_.advance();
                    if (lexer_.token() != token_kind::TagClose) {
                        return refuse(reason_for_token(xml_refusal::end_tag_not_closed));
                    }
                    lexer_.advance();
                    break;
                default:
                    return refuse(reason_for_token(xml_refusal::unexpected_token));
            }
        }
        // The element is complete and the lexer already stands behind it, on
        // a token scanned with the element's own xml:space setting.
        open.pop_back();
        if (open.empty()) return true;
        lexer_.set_preserve(open.back().preserve);
        in_start_tag = false;
    }
}
