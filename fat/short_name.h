#pragma once
// The 11 bytes of a short name: 8 of name and 3 of extension, space padded,
// in the OEM code page, with no dot between them. Reading them for display,
// matching a typed name against them, and making them for a new entry.
#include <cstdint>
#include <string>

#include "fat/fat_driver.h"

struct DirEntry;

class FATDriver::ShortName {
public:
    // The start of a short name for a new entry, before a "~N" tail makes
    // it unique in its directory.
    struct Basis {
        unsigned char name[11];
        bool exact;       // the long name maps to these bytes with nothing lost
        bool needs_long;  // a long name entry must stand in front
        std::uint32_t cut_short;  // where "~" goes in front of a long random tail
        std::uint32_t cut_long;   // where "~" goes in front of a one-digit tail
    };

    // False unless the name, upper cased, already is a valid short name.
    static bool to_short_name(const std::u16string& name, unsigned char out[11]);
    // Raises FILE_CREATE for a character no short name may hold.
    static Basis build_short_name(const std::u16string& name);
    // The display text of a short entry's name, with the case its case
    // flags ask for; empty on failure. The second form takes the entry's
    // 32 bytes as they lie in a buffer.
    static std::u16string to_text(const DirEntry& entry);
    static std::u16string to_text(const unsigned char* entry);
    // The checksum that binds long name entries to their short entry.
    static std::uint8_t checksum(const unsigned char name[11]);
};
