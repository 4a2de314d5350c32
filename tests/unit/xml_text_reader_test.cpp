// Whole text documents through read_xml_document: the trees they give, and
// every refusal with its place.
#include <gtest/gtest.h>

#include <string>

#include "files/buf_ifile.h"
#include "files/xml_document.h"
#include "loader/common/error_codes.h"
#include "tests/support/xml_tree_text.h"

namespace {

using TestSupport::Describe;
using TestSupport::Quote;

struct Outcome {
    bool whole;
    std::string tree;
    xml_read_report report;
};

Outcome Read(const std::string& input) {
    buf_ifile<unsigned char> file(reinterpret_cast<const unsigned char*>(input.data()), input.size());
    xml_document root = xml_element::create("stale");
    Outcome outcome;
    outcome.whole = read_xml_document(root, file, outcome.report);
    outcome.tree = root ? Describe(*root) : "";
    return outcome;
}

TEST(XmlTextReader, AcceptedDocumentsAndTheirTrees) {
    struct Case {
        std::string input;
        std::string tree;
    };
    const Case cases[] = {
        {"<a/>", "a[\"\"]"},
        {"<a>  x  y  </a>", "a[\"x y\"]"},
        {"<a>  <b/>  </a>", "a[\"\" b[\"\"] \"\"]"},
        {"<a>x <b/> y</a>", "a[\"x \" b[\"\"] \" y\"]"},
        {"<a>\n  <b/>\n  <c></c>\n</a>", "a[\"\" b[\"\"] \" \" c[\"\"] \"\"]"},
        {"<a xml:space=\"preserve\">  </a>", "a{xml:space=\"preserve\"}[\"  \"]"},
        // The child inherits "preserve", the sibling behind doesn't; the
        // first token behind a child is still scanned with its setting.
        {"<r><a xml:space=\"preserve\"><b> </b></a><c> </c></r>",
         "r[\"\" a{xml:space=\"preserve\"}[\"\" b[\" \"] \"\"] \"\" c[\"\"] \"\"]"},
        {"<r><p xml:space='preserve'/> \t<q/> </r>",
         "r[\"\" p{xml:space=\"preserve\"}[\"\"] \" \\u0009\" q[\"\"] \"\"]"},
        // "default" doesn't switch an inherited "preserve" off.
        {"<r xml:space=\"preserve\"><d xml:space=\"default\"> x </d></r>",
         "r{xml:space=\"preserve\"}[\"\" d{xml:space=\"default\"}[\" x \"] \"\"]"},
        {"<a b=\"  x   y  \"/>", "a{b=\"x y\"}[\"\"]"},
        {"<a xml:space=\"preserve\" b=\"  x \t\n y  \"/>", "a{b=\"x y\",xml:space=\"preserve\"}[\"\"]"},
        {"<a b='x\"y'/>", "a{b=\"x\\\"y\"}[\"\"]"},
        {"<a b=\"x'y>\"/>", "a{b=\"x'y>\"}[\"\"]"},
        {"<a b=\"\"/>", "a{b=\"\"}[\"\"]"},
        {"<a z='1' y='2' b='3'/>", "a{b=\"3\",y=\"2\",z=\"1\"}[\"\"]"},
        {"<a>&#x41;&#65;</a>", "a[\"AA\"]"},
        {"<a>&lt;&amp;&gt;&quot;&apos;&#0;&#xFFFD;</a>", "a[\"<&>\\\"'\\u0000\\uFFFD\"]"},
        {"<a><![CDATA[x\r\ny]]z]]></a>", "a[\"x\\u000Ay]]z\"]"},
        {"<a><![CDATA[]]></a>", "a[\"\"]"},
        {"<a>x <![CDATA[ y ]]></a>", "a[\"x  y \"]"},
        {"<a><!-- a -- b --></a>", "a[\"\"]"},
        {"<a/><!-- open behind the root", "a[\"\"]"},
        {"<?xml version=\"1.0\"?>\n<!-- c -->\n<a/>\n<?after?>\n", "a[\"\"]"},
        {"\xEF\xBB\xBF<a/>", "a[\"\"]"},
        {"<a>\xEF\xBB\xBF</a>", "a[\"\\uFEFF\"]"},
        {"<a>\xC3\xB1" "and\xC3\xBA \xE2\x82\xAC</a>", "a[\"\\u00F1and\\u00FA \\u20AC\"]"},
        {"<_:a-1.b/>", "_:a-1.b[\"\"]"},
    };
    for (const Case& c : cases) {
        Outcome outcome = Read(c.input);
        EXPECT_TRUE(outcome.whole) << c.input;
        EXPECT_EQ(outcome.tree, c.tree) << c.input;
        EXPECT_EQ(outcome.report.refusal, xml_refusal::none) << c.input;
        EXPECT_FALSE(outcome.report.binary);
    }
}

TEST(XmlTextReader, RefusalsWithReasonAndPlace) {
    struct Case {
        std::string input;
        xml_refusal refusal;
        std::uint32_t line;
        std::uint32_t column;
    };
    const Case cases[] = {
        {"", xml_refusal::no_root, 1, 1},
        {"   \n<!-- only a comment -->\n", xml_refusal::no_root, 3, 1},
        {"text", xml_refusal::no_root, 1, 1},
        {"BXMZ<a/>", xml_refusal::no_root, 1, 1},
        {"BXM", xml_refusal::no_root, 1, 1},
        {"<a>\x01</a>", xml_refusal::control_byte, 1, 4},
        {"<a><!-- \x7F ok \x02 --></a>", xml_refusal::control_byte, 1, 14},
        {"<a><?p \x1F?></a>", xml_refusal::control_byte, 1, 8},
        {std::string("<a>\0</a>", 8), xml_refusal::control_byte, 1, 4},
        {"<a>\xC3(</a>", xml_refusal::invalid_utf8, 1, 4},
        {"<a b=\"ok \xFF\"/>", xml_refusal::invalid_utf8, 1, 10},
        {"<?xml version=\"1.0\" encoding=\"iso-8859-1\"?><a>\xE9</a>", xml_refusal::invalid_utf8, 1, 47},
        // Saved as UTF-16, with and without a byte order mark.
        {std::string("\xFF\xFE<\0a\0/\0>\0", 10), xml_refusal::invalid_utf8, 1, 1},
        {std::string("\xFE\xFF\0<\0a\0/\0>", 10), xml_refusal::invalid_utf8, 1, 1},
        {std::string("<\0a\0/\0>\0", 8), xml_refusal::bad_markup, 1, 1},
        {"<a>&nbsp;</a>", xml_refusal::bad_entity, 1, 4},
        {"<a>&amp</a>", xml_refusal::bad_entity, 1, 4},
        {"<a>&#;</a>", xml_refusal::bad_entity, 1, 4},
        {"<a>&#X41;</a>", xml_refusal::bad_entity, 1, 4},
        {"<a>&#65534;</a>", xml_refusal::bad_character_reference, 1, 4},
        {"<a>&#xD800;</a>", xml_refusal::bad_character_reference, 1, 4},
        {"<!DOCTYPE a><a/>", xml_refusal::bad_markup, 1, 1},
        {"<a><![CDAT[x]]></a>", xml_refusal::bad_markup, 1, 4},
        {"<a>< b/></a>", xml_refusal::bad_markup, 1, 4},
        {"<a b=\"1\" b=\"2\"/>", xml_refusal::duplicate_attribute, 1, 10},
        {"<a b/>", xml_refusal::attribute_without_value, 1, 5},
        {"<a b c=\"1\"/>", xml_refusal::attribute_without_value, 1, 6},
        {"<a b=c/>", xml_refusal::bad_value, 1, 5},
        {"<a b=\"x<y\"/>", xml_refusal::bad_value, 1, 8},
        {"<a =\"x\"/>", xml_refusal::unexpected_token, 1, 4},
        {"<a 1/>", xml_refusal::bad_tag, 1, 4},
        {"<a></b>", xml_refusal::end_tag_mismatch, 1, 4},
        {"<a></A>", xml_refusal::end_tag_mismatch, 1, 4},
        {"<a></a b>", xml_refusal::end_tag_not_closed, 1, 8},
        {"<a><b></a></b>", xml_refusal::end_tag_mismatch, 1, 7},
        {"<a>", xml_refusal::unexpected_end, 1, 4},
        {"<a><!-- open inside the root</a>", xml_refusal::unexpected_end, 1, 33},
        {"<a b=\"x", xml_refusal::unexpected_end, 1, 8},
        {"<a/>x", xml_refusal::content_after_root, 1, 5},
        {"<a/>\n<b/>", xml_refusal::content_after_root, 2, 1},
        {"<a/>&amp;", xml_refusal::content_after_root, 1, 5},
        {"<a/>\x01", xml_refusal::control_byte, 1, 5},
        // The token behind the root is scanned with the root's setting, so
        // under "preserve" white space there is text behind the root.
        {"<a xml:space=\"preserve\"/>\n", xml_refusal::content_after_root, 1, 26},
        // The place of a bad sequence is the sequence, even after a tab.
        {"<r>\na\t<!x</r>", xml_refusal::bad_markup, 2, 9},
    };
    for (const Case& c : cases) {
        Outcome outcome = Read(c.input);
        EXPECT_FALSE(outcome.whole) << c.input;
        EXPECT_EQ(outcome.report.refusal, c.refusal) << c.input;
        EXPECT_EQ(outcome.report.line, c.line) << c.input;
        EXPECT_EQ(outcome.report.column, c.column) << c.input;
    }
}

TEST(XmlTextReader, FailedReadKeepsWhatWasBuiltAndEmptiesTheSlotFirst) {
    Outcome partial = Read("<a><b x=\"1\">t<c/>");
    EXPECT_FALSE(partial.whole);
    EXPECT_EQ(partial.tree, "a[\"\" b{x=\"1\"}[\"t\" c[\"\"] \"\"] \"\"]");
    // The slot held a tree before: it is gone even when nothing is read.
    EXPECT_EQ(Read("").tree, "");

    std::uint32_t line = 0;
    std::uint32_t column = 0;
    const std::string text = "<a>\n\t<b/>\n</a>\n";
    buf_ifile<unsigned char> file(reinterpret_cast<const unsigned char*>(text.data()), text.size());
    xml_document root;
    EXPECT_TRUE(read_xml_document(root, file, line, column));
    // Written on success too: the place of the end of input.
    EXPECT_EQ(line, 4u);
    EXPECT_EQ(column, 1u);
}

// Fails with FILE_READ once `good` bytes have been handed out.
class failing_file : public i_file {
public:
    failing_file(std::string data, std::size_t good) : data_(std::move(data)), good_(good) {}
    void read(void* buffer, std::uint64_t size, std::uint64_t& got) override {
        got = 0;
        if (failed()) return;
        std::size_t left = std::min(data_.size(), good_) - position_;
        if (left == 0) {
            set_error(Common::Error(ERROR_TAG, Common::FILE_READ));
            return;
        }
        got = std::min<std::uint64_t>(size, left);
        std::memcpy(buffer, data_.data() + position_, got);
        position_ += got;
    }

private:
    std::string data_;
    std::size_t good_;
    std::size_t position_ = 0;
};

TEST(XmlTextReader, StreamErrorStaysInTheStream) {
    // Fails inside the root, and behind a complete root.
    for (std::size_t good : {7u, 9u}) {
        failing_file file("<a></a>   <!-- -->", good);
        xml_document root;
        xml_read_report report;
        EXPECT_FALSE(read_xml_document(root, file, report)) << good;
        EXPECT_EQ(report.refusal, xml_refusal::stream_error);
        EXPECT_EQ(file.error().Code(), Common::FILE_READ);
    }
}

TEST(XmlTextReader, HostileSizesAreRefusedWithinLimits) {
    // Nesting: the deepest allowed level is read, one more is refused at the
    // start tag that goes too deep, and 10,000 levels cost no stack.
    auto nested = [](std::size_t levels) {
        std::string text;
        for (std::size_t i = 0; i < levels; ++i) text += "<a>";
        for (std::size_t i = 0; i < levels; ++i) text += "</a>";
        return text;
    };
    EXPECT_TRUE(Read(nested(xml_max_depth)).whole);
    Outcome deep = Read(nested(xml_max_depth + 1));
    EXPECT_EQ(deep.report.refusal, xml_refusal::too_deep);
    EXPECT_EQ(deep.report.column, 3 * xml_max_depth + 1);
    EXPECT_EQ(deep.report.offset, 3 * xml_max_depth);
    EXPECT_EQ(Read(nested(10000)).report.refusal, xml_refusal::too_deep);

    auto flat = [](std::size_t children) {
        std::string text = "<r>";
        for (std::size_t i = 0; i < children; ++i) text += "<a/>";
        return text + "</r>";
    };
    EXPECT_TRUE(Read(flat(xml_max_elements - 1)).whole);
    EXPECT_EQ(Read(flat(xml_max_elements)).report.refusal, xml_refusal::too_many_elements);

    // Length: a document of exactly the limit is read; one byte more is not,
    // whether the excess is in an attribute, a word or a comment.
    const std::string frame = "<a v=\"\"/>";
    std::string value(xml_max_document_bytes - frame.size(), 'v');
    Outcome full = Read("<a v=\"" + value + "\"/>");
    EXPECT_TRUE(full.whole);
    EXPECT_EQ(full.tree.size(), std::string("a{v=\"\"}[\"\"]").size() + value.size());
    EXPECT_EQ(Read("<a v=\"" + value + "v\"/>").report.refusal, xml_refusal::too_long);
    EXPECT_EQ(Read("<a>" + std::string(3 * xml_max_document_bytes, 'w') + "</a>").report.refusal,
              xml_refusal::too_long);
    EXPECT_EQ(Read("<a/><!--" + std::string(xml_max_document_bytes, '-') + "-->").report.refusal,
              xml_refusal::too_long);

    // A file of zeros is a refused control byte at its very start.
    Outcome zeros = Read(std::string(4096, '\0'));
    EXPECT_EQ(zeros.report.refusal, xml_refusal::control_byte);
    EXPECT_EQ(zeros.report.offset, 0u);
}

TEST(XmlTextReader, EveryTruncationIsRefused) {
    const std::string document =
        "<?xml version=\"1.0\"?><Root><Menu><Topic Text=\"Elija &amp; pulse\" Delay='5'/>"
        "<Entry Key=\"1\"><![CDATA[x]]><Chainload/></Entry></Menu></Root>";
    ASSERT_TRUE(Read(document).whole);
    for (std::size_t cut = 0; cut < document.size(); ++cut) {
        EXPECT_FALSE(Read(document.substr(0, cut)).whole) << cut;
    }
}

}  // namespace
