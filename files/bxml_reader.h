#pragma once
// The binary form of the configuration document ("BXML"): a reader for each
// major version over a common base, feeding events into a sink that knows
// nothing of the format. binary_reader is the sink that builds the tree.
//
// Like the text reader, these keep an explicit count of open elements
// instead of recursing, and stop at the limits of xml_refusal.h.
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "files/file_object.h"
#include "files/xml_element.h"
#include "files/xml_refusal.h"

class xml_reader_interface {
public:
    virtual ~xml_reader_interface() = default;
    virtual void start() {}
    virtual void finish() {}
    virtual void begin_element(const std::string& /*name*/) {}
    virtual void end_element() {}
    virtual void attribute(const std::string& /*name*/, const std::u16string& /*value*/) {}
    virtual void text(const std::u16string& /*value*/) {}
    virtual void data(const std::string& /*bytes*/) {}
};

// Builds the document tree into a slot. Binary chunks are dropped.
class binary_reader : public xml_reader_interface {
public:
    explicit binary_reader(xml_document& root) : root_(root) {}
    void start() override;
    void begin_element(const std::string& name) override;
    void end_element() override;
    // An attribute that exists keeps its first value.
    void attribute(const std::string& name, const std::u16string& value) override;
    void text(const std::u16string& value) override;

private:
    xml_document& root_;
    std::vector<xml_element*> stack_;
};

class xml_reader_core {
public:
    // `offset` is where the stream stands in the document; the reader takes
    // nothing at or beyond `byte_limit`.
    xml_reader_core(i_file& stream, xml_reader_interface& sink, std::uint64_t offset,
                    std::uint64_t byte_limit = xml_max_document_bytes);
    virtual ~xml_reader_core() = default;
    xml_reader_core(const xml_reader_core&) = delete;
    xml_reader_core& operator=(const xml_reader_core&) = delete;

    // Reads one element with all below it. What the answer means depends on
    // the version.
    virtual bool parse_element() = 0;

    // Why the reader stopped, when a limit stopped it; stream failures stay
    // in the stream.
    xml_refusal refusal() const { return refusal_; }
    // Offset in the document of the next byte the reader would take.
    std::uint64_t offset() const { return offset_; }

protected:
    // The stream failed or a limit was met: nothing more is read.
    bool halted() const { return refusal_ != xml_refusal::none || stream_->failed(); }
    unsigned char read_byte();
    // Little-endian base 128, 32 bits wide; bits beyond them are lost.
    std::uint32_t read_number();
    // An id, and on its first use the name's length and bytes. With
    // `may_end`, id 0 ends a list and the answer is false.
    bool read_name(std::string& name, bool may_end);
    std::string read_bytes(std::uint32_t count);
    std::u16string read_text(std::uint32_t length);
    // Counts an element that is about to begin `depth` levels deep; false
    // when a limit refuses it.
    bool admit_element(std::size_t depth);

    i_file* stream_;
    xml_reader_interface* sink_;
    std::map<std::uint32_t, std::string> names_;

private:
    bool fill();

    unsigned char buffer_[1024];
    std::size_t buffered_ = 0;
    std::size_t used_ = 0;
    std::uint64_t offset_;
    std::uint64_t byte_limit_;
    std::uint32_t elements_ = 0;
    xml_refusal refusal_ = xml_refusal::none;
};

// Version 1: an element is its name, a byte of attribute count, the
// attributes, a text count n, and then n texts with n - 1 children between
// them. The answer means nothing.
class xml_reader_binary_old : public xml_reader_core {
public:
    using xml_reader_core::xml_reader_core;
    bool parse_element() override;
};

// Version 2: lists that an id 0 ends, chunks of text or binary data between
// the children. The answer is false when the element's place holds the end
// of its list, and otherwise whether the stream is still sound.
class xml_reader_binary_new : public xml_reader_core {
public:
    using xml_reader_core::xml_reader_core;
    bool parse_element() override;

private:
    void read_chunk();
};

struct bxml_read_report {
    std::uint8_t major_version = 0;
    std::uint8_t minor_version = 0;
    xml_refusal refusal = xml_refusal::none;
    std::uint64_t offset = 0;
};

// The binary form's entry, with the stream standing right behind the magic:
// the two version bytes, then the root element into `sink`. True when the
// stream hasn't failed and no limit was met.
bool read_bxml_document(i_file& stream, xml_reader_interface& sink, bxml_read_report* report = nullptr);
