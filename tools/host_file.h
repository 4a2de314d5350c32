#pragma once
// Host files for the tool: a stream of the file family over a C stdio file,
// so that the tool feeds the system's readers exactly as the loader does, and
// whole-file output.
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

#include "files/file_object.h"

namespace MorvaneTool {

class stdio_ifile : public ri_file {
public:
    // Closes `file` at destruction unless it is one of the standard streams.
    explicit stdio_ifile(std::FILE* file) : file_(file) {}
    ~stdio_ifile() override;
    stdio_ifile(const stdio_ifile&) = delete;
    stdio_ifile& operator=(const stdio_ifile&) = delete;

    void read(void* buffer, std::uint64_t size, std::uint64_t& got) override;
    std::int64_t seek(std::int64_t position) override;
    std::int64_t seek_relative(std::int64_t delta) override;
    std::int64_t seek_end(std::int64_t delta) override;

private:
    std::int64_t place(std::int64_t offset, int whence);

    std::FILE* file_;
};

// A POSIX descriptor closed at the end of its scope; the standard streams
// stay open.
struct HostDescriptor {
    int descriptor = -1;
    explicit HostDescriptor(int opened) : descriptor(opened) {}
    ~HostDescriptor();
    HostDescriptor(const HostDescriptor&) = delete;
    HostDescriptor& operator=(const HostDescriptor&) = delete;
};

// "-" is the standard input. Null with `problem` set when it can't be opened.
std::unique_ptr<stdio_ifile> OpenInput(const std::string& path, std::string& problem);

// "-" is the standard output. False with `problem` set on failure.
bool WriteOutput(const std::string& path, const std::string& bytes, std::string& problem);

}  // namespace MorvaneTool
