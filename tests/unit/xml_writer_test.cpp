// The writers of both forms, and the round trip: reading what they wrote
// gives the same tree.
#include <gtest/gtest.h>

#include <dirent.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "files/buf_ifile.h"
#include "files/bxml_writer.h"
#include "files/xml_document.h"
#include "files/xml_writer.h"
#include "tests/support/xml_tree_text.h"

namespace {

std::string Bytes(std::initializer_list<int> values) {
    std::string out;
    for (int value : values) out.push_back(static_cast<char>(value));
    return out;
}

using TestSupport::Describe;
using TestSupport::Quote;

xml_document ReadBack(const std::string& bytes) {
    buf_ifile<unsigned char> file(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
    xml_document root;
    xml_read_report report;
    EXPECT_TRUE(read_xml_document(root, file, report)) << bytes;
    return root;
}

// Writes `tree` in both forms, reads each back and compares.
void ExpectRoundTrip(const xml_element& tree, const std::string& label) {
    const std::string expected = Describe(tree);
    std::string text;
    ASSERT_FALSE(write_xml_text(tree, text)) << label;
    xml_document from_text = ReadBack(text);
    ASSERT_TRUE(from_text) << label;
    EXPECT_EQ(Describe(*from_text), expected) << label << "\n" << text;
    std::string binary;
    ASSERT_FALSE(write_bxml(tree, binary)) << label;
    xml_document from_binary = ReadBack(binary);
    ASSERT_TRUE(from_binary) << label;
    EXPECT_EQ(Describe(*from_binary), expected) << label;
}

TEST(XmlWriter, BinaryLayoutGivesIdsInOrderOfFirstUse) {
    xml_document root = xml_element::create("r");
    root->attributes["b"] = u"2";
    root->attributes["a"] = u"\u00F1";
    root->append_text(u"x");
    xml_element* child = root->append_child(xml_element::create("c"));
    child->attributes["a"] = u"";
    root->append_child(xml_element::create("r"));
    root->append_text(u"end");
    std::string bytes;
    ASSERT_FALSE(write_bxml(*root, bytes));
    const std::string expected = "BXML" + Bytes({1, 1}) +
                                 // r, two attributes in map order, three texts
                                 Bytes({0, 1}) + "r" + Bytes({2}) + Bytes({1, 1}) + "a" + Bytes({2, 0xC3, 0xB1}) +
                                 Bytes({2, 1}) + "b" + Bytes({1}) + "2" + Bytes({3, 1}) + "x" +
                                 // c with the known attribute name a
                                 Bytes({3, 1}) + "c" + Bytes({1, 1, 0, 1, 0}) + Bytes({0}) +
                                 // r again, by its id
                                 Bytes({0, 0, 1, 0}) + Bytes({3}) + "end";
    EXPECT_EQ(bytes, expected);
}

TEST(XmlWriter, TextLayoutIndentsWhereTheReaderDropsTheBlanks) {
    const std::string source =
        "<Root>\n  <Menu>\n    <Topic Text=\"  Elija  ya \" Delay=\"5\"/>\n    <Entry Key=\"1\">x  y<b/>\tz</Entry>\n"
        "  </Menu>\n  <Keep xml:space=\"preserve\"> <i/>\n</Keep>\n</Root>\n";
    xml_document root = ReadBack(source);
    ASSERT_TRUE(root);
    std::string text;
    ASSERT_FALSE(write_xml_text(*root, text));
    EXPECT_EQ(text,
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
              "<Root>\n"
              "  <Menu>\n"
              "    <Topic Delay=\"5\" Text=\"Elija ya\"/>\n"
              "    <Entry Key=\"1\">x y<b/>&#32;z</Entry>\n"
              "  </Menu>\n"
              // The line end behind Keep was read with Keep's setting.
              "  <Keep xml:space=\"preserve\">&#32;<i/>&#10;</Keep>&#10;</Root>\n");
}

TEST(XmlWriter, TreesThatNeedEscapesSurviveBothForms) {
    const std::vector<std::u16string> texts = {
        u"", u" ", u"  ", u" x", u"x ", u"a b", u"a  b", u"\t", u"\n\r\n", u"a\tb", u"&<>\"'", u"]]>",
        u"\u0001\u001F\u007F", u"\u00F1\u20AC\uFFFD\uFEFF", u"&amp;", u"x &#32; y",
    };
    for (const std::u16string& text : texts) {
        const std::string label = Quote(text);
        // In an element of its own, as an attribute, around children, and
        // all of that again under xml:space="preserve".
        for (bool preserve : {false, true}) {
            xml_document root = xml_element::create("r");
            if (preserve) root->attributes["xml:space"] = u"preserve";
            root->append_text(text);
            xml_element* alone = root->append_child(xml_element::create("alone"));
            alone->append_text(text);
            alone->attributes["v"] = text;
            root->append_text(text);
            xml_element* mixed = root->append_child(xml_element::create("mixed"));
            mixed->append_text(text);
            mixed->append_child(xml_element::create("a"));
            mixed->append_text(text);
            xml_element* keeper = mixed->append_child(xml_element::create("p"));
            keeper->attributes["xml:space"] = u"preserve";
            keeper->append_text(text);
            mixed->append_text(text);
            mixed->append_child(xml_element::create("q"));
            root->append_text(text);
            ExpectRoundTrip(*root, label + (preserve ? " preserved" : ""));
        }
    }
}

TEST(XmlWriter, WhatAFormCannotCarryIsRefused) {
    struct Case {
        std::string name;
        std::u16string text;
        xml_write_problem text_problem;
        xml_write_problem binary_problem;
    };
    const Case cases[] = {
        {"a", u"ok", xml_write_problem::none, xml_write_problem::none},
        {"", u"", xml_write_problem::bad_name, xml_write_problem::none},
        {"1a", u"", xml_write_problem::bad_name, xml_write_problem::none},
        {"a b", u"", xml_write_problem::bad_name, xml_write_problem::none},
        {"\xC3\xB1", u"", xml_write_problem::bad_name, xml_write_problem::none},
        {"a", u"\uFFFE", xml_write_problem::unwritable_character, xml_write_problem::none},
        {"a", u"\uFFFF", xml_write_problem::unwritable_character, xml_write_problem::none},
        {"a", u"\xD83D\xDE00", xml_write_problem::unwritable_character, xml_write_problem::none},
        {"a", std::u16string(u"x\0y", 3), xml_write_problem::none, xml_write_problem::unwritable_character},
    };
    for (const Case& c : cases) {
        xml_document root = xml_element::create("r");
        xml_element* child = root->append_child(xml_element::create(c.name));
        child->append_text(c.text);
        std::string out;
        xml_write_failure text = write_xml_text(*root, out);
        EXPECT_EQ(text.problem, c.text_problem) << c.name;
        if (text) {
            EXPECT_EQ(text.element, child);
        }
        xml_write_failure binary = write_bxml(*root, out);
        EXPECT_EQ(binary.problem, c.binary_problem) << c.name;
        if (binary) {
            EXPECT_EQ(binary.element, child);
        } else {
            EXPECT_EQ(Describe(*ReadBack(out)), Describe(*root));
        }
    }
    // An attribute name is a name too; and the count byte of the binary
    // form holds at most 255 attributes.
    xml_document root = xml_element::create("r");
    root->attributes["x y"] = u"";
    std::string out;
    EXPECT_EQ(write_xml_text(*root, out).problem, xml_write_problem::bad_name);
    root->attributes.clear();
    for (int i = 0; i < 255; ++i) root->attributes["a" + std::to_string(i)] = u"v";
    EXPECT_FALSE(write_bxml(*root, out));
    EXPECT_EQ(ReadBack(out)->attributes.size(), 255u);
    root->attributes["z"] = u"v";
    EXPECT_EQ(write_bxml(*root, out).problem, xml_write_problem::too_many_attributes);
    EXPECT_FALSE(write_xml_text(*root, out));
}

TEST(XmlWriter, DeepestReadableTreeRoundTrips) {
    xml_document root = xml_element::create("d");
    xml_element* tip = root.get();
    for (std::uint32_t level = 1; level < xml_max_depth; ++level) {
        tip->append_text(u"t");
        tip = tip->append_child(xml_element::create("d"));
    }
    ExpectRoundTrip(*root, "deep");
}

std::vector<std::string> SampleDocuments() {
    std::string directory = __FILE__;
    directory = directory.substr(0, directory.rfind('/')) + "/../data/documents";
    std::vector<std::string> paths;
    if (DIR* listing = opendir(directory.c_str())) {
        while (dirent* entry = readdir(listing)) {
            if (entry->d_name[0] != '.') paths.push_back(directory + "/" + entry->d_name);
        }
        closedir(listing);
    }
    return paths;
}

TEST(XmlDocumentRoundTrip, EverySampleDocumentGivesTheSameTreeInBothForms) {
    const std::vector<std::string> paths = SampleDocuments();
    ASSERT_GE(paths.size(), 5u);
    for (const std::string& path : paths) {
        std::ifstream input(path, std::ios::binary);
        std::stringstream contents;
        contents << input.rdbuf();
        xml_document root = ReadBack(contents.str());
        ASSERT_TRUE(root) << path;
        ExpectRoundTrip(*root, path);
        // And through the other form once more: the writers are stable.
        std::string binary;
        std::string text;
        ASSERT_FALSE(write_bxml(*root, binary));
        ASSERT_FALSE(write_xml_text(*ReadBack(binary), text));
        std::string text_again;
        ASSERT_FALSE(write_xml_text(*ReadBack(text), text_again));
        EXPECT_EQ(text, text_again) << path;
    }
}

}  // namespace
