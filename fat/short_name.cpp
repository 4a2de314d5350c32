#include "fat/short_name.h"

#include <cstring>

#include "fat/dir_entry.h"
#include "fat/fat_text.h"
#include "loader/common/raise.h"

namespace {

constexpr std::size_t kNameBytes = 8;
constexpr std::size_t kShortNameBytes = 11;
// A name whose first byte really is 0xE5 is stored with 0x05 in its place,
// since 0xE5 there marks a deleted entry.
constexpr unsigned char kDeletedMark = fat_entry::kDeleted;
constexpr unsigned char kDeletedMarkStandIn = fat_entry::kKanjiE5;

bool IsOneOf(unsigned char byte, const char* set) {
    for (; *set != 0; ++set) {
        if (byte == static_cast<unsigned char>(*set)) return true;
    }
    return false;
}

bool IsRefusedByte(unsigned char byte) { return byte < 0x20 || IsOneOf(byte, "\"*/:<>?\\|"); }

bool IsReplacedByte(unsigned char byte) { return IsOneOf(byte, "+,;=[]"); }

void TrimTrailingSpaces(std::u16string& text) {
    while (!text.empty() && text.back() == u' ') text.pop_back();
}

// The last "." marks the extension, unless nothing but spaces and dots
// stands in front of it: ".profile" and ". .x" have none.
std::size_t ExtensionMark(const std::u16string& name) {
    std::size_t mark = name.rfind(u'.');
    if (mark == std::u16string::npos) return mark;
    for (std::size_t i = 0; i < mark; ++i) {
        if (name[i] != u' ' && name[i] != u'.') return mark;
    }
    return std::u16string::npos;
}

// Fills a basis character by character: first the 8 name bytes, then,
// behind the extension mark, the 3 extension bytes.
class BasisBuilder {
public:
    explicit BasisBuilder(FATDriver::ShortName::Basis& basis) : basis_(basis) {}

    void start_extension() {
        pad_name();
        if (name_stored_ == 0) put_underscore_name();
        target_ = kNameBytes;
        end_ = kShortNameBytes;
    }

    void add(char16_t unit) {
        if (target_ == end_) {
            basis_.exact = false;
            return;
        }
        std::string bytes = encode(unit);
        store(filter(bytes));
        if (in_name()) note_cut_places();
    }

    // Pads what is left; false when nothing at all was stored.
    bool finish() {
        if (in_name()) pad_name();
        std::memset(basis_.name + target_, ' ', kShortNameBytes - target_);
        if (basis_.name[0] == kDeletedMark) basis_.name[0] = kDeletedMarkStandIn;
        return stored_any_;
    }

private:
    bool in_name() const { return end_ == kNameBytes; }

    void pad_name() {
        std::memset(basis_.name + target_, ' ', kNameBytes - target_);
        target_ = kNameBytes;
    }

    void put_underscore_name() {
        basis_.name[0] = '_';
        basis_.exact = false;
        basis_.cut_short = basis_.cut_long = 1;
    }

    std::string encode(char16_t unit) {
        if (unit < 0x80) return std::string(1, static_cast<char>(unit));
        basis_.needs_long = true;
        std::string bytes;
        if (!FATDriver::FATText::text_to_oem(std::u16string(1, unit), bytes) || bytes.empty()) {
            basis_.exact = false;
            return "_";
        }
        return bytes;
    }

    // What the first byte says of the character: refused, dropped,
    // replaced or kept.
    std::string filter(const std::string& bytes) {
        auto first = static_cast<unsigned char>(bytes[0]);
        if (IsRefusedByte(first)) {
            Common::Raise(ERROR_TAG, Common::Failures::FILE_CREATE);
        }
        if (first == ' ' || first == '.') {
            basis_.exact = false;
            return std::string();
        }
        if (IsReplacedByte(first)) {
            basis_.exact = false;
            return "_";
        }
        return bytes;
    }

    void store(const std::string& bytes) {
        if (bytes.empty()) return;
        if (bytes.size() > end_ - target_) {
            // Half of a double-byte character would be a different one.
            basis_.exact = false;
            put(' ');
            return;
        }
        for (char byte : bytes) put(static_cast<unsigned char>(byte));
    }

    void put(unsigned char byte) {
        basis_.name[target_++] = byte;
        stored_any_ = true;
        if (in_name()) ++name_stored_;
    }

    void note_cut_places() {
        if (name_stored_ < 3) {
            basis_.cut_short = basis_.cut_long = name_stored_;
        } else if (name_stored_ < 7) {
            basis_.cut_long = name_stored_;
        }
    }

    FATDriver::ShortName::Basis& basis_;
    std::size_t target_ = 0;
    std::size_t end_ = kNameBytes;
    std::uint32_t name_stored_ = 0;
    bool stored_any_ = false;
};

FATDriver::ShortName::Basis EmptyNameBasis() {
    FATDriver::ShortName::Basis basis;
    std::memset(basis.name, ' ', kShortNameBytes);
    basis.name[0] = '_';
    basis.exact = false;
    basis.needs_long = false;
    basis.cut_short = basis.cut_long = 1;
    return basis;
}

// Decodes `n` bytes of a short name field; false when they can't be read.
bool DecodeField(const unsigned char* bytes, std::size_t n, bool lower, std::u16string& text) {
    if (!FATDriver::FATText::oem_to_text(bytes, n, text)) return false;
    TrimTrailingSpaces(text);
    if (lower) FATDriver::FATText::text_lower(text);
    return true;
}

}  // namespace

bool FATDriver::ShortName::to_short_name(const std::u16string& name, unsigned char out[11]) {
    std::u16string upper = name;
    FATText::text_upper(upper);
    std::string bytes;
    if (!FATText::text_to_oem(upper, bytes)) return false;
    std::size_t dot = bytes.find('.');
    std::string base = bytes.substr(0, dot);
    std::string extension = dot == std::string::npos ? std::string() : bytes.substr(dot + 1);
    if (base.empty() || base.size() > kNameBytes || base.back() == ' ') return false;
    if (extension.size() > kShortNameBytes - kNameBytes || extension.find('.') != std::string::npos) return false;
    if (!extension.empty() && extension.back() == ' ') return false;
    std::memset(out, ' ', kShortNameBytes);
    std::memcpy(out, base.data(), base.size());
    std::memcpy(out + kNameBytes, extension.data(), extension.size());
    if (out[0] == kDeletedMark) out[0] = kDeletedMarkStandIn;
    return true;
}

FATDriver::ShortName::Basis FATDriver::ShortName::build_short_name(const std::u16string& name) {
    std::u16string upper = name;
    FATText::text_upper(upper);
    Basis basis = EmptyNameBasis();
    if (!upper.empty()) {
        basis.exact = true;
        basis.cut_short = basis.cut_long = 0;
        BasisBuilder builder(basis);
        std::size_t mark = ExtensionMark(upper);
        for (std::size_t i = 0; i < upper.size(); ++i) {
            if (i == mark) {
                builder.start_extension();
            } else {
                builder.add(upper[i]);
            }
        }
        if (!builder.finish()) {
            bool needs_long = basis.needs_long;
            basis = EmptyNameBasis();
            basis.needs_long = needs_long;
        }
    }
    if (!basis.needs_long) basis.needs_long = !basis.exact || upper != name;
    return basis;
}

std::u16string FATDriver::ShortName::to_text(const DirEntry& entry) {
    unsigned char name[kNameBytes];
    std::memcpy(name, entry.name(), kNameBytes);
    if (name[0] == kDeletedMarkStandIn) name[0] = kDeletedMark;
    const std::uint8_t flags = entry.case_flags();
    std::u16string text;
    if (!DecodeField(name, kNameBytes, (flags & fat_entry::kLowerBase) != 0, text) || text.empty()) {
        return std::u16string();
    }
    std::u16string extension;
    if (!DecodeField(entry.name() + kNameBytes, kShortNameBytes - kNameBytes, (flags & fat_entry::kLowerExtension) != 0,
                     extension)) {
        return std::u16string();
    }
    if (!extension.empty()) text += u'.' + extension;
    return text;
}

std::u16string FATDriver::ShortName::to_text(const unsigned char* entry) {
    return to_text(*reinterpret_cast<const DirEntry*>(entry));
}

std::uint8_t FATDriver::ShortName::checksum(const unsigned char name[11]) {
    std::uint8_t sum = 0;
    for (std::size_t i = 0; i < kShortNameBytes; ++i) {
        sum = static_cast<std::uint8_t>(((sum & 1) << 7) + (sum >> 1) + name[i]);
    }
    return sum;
}
