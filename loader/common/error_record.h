#pragma once
// The record behind a Common::Error, laid out field by field as the error
// model defines it. Only error.cpp builds and frees records; this header
// lets tests see the layout.
#include <cstddef>
#include <cstdint>
#include <string>

namespace Common {

struct ErrorRecord;

struct ErrorOperations {
    void (*Destroy)(ErrorRecord* record);
    ErrorRecord* (*Clone)(const ErrorRecord* record);
    void (*GetMessage)(const ErrorRecord* record, std::u16string& out);
};

struct ErrorRecord {
    std::uint32_t refcount;
    std::uint32_t code;
    ErrorRecord* next;
    const ErrorOperations* operations;
    std::uint64_t tag;
    std::uint32_t size;
    // Present only in records built with a text argument (size >= 48).
    std::uint64_t message;

    const void* Text() const { return reinterpret_cast<const char*>(this) + message; }
};

constexpr std::uint32_t kPlainRecordSize = 40;
constexpr std::uint32_t kTextOffset = 48;
static_assert(offsetof(ErrorRecord, size) == 32, "record layout");
static_assert(offsetof(ErrorRecord, message) == 40, "record layout");
static_assert(sizeof(ErrorRecord) == kTextOffset, "record layout");

// The record that stands in when no record can be allocated.
const ErrorRecord* OutOfMemoryRecord();
constexpr std::uint32_t kOutOfMemoryCode = 0xFFF2;

}  // namespace Common
