#pragma once
// The consumers of a restore that take a piece of fixed form: the
// attributes, the two times, the unnamed data as plain bytes, and the raw
// form of an encrypted file, which this driver can't bring back.
#include <cstdint>

#include "ntfs/attribute.h"
#include "ntfs/restore_object.h"

namespace ntfs {

// Gathers 4 bytes and sets them as the attributes, under the user's mask:
// the directory, reparse, sparse, compressed and encrypted bits belong to
// the volume and follow from what the other streams make.
class RestoreAttributes : public RestoreSubObject, public FileObjectHolder {
public:
    explicit RestoreAttributes(const FileObjectHolder& holder)
        : RestoreSubObject(kRestoreAttributes), FileObjectHolder(holder) {}
    std::uint64_t write(std::uint32_t kind, const unsigned char* data, std::uint64_t size) override;
    void finish() override;

private:
    unsigned char bytes_[4] = {};
    std::uint32_t gathered_ = 0;
};

// Gathers the modification and the creation time, two i64 in ms from
// 1970, and sets them unless the option leaves the times alone. A time
// that no NTFS time can hold is FILE_CORRUPT.
class RestoreFileTimes : public RestoreSubObject, public FileObjectHolder {
public:
    RestoreFileTimes(const FileObjectHolder& holder, std::uint32_t option)
        : RestoreSubObject(kRestoreTimes), FileObjectHolder(holder), option_(option) {}
    std::uint64_t write(std::uint32_t kind, const unsigned char* data, std::uint64_t size) override;
    void finish() override;
    // The volume's time of a time in ms from 1970; FILE_CORRUPT outside
    // what a volume time (100 ns from 1601, below 2^63) holds.
    static std::uint64_t VolumeTimeOf(std::int64_t ms);

private:
    unsigned char bytes_[16] = {};
    std::uint32_t gathered_ = 0;
    std::uint32_t option_;
};

// The raw form of an encrypted file: FILE_DECRYPT, since the driver writes
// no encrypted streams.
class RestoreEFSStreams : public RestoreSubObject {
public:
    RestoreEFSStreams() : RestoreSubObject(kRestoreEncrypted) {}
    std::uint64_t write(std::uint32_t kind, const unsigned char* data, std::uint64_t size) override;
};

// The unnamed data of a file as plain bytes, at a running position.
// FILE_DISK_FULL when the volume takes fewer.
class RestorePlainStreams : public RestoreSubObject, public FileObjectHolder {
public:
    explicit RestorePlainStreams(const FileObjectHolder& holder)
        : RestoreSubObject(kRestorePlain), FileObjectHolder(holder) {}
    std::uint64_t write(std::uint32_t kind, const unsigned char* data, std::uint64_t size) override;

private:
    std::uint64_t position_ = 0;
};

}  // namespace ntfs
