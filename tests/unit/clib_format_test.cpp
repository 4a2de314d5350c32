// The C library layer's formatting and multibyte conversions.
#include <gtest/gtest.h>

#include <cstdarg>

#include "platform/clib/clib.h"

namespace {

std::u16string Narrow(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    std::u16string text = Clib::FormatV(format, arguments);
    va_end(arguments);
    return text;
}

std::u16string Wide(const char16_t* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    std::u16string text = Clib::FormatV(format, arguments);
    va_end(arguments);
    return text;
}

TEST(ClibFormat, Conversions) {
    EXPECT_EQ(Narrow("%u|%d|%i", 4000000000u, -5, 42), u"4000000000|-5|42");
    EXPECT_EQ(Narrow("%08x%08x", 0x2a2a2ad8u, 0x9fu), u"2a2a2ad80000009f");
    EXPECT_EQ(Narrow("%X %lx %llu %zu", 0xABCu, 0x1234567890ul, 18446744073709551615ull, std::size_t(7)),
              u"ABC 1234567890 18446744073709551615 7");
    EXPECT_EQ(Narrow("[%5d][%-5d][%05d]", -42, 7, -42), u"[  -42][7    ][-0042]");
    EXPECT_EQ(Narrow("%c%%%s", 'x', "y\xC3\xA9"), u"x%y\u00E9");
    EXPECT_EQ(Narrow("%s", static_cast<const char*>(nullptr)), u"(null)");
    EXPECT_EQ(Narrow("trailing %"), u"trailing ");
    EXPECT_EQ(Narrow("%q"), u"%q");
    EXPECT_EQ(Wide(u"'%s', code %u", u"\u00E1rbol", 262151u), u"'\u00E1rbol', code 262151");
    EXPECT_EQ(Narrow("%d", -2147483647 - 1), u"-2147483648");
}

TEST(ClibFormat, MultibyteRoundTripsAndKeepsBadBytes) {
    std::u16string text = u"a\u00F1\u20AC?z";
    text[3] = 0xD800;  // a lone surrogate
    std::string bytes = Clib::ToMultibyte(text.data(), text.size());
    EXPECT_EQ(bytes, "a\xC3\xB1\xE2\x82\xAC\xED\xA0\x80z");
    EXPECT_EQ(Clib::FromMultibyte(bytes.data(), bytes.size()), text);
    // Bytes that form no sequence are widened one by one.
    const char broken[] = "\xC3(\xE2\x82\xFF";
    EXPECT_EQ(Clib::FromMultibyte(broken, 5), std::u16string(u"\u00C3(\u00E2\u0082\u00FF"));
    // An overlong form is not decoded as the character it hides.
    EXPECT_EQ(Clib::FromMultibyte("\xC0\xAF", 2), std::u16string(u"\u00C0\u00AF"));
}

}  // namespace
