#include "files/file_identifier.h"

#include <cstddef>
#include <cstring>
#include <new>

// Laid out as one allocation: the count, where the key starts, the name with
// its zero, and the key's bytes right behind the name.
struct the_identifier::Record {
    std::uint32_t references;
    const unsigned char* key;
    char16_t name[1];
};

namespace {

// Starts at 1 so that no release ever brings it to 0.
the_identifier::Record empty_record = {1, nullptr, {0}};

std::size_t NameLength(const char16_t* name) {
    std::size_t length = 0;
    if (name != nullptr) {
        while (name[length] != 0) ++length;
    }
    return length;
}

}  // namespace

the_identifier::the_identifier(const char16_t* name, const void* key, std::uint32_t key_size)
    : record_(&empty_record) {
    std::size_t length = NameLength(name);
    if (key == nullptr) key_size = 0;
    if (length == 0 && key_size == 0) {
        ++record_->references;
        return;
    }
    std::size_t name_bytes = (length + 1) * sizeof(char16_t);
    std::size_t total = offsetof(Record, name) + name_bytes + key_size;
    void* memory = ::operator new(total, std::nothrow);
    if (memory == nullptr) {
        ++record_->references;
        return;
    }
    Record* record = static_cast<Record*>(memory);
    record->references = 1;
    if (length != 0) std::memcpy(record->name, name, length * sizeof(char16_t));
    record->name[length] = 0;
    unsigned char* key_bytes = reinterpret_cast<unsigned char*>(record->name) + name_bytes;
    if (key_size != 0) {
        std::memcpy(key_bytes, key, key_size);
        record->key = key_bytes;
    } else {
        record->key = nullptr;
    }
    record_ = record;
}

the_identifier::the_identifier(Record* shared) : record_(shared) { ++record_->references; }

the_identifier::~the_identifier() {
    // The empty record's own count of 1 keeps it from ever reaching 0.
    if (--record_->references == 0) ::operator delete(static_cast<void*>(record_));
}

file_identifier* the_identifier::clone() const { return new the_identifier(record_); }

const char16_t* the_identifier::name() const { return record_->name; }

const unsigned char* the_identifier::key() const { return record_->key; }

std::uint32_t the_identifier::references() const { return record_->references; }
