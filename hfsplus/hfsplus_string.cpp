#include "hfsplus/hfsplus_string.h"

#include "loader/common/byte_order.h"
#include "loader/common/raise.h"

namespace hfsplus {

const char16_t kPrivateDirectoryStoredName[21] = {0,   0,   0,   0,   u'H', u'F', u'S', u'+', u' ', u'P', u'r',
                                                  u'i', u'v', u'a', u't', u'e', u' ', u'D', u'a', u't', u'a'};
const char16_t kPrivateDirectoryName[] = u"HFS+ Private Data";

namespace {

constexpr std::size_t kPrivateStoredLength = sizeof(kPrivateDirectoryStoredName) / sizeof(char16_t);
constexpr std::size_t kPrivatePrefix = 4;  // the 0 characters that hide the name from Finder

struct HostCharacters {
    const char16_t* text;
    char16_t operator[](std::size_t index) const { return text[index]; }
};

struct StoredCharacters {
    const unsigned char* bytes;
    char16_t operator[](std::size_t index) const { return static_cast<char16_t>(Common::LoadBE16(bytes + 2 * index)); }
};

// The next character of a name whose fold isn't skipped, 0 at the end.
template <typename Characters>
char16_t NextFolded(const Characters& name, std::size_t length, std::size_t& index) {
    while (index < length) {
        const char16_t folded = FoldCharacter(name[index++]);
        if (folded != 0) return folded;
    }
    return 0;
}

template <typename A, typename B>
int Folded(const A& a, std::size_t a_length, const B& b, std::size_t b_length) {
    std::size_t i = 0;
    std::size_t j = 0;
    for (;;) {
        const char16_t x = NextFolded(a, a_length, i);
        const char16_t y = NextFolded(b, b_length, j);
        if (x != y) return x < y ? -1 : 1;
        if (x == 0) return 0;
    }
}

template <typename A, typename B>
int Binary(const A& a, std::size_t a_length, const B& b, std::size_t b_length) {
    const std::size_t common = a_length < b_length ? a_length : b_length;
    for (std::size_t i = 0; i < common; ++i) {
        if (a[i] != b[i]) return a[i] < b[i] ? -1 : 1;
    }
    if (a_length == b_length) return 0;
    return a_length < b_length ? -1 : 1;
}

bool Equals(const std::u16string& text, const char16_t* literal) { return text == std::u16string(literal); }

}  // namespace

char16_t FoldCharacter(char16_t c) {
    const unsigned high = c >> 8;
    const unsigned low = c & 0xFF;
    switch (high) {
        case 0x00:
            if (c == 0) return 0xFFFF;  // a 0 character sorts above every other
            return (c >= u'A' && c <= u'Z') ? static_cast<char16_t>(c + 0x20) : c;
        case 0x01:
            return static_cast<char16_t>(c + 0x0100);
        case 0x20:
            return (low >= 0x0C && low <= 0x0F) ? char16_t(0x2000) : c;
        case 0xFE:
            return 0;
        default:
            return c;
    }
}

int CompareFolded(const char16_t* a, std::size_t a_length, const char16_t* b, std::size_t b_length) {
    return Folded(HostCharacters{a}, a_length, HostCharacters{b}, b_length);
}

int CompareBinary(const char16_t* a, std::size_t a_length, const char16_t* b, std::size_t b_length) {
    return Binary(HostCharacters{a}, a_length, HostCharacters{b}, b_length);
}

int CompareFoldedStored(const unsigned char* a, std::size_t a_length, const unsigned char* b, std::size_t b_length) {
    return Folded(StoredCharacters{a}, a_length, StoredCharacters{b}, b_length);
}

int CompareBinaryStored(const unsigned char* a, std::size_t a_length, const unsigned char* b, std::size_t b_length) {
    return Binary(StoredCharacters{a}, a_length, StoredCharacters{b}, b_length);
}

HFSPlusString::HFSPlusString(const std::u16string& host) {
    if (IsPrivateName(host)) {
        characters.assign(kPrivateDirectoryStoredName, kPrivateStoredLength);
        return;
    }
    if (host.size() > kMaxNameLength) Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
    characters = host;
}

HFSPlusString HFSPlusString::FromDisk(const HFSUniStr255& name, std::size_t available) {
    if (available < sizeof(name.length_)) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    const std::size_t length = name.length();
    if (length > kMaxNameLength || sizeof(name.length_) + 2 * length > available) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    return FromStored(reinterpret_cast<const unsigned char*>(name.unicode_), length);
}

HFSPlusString HFSPlusString::FromStored(const unsigned char* stored, std::size_t length) {
    if (length > kMaxNameLength) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    HFSPlusString name;
    name.characters.resize(length);
    for (std::size_t i = 0; i < length; ++i) name.characters[i] = StoredCharacters{stored}[i];
    return name;
}

std::u16string HFSPlusString::ToHost() const {
    if (characters == std::u16string(kPrivateDirectoryStoredName, kPrivateStoredLength)) {
        return characters.substr(kPrivatePrefix);
    }
    return characters;
}

std::size_t HFSPlusString::ToDisk(unsigned char* out) const {
    Common::StoreBE16(out, static_cast<std::uint16_t>(characters.size()));
    for (std::size_t i = 0; i < characters.size(); ++i) Common::StoreBE16(out + 2 + 2 * i, characters[i]);
    return 2 + 2 * characters.size();
}

HFSPlusString MakeINodeName(std::uint32_t number) {
    char16_t digits[10];
    std::size_t count = 0;
    do {
        digits[count++] = static_cast<char16_t>(u'0' + number % 10);
        number /= 10;
    } while (number != 0);
    std::u16string name = u"iNode";
    while (count > 0) name.push_back(digits[--count]);
    if (name.size() > kMaxNameLength) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    HFSPlusString result;
    result.characters = name;
    return result;
}

bool IsPrivateName(const std::u16string& host_name) { return Equals(host_name, kPrivateDirectoryName); }

bool IsJournalName(const std::u16string& host_name, std::uint32_t parent) {
    return parent == kRootFolderId && (Equals(host_name, u".journal") || Equals(host_name, u".journal_info_block"));
}

bool IsHiddenName(const std::u16string& host_name, std::uint32_t parent) {
    return IsPrivateName(host_name) || IsJournalName(host_name, parent);
}

bool IsDotName(const std::u16string& host_name) { return Equals(host_name, u".") || Equals(host_name, u".."); }

}  // namespace hfsplus
