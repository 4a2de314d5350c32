#pragma once
// The one entry for reading a configuration document. It tells the text and
// the binary form apart by the first four bytes, so a caller never says which
// form it has.
#include <cstdint>

#include "files/file_object.h"
#include "files/xml_element.h"
#include "files/xml_refusal.h"

// Where and why reading stopped, for those who must find the mistake.
struct xml_read_report {
    bool binary = false;
    std::uint8_t major_version = 0;
    std::uint8_t minor_version = 0;
    xml_refusal refusal = xml_refusal::none;
    // Byte offset in the stream: for text, of the place that line and column
    // name; for the binary form, of the next byte the reader would have taken.
    std::uint64_t offset = 0;
    // Counted from 1; a tab moves the column to the next multiple of 8 plus 1.
    std::uint32_t line = 1;
    std::uint32_t column = 1;
};

// Empties `root`, then reads one document from `source` into it. True when a
// whole document was read; after a false answer the elements built so far
// stay in `root`, and a stream error stays in `source`. `line` and `column`
// are written in every case: where the text reader stood when it stopped.
bool read_xml_document(xml_document& root, i_file& source, std::uint32_t& line, std::uint32_t& column);
bool read_xml_document(xml_document& root, i_file& source, xml_read_report& report);
