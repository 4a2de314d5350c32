// Records are counted without atomics: the system runs one thread.
#include "loader/common/error.h"

#include <cstring>
#include <new>

#include "loader/common/error_codes.h"
#include "loader/common/error_record.h"
#include "loader/common/messages.h"

namespace Common {
namespace {

void DestroyRecord(ErrorRecord* record) { ::operator delete(record); }

ErrorRecord* CloneRecord(const ErrorRecord* record) {
    void* storage = ::operator new(record->size, std::nothrow);
    if (storage == nullptr) return nullptr;
    std::memcpy(storage, record, record->size);
    auto* clone = static_cast<ErrorRecord*>(storage);
    clone->refcount = 1;
    clone->next = nullptr;
    return clone;
}

void PlainMessage(const ErrorRecord*, std::u16string& out) { out.clear(); }

void NarrowMessage(const ErrorRecord* record, std::u16string& out) {
    out.clear();
    if (record->message == 0) return;
    for (auto* p = static_cast<const unsigned char*>(record->Text()); *p != 0; ++p) out.push_back(*p);
}

void WideMessage(const ErrorRecord* record, std::u16string& out) {
    out.clear();
    if (record->message == 0) return;
    // The text sits at offset 48 of a pool block, so it is suitably aligned.
    out.assign(static_cast<const char16_t*>(record->Text()));
}

const ErrorOperations kPlainOperations = {DestroyRecord, CloneRecord, PlainMessage};
const ErrorOperations kNarrowOperations = {DestroyRecord, CloneRecord, NarrowMessage};
const ErrorOperations kWideOperations = {DestroyRecord, CloneRecord, WideMessage};

// Its count starts at 1 and so never reaches 0: it is never destroyed.
ErrorRecord out_of_memory_record = {1, kOutOfMemoryCode, nullptr, &kPlainOperations, 0, 32, 0};

ErrorRecord* BuildRecord(std::uint64_t tag, std::uint32_t code, std::uint32_t size,
                         const ErrorOperations* operations, const void* text, std::size_t text_bytes) {
    void* storage = ::operator new(size, std::nothrow);
    if (storage == nullptr) {
        ++out_of_memory_record.refcount;
        return &out_of_memory_record;
    }
    auto* record = static_cast<ErrorRecord*>(storage);
    record->refcount = 1;
    record->code = code;
    record->next = nullptr;
    record->operations = operations;
    record->tag = tag;
    record->size = size;
    if (size >= kTextOffset) {
        record->message = text != nullptr ? kTextOffset : 0;
        if (text != nullptr) std::memcpy(static_cast<char*>(storage) + kTextOffset, text, text_bytes);
    }
    return record;
}

std::size_t WideLength(const char16_t* text) {
    std::size_t length = 0;
    while (text[length] != 0) ++length;
    return length;
}

// Counts down, and destroys the chain of records whose count reaches 0 with
// a loop, so that a long chain cannot exhaust the stack.
void Release(ErrorRecord* record) {
    while (record != nullptr) {
        if (--record->refcount != 0) return;
        ErrorRecord* next = record->next;
        record->operations->Destroy(record);
        record = next;
    }
}

}  // namespace

const ErrorRecord* OutOfMemoryRecord() { return &out_of_memory_record; }

const Error Success;

Error::Error(std::uint64_t tag, std::uint32_t code) {
    if (code == 0) return;
    record_ = BuildRecord(tag, code, kPlainRecordSize, &kPlainOperations, nullptr, 0);
}

Error::Error(std::uint64_t tag, std::uint32_t code, const char* text) {
    if (code == 0) return;
    std::size_t bytes = text != nullptr ? std::strlen(text) + 1 : 0;
    record_ = BuildRecord(tag, code, static_cast<std::uint32_t>(kTextOffset + bytes), &kNarrowOperations, text, bytes);
}

Error::Error(std::uint64_t tag, std::uint32_t code, const char16_t* text) {
    if (code == 0) return;
    std::size_t bytes = text != nullptr ? 2 * WideLength(text) + 2 : 0;
    record_ = BuildRecord(tag, code, static_cast<std::uint32_t>(kTextOffset + bytes), &kWideOperations, text, bytes);
}

Error::Error(const Error& other) : record_(other.record_) {
    if (record_ != nullptr) ++record_->refcount;
}

Error& Error::operator=(const Error& other) {
    // The new record is counted before the old one is released, so that
    // assigning a value to itself, or to its own cause, keeps it alive.
    if (other.record_ != nullptr) ++other.record_->refcount;
    ErrorRecord* old = record_;
    record_ = other.record_;
    Release(old);
    return *this;
}

Error::~Error() { Release(record_); }

std::uint32_t Error::Code() const { return record_ != nullptr ? record_->code : 0; }

std::uint64_t Error::Tag() const { return record_ != nullptr ? record_->tag : 0; }

void Error::GetMessage(std::u16string& out) const {
    if (record_ == nullptr) {
        out.clear();
        return;
    }
    record_->operations->GetMessage(record_, out);
}

std::u16string Error::Message() const {
    std::u16string text;
    GetMessage(text);
    return text;
}

Error Error::Next() const {
    if (record_ == nullptr || record_->next == nullptr) return Error();
    ++record_->next->refcount;
    return Error(record_->next);
}

void Error::SetNext(const Error& cause) {
    ErrorRecord* counted_cause = cause.record_;
    if (counted_cause != nullptr) ++counted_cause->refcount;
    if (record_ == nullptr) {
        record_ = counted_cause;
        return;
    }
    if (record_->refcount == 1) {
        Release(record_->next);
        record_->next = counted_cause;
        return;
    }
    ErrorRecord* clone = record_->operations->Clone(record_);
    if (clone == nullptr) {
        Release(counted_cause);
        return;
    }
    clone->next = counted_cause;
    ErrorRecord* old = record_;
    record_ = clone;
    Release(old);
}

std::uint32_t DiskStatusToCode(std::uint64_t status) {
    constexpr std::uint64_t kErrorBit = 0x8000000000000000ull;
    if (status >= (kErrorBit | 1) && status <= (kErrorBit | 0x18)) {
        return DISK_FACILITY_BASE + static_cast<std::uint32_t>(status & 0xFF);
    }
    if (status >= 1 && status <= 4) return DISK_FACILITY_BASE + 0x18 + static_cast<std::uint32_t>(status);
    return DISK_UNKNOWN_STATUS;
}

const char16_t* DiskStatusToMessage(std::uint64_t status) { return Messages::DiskStatusText(DiskStatusToCode(status)); }

}  // namespace Common
