#pragma once
// An encrypted stream. No key can be had on this system, so its plain
// contents are refused (FILE_ACCESS_DENIED) once the file's $EFS stream has
// been found sound; the stored bytes stay readable through readWithTail,
// the raw path of backups.
#include "ntfs/nonres_attribute.h"

namespace ntfs {

class EncryptedAttribute : public NonresAttribute {
public:
    using NonresAttribute::NonresAttribute;

    std::uint64_t read(std::uint64_t position, std::uint64_t length, void* buffer) override;
    std::uint64_t readSectors(std::uint64_t position, std::uint64_t length, void* buffer) override;
    std::uint64_t readWithTail(std::uint64_t position, std::uint64_t length, void* buffer, bool direct) override;
    // Without a key nothing could be encrypted: FILE_UNSUPPORTED.
    std::uint64_t write(std::uint64_t position, std::uint64_t length, const void* buffer) override;
    std::uint64_t writeSectors(std::uint64_t position, std::uint64_t length, const void* buffer) override;

private:
    // Raises: FILE_CORRUPT for a missing or damaged $EFS stream, else
    // FILE_ACCESS_DENIED, since none of its keys can be opened here.
    [[noreturn]] void obtainKey();
};

}  // namespace ntfs
