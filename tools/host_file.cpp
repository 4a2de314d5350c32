#include "tools/host_file.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "loader/common/error_codes.h"
#include "loader/common/messages.h"

namespace MorvaneTool {

HostDescriptor::~HostDescriptor() {
    if (descriptor > STDERR_FILENO) close(descriptor);
}

stdio_ifile::~stdio_ifile() {
    if (file_ != nullptr && file_ != stdin) std::fclose(file_);
}

void stdio_ifile::read(void* buffer, std::uint64_t size, std::uint64_t& got) {
    got = 0;
    if (failed()) return;
    got = std::fread(buffer, 1, static_cast<std::size_t>(size), file_);
    if (got < size && std::ferror(file_)) {
        set_error(Common::Error(ERROR_TAG, Common::FILE_READ, Common::Messages::FILE_READ));
    }
}

std::int64_t stdio_ifile::place(std::int64_t offset, int whence) {
    if (failed()) return ftello(file_);
    if (fseeko(file_, offset, whence) != 0) {
        set_error(Common::Error(ERROR_TAG, Common::FILE_SEEK, Common::Messages::FILE_SEEK));
    }
    return ftello(file_);
}

std::int64_t stdio_ifile::seek(std::int64_t position) { return place(position, SEEK_SET); }
std::int64_t stdio_ifile::seek_relative(std::int64_t delta) { return place(delta, SEEK_CUR); }
std::int64_t stdio_ifile::seek_end(std::int64_t delta) { return place(delta, SEEK_END); }

std::unique_ptr<stdio_ifile> OpenInput(const std::string& path, std::string& problem) {
    if (path == "-") return std::unique_ptr<stdio_ifile>(new stdio_ifile(stdin));
    std::FILE* file = std::fopen(path.c_str(), "rb");
    if (file == nullptr) {
        problem = "cannot open " + path + ": " + std::strerror(errno);
        return nullptr;
    }
    return std::unique_ptr<stdio_ifile>(new stdio_ifile(file));
}

bool WriteOutput(const std::string& path, const std::string& bytes, std::string& problem) {
    const bool standard = path == "-";
    std::FILE* file = standard ? stdout : std::fopen(path.c_str(), "wb");
    if (file == nullptr) {
        problem = "cannot create " + path + ": " + std::strerror(errno);
        return false;
    }
    bool written = std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size();
    written = (std::fflush(file) == 0) && written;
    int saved = errno;
    if (!standard) written = (std::fclose(file) == 0) && written;
    if (!written) problem = "cannot write " + path + ": " + std::strerror(saved);
    return written;
}

}  // namespace MorvaneTool
