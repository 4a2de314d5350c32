#pragma once
// Writes a document tree in the binary form, version 1.1: ids are given from
// 0 in the order of first use, attributes in map order. Version 1 has no
// list ends, so every name and every unit but U+0000 can be written.
#include <string>

#include "files/xml_element.h"
#include "files/xml_writer.h"

xml_write_failure write_bxml(const xml_element& root, std::string& out);
