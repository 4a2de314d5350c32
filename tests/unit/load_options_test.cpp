// Splitting load options into arguments, including odd and hostile input.
#include <gtest/gtest.h>

#include <vector>

#include "launch/direct_way.h"
#include "loader/load_options.h"

namespace {

using Arguments = std::vector<std::u16string>;

Arguments Split(const std::u16string& text) {
    return EfiLoader::SplitLoadOptions(text.data(), text.size() * sizeof(char16_t));
}

TEST(LoadOptions, SplitsOnBlanksTabsAndQuotes) {
    struct Case {
        std::u16string text;
        Arguments expected;
    };
    const Case cases[] = {
        {u"", {}},
        {u"   \t  ", {}},
        {u"a", {u"a"}},
        {u"  a\t\tb  c ", {u"a", u"b", u"c"}},
        {u"\"two words\" x", {u"two words", u"x"}},
        {u"\"\"", {u""}},
        {u"k \"\" r", {u"k", u"", u"r"}},
        {u"ab\"cd ef\"gh", {u"ab", u"cd ef", u"gh"}},
        {u"\"unbalanced and open", {u"unbalanced and open"}},
        {u"a\"", {u"a", u""}},
        {u"\"", {u""}},
        {u"a\nb", {u"a\nb"}},
        {std::u16string(u"a\0b c", 5), {u"a"}},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(Split(c.text), c.expected) << std::string(c.text.begin(), c.text.end());
    }
}

TEST(LoadOptions, OddByteCountsAndLargeInput) {
    const char16_t text[] = u"ab cd";
    // 9 bytes: the last odd byte is not a character of its own.
    EXPECT_EQ(EfiLoader::SplitLoadOptions(text, 9), (Arguments{u"ab", u"c"}));
    EXPECT_EQ(EfiLoader::SplitLoadOptions(text, 1), Arguments{});
    EXPECT_EQ(EfiLoader::SplitLoadOptions(nullptr, 100), Arguments{});

    std::u16string large(16 * 1024, u'x');
    large[100] = u' ';
    large[200] = u'"';
    Arguments arguments = Split(large);
    ASSERT_EQ(arguments.size(), 3u);
    EXPECT_EQ(arguments[0].size(), 100u);
    EXPECT_EQ(arguments[1].size(), 99u);
    EXPECT_EQ(arguments[2].size(), large.size() - 201);
}

TEST(LoadOptions, DirectWayCommandLine) {
    char program[] = "m", kernel[] = "k", ramdisk[] = "r", a[] = "a", b[] = "b", c[] = "c";
    char* five[] = {program, kernel, ramdisk, a, b, c, nullptr};
    EXPECT_EQ(Launch::DirectWayCommandLine(6, five), "a b c ");
    EXPECT_EQ(Launch::DirectWayCommandLine(3, five), "");
    EXPECT_EQ(Launch::DirectWayCommandLine(2, five), "");
}

}  // namespace
