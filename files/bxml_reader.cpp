#include "files/bxml_reader.h"

#include <memory>

#include "files/utf_conversion.h"
#include "loader/common/error_codes.h"
#include "loader/common/messages.h"

namespace {

constexpr std::uint64_t kMagicSize = 4;

void StoreEndOfFile(i_file& stream) {
    if (stream.failed()) return;
    stream.set_error(Common::Error(ERROR_TAG, Common::FILE_EOF, Common::Messages::FILE_EOF));
}

}  // namespace

void binary_reader::start() { stack_.clear(); }

void binary_reader::begin_element(const std::string& name) {
    xml_document element = xml_element::create(name);
    xml_element* added;
    if (stack_.empty()) {
        root_ = std::move(element);
        added = root_.get();
    } else {
        added = stack_.back()->append_child(std::move(element));
    }
    stack_.push_back(added);
}

void binary_reader::end_element() {
    if (!stack_.empty()) stack_.pop_back();
}

void binary_reader::attribute(const std::string& name, const std::u16string& value) {
    if (!stack_.empty()) stack_.back()->attributes.emplace(name, value);
}

void binary_reader::text(const std::u16string& value) {
    if (!stack_.empty()) stack_.back()->append_text(value);
}

xml_reader_core::xml_reader_core(i_file& stream, xml_reader_interface& sink, std::uint64_t offset,
                                 std::uint64_t byte_limit)
    : stream_(&stream), sink_(&sink), offset_(offset), byte_limit_(byte_limit) {}

// Makes sure a byte is in hand. The stream is read a block at a time; the
// limit counts the bytes taken, not those read ahead.
bool xml_reader_core::fill() {
    if (halted()) return false;
    if (offset_ >= byte_limit_) {
        refusal_ = xml_refusal::too_long;
        return false;
    }
    if (used_ < buffered_) return true;
    std::uint64_t got = 0;
    stream_->read(buffer_, sizeof buffer_, got);
    if (got > sizeof buffer_) got = sizeof buffer_;
    if (got == 0) {
        StoreEndOfFile(*stream_);
        return false;
    }
    buffered_ = static_cast<std::size_t>(got);
    used_ = 0;
    return true;
}

unsigned char xml_reader_core::read_byte() {
    if (!fill()) return 0;
    ++offset_;
    return buffer_[used_++];
}

std::uint32_t xml_reader_core::read_number() {
    std::uint64_t value = 0;
    unsigned shift = 0;
    while (!halted()) {
        unsigned char byte = read_byte();
        if (halted()) break;
        if (shift < 32) value |= static_cast<std::uint64_t>(byte & 0x7F) << shift;
        shift += 7;
        if ((byte & 0x80) == 0) break;
    }
    return static_cast<std::uint32_t>(value);
}

std::string xml_reader_core::read_bytes(std::uint32_t count) {
    // Taken as the bytes arrive, so a damaged length costs no more memory
    // than the stream actually holds.
    std::string bytes;
    while (bytes.size() < count && fill()) {
        std::size_t wanted = count - bytes.size();
        std::size_t available = buffered_ - used_;
        std::uint64_t allowed = byte_limit_ - offset_;
        std::size_t take = wanted < available ? wanted : available;
        if (take > allowed) take = static_cast<std::size_t>(allowed);
        bytes.append(reinterpret_cast<const char*>(buffer_ + used_), take);
        used_ += take;
        offset_ += take;
    }
    return bytes;
}

std::u16string xml_reader_core::read_text(std::uint32_t length) { return utf8_to_utf16(read_bytes(length)); }

bool xml_reader_core::read_name(std::string& name, bool may_end) {
    std::uint32_t id = read_number();
    if (may_end && id == 0) return false;
    auto known = names_.find(id);
    if (known != names_.end()) {
        name = known->second;
        return true;
    }
    std::uint32_t length = read_number();
    name = read_bytes(length);
    names_[id] = name;
    return true;
}

bool xml_reader_core::admit_element(std::size_t depth) {
    if (halted()) return false;
    if (depth >= xml_max_depth) {
        refusal_ = xml_refusal::too_deep;
        return false;
    }
    if (elements_ >= xml_max_elements) {
        refusal_ = xml_refusal::too_many_elements;
        return false;
    }
    ++elements_;
    return true;
}

bool xml_reader_binary_old::parse_element() {
    // For each open element, the children it still has to read.
    std::vector<std::uint32_t> remaining;
    std::string name;
    std::string attribute;
    for (;;) {
        if (admit_element(remaining.size())) {
            read_name(name, false);
            sink_->begin_element(name);
            unsigned count = read_byte();
            for (unsigned i = 0; i < count && !halted(); ++i) {
                read_name(attribute, false);
                std::u16string value = read_text(read_number());
                sink_->attribute(attribute, value);
            }
            std::uint32_t texts = read_number();
            sink_->text(read_text(read_number()));
            // A text count of 0 has no meaning of its own: no child.
            remaining.push_back(texts == 0 ? 0 : texts - 1);
        }
        if (remaining.empty()) return !halted();
        // Once the stream has failed nothing more can be read, so the
        // elements still owed are not made up: the open ones just close.
        for (;;) {
            if (remaining.back() > 0 && !halted()) {
                --remaining.back();
                break;
            }
            sink_->end_element();
            remaining.pop_back();
            if (remaining.empty()) return !halted();
            sink_->text(read_text(read_number()));
        }
    }
}

void xml_reader_binary_new::read_chunk() {
    std::uint32_t header = read_number();
    std::string bytes = read_bytes(header >> 1);
    if ((header & 1) != 0) {
        sink_->data(bytes);
    } else {
        sink_->text(utf8_to_utf16(bytes));
    }
}

bool xml_reader_binary_new::parse_element() {
    std::size_t depth = 0;
    std::string name;
    std::string attribute;
    for (;;) {
        // A child position (the root's place when nothing is open): an
        // element, or id 0 for the end of the list.
        if (read_name(name, true) && admit_element(depth)) {
            sink_->begin_element(name);
            ++depth;
            while (read_name(attribute, true)) {
                std::uint32_t header = read_number();
                // The low bit of the length is not looked at.
                std::u16string value = read_text(header >> 1);
                sink_->attribute(attribute, value);
            }
            read_chunk();
            continue;
        }
        if (depth == 0) return false;
        // The innermost element's content is over. A sound stream means that
        // its parent goes on with a chunk and another child position; a
        // failed one ends the parent as well.
        bool sound;
        do {
            sink_->end_element();
            --depth;
            sound = !halted();
        } while (depth > 0 && !sound);
        if (depth == 0) return sound;
        read_chunk();
    }
}

bool read_bxml_document(i_file& stream, xml_reader_interface& sink, bxml_read_report* report) {
    bxml_read_report local;
    bxml_read_report& out = report != nullptr ? *report : local;
    out = bxml_read_report();
    unsigned char versions[2] = {0, 0};
    std::uint64_t got = 0;
    stream.read(versions, sizeof versions, got);
    if (got > sizeof versions) got = sizeof versions;
    // A missing byte is stored as the end of the file; decoding goes on with
    // what the read gave.
    if (got < sizeof versions) StoreEndOfFile(stream);
    out.major_version = versions[0];
    out.minor_version = versions[1];
    out.offset = kMagicSize + got;
    std::unique_ptr<xml_reader_core> reader;
    if (versions[0] == 1) {
        reader.reset(new xml_reader_binary_old(stream, sink, out.offset));
    } else if (versions[0] == 2) {
        reader.reset(new xml_reader_binary_new(stream, sink, out.offset));
    } else {
        out.refusal = stream.failed() ? xml_refusal::stream_error : xml_refusal::unknown_version;
        return false;
    }
    sink.start();
    reader->parse_element();
    sink.finish();
    out.offset = reader->offset();
    if (stream.failed()) out.refusal = xml_refusal::stream_error;
    else out.refusal = reader->refusal();
    return out.refusal == xml_refusal::none;
}
