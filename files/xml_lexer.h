#pragma once
// The tokeniser of the text form. It pulls the stream through a buffer that
// holds the token under construction plus at most one block, counts lines and
// columns as it goes, and hands out one token per advance.
#include <cstddef>
#include <cstdint>
#include <string>

#include "files/file_object.h"
#include "files/xml_refusal.h"

class xml_lexer {
public:
    enum class scan_state : std::uint32_t {
        Start,
        Content,
        CData,
        Tag,
        DoubleQuoted,
        SingleQuoted,
        Comment,
        Instruction,
    };
    // Normal: white space met now becomes pending. Pending: one blank is owed
    // in front of the next text. Trim: white space met now is dropped.
    enum class space_state : std::uint32_t { Normal, Pending, Trim };
    enum class token_kind : std::uint32_t {
        End,
        Error,
        StartTagName,
        TagClose,
        EmptyTagClose,
        EndTagName,
        AttributeName,
        ValueOpen,
        Text,
        BinaryMagic,
    };

    // Reads at most `byte_limit` bytes of `source`; a longer stream reads as
    // if it ended there, and too_long() tells so. The first token is ready
    // when the constructor returns.
    explicit xml_lexer(i_file& source, std::uint64_t byte_limit = xml_max_document_bytes);

    // Moves to the next token; does nothing once the token is End.
    void advance();

    token_kind token() const { return token_; }
    const std::string& name() const { return name_; }
    const std::u16string& text() const { return text_; }

    std::uint32_t line() const { return line_; }
    std::uint32_t column() const { return column_; }
    // Byte offset in the stream of the place that line() and column() name.
    std::uint64_t offset() const { return erased_ + token_start_; }

    bool preserve() const { return preserve_; }
    void set_preserve(bool preserve) { preserve_ = preserve; }

    // Why the last Error token was given; none after any other token.
    xml_refusal refusal() const { return refusal_; }
    bool too_long() const { return too_long_; }

private:
    void refill();
    void ensure(std::size_t count);
    unsigned char byte_at(std::size_t index) const;
    bool bytes_are(std::size_t index, const char* expected) const;
    void count_to(std::size_t index);
    void scan_name();

    bool step();
    bool step_start();
    bool step_content();
    bool step_cdata();
    bool step_tag();
    bool step_value(unsigned char quote);
    bool step_skipped(unsigned char closer);
    bool entity();
    bool give_text();
    bool give_converted();
    bool refuse(std::size_t new_position, xml_refusal reason);
    bool give_error(xml_refusal reason);

    scan_state state_ = scan_state::Start;
    space_state space_ = space_state::Trim;
    i_file& source_;
    bool at_eof_ = false;
    std::uint32_t line_ = 1;
    std::uint32_t column_ = 0;
    bool preserve_ = false;
    std::string buffer_;
    std::size_t token_start_ = 0;
    std::size_t position_ = 0;
    std::size_t mark_ = 0;
    token_kind token_ = token_kind::Error;
    std::string name_;
    std::u16string text_;

    // Bytes erased from the front of the buffer so far.
    std::uint64_t erased_ = 0;
    std::uint64_t bytes_read_ = 0;
    std::uint64_t byte_limit_;
    bool too_long_ = false;
    xml_refusal refusal_ = xml_refusal::none;
};
