#pragma once
// The stream family. Each class is one ability; a concrete stream combines
// the abilities it offers, and file_object, a virtual base throughout, holds
// the one error state of the stream. Nothing in the family throws: a failure
// is stored, later operations on a failed object do nothing, and the caller
// asks failed().
#include <cstdint>

#include "loader/common/error.h"

class file_object {
public:
    virtual ~file_object() = default;

    // A request block that starts with a u32 of four ASCII characters.
    virtual void control(void* block);

    bool failed() const { return error_.Failed(); }
    Common::Error error() const { return error_; }
    void set_error(const Common::Error& error) { error_ = error; }

protected:
    // Stores FILE_UNSUPPORTED unless an error is already pending.
    void unsupported();

private:
    Common::Error error_;
};

class i_file : public virtual file_object {
public:
    // Reads up to `size` bytes at the position and moves it by `got`.
    virtual void read(void* buffer, std::uint64_t size, std::uint64_t& got) = 0;
};

class o_file : public virtual file_object {
public:
    virtual void write(const void* buffer, std::uint64_t size, std::uint64_t& written) = 0;
    virtual void flush() {}
    virtual void set_size(std::uint64_t size) = 0;
    virtual void reserved_o_file() { unsupported(); }
};

class sized_file : public virtual file_object {
public:
    virtual void rewind() = 0;
    virtual std::uint64_t size() = 0;
};

class raccess_file : public virtual sized_file {
public:
    void rewind() override { seek(0); }
    // Asks the end of the stream and puts the position back where it was.
    std::uint64_t size() override;
    virtual std::int64_t seek(std::int64_t position) = 0;
    virtual std::int64_t seek_relative(std::int64_t delta) = 0;
    virtual std::int64_t seek_end(std::int64_t delta) = 0;
    virtual void reserved_raccess_file() { unsupported(); }
};

class si_file : public i_file, public virtual sized_file {};

class ri_file : public si_file, public virtual raccess_file {
public:
    virtual void reserved_ri_file() { unsupported(); }
};

class ro_file : public o_file, public virtual raccess_file {};

class rio_file : public ri_file, public ro_file {};
