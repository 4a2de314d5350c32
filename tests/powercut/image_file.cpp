#include "tests/powercut/image_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

namespace PowerCut {
namespace {

constexpr std::size_t kChunk = 65536;

}  // namespace

bool ImageFile::store(const std::vector<unsigned char>& bytes) {
    // What a tool left there is learnt once, then kept up to date.
    if (known_.empty()) load();
    int fd = open(path_.c_str(), O_WRONLY | O_CREAT, 0644);
    if (fd < 0) return false;
    bool ok = ftruncate(fd, static_cast<off_t>(bytes.size())) == 0;
    known_.resize(bytes.size());
    for (std::size_t at = 0; ok && at < bytes.size(); at += kChunk) {
        std::size_t length = std::min(kChunk, bytes.size() - at);
        if (std::memcmp(&known_[at], &bytes[at], length) == 0) continue;
        ok = pwrite(fd, &bytes[at], length, static_cast<off_t>(at)) == static_cast<ssize_t>(length);
        std::memcpy(&known_[at], &bytes[at], length);
    }
    ok = close(fd) == 0 && ok;
    if (!ok) known_.clear();
    return ok;
}

const std::vector<unsigned char>& ImageFile::load() {
    known_.clear();
    int fd = open(path_.c_str(), O_RDONLY);
    if (fd < 0) return known_;
    unsigned char chunk[kChunk];
    for (ssize_t n; (n = read(fd, chunk, sizeof(chunk))) > 0;) known_.insert(known_.end(), chunk, chunk + n);
    close(fd);
    return known_;
}

}  // namespace PowerCut
