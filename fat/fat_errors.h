#pragma once
// The two failures of the driver that callers tell apart by their class: a
// name that isn't there, and a volume without a free cluster. Both are
// raised without text of their own; every other failure of the driver goes
// through Common::Raise with its catalogue text.
#include <cstdint>

#include "fat/fat_driver.h"
#include "loader/common/error.h"
#include "loader/common/error_codes.h"

class FATDriver::FileNotFound : public Common::Error {
public:
    explicit FileNotFound(std::uint64_t tag) : Common::Error(tag, Common::FILE_NOT_FOUND) {}
};

class FATDriver::FileDiskFull : public Common::Error {
public:
    explicit FileDiskFull(std::uint64_t tag) : Common::Error(tag, Common::FILE_DISK_FULL) {}
};
