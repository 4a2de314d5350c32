#pragma once
// One on-disk name in HFSUniStr255 form (big-endian length and characters),
// and the name orders of the volume: the folding order of catalog keys and
// the binary order of attribute names. Names are compared as stored: no
// normalisation, and only the few foldings of the catalog order.
#include <cstddef>
#include <cstdint>
#include <string>

#include "hfsplus/hfsplus_records.h"

namespace hfsplus {

// The stored form of the private directory's name: four 0 characters, then
// "HFS+ Private Data".
extern const char16_t kPrivateDirectoryStoredName[21];
extern const char16_t kPrivateDirectoryName[];  // u"HFS+ Private Data"

// The fold of one character of the catalog order; 0 means "skip it".
char16_t FoldCharacter(char16_t c);
// Catalog name order over the folds: -1, 0 or 1.
int CompareFolded(const char16_t* a, std::size_t a_length, const char16_t* b, std::size_t b_length);
// Code-unit order, the shorter first on an equal prefix: -1, 0 or 1.
int CompareBinary(const char16_t* a, std::size_t a_length, const char16_t* b, std::size_t b_length);
// The same two orders over names still in their on-disk form (big-endian
// characters), as keys hold them: a search compares without converting.
int CompareFoldedStored(const unsigned char* a, std::size_t a_length, const unsigned char* b, std::size_t b_length);
int CompareBinaryStored(const unsigned char* a, std::size_t a_length, const unsigned char* b, std::size_t b_length);

class HFSPlusString {
public:
    HFSPlusString() = default;  // empty
    // From a host string; FILE_UNSUPPORTED above 255 characters. The host
    // name "HFS+ Private Data" takes its stored form.
    explicit HFSPlusString(const std::u16string& host);
    // From the on-disk form; FILE_CORRUPT for a length above 255 or above
    // `available` bytes.
    static HFSPlusString FromDisk(const HFSUniStr255& name, std::size_t available);
    // From `length` big-endian characters; FILE_CORRUPT above 255.
    static HFSPlusString FromStored(const unsigned char* characters, std::size_t length);

    std::size_t length() const { return characters.size(); }
    const char16_t* data() const { return characters.data(); }
    // The host form: the private directory's stored name loses its four 0
    // characters.
    std::u16string ToHost() const;
    // Writes the on-disk form (length, then big-endian characters) to `out`
    // and answers its size in bytes.
    std::size_t ToDisk(unsigned char* out) const;
    bool operator==(const HFSPlusString& other) const { return characters == other.characters; }

    std::u16string characters;  // host order, as stored
};

// "iNode" and the decimal digits of `number`: the name of a hard link's inode.
HFSPlusString MakeINodeName(std::uint32_t number);
bool IsPrivateName(const std::u16string& host_name);
bool IsJournalName(const std::u16string& host_name, std::uint32_t parent);
bool IsHiddenName(const std::u16string& host_name, std::uint32_t parent);
bool IsDotName(const std::u16string& host_name);

}  // namespace hfsplus
