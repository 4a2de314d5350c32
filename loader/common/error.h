#pragma once
// The one failure type of the system. A value is one pointer wide: null, or
// a counted record with code, tag, optional text and an optional cause.
// Raised by value, caught by reference, and returned as a plain result.
#include <cstdint>
#include <string>

#include "loader/common/error_tag.h"

namespace Common {

struct ErrorRecord;

class Error {
public:
    Error() = default;
    Error(std::uint64_t tag, std::uint32_t code);
    Error(std::uint64_t tag, std::uint32_t code, const char* text);
    Error(std::uint64_t tag, std::uint32_t code, const char16_t* text);
    Error(const Error& other);
    Error& operator=(const Error& other);
    ~Error();

    std::uint32_t Code() const;
    std::uint64_t Tag() const;
    void GetMessage(std::u16string& out) const;
    std::u16string Message() const;
    void SetNext(const Error& cause);
    Error Next() const;

    // Success is the null pointer or a record whose code is 0.
    bool Failed() const { return Code() != 0; }
    explicit operator bool() const { return Failed(); }

    // The record behind the value; for inspection by tests and reports.
    const ErrorRecord* Record() const { return record_; }

private:
    explicit Error(ErrorRecord* adopted) : record_(adopted) {}
    ErrorRecord* record_ = nullptr;
};

// The shared success value.
extern const Error Success;

// Mapping of firmware status values to the block device facility.
std::uint32_t DiskStatusToCode(std::uint64_t status);
const char16_t* DiskStatusToMessage(std::uint64_t status);

}  // namespace Common
