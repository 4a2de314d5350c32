// The tokeniser of the text form, token by token.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "files/xml_lexer.h"

namespace {

using token_kind = xml_lexer::token_kind;

// Hands out at most `per_read` bytes a read and notes what was asked for.
class trickle_file : public i_file {
public:
    trickle_file(std::string data, std::size_t per_read) : data_(std::move(data)), per_read_(per_read) {}
    void read(void* buffer, std::uint64_t size, std::uint64_t& got) override {
        asked.push_back(size);
        std::size_t left = data_.size() - position_;
        got = std::min<std::uint64_t>({size, per_read_, left});
        std::memcpy(buffer, data_.data() + position_, got);
        position_ += got;
    }
    std::size_t position() const { return position_; }
    std::vector<std::uint64_t> asked;

private:
    std::string data_;
    std::size_t per_read_;
    std::size_t position_ = 0;
};

std::string Show(const std::u16string& text) {
    std::string out;
    for (char16_t unit : text) {
        if (unit >= 0x20 && unit < 0x7F) {
            out.push_back(static_cast<char>(unit));
        } else {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\u%04X", static_cast<unsigned>(unit));
            out += escape;
        }
    }
    return out;
}

std::string Describe(const xml_lexer& lexer) {
    switch (lexer.token()) {
        case token_kind::End: return "END";
        case token_kind::Error: return "ERR";
        case token_kind::StartTagName: return "S:" + lexer.name();
        case token_kind::TagClose: return ">";
        case token_kind::EmptyTagClose: return "/>";
        case token_kind::EndTagName: return "E:" + lexer.name();
        case token_kind::AttributeName: return "A:" + lexer.name();
        case token_kind::ValueOpen: return "=";
        case token_kind::Text: return "T'" + Show(lexer.text()) + "'";
        case token_kind::BinaryMagic: return "BXML";
    }
    return "?";
}

bool Final(token_kind token) {
    return token == token_kind::End || token == token_kind::Error || token == token_kind::BinaryMagic;
}

// All tokens up to End, Error or BinaryMagic, blank-separated.
std::string Tokens(const std::string& input, std::size_t per_read = 1 << 20, std::uint64_t limit = 1 << 20) {
    trickle_file file(input, per_read);
    xml_lexer lexer(file, limit);
    std::string out = Describe(lexer);
    while (!Final(lexer.token())) {
        lexer.advance();
        out += " " + Describe(lexer);
    }
    return out;
}

TEST(XmlLexer, TokenStreams) {
    struct Case {
        std::string input;
        std::string tokens;
    };
    const Case cases[] = {
        {"<a b = 'x y'>t</a>", "S:a A:b = T'x' T' y' > T't' E:a > END"},
        {"<a>x <b/></a>", "S:a > T'x' T' ' S:b /> E:a > END"},
        {"<a> x </a>", "S:a > T'x' E:a > END"},
        {"<a>x <![CDATA[y]]></a>", "S:a > T'x' T' ' T'y' T'' E:a > END"},
        {"<a><![CDATA[ <&\r\n]]]></a>", "S:a > T' <&' T'\\u000A' T']' T'' E:a > END"},
        {"<a>x &amp; y&lt;&gt;&quot;&apos;</a>", "S:a > T'x' T' &' T' y' T'<' T'>' T'\"' T''' E:a > END"},
        {"<a>x <!-- c --> <?p?> y</a>", "S:a > T'x' T' y' E:a > END"},
        {"<a v=\"  &#65; \"/>", "S:a A:v = T'A' /> END"},
        {"<?xml version='1.0'?><a/>", "S:a /> END"},
        {"\xEF\xBB\xBF<a/>", "S:a /> END"},
        {"<a>\xEF\xBB\xBF</a>", "S:a > T'\\uFEFF' E:a > END"},
        // An end tag needs no name match here: that is the builder's task.
        {"<a></b >", "S:a > E:b > END"},
        // Running out of input between tags or in a comment is End.
        {"<a>", "S:a > END"},
        {"<a><!-- open", "S:a > END"},
        {"<a b=\"x", "S:a A:b = T'x' END"},
        // Refused bytes.
        {"<a>\x01", "S:a > ERR"},
        {std::string("<a>x\0", 5), "S:a > T'x' ERR"},
        {"<a 1>", "S:a ERR"},
        {"<a b=c>", "S:a A:b ERR"},
        {"<a b=\"<\"/>", "S:a A:b = ERR"},
        {"<a/ >", "S:a ERR"},
        {"<!DOCTYPE a><a/>", "ERR"},
        {"< a/>", "ERR"},
        {"</ a>", "ERR"},
        {"<a>&nbsp;</a>", "S:a > ERR"},
        {"<a>&#X41;</a>", "S:a > ERR"},
        {"<a>&#xFFFE;</a>", "S:a > ERR"},
        {"<a>&#xDFFF;</a>", "S:a > ERR"},
        {"<a>&#99999999999999999999999;</a>", "S:a > ERR"},
        {"<a>&#xFFFD;&#0;&#x20;</a>", "S:a > T'\\uFFFD' T'\\u0000' T' ' E:a > END"},
        {"<a><!-- \x02 --></a>", "S:a > ERR"},
        {"BXML", "BXML"},
        {"BXM", "T'BXM' END"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(Tokens(c.input), c.tokens) << c.input;
        // A stream that hands out one byte a read gives the same tokens.
        EXPECT_EQ(Tokens(c.input, 1), c.tokens) << c.input;
    }
}

TEST(XmlLexer, MagicIsReadWithFourBytesAndStreamStaysBehindIt) {
    trickle_file binary("BXML\x01\x01rest", 64);
    xml_lexer lexer(binary);
    EXPECT_EQ(lexer.token(), token_kind::BinaryMagic);
    EXPECT_EQ(binary.position(), 4u);
    EXPECT_EQ(binary.asked, std::vector<std::uint64_t>{4});

    trickle_file text("<a>text</a>", 64);
    xml_lexer text_lexer(text);
    EXPECT_EQ(text_lexer.token(), token_kind::StartTagName);
    ASSERT_GE(text.asked.size(), 2u);
    EXPECT_EQ(text.asked[0], 4u);
    EXPECT_EQ(text.asked[1], 1024u);
}

TEST(XmlLexer, LineAndColumnCountTabsAndLineFeeds) {
    // 'a', a tab to column 8, and the refused markup at column 8 (9 when
    // counted from 1).
    trickle_file file("a\t<!x", 64);
    xml_lexer lexer(file);
    EXPECT_EQ(Describe(lexer), "T'a'");
    lexer.advance();
    EXPECT_EQ(lexer.token(), token_kind::Error);
    EXPECT_EQ(lexer.refusal(), xml_refusal::bad_markup);
    EXPECT_EQ(lexer.line(), 1u);
    EXPECT_EQ(lexer.column(), 8u);
    EXPECT_EQ(lexer.offset(), 2u);

    // A carriage return counts as a column; a line feed starts a line.
    trickle_file lines("<a>\r\n\r\n  \t\xC3\xB1 \xFF</a>", 64);
    xml_lexer second(lines);
    second.advance();  // >
    second.advance();  // the n with tilde
    EXPECT_EQ(Describe(second), "T'\\u00F1'");
    EXPECT_EQ(second.line(), 3u);
    EXPECT_EQ(second.column(), 8u);
    second.advance();
    EXPECT_EQ(second.token(), token_kind::Error);
    EXPECT_EQ(second.refusal(), xml_refusal::invalid_utf8);
    EXPECT_EQ(second.column(), 11u);
    EXPECT_EQ(second.offset(), 13u);
}

TEST(XmlLexer, InvalidUtf8PointsAtTheBadSequence) {
    struct Case {
        std::string word;
        std::uint32_t bad_index;
    };
    const Case cases[] = {
        {"ab\xC3(", 2}, {"\xC0\x80", 0}, {"x\xE0\x9F\x80", 1}, {"xy\xED\xA0\x80", 2},
        {"\xEF\xBF\xBE", 0}, {"\xEF\xBF\xBF", 0}, {"ok\xF0\x9F\x98\x80", 2}, {"\x80", 0},
        {"abc\xE2\x82", 3},
    };
    for (const Case& c : cases) {
        trickle_file file("<a>" + c.word + "</a>", 64);
        xml_lexer lexer(file);
        lexer.advance();
        lexer.advance();
        EXPECT_EQ(lexer.token(), token_kind::Error) << c.word;
        EXPECT_EQ(lexer.column(), 3 + c.bad_index) << c.word;
    }
    // The accepted edges of the table.
    EXPECT_EQ(Tokens("<a>\xC2\x80\xDF\xBF\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBD</a>"),
              "S:a > T'\\u0080\\u07FF\\u0800\\uD7FF\\uE000\\uFFFD' E:a > END");
}

TEST(XmlLexer, TokensAcrossBlockBoundaries) {
    // Words, names, entities and markup that straddle the 1024-byte blocks
    // in every position.
    for (std::size_t pad = 1000; pad < 1030; ++pad) {
        std::string input = "<a>" + std::string(pad, 'w') + " <long-name x=\"&amp;&#x10FF;\"/>" +
                            "<![CDATA[c]]><!-- k --></a>";
        std::string expected = "S:a > T'" + std::string(pad, 'w') + "' T' ' S:long-name A:x = T'&' T'\\u10FF' /> T'c' T'' E:a > END";
        EXPECT_EQ(Tokens(input), expected) << pad;
    }
}

TEST(XmlLexer, StreamBeyondTheLimitReadsAsEnded) {
    // The first read takes the four bytes "<a>x"; the next one would pass
    // the limit, so the input ends there.
    std::string input = "<a>" + std::string(100, 'x') + "</a>";
    trickle_file file(input, 1 << 20);
    xml_lexer lexer(file, 50);
    std::string tokens = Describe(lexer);
    while (!Final(lexer.token())) {
        lexer.advance();
        tokens += " " + Describe(lexer);
    }
    EXPECT_EQ(tokens, "S:a > T'x' END");
    EXPECT_TRUE(lexer.too_long());

    EXPECT_EQ(Tokens(input, 1 << 20, input.size()), "S:a > T'" + std::string(100, 'x') + "' E:a > END");
    trickle_file exact(input, 1 << 20);
    xml_lexer fits(exact, input.size());
    while (!Final(fits.token())) fits.advance();
    EXPECT_FALSE(fits.too_long());
}

}  // namespace
