#pragma once
// What the document readers accept at most, and why they refused a document.
// The readers answer a refusal with false; the loader turns every false into
// BAD_CONFIGURATION. The reason and the place exist for the people who write
// documents and for the host tool that checks them.
#include <cstdint>

// The readers keep the element tree, not the stack, proportional to the
// document, but code that walks the tree afterwards may recurse; no real
// configuration comes near these bounds.
constexpr std::uint32_t xml_max_depth = 128;
constexpr std::uint32_t xml_max_elements = 16384;
// Everything the readers keep is bounded by what they have read.
constexpr std::uint64_t xml_max_document_bytes = 1u << 20;

enum class xml_refusal : std::uint32_t {
    none = 0,
    // The text form.
    control_byte,             // a byte below 0x20 that isn't white space
    bad_markup,               // '<' not followed by a name, '/', '?', "!--" or "![CDATA["
    bad_entity,               // unknown entity, or '&' without a proper end
    bad_character_reference,  // above 0xFFFD, or a surrogate
    invalid_utf8,             // in content or in a value
    bad_tag,                  // a byte that has no place inside a tag
    bad_value,                // '=' not followed by a quote, or '<' inside a value
    unexpected_end,           // the input ends inside the root element
    unexpected_token,         // a token that has no place where it stands
    duplicate_attribute,
    attribute_without_value,
    end_tag_mismatch,
    end_tag_not_closed,
    no_root,
    content_after_root,
    // The binary form.
    unknown_version,
    // Either form.
    stream_error,             // the stream failed; the error stays in it
    too_deep,                 // nesting beyond xml_max_depth
    too_many_elements,        // more than xml_max_elements
    too_long,                 // more than xml_max_document_bytes
};
