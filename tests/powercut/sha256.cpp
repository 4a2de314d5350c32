#include "tests/powercut/sha256.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "tests/support/shell.h"

namespace PowerCut {

std::string Sha256Hex(const std::string& data) {
    char path[] = "/tmp/morvane-powercut-XXXXXX";
    const int descriptor = mkstemp(path);
    if (descriptor < 0) return "<no temporary file>";
    FILE* file = fdopen(descriptor, "wb");
    if (file == nullptr) {
        close(descriptor);
        unlink(path);
        return "<no temporary file>";
    }
    const bool written = std::fwrite(data.data(), 1, data.size(), file) == data.size();
    std::fclose(file);
    std::string sum = written ? TestSupport::CaptureOutput(std::string("sha256sum '") + path + "'") : "";
    unlink(path);
    const std::size_t end = sum.find(' ');
    return end == 64 ? sum.substr(0, 64) : "<sha256sum failed>";
}

}  // namespace PowerCut
