#pragma once
// A tag names the place in the sources where an error was made: a constant
// of the source module plus the line number. The module constant is an
// FNV-1a hash of the file's folder and name ("fat/fat_table.cpp"), so it
// tells apart files of one name in two folders and does not depend on
// where the tree was checked out.
#include <cstdint>
#include <type_traits>

namespace Common {

// The last two components of a path: its folder and its name.
constexpr const char* ModuleName(const char* path) {
    const char* name = path;
    const char* folder = path;
    for (const char* p = path; *p != 0; ++p) {
        if (*p == '/' || *p == '\\') {
            folder = name;
            name = p + 1;
        }
    }
    return folder;
}

constexpr std::uint64_t ModuleConstant(const char* path) {
    std::uint64_t hash = 0xCBF29CE484222325ull;
    for (const char* p = ModuleName(path); *p != 0; ++p) {
        hash = (hash ^ static_cast<unsigned char>(*p)) * 0x100000001B3ull;
    }
    return hash;
}

}  // namespace Common

// The tag of the line where it stands.
#define ERROR_TAG \
    (std::integral_constant<std::uint64_t, ::Common::ModuleConstant(__FILE__)>::value + std::uint64_t(__LINE__))
