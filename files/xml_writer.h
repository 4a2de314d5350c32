#pragma once
// Writes a document tree in the text form so that reading it back gives the
// same tree. The reader trims and collapses white space, so the writer puts
// every blank that matters as a character reference and uses literal white
// space only where the reader drops it again or makes exactly one blank of
// it; that way a tree read from an indented document comes out indented.
#include <cstdint>
#include <string>

#include "files/xml_element.h"

enum class xml_write_problem : std::uint32_t {
    none = 0,
    bad_name,              // a name the target form cannot carry
    unwritable_character,  // a unit the target form cannot carry
    too_many_attributes,   // more than the binary form's count byte holds
};

struct xml_write_failure {
    xml_write_problem problem = xml_write_problem::none;
    // The element that could not be written.
    const xml_element* element = nullptr;

    explicit operator bool() const { return problem != xml_write_problem::none; }
};

// UTF-8 with an XML declaration. The text form has no way to write U+FFFE,
// U+FFFF or a surrogate, and names must follow its name rule.
xml_write_failure write_xml_text(const xml_element& root, std::string& out);
