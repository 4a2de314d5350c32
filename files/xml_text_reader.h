#pragma once
// Builds elements from the tokens of the text form. The reader keeps its own
// stack of open elements instead of recursing, so the depth of a document
// costs heap, not the firmware's small stack; xml_max_depth still bounds it
// for the code that walks the tree afterwards.
#include <cstdint>

#include "files/xml_element.h"
#include "files/xml_lexer.h"
#include "files/xml_refusal.h"

class xml_text_reader {
public:
    explicit xml_text_reader(xml_lexer& lexer) : lexer_(lexer) {}

    // Reads `element`, whose name the lexer has just passed, with everything
    // below it. `preserve` is the xml:space setting it inherits. On true the
    // lexer stands on the first token behind the element.
    bool read(xml_element& element, bool preserve);

    xml_refusal refusal() const { return refusal_; }

private:
    bool refuse(xml_refusal reason);
    // The reason for a token that has no place where it stands.
    xml_refusal reason_for_token(xml_refusal otherwise) const;

    xml_lexer& lexer_;
    xml_refusal refusal_ = xml_refusal::none;
};
