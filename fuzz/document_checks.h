#pragma once
// What every fuzz target asserts about a document it could read: the tree
// keeps its invariants and limits, and both writers either refuse it or
// write something that reads back to the same tree. A broken promise aborts,
// which libFuzzer reports as a crash.
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "files/buf_ifile.h"
#include "files/bxml_writer.h"
#include "files/xml_document.h"
#include "files/xml_writer.h"

namespace FuzzChecks {

[[noreturn]] inline void Broken(const char* promise) {
    std::fprintf(stderr, "broken promise: %s\n", promise);
    std::abort();
}

inline void CheckTree(const xml_element& root) {
    struct position {
        const xml_element* element;
        std::size_t depth;
    };
    std::vector<position> pending{{&root, 1}};
    std::size_t elements = 0;
    while (!pending.empty()) {
        position current = pending.back();
        pending.pop_back();
        const xml_element& element = *current.element;
        ++elements;
        if (current.depth > xml_max_depth) Broken("depth within the limit");
        if (element.texts.size() != element.children.size() + 1) Broken("one text more than children");
        for (const auto& child : element.children) {
            if (!child || child->parent != &element) Broken("children link back to their parent");
            pending.push_back({child.get(), current.depth + 1});
        }
    }
    if (elements > xml_max_elements) Broken("element count within the limit");
}

inline bool SameTree(const xml_element& a, const xml_element& b) {
    std::vector<std::pair<const xml_element*, const xml_element*>> pending{{&a, &b}};
    while (!pending.empty()) {
        auto [left, right] = pending.back();
        pending.pop_back();
        if (left->name != right->name || left->attributes != right->attributes || left->texts != right->texts ||
            left->children.size() != right->children.size()) {
            return false;
        }
        for (std::size_t i = 0; i < left->children.size(); ++i) {
            pending.push_back({left->children[i].get(), right->children[i].get()});
        }
    }
    return true;
}

inline void CheckRoundTrip(const xml_element& root, bool binary) {
    std::string bytes;
    xml_write_failure failure = binary ? write_bxml(root, bytes) : write_xml_text(root, bytes);
    if (failure) return;
    buf_ifile<unsigned char> file(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
    xml_document again;
    xml_read_report report;
    // The limits may refuse what a writer made bigger than its source.
    if (!read_xml_document(again, file, report)) {
        if (report.refusal == xml_refusal::too_long) return;
        Broken(binary ? "binary output reads back" : "text output reads back");
    }
    if (!again || !SameTree(root, *again)) Broken(binary ? "binary output gives the same tree" : "text output gives the same tree");
}

// Reads `size` bytes as a document and checks everything about the result.
inline void CheckDocument(const unsigned char* data, std::size_t size) {
    buf_ifile<unsigned char> file(data, size);
    xml_document root;
    xml_read_report report;
    std::uint32_t line = 0;
    std::uint32_t column = 0;
    bool whole = read_xml_document(root, file, report);
    if (whole != (report.refusal == xml_refusal::none)) Broken("a refusal has a reason");
    if (report.offset > size) Broken("the place lies within the input");
    if (root) CheckTree(*root);
    if (whole && root) {
        CheckRoundTrip(*root, false);
        CheckRoundTrip(*root, true);
    }
    // The plain entry gives the same answer.
    buf_ifile<unsigned char> second(data, size);
    xml_document other;
    if (read_xml_document(other, second, line, column) != whole) Broken("both entries agree");
    if (line != report.line || column != report.column) Broken("both entries give the same place");
}

}  // namespace FuzzChecks
