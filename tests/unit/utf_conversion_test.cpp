// Conversions between 16-bit strings and UTF-8.
#include <gtest/gtest.h>

#include "files/utf_conversion.h"

namespace {

TEST(UtfConversion, SixteenBitToUtf8UnitByUnit) {
    struct Case {
        std::u16string text;
        std::string bytes;
    };
    const Case cases[] = {
        {u"", ""},
        {u"abc", "abc"},
        {u"\u0001\u007F", "\x01\x7F"},
        {u"\u0080", "\xC2\x80"},
        {u"\u00F1", "\xC3\xB1"},
        {u"\u07FF", "\xDF\xBF"},
        {u"\u0800", "\xE0\xA0\x80"},
        {u"\u20AC", "\xE2\x82\xAC"},
        {u"\uFFFF", "\xEF\xBF\xBF"},
        // A surrogate pair makes two three-byte sequences, not one of four.
        {u"\U0001F600", "\xED\xA0\xBD\xED\xB8\x80"},
        // A 0 unit ends the conversion.
        {std::u16string(u"ab\0cd", 5), "ab"},
    };
    for (const Case& c : cases) EXPECT_EQ(utf16_to_utf8(c.text), c.bytes);
}

TEST(UtfConversion, Utf8ToSixteenBitIsLenient) {
    struct Case {
        std::string bytes;
        std::u16string text;
    };
    const Case cases[] = {
        {"", u""},
        {"abc\x01\x7F", u"abc\u0001\u007F"},
        {"\xC3\xB1", u"\u00F1"},
        {"\xE2\x82\xAC", u"\u20AC"},
        {"\xE0\xA0\x80", u"\u0800"},
        {"\xEF\xBF\xBF", u"\uFFFF"},
        {"\xED\xA0\x80", u"\xD800"},
        // Overlong forms and the leads 0xC0 and 0xC1: one '?' a byte.
        {"\xE0\x80\x80", u"???"},
        {"\xC0\x80", u"??"},
        {"\xC1\xBF", u"??"},
        // Four-byte sequences are not taken.
        {"\xF0\x9F\x98\x80", u"????"},
        // A stray continuation byte, and a bad one in second place.
        {"\x80x", u"?x"},
        {"\xC3x", u"?x"},
        {"\xE2\x82x", u"??x"},
        // Cut short by the end.
        {"a\xE2\x82", u"a??"},
        {"a\xC3", u"a?"},
        // A 0 byte ends the text.
        {std::string("ab\0\xC3\xB1", 5), u"ab"},
    };
    for (const Case& c : cases) EXPECT_EQ(utf8_to_utf16(c.bytes), c.text);
}

TEST(UtfConversion, EveryUnitButZeroSurvivesTheRoundTrip) {
    std::u16string all;
    for (char32_t unit = 1; unit <= 0xFFFF; ++unit) all.push_back(static_cast<char16_t>(unit));
    EXPECT_EQ(utf8_to_utf16(utf16_to_utf8(all)), all);
}

}  // namespace
