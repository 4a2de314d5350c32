// Composing paths of the two flavours, and the names each accepts.
#include <gtest/gtest.h>

#include <string>

#include "fsdriver/posix_path.h"
#include "fsdriver/windows_path.h"

namespace {

const char16_t* const kRefused = u"<refused>";

std::u16string Compose(const std::u16string& base, const std::u16string& path) {
    std::u16string out;
    return ComposeWindowsPath(base, path, out) ? out : std::u16string(kRefused);
}

std::string Narrow(const std::u16string& text) { return std::string(text.begin(), text.end()); }

TEST(DirPath, WindowsComposition) {
    struct Case {
        const char16_t* base;
        const char16_t* path;
        const char16_t* composed;
    } const cases[] = {
        {u"C:\\bar\\", u"c:foo", u"C:\\bar\\foo\\"},        // same drive, relative: on the base
        {u"C:\\bar\\", u"c:\\foo", u"C:\\foo\\"},
        {u"C:\\bar\\", u"D:\\foo", u"D:\\foo\\"},           // composes; open_dir refuses it later
        {u"C:\\bar\\", u"d:foo", u"D:\\foo\\"},             // another drive: from its root
        {u"C:\\bar\\", u"\\foo", u"C:\\foo\\"},
        {u"C:\\bar\\", u"/foo/", u"C:\\foo\\"},
        {u"C:\\bar\\", u"foo", u"C:\\bar\\foo\\"},
        {u"C:\\", u"\\\\?\\C:\\foo", u"C:\\foo\\"},
        {u"C:\\", u"\\\\?\\C:", u"C:\\"},
        {u"C:\\", u"//?/c:/x", u"C:\\x\\"},
        {u"C:\\", u"\\\\?\\unc\\srv\\share", u"\\\\srv\\share\\"},
        {u"C:\\", u"\\\\?\\Volume", u"\\\\?\\Volume\\"},
        {u"C:\\", u"\\\\?\\", kRefused},                    // nothing behind the prefix
        {u"C:\\", u"\\\\srv\\share", u"\\\\srv\\share\\"},
        {u"C:\\", u"\\??\\C:", kRefused},                   // its "?" fails in the first component
        {u"C:\\", u"a/b\\c", u"C:\\a\\b\\c\\"},
        {u"C:\\", u"a//b", u"C:\\a\\b\\"},
        {u"C:\\", u"a/./b/../c", u"C:\\a\\c\\"},
        {u"C:\\", u"..", u""},                              // empty: the root, for open_dir
        {u"C:\\", u"..\\..", u""},
        {u"C:\\", u"..\\x", kRefused},
        {u"C:\\a\\b\\", u"..", u"C:\\a\\"},
        {u"C:\\a\\", u"..\\..\\x", kRefused},
        {u"C:\\", u"foo. ", u"C:\\foo\\"},
        {u"C:\\", u"...", kRefused},
        {u"C:\\", u" . ", kRefused},
        {u"C:\\", u"x\\a:b", kRefused},
        {u"C:\\", u"a*", kRefused},
        {u"C:\\", u"a\x1f", kRefused},
        {u"C:\\", u"a\"b", kRefused},
        {u"C:\\", u"", kRefused},
        {u"C:", u"\\x", kRefused},                          // a base too short for a root
        {u"\\\\srv\\share\\dir\\", u"\\x", u"\\\\srv\\share\\x\\"},
        {u"\\\\srv\\", u"\\x", kRefused},                   // a network base without its root
    };
    for (const Case& c : cases) {
        EXPECT_EQ(Narrow(Compose(c.base, c.path)), Narrow(c.composed)) << Narrow(c.base) << " + " << Narrow(c.path);
    }
}

TEST(DirPath, WindowsComponentLength) {
    std::u16string longest(255, u'n');
    EXPECT_EQ(Compose(u"C:\\", longest), u"C:\\" + longest + u"\\");
    EXPECT_EQ(Compose(u"C:\\", longest + u"n"), kRefused);
    // Trailing dots and spaces go before the length counts.
    EXPECT_EQ(Compose(u"C:\\", longest + u". ."), u"C:\\" + longest + u"\\");
}

TEST(DirPath, WindowsDriverForm) {
    struct Case {
        const char16_t* composed;
        const char16_t* driver_form;
    } const cases[] = {
        {u"C:\\", u"/"},
        {u"", u"/"},
        {u"C:\\boot\\grub\\", u"/boot/grub"},
        {u"C:\\a\\", u"/a"},
    };
    for (const Case& c : cases) EXPECT_EQ(Narrow(WindowsPathToDriverForm(c.composed)), Narrow(c.driver_form));
}

TEST(DirPath, WindowsNames) {
    struct Case {
        const char16_t* directory;
        const char16_t* name;
        bool allowed;
    } const cases[] = {
        {u"C:\\", u"KERNEL.EFI", true},
        {u"C:\\", u".hidden", true},
        {u"C:\\", u"a b", true},
        {u"C:\\", u"", false},
        {u"C:\\", u". .", false},
        {u"C:\\", u"a/b", false},
        {u"C:\\", u"a\\b", false},
        {u"C:\\", u"a:b", false},
        {u"C:\\", u"a?", false},
        {u"C:\\", u"a|b", false},
        {u"C:\\", u"\x01", false},
        {u"", u"C:", true},     // a pseudo root holds drives only
        {u"", u"c:", true},
        {u"", u"C:x", false},
        {u"", u"name", false},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(WindowsNameAllowed(c.directory, c.name), c.allowed) << Narrow(c.directory) << " " << Narrow(c.name);
    }
}

TEST(DirPath, PosixComposition) {
    struct Case {
        const char16_t* base;
        const char16_t* path;
        const char16_t* composed;
    } const cases[] = {
        {u"/", u"boot", u"/boot"},
        {u"/boot", u"grub/x", u"/boot/grub/x"},
        {u"/boot", u"/etc", u"/etc"},
        {u"/", u"..", u"/"},                  // the root has no parent
        {u"/", u"../../a", u"/a"},
        {u"/a/b", u"..", u"/a"},
        {u"/a", u"..", u"/"},
        {u"/a", u".//./b/", u"/a/b"},
        {u"/", u"a\\b:c*?", u"/a\\b:c*?"},   // only "/" is reserved
    };
    for (const Case& c : cases) {
        EXPECT_EQ(Narrow(ComposePosixPath(c.base, c.path)), Narrow(c.composed)) << Narrow(c.base) << " + " << Narrow(c.path);
    }
}

TEST(DirPath, PosixNames) {
    struct Case {
        const char16_t* name;
        bool allowed;
    } const cases[] = {
        {u"vmlinuz", true}, {u"a\\b", true}, {u"...", true}, {u"", false},
        {u".", false},      {u"..", false},  {u"a/b", false},
    };
    for (const Case& c : cases) EXPECT_EQ(PosixNameAllowed(c.name), c.allowed) << Narrow(c.name);
}

}  // namespace
