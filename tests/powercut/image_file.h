#pragma once
// The image file that the checker works on. Between cut points only the
// chunks that differ are written, so a 34 MiB volume costs a few pages per
// cut, not a copy of the whole.
#include <cstdint>
#include <string>
#include <vector>

namespace PowerCut {

class ImageFile {
public:
    explicit ImageFile(std::string path) : path_(std::move(path)) {}

    const std::string& path() const { return path_; }
    // Makes the file hold `bytes`; false when the host refused.
    bool store(const std::vector<unsigned char>& bytes);
    // The file as it is now, after a tool changed it.
    const std::vector<unsigned char>& load();

private:
    std::string path_;
    std::vector<unsigned char> known_;  // what the file holds, as far as we know
};

}  // namespace PowerCut
