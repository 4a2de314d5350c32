#include "files/xml_document.h"

#include "files/bxml_reader.h"
#include "files/xml_lexer.h"
#include "files/xml_text_reader.h"

bool read_xml_document(xml_document& root, i_file& source, xml_read_report& report) {
    using token_kind = xml_lexer::token_kind;
    root.reset();
    report = xml_read_report();
    xml_lexer lexer(source);
    bool whole = false;
    switch (lexer.token()) {
        case token_kind::StartTagName: {
            root = xml_element::create(lexer.name());
            root->line = lexer.line();
            root->column = lexer.column() + 1;
            lexer.advance();
            xml_text_reader builder(lexer);
            bool built = builder.read(*root, false);
            if (!built) {
                report.refusal = builder.refusal();
            } else if (lexer.token() == token_kind::Error) {
                report.refusal = lexer.refusal();
            } else if (lexer.token() != token_kind::End) {
                report.refusal = xml_refusal::content_after_root;
            }
            whole = built && lexer.token() == token_kind::End;
            report.offset = lexer.offset();
            break;
        }
        case token_kind::BinaryMagic: {
            report.binary = true;
            binary_reader sink(root);
            bxml_read_report binary;
            whole = read_bxml_document(source, sink, &binary);
            report.major_version = binary.major_version;
            report.minor_version = binary.minor_version;
            report.refusal = binary.refusal;
            report.offset = binary.offset;
            break;
        }
        default:
            report.refusal = lexer.token() == token_kind::Error ? lexer.refusal() : xml_refusal::no_root;
            report.offset = lexer.offset();
            break;
    }
    // What ended the input explains the refusal better than the place where
    // the reader noticed.
    if (source.failed()) {
        whole = false;
        report.refusal = xml_refusal::stream_error;
    } else if (lexer.too_long()) {
        whole = false;
        report.refusal = xml_refusal::too_long;
    }
    if (whole) report.refusal = xml_refusal::none;
    report.line = lexer.line();
    report.column = lexer.column() + 1;
    return whole;
}

bool read_xml_document(xml_document& root, i_file& source, std::uint32_t& line, std::uint32_t& column) {
    xml_read_report report;
    bool whole = read_xml_document(root, source, report);
    line = report.line;
    column = report.column;
    return whole;
}
