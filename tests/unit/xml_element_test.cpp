// The document tree and its lookups.
#include <gtest/gtest.h>

#include "files/xml_element.h"

namespace {

TEST(XmlElement, TextsStayOneAheadOfChildren) {
    xml_document root = xml_element::create("r");
    EXPECT_EQ(root->texts, std::vector<std::u16string>{u""});
    EXPECT_EQ(root->parent, nullptr);
    root->append_text(u"a");
    xml_element* first = root->append_child(xml_element::create("x"));
    root->append_text(u"b");
    root->append_text(u"c");
    xml_element* second = root->append_child(xml_element::create("y"));
    root->append_child(xml_element::create("x"));
    EXPECT_EQ(root->children.size(), 3u);
    EXPECT_EQ(root->texts, (std::vector<std::u16string>{u"a", u"bc", u"", u""}));
    EXPECT_EQ(first->parent, root.get());
    EXPECT_EQ(second->parent, root.get());
}

TEST(XmlElement, FindChildAndAttributeOr) {
    xml_document root = xml_element::create("r");
    EXPECT_EQ(root->find_child("x"), nullptr);
    xml_element* first = root->append_child(xml_element::create("x"));
    xml_element* second = root->append_child(xml_element::create("x"));
    root->append_child(xml_element::create("X"));
    EXPECT_EQ(root->find_child("x"), first);
    EXPECT_NE(root->find_child("x"), second);
    EXPECT_EQ(root->find_child("X"), root->children[2].get());
    EXPECT_EQ(root->find_child("x "), nullptr);

    root->attributes["Empty"] = u"";
    root->attributes["Text"] = u"hola";
    EXPECT_EQ(root->attribute_or("Empty", u"default"), u"");
    EXPECT_EQ(root->attribute_or("Text", u"default"), u"hola");
    EXPECT_EQ(root->attribute_or("text", u"default"), u"default");
}

TEST(XmlElement, AttributesWalkInUnsignedByteOrder) {
    xml_document root = xml_element::create("r");
    for (const char* name : {"b", "\x80", "a", "ab", "B", "a\x7F"}) root->attributes[name] = u"";
    std::vector<std::string> order;
    for (const auto& attribute : root->attributes) order.push_back(attribute.first);
    EXPECT_EQ(order, (std::vector<std::string>{"B", "a", "ab", "a\x7F", "b", "\x80"}));
}

TEST(XmlElement, DeepTreeIsDestroyedWithoutRecursion) {
    // Destroyed recursively, this chain would need some tens of megabytes of
    // stack, far beyond the default 8 MiB.
    xml_document root = xml_element::create("r");
    xml_element* tip = root.get();
    for (int i = 0; i < 300000; ++i) tip = tip->append_child(xml_element::create("d"));
    tip->append_child(xml_element::create("leaf"));
    root.reset();
    SUCCEED();
}

TEST(XmlElement, ToBytesCutsEachUnit) {
    EXPECT_EQ(to_bytes(u"\u0141"), "\x41");
    EXPECT_EQ(to_bytes(u"a\u00E9\u20AC"), std::string("a\xE9\xAC"));
    EXPECT_EQ(to_bytes(std::u16string(u"x\0y", 3)), std::string("x\0y", 3));
}

TEST(XmlElement, ToNumberFollowsTheUnsignedConversion) {
    struct Case {
        std::u16string text;
        std::uint32_t number;
    };
    const Case cases[] = {
        {u"12abc", 12},
        {u"abc", 0},
        {u"", 0},
        {u"  \t\n\v\f\r42", 42},
        {u"+7", 7},
        {u"-1", 0xFFFFFFFFu},
        {u"-5", 0xFFFFFFFBu},
        {u"4294967295", 0xFFFFFFFFu},
        {u"4294967296", 0xFFFFFFFFu},
        {u"99999999999999999999", 0xFFFFFFFFu},
        {u"-99999999999999999999", 0xFFFFFFFFu},
        {u"0010", 10},
        {u"- 5", 0},
        {u"++5", 0},
        {u"5 6", 5},
        {u"0x10", 0},
        // Narrowing happens first: U+0131 becomes the digit '1'.
        {u"\u0131\u0132", 12},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(to_number(c.text), c.number) << to_bytes(c.text);
    }
}

}  // namespace
