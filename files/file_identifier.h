#pragma once
// A name for one entry of a directory that outlives the iterator that found
// it. The name is for people; the raw key is for the driver that made the
// identifier, which alone knows what its bytes mean and how to compare two.
#include <cstdint>

class file_identifier {
public:
    virtual ~file_identifier() = default;
    // A second identifier of the same entry; the caller deletes it.
    virtual file_identifier* clone() const = 0;
};

// Both parts live in one shared, counted record, so a clone costs a count
// and no copy. An identifier with neither name nor key, or one whose record
// could not be allocated, shares a static empty record that is never freed.
class the_identifier : public file_identifier {
public:
    // Copies `name` (a missing one counts as empty) and `key_size` bytes of `key`.
    the_identifier(const char16_t* name, const void* key, std::uint32_t key_size);
    ~the_identifier() override;
    the_identifier(const the_identifier&) = delete;
    the_identifier& operator=(const the_identifier&) = delete;

    file_identifier* clone() const override;

    // The zero-ended name, never null.
    const char16_t* name() const;
    // The raw key, or null when the identifier was made without one.
    const unsigned char* key() const;
    // Holders of the shared record; for diagnostics and tests.
    std::uint32_t references() const;

    struct Record;

private:
    explicit the_identifier(Record* shared);
    Record* record_;
};
