#pragma once
// A file's short (DOS) name beside its long one. The two names of a pair
// share one parent: the long name is Win32 (1), the short one DOS (2), or
// one name is both (3). Giving a POSIX name a short name makes it the Win32
// half of a pair.
#include <cstdint>
#include <string>

#include "ntfs/file_record.h"

namespace ntfs {

// An attribute held by hand, so that it can be handed on to an operation
// that releases it.
class HeldAttribute {
public:
    HeldAttribute() = default;
    HeldAttribute(const HeldAttribute&) = delete;
    HeldAttribute& operator=(const HeldAttribute&) = delete;
    ~HeldAttribute() { reset(nullptr, nullptr); }

    void reset(BaseFileRecord* record, Attribute* attribute);
    // Lets go of the attribute without releasing it.
    Attribute* release();
    Attribute* get() const { return attribute_; }
    explicit operator bool() const { return attribute_ != nullptr; }

private:
    BaseFileRecord* record_ = nullptr;
    Attribute* attribute_ = nullptr;
};

// What the names of one file under one parent say about a new short name
// for the name `name` of namespace `name_space`.
struct NamesUnderParent {
    bool win32_exists = false;
    HeldAttribute long_name;
    HeldAttribute old_short;
    std::u16string old_short_name;
};

// Walks the names of `file` under `parent` (the whole reference): a Win32
// name beside a POSIX `name` is FILE_RENAME, as the file would have two
// long names.
void ScanNamesUnderParent(BaseFileRecord& file, std::uint64_t parent, const std::u16string& name,
                          std::uint8_t name_space, NamesUnderParent& notes);

}  // namespace ntfs
