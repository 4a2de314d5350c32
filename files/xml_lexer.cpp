#include "files/xml_lexer.h"

#include <cstring>

namespace {

constexpr std::size_t kBlockSize = 1024;
constexpr std::size_t kMagicSize = 4;

bool IsSpace(unsigned char byte) { return byte == 0x09 || byte == 0x0A || byte == 0x0D || byte == 0x20; }

bool IsNameStart(unsigned char byte) {
    return (byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z') || byte == '_' || byte == ':';
}

bool IsNameByte(unsigned char byte) {
    return IsNameStart(byte) || (byte >= '0' && byte <= '9') || byte == '-' || byte == '.';
}

bool InRange(unsigned char byte, unsigned char low, unsigned char high) { return byte >= low && byte <= high; }

// The characters a document may hold literally: tab, line feed, carriage
// return, everything from 0x20 up to U+FFFD except the surrogates, in
// sequences of at most three bytes. Answers the index of the first byte of
// the first sequence that fails, or `length` when all of them convert.
std::size_t DecodeDocumentText(const unsigned char* bytes, std::size_t length, std::u16string& out) {
    std::size_t i = 0;
    while (i < length) {
        unsigned char lead = bytes[i];
        unsigned char second = i + 1 < length ? bytes[i + 1] : 0;
        unsigned char third = i + 2 < length ? bytes[i + 2] : 0;
        if (lead == 0x09 || lead == 0x0A || lead == 0x0D || InRange(lead, 0x20, 0x7F)) {
            out.push_back(lead);
            i += 1;
            continue;
        }
        if (InRange(lead, 0xC2, 0xDF) && InRange(second, 0x80, 0xBF)) {
            out.push_back(static_cast<char16_t>(((lead & 0x1F) << 6) | (second & 0x3F)));
            i += 2;
            continue;
        }
        bool three = false;
        if (lead == 0xE0) {
            three = InRange(second, 0xA0, 0xBF) && InRange(third, 0x80, 0xBF);
        } else if (InRange(lead, 0xE1, 0xEC) || lead == 0xEE) {
            three = InRange(second, 0x80, 0xBF) && InRange(third, 0x80, 0xBF);
        } else if (lead == 0xED) {
            // The surrogates are no characters.
            three = InRange(second, 0x80, 0x9F) && InRange(third, 0x80, 0xBF);
        } else if (lead == 0xEF) {
            // Neither are U+FFFE and U+FFFF.
            three = (InRange(second, 0x80, 0xBE) && InRange(third, 0x80, 0xBF)) ||
                    (second == 0xBF && InRange(third, 0x80, 0xBD));
        }
        if (!three) return i;
        out.push_back(static_cast<char16_t>(((lead & 0x0F) << 12) | ((second & 0x3F) << 6) | (third & 0x3F)));
        i += 3;
    }
    return length;
}

}  // namespace

xml_lexer::xml_lexer(i_file& source, std::uint64_t byte_limit) : source_(source), byte_limit_(byte_limit) {
    advance();
}

void xml_lexer::refill() {
    if (at_eof_) return;
    if (token_start_ > 0) {
        buffer_.erase(0, token_start_);
        position_ -= token_start_;
        mark_ = mark_ >= token_start_ ? mark_ - token_start_ : 0;
        erased_ += token_start_;
        token_start_ = 0;
    }
    // While the first bytes are unknown, exactly the magic's length is asked
    // for, so that a binary document's reader finds the stream right behind
    // the magic.
    std::uint64_t wanted = state_ == scan_state::Start ? kMagicSize : kBlockSize;
    char block[kBlockSize];
    std::uint64_t got = 0;
    source_.read(block, wanted, got);
    if (got > wanted) got = wanted;
    if (got != 0 && bytes_read_ + got > byte_limit_) {
        too_long_ = true;
        got = 0;
    }
    if (got == 0) {
        at_eof_ = true;
        buffer_.push_back('\0');
        return;
    }
    bytes_read_ += got;
    buffer_.append(block, static_cast<std::size_t>(got));
}

void xml_lexer::ensure(std::size_t count) {
    while (!at_eof_ && buffer_.size() - position_ < count) refill();
}

unsigned char xml_lexer::byte_at(std::size_t index) const {
    return index < buffer_.size() ? static_cast<unsigned char>(buffer_[index]) : 0;
}

bool xml_lexer::bytes_are(std::size_t index, const char* expected) const {
    for (std::size_t i = 0; expected[i] != 0; ++i) {
        if (byte_at(index + i) != static_cast<unsigned char>(expected[i])) return false;
    }
    return true;
}

void xml_lexer::count_to(std::size_t index) {
    for (; token_start_ < index; ++token_start_) {
        unsigned char byte = static_cast<unsigned char>(buffer_[token_start_]);
        if (byte == '\t') {
            column_ = (column_ | 7) + 1;
        } else if (byte == '\n') {
            ++line_;
            column_ = 0;
        } else {
            ++column_;
        }
    }
}

// Names, digits and runs of text or white space have no known length: the
// buffer is refilled whenever the scan reaches its end. The sentinel behind
// the last byte stops every such scan.
void xml_lexer::scan_name() {
    name_.clear();
    while (IsNameByte(byte_at(position_))) {
        name_.push_back(static_cast<char>(byte_at(position_)));
        ++position_;
        if (position_ == buffer_.size()) refill();
    }
}

void xml_lexer::advance() {
    if (token_ == token_kind::End) return;
    name_.clear();
    text_.clear();
    refusal_ = xml_refusal::none;
    for (;;) {
        count_to(position_);
        if (step()) return;
    }
}

bool xml_lexer::step() {
    switch (state_) {
        case scan_state::Start:
            return step_start();
        case scan_state::Content:
            return step_content();
        case scan_state::CData:
            return step_cdata();
        case scan_state::Tag:
            return step_tag();
        case scan_state::DoubleQuoted:
            return step_value('"');
        case scan_state::SingleQuoted:
            return step_value('\'');
        case scan_state::Comment:
            return step_skipped('-');
        case scan_state::Instruction:
            return step_skipped('?');
    }
    return give_error(xml_refusal::bad_markup);
}

bool xml_lexer::step_start() {
    ensure(4);
    state_ = scan_state::Content;
    if (bytes_are(position_, "BXML")) {
        position_ += 4;
        token_ = token_kind::BinaryMagic;
        return true;
    }
    if (bytes_are(position_, "\xEF\xBB\xBF")) position_ += 3;
    return false;
}

bool xml_lexer::step_content() {
    ensure(9);
    unsigned char byte = byte_at(position_);
    if (IsSpace(byte)) {
        while (IsSpace(byte_at(position_))) {
            ++position_;
            if (position_ == buffer_.size()) refill();
        }
        if (preserve_) return give_converted();
        if (space_ == space_state::Normal) space_ = space_state::Pending;
        return false;
    }
    if (byte < 0x20) return refuse(position_ + 1, xml_refusal::control_byte);
    if (byte == '<') {
        mark_ = position_ = position_ + 1;
        unsigned char next = byte_at(position_);
        if (next == '?') {
            ++position_;
            state_ = scan_state::Instruction;
            return false;
        }
        if (next == '/') {
            ++position_;
            if (!IsNameStart(byte_at(position_))) return refuse(mark_, xml_refusal::bad_markup);
            scan_name();
            state_ = scan_state::Tag;
            // Text in front of an end tag has no trailing blank.
            space_ = space_state::Normal;
            token_ = token_kind::EndTagName;
            return true;
        }
        if (next == '!') {
            if (bytes_are(position_ + 1, "--")) {
                position_ += 3;
                state_ = scan_state::Comment;
                return false;
            }
            if (bytes_are(position_ + 1, "[CDATA[")) {
                // The owed blank goes out first; the next advance meets the
                // section again.
                if (space_ == space_state::Pending) {
                    position_ = token_start_;
                    return give_text();
                }
                position_ += 8;
                state_ = scan_state::CData;
                space_ = space_state::Normal;
                return false;
            }
            return refuse(mark_, xml_refusal::bad_markup);
        }
        if (IsNameStart(next)) {
            scan_name();
            if (space_ == space_state::Pending) {
                name_.clear();
                position_ = token_start_;
                return give_text();
            }
            state_ = scan_state::Tag;
            space_ = space_state::Trim;
            token_ = token_kind::StartTagName;
            return true;
        }
        return refuse(mark_, xml_refusal::bad_markup);
    }
    if (byte == '&') return entity();
    // Text goes out word by word; the blanks between words come from the
    // pending state.
    for (;;) {
        unsigned char next = byte_at(position_);
        if (next <= 0x20 || next == '&' || next == '<') break;
        ++position_;
        if (position_ == buffer_.size()) refill();
    }
    return give_converted();
}

bool xml_lexer::step_cdata() {
    ensure(3);
    unsigned char byte = byte_at(position_);
    if (byte == 0x09 || byte == 0x0A) {
        text_.push_back(byte);
        ++position_;
        return give_text();
    }
    // A section's line ends reach the document as line feeds.
    if (byte == 0x0D) {
        ++position_;
        return false;
    }
    if (byte < 0x20) return refuse(position_ + 1, xml_refusal::control_byte);
    if (byte == ']') {
        if (byte_at(position_ + 1) == ']' && byte_at(position_ + 2) == '>') {
            position_ += 3;
            state_ = scan_state::Content;
            return give_text();
        }
        text_.push_back(u']');
        ++position_;
        return give_text();
    }
    for (;;) {
        unsigned char next = byte_at(position_);
        if (next < 0x20 || next == ']') break;
        ++position_;
        if (position_ == buffer_.size()) refill();
    }
    return give_converted();
}

bool xml_lexer::step_tag() {
    ensure(2);
    unsigned char byte = byte_at(position_);
    if (IsSpace(byte)) {
        ++position_;
        return false;
    }
    if (byte == '>') {
        ++position_;
        state_ = scan_state::Content;
        token_ = token_kind::TagClose;
        return true;
    }
    if (byte == '/') {
        if (byte_at(position_ + 1) != '>') return refuse(position_ + 1, xml_refusal::bad_tag);
        position_ += 2;
        state_ = scan_state::Content;
        space_ = space_state::Normal;
        token_ = token_kind::EmptyTagClose;
        return true;
    }
    if (byte == '=') {
        mark_ = position_ = position_ + 1;
        while (IsSpace(byte_at(position_))) {
            ++position_;
            if (position_ == buffer_.size()) refill();
        }
        unsigned char quote = byte_at(position_);
        if (quote != '"' && quote != '\'') return refuse(mark_, xml_refusal::bad_value);
        state_ = quote == '"' ? scan_state::DoubleQuoted : scan_state::SingleQuoted;
        space_ = space_state::Trim;
        ++position_;
        token_ = token_kind::ValueOpen;
        return true;
    }
    if (IsNameStart(byte)) {
        scan_name();
        token_ = token_kind::AttributeName;
        return true;
    }
    return refuse(position_ + 1, xml_refusal::bad_tag);
}

bool xml_lexer::step_value(unsigned char quote) {
    ensure(6);
    unsigned char byte = byte_at(position_);
    if (byte == quote) {
        // No token marks the end of a value; a pending blank is dropped.
        ++position_;
        state_ = scan_state::Tag;
        space_ = space_state::Trim;
        return false;
    }
    // White space in a value is always trimmed and collapsed, whatever
    // xml:space says.
    if (IsSpace(byte)) {
        ++position_;
        if (space_ == space_state::Normal) space_ = space_state::Pending;
        return false;
    }
    if (byte == '<') return refuse(position_ + 1, xml_refusal::bad_value);
    if (byte < 0x20) return refuse(position_ + 1, xml_refusal::control_byte);
    if (byte == '&') return entity();
    for (;;) {
        unsigned char next = byte_at(position_);
        if (next <= 0x20 || next == quote || next == '&' || next == '<') break;
        ++position_;
        if (position_ == buffer_.size()) refill();
    }
    return give_converted();
}

// Comments and instructions: passed a byte a step, not tested for UTF-8.
bool xml_lexer::step_skipped(unsigned char closer) {
    const bool comment = closer == '-';
    ensure(comment ? 3 : 2);
    unsigned char byte = byte_at(position_);
    if (comment ? bytes_are(position_, "-->") : bytes_are(position_, "?>")) {
        position_ += comment ? 3 : 2;
        state_ = scan_state::Content;
        return false;
    }
    if (byte >= 0x20 || IsSpace(byte)) {
        ++position_;
        return false;
    }
    return refuse(position_ + 1, xml_refusal::control_byte);
}

// The state's look-ahead from the '&' covers the longest named entity, so
// those compare without a refill.
bool xml_lexer::entity() {
    mark_ = position_ = position_ + 1;
    static const struct {
        const char* input;
        char16_t character;
    } kNamed[] = {{"amp;", u'&'}, {"apos;", u'\''}, {"gt;", u'>'}, {"lt;", u'<'}, {"quot;", u'"'}};
    for (const auto& named : kNamed) {
        if (bytes_are(position_, named.input)) {
            position_ += std::strlen(named.input);
            text_.push_back(named.character);
            return give_text();
        }
    }
    if (byte_at(position_) != '#') return refuse(mark_, xml_refusal::bad_entity);
    ++position_;
    unsigned base = 10;
    if (byte_at(position_) == 'x') {
        base = 16;
        ++position_;
    }
    // Saturates far above the largest character, as the usual conversion does.
    std::uint64_t value = 0;
    std::size_t digits = 0;
    for (;;) {
        if (position_ == buffer_.size()) refill();
        unsigned char byte = byte_at(position_);
        unsigned digit;
        if (byte >= '0' && byte <= '9') digit = byte - '0';
        else if (base == 16 && byte >= 'a' && byte <= 'f') digit = byte - 'a' + 10;
        else if (base == 16 && byte >= 'A' && byte <= 'F') digit = byte - 'A' + 10;
        else break;
        value = value * base + digit;
        if (value > 0xFFFFFFFFu) value = 0x100000000u;
        ++digits;
        ++position_;
    }
    if (digits == 0 || byte_at(position_) != ';') return refuse(mark_, xml_refusal::bad_entity);
    ++position_;
    if (value > 0xFFFD || (value >= 0xD800 && value <= 0xDFFF)) return give_error(xml_refusal::bad_character_reference);
    text_.push_back(static_cast<char16_t>(value));
    return give_text();
}

bool xml_lexer::give_text() {
    token_ = token_kind::Text;
    if (space_ == space_state::Pending) text_.insert(text_.begin(), u' ');
    space_ = space_state::Normal;
    return true;
}

bool xml_lexer::give_converted() {
    const auto* bytes = reinterpret_cast<const unsigned char*>(buffer_.data()) + token_start_;
    std::size_t length = position_ - token_start_;
    std::size_t bad = DecodeDocumentText(bytes, length, text_);
    if (bad != length) {
        text_.clear();
        count_to(token_start_ + bad);
        return give_error(xml_refusal::invalid_utf8);
    }
    return give_text();
}

bool xml_lexer::refuse(std::size_t new_position, xml_refusal reason) {
    position_ = new_position < buffer_.size() ? new_position : buffer_.size();
    if (at_eof_ && position_ == buffer_.size()) {
        token_ = token_kind::End;
        return true;
    }
    return give_error(reason);
}

bool xml_lexer::give_error(xml_refusal reason) {
    text_.clear();
    name_.clear();
    token_ = token_kind::Error;
    refusal_ = reason;
    return true;
}
