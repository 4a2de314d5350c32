// The binary form, read from bytes written out by hand from its layout.
#include <gtest/gtest.h>

#include <cstring>
#include <initializer_list>
#include <string>

#include "files/buf_ifile.h"
#include "files/bxml_reader.h"
#include "files/xml_document.h"
#include "loader/common/error_codes.h"
#include "tests/support/xml_tree_text.h"

namespace {

std::string Bytes(std::initializer_list<int> values) {
    std::string out;
    for (int value : values) out.push_back(static_cast<char>(value));
    return out;
}

const std::string kMagic = "BXML";

using TestSupport::Describe;
using TestSupport::Quote;

struct Outcome {
    bool whole;
    std::string tree;
    xml_read_report report;
    std::uint32_t stream_code;
};

// The whole document, magic included, through the one entry.
Outcome Read(const std::string& document) {
    buf_ifile<unsigned char> file(reinterpret_cast<const unsigned char*>(document.data()), document.size());
    xml_document root;
    Outcome outcome;
    outcome.whole = read_xml_document(root, file, outcome.report);
    outcome.tree = root ? Describe(*root) : "";
    outcome.stream_code = file.error().Code();
    return outcome;
}

// Notes every event of the reader.
class recording_sink : public xml_reader_interface {
public:
    void start() override { events += "start;"; }
    void finish() override { events += "finish;"; }
    void begin_element(const std::string& name) override { events += "<" + name + ";"; }
    void end_element() override { events += ">;"; }
    void attribute(const std::string& name, const std::u16string& value) override {
        events += "@" + name + "=" + Quote(value) + ";";
    }
    void text(const std::u16string& value) override { events += "t" + Quote(value) + ";"; }
    void data(const std::string& bytes) override { events += "d" + std::to_string(bytes.size()) + ";"; }
    std::string events;
};

// <Root><Menu Key="1"/>tail</Root> in the old form.
const std::string kOld = kMagic + Bytes({1, 0}) + Bytes({0, 4}) + "Root" + Bytes({0, 2, 0}) + Bytes({1, 4}) + "Menu" +
                         Bytes({1, 2, 3}) + "Key" + Bytes({1}) + "1" + Bytes({1, 0}) + Bytes({4}) + "tail";

// <r k="v">hi<c/>yo</r> in the new form.
const std::string kNew = kMagic + Bytes({2, 0}) + Bytes({1, 1}) + "r" + Bytes({2, 1}) + "k" + Bytes({2}) + "v" +
                         Bytes({0}) + Bytes({4}) + "hi" + Bytes({3, 1}) + "c" + Bytes({0, 0, 0}) + Bytes({4}) + "yo" +
                         Bytes({0});

TEST(BxmlReader, BothVersionsBuildTheTree) {
    struct Case {
        std::string document;
        std::string tree;
    };
    const Case cases[] = {
        {kOld, "Root[\"\" Menu{Key=\"1\"}[\"\"] \"tail\"]"},
        {kNew, "r{k=\"v\"}[\"hi\" c[\"\"] \"yo\"]"},
        // A name used twice stands in the file once; 0 is a name id like
        // any other in the old form.
        {kMagic + Bytes({1, 1, 0, 1}) + "a" + Bytes({0, 3, 0}) + Bytes({0, 0, 1, 0}) + Bytes({0}) +
             Bytes({0, 0, 1, 0}) + Bytes({0}),
         "a[\"\" a[\"\"] \"\" a[\"\"] \"\"]"},
        // A text count of 0: the first text is still there, and no child.
        {kMagic + Bytes({1, 0, 5, 1}) + "a" + Bytes({0, 0, 1}) + "x", "a[\"x\"]"},
        // Ids needn't be dense; a number's bits beyond 32 are lost, so this
        // five-byte id is 1, and the later 1 refers to it.
        {kMagic + Bytes({1, 0, 0x81, 0x80, 0x80, 0x80, 0x10, 1}) + "a" + Bytes({0, 2, 0}) + Bytes({1, 0, 1, 0}) +
             Bytes({0}),
         "a[\"\" a[\"\"] \"\"]"},
        {kMagic + Bytes({1, 0, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0, 1}) + "z" + Bytes({0, 1, 0}), "z[\"\"]"},
        // Lenient decoding: an overlong form is three '?', a 0 byte ends the
        // text and the rest of its length is skipped.
        {kMagic + Bytes({1, 0, 0, 1}) + "a" + Bytes({1, 1, 1}) + "b" + Bytes({3, 0xE0, 0x80, 0x80}) + Bytes({1, 4}) +
             "x" + Bytes({0}) + "yz",
         "a{b=\"???\"}[\"x\"]"},
        {kMagic + Bytes({1, 0, 0, 1}) + "a" + Bytes({0, 1, 9}) + Bytes({0xC3, 0xB1, 0xE2, 0x82, 0xAC, 0xF0, 0x9F, 0x98, 0x80}),
         "a[\"\\u00F1\\u20AC????\"]"},
        // New form: the low bit of an attribute's length is not looked at; a
        // binary chunk adds nothing; an attribute keeps its first value.
        {kMagic + Bytes({2, 0, 1, 1}) + "r" + Bytes({2, 1}) + "k" + Bytes({3}) + "v" + Bytes({2, 2}) + "w" + Bytes({0}) + Bytes({5, 1, 2}) + Bytes({0}),
         "r{k=\"v\"}[\"\"]"},
        // Several chunks between children all go to the same text.
        {kMagic + Bytes({2, 0, 1, 1}) + "r" + Bytes({0, 2}) + "x" + Bytes({2, 1}) + "c" + Bytes({0, 0, 0}) +
             Bytes({2}) + "y" + Bytes({2, 0, 2}) + "z" + Bytes({0}) + Bytes({2}) + "w" + Bytes({0}),
         "r[\"x\" c[\"\"] \"y\" c[\"z\"] \"w\"]"},
        // The reader reads one element: what follows the root is not looked at.
        {kNew + "trailing garbage \x01\xFF", "r{k=\"v\"}[\"hi\" c[\"\"] \"yo\"]"},
    };
    for (const Case& c : cases) {
        Outcome outcome = Read(c.document);
        EXPECT_TRUE(outcome.whole) << c.tree;
        EXPECT_EQ(outcome.tree, c.tree);
        EXPECT_TRUE(outcome.report.binary);
        EXPECT_EQ(outcome.report.refusal, xml_refusal::none);
        EXPECT_EQ(outcome.stream_code, 0u);
    }
    Outcome old_form = Read(kOld);
    EXPECT_EQ(old_form.report.major_version, 1);
    EXPECT_EQ(old_form.report.minor_version, 0);
    EXPECT_EQ(old_form.report.offset, kOld.size());
}

TEST(BxmlReader, EventsAndAnswersOfTheReaders) {
    struct Case {
        bool new_version;
        std::string body;
        bool answer;
        std::string events;
    };
    const Case cases[] = {
        {true, kNew.substr(6), true, "<r;@k=\"v\";t\"hi\";<c;t\"\";>;t\"yo\";>;"},
        {true, Bytes({1, 1}) + "a" + Bytes({0, 7, 1, 2, 3, 0}), true, "<a;d3;>;"},
        // Id 0 in the element's place: no element, and a false answer.
        {true, Bytes({0}), false, ""},
        {false, Bytes({0, 1}) + "a" + Bytes({0, 1, 0}), true, "<a;t\"\";>;"},
    };
    for (const Case& c : cases) {
        buf_ifile<unsigned char> file(reinterpret_cast<const unsigned char*>(c.body.data()), c.body.size());
        recording_sink sink;
        std::unique_ptr<xml_reader_core> reader;
        if (c.new_version) {
            reader.reset(new xml_reader_binary_new(file, sink, 6));
        } else {
            reader.reset(new xml_reader_binary_old(file, sink, 6));
        }
        bool answer = reader->parse_element();
        // The old form's answer has no meaning.
        if (c.new_version) {
            EXPECT_EQ(answer, c.answer) << c.events;
        }
        EXPECT_EQ(sink.events, c.events);
        EXPECT_FALSE(file.failed());
        EXPECT_EQ(reader->offset(), 6 + c.body.size());
    }
    // The entry brackets the element with start and finish.
    std::string body = kNew.substr(4);
    buf_ifile<unsigned char> file(reinterpret_cast<const unsigned char*>(body.data()), body.size());
    recording_sink sink;
    EXPECT_TRUE(read_bxml_document(file, sink));
    EXPECT_EQ(sink.events, "start;<r;@k=\"v\";t\"hi\";<c;t\"\";>;t\"yo\";>;finish;");
}

TEST(BxmlReader, VersionsAndShortHeaders) {
    struct Case {
        std::string document;
        xml_refusal refusal;
        std::uint32_t stream_code;
    };
    const Case cases[] = {
        {kMagic, xml_refusal::stream_error, Common::FILE_EOF},
        {kMagic + Bytes({1}), xml_refusal::stream_error, Common::FILE_EOF},
        {kMagic + Bytes({2}), xml_refusal::stream_error, Common::FILE_EOF},
        {kMagic + Bytes({3, 0}) + kNew.substr(6), xml_refusal::unknown_version, 0},
        {kMagic + Bytes({0, 1}), xml_refusal::unknown_version, 0},
        {kMagic + Bytes({0xFF, 0xFF}), xml_refusal::unknown_version, 0},
    };
    for (const Case& c : cases) {
        Outcome outcome = Read(c.document);
        EXPECT_FALSE(outcome.whole);
        EXPECT_EQ(outcome.tree, "");
        EXPECT_EQ(outcome.report.refusal, c.refusal);
        EXPECT_EQ(outcome.stream_code, c.stream_code);
    }
    // The new form's root place may hold the end of a list: read whole, with
    // an empty slot, as the reader's answer is only the stream's state.
    Outcome empty = Read(kMagic + Bytes({2, 7, 0}));
    EXPECT_TRUE(empty.whole);
    EXPECT_EQ(empty.tree, "");
    EXPECT_EQ(empty.report.minor_version, 7);
}

TEST(BxmlReader, EveryTruncationStoresEndOfFile) {
    for (const std::string& document : {kOld, kNew}) {
        for (std::size_t cut = 4; cut < document.size(); ++cut) {
            Outcome outcome = Read(document.substr(0, cut));
            EXPECT_FALSE(outcome.whole) << cut;
            EXPECT_EQ(outcome.stream_code, Common::FILE_EOF) << cut;
            EXPECT_EQ(outcome.report.refusal, xml_refusal::stream_error) << cut;
            EXPECT_EQ(outcome.report.offset, cut) << cut;
        }
    }
}

TEST(BxmlReader, HostileNumbersAndDepthsStayWithinLimits) {
    // A name that claims 4 GiB: the stream ends long before, and nothing of
    // that size is allocated.
    Outcome huge = Read(kMagic + Bytes({1, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF, 0x0F}) + "abc");
    EXPECT_FALSE(huge.whole);
    EXPECT_EQ(huge.stream_code, Common::FILE_EOF);
    // A text count of 4 billion children and nothing behind: the reader
    // stops at the end of the stream instead of making them up.
    Outcome many = Read(kMagic + Bytes({1, 0, 0, 1}) + "a" + Bytes({0, 0xFF, 0xFF, 0xFF, 0xFF, 0x0F, 0}));
    EXPECT_FALSE(many.whole);
    EXPECT_EQ(many.stream_code, Common::FILE_EOF);
    EXPECT_LT(many.tree.size(), 100u);
    // A number that never ends.
    Outcome endless = Read(kMagic + Bytes({2, 0}) + std::string(5000, '\x80'));
    EXPECT_EQ(endless.stream_code, Common::FILE_EOF);

    // Nesting, in both forms: the deepest allowed level is read, and 10,000
    // levels are refused at the first level too deep, with the stream sound.
    auto old_nested = [](std::size_t levels) {
        // Each level but the innermost has one child and an empty text
        // behind it.
        auto texts = [&](std::size_t level) { return level + 1 < levels ? 2 : 1; };
        std::string document = kMagic + Bytes({1, 0, 0, 1}) + "a" + Bytes({0, texts(0), 0});
        for (std::size_t i = 1; i < levels; ++i) document += Bytes({0, 0, texts(i), 0});
        for (std::size_t i = 1; i < levels; ++i) document += Bytes({0});
        return document;
    };
    auto new_nested = [](std::size_t levels) {
        std::string document = kMagic + Bytes({2, 0, 1, 1}) + "a" + Bytes({0, 0});
        for (std::size_t i = 1; i < levels; ++i) document += Bytes({1, 0, 0});
        document += Bytes({0});
        for (std::size_t i = 1; i < levels; ++i) document += Bytes({0, 0});
        return document;
    };
    for (auto nested : {+old_nested, +new_nested}) {
        const std::string deepest = nested(xml_max_depth);
        Outcome fits = Read(deepest);
        EXPECT_TRUE(fits.whole);
        EXPECT_EQ(fits.report.offset, deepest.size());
        Outcome deep = Read(nested(10000));
        EXPECT_FALSE(deep.whole);
        EXPECT_EQ(deep.report.refusal, xml_refusal::too_deep);
        EXPECT_EQ(deep.stream_code, 0u);
    }

    auto flat = [](std::size_t children) {
        std::string document = kMagic + Bytes({2, 0, 1, 1}) + "r" + Bytes({0, 0, 2, 1}) + "c" + Bytes({0, 0, 0, 0});
        for (std::size_t i = 1; i < children; ++i) document += Bytes({2, 0, 0, 0, 0});
        return document + Bytes({0});
    };
    EXPECT_TRUE(Read(flat(xml_max_elements - 1)).whole);
    EXPECT_EQ(Read(flat(xml_max_elements)).report.refusal, xml_refusal::too_many_elements);

    // A long text fits up to the document limit and is refused beyond it.
    auto long_text = [](std::size_t length) {
        std::string document = kMagic + Bytes({1, 0, 0, 1}) + "a" + Bytes({0, 1});
        std::uint32_t value = static_cast<std::uint32_t>(length);
        while (value >= 0x80) {
            document.push_back(static_cast<char>(0x80 | (value & 0x7F)));
            value >>= 7;
        }
        document.push_back(static_cast<char>(value));
        return document + std::string(length, 't');
    };
    const std::size_t header = long_text(0).size() + 2;
    EXPECT_TRUE(Read(long_text(xml_max_document_bytes - header)).whole);
    Outcome too_long = Read(long_text(xml_max_document_bytes - header + 1));
    EXPECT_EQ(too_long.report.refusal, xml_refusal::too_long);
    EXPECT_EQ(too_long.report.offset, xml_max_document_bytes);
    EXPECT_EQ(too_long.stream_code, 0u);
}

TEST(BxmlReader, StreamErrorStaysInTheStream) {
    class failing_file : public i_file {
    public:
        explicit failing_file(std::string data) : data_(std::move(data)) {}
        void read(void* buffer, std::uint64_t size, std::uint64_t& got) override {
            got = 0;
            if (failed()) return;
            if (position_ == data_.size()) {
                set_error(Common::Error(ERROR_TAG, Common::FILE_READ));
                return;
            }
            got = std::min<std::uint64_t>(size, data_.size() - position_);
            std::memcpy(buffer, data_.data() + position_, got);
            position_ += got;
        }

    private:
        std::string data_;
        std::size_t position_ = 0;
    };
    failing_file file(kNew.substr(0, 12));
    xml_document root;
    xml_read_report report;
    EXPECT_FALSE(read_xml_document(root, file, report));
    EXPECT_EQ(report.refusal, xml_refusal::stream_error);
    EXPECT_EQ(file.error().Code(), Common::FILE_READ);
}

}  // namespace
