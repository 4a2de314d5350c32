#pragma once
// Running the independent image tools from a test: mkfs, mtools, fsck.
#include <cstdio>
#include <cstdlib>
#include <string>

namespace TestSupport {

// The command's exit status, its output dropped.
inline int RunQuietly(const std::string& command) {
    return std::system((command + " >/dev/null 2>&1").c_str());
}

// What the command writes to standard output; its errors are dropped.
inline std::string CaptureOutput(const std::string& command) {
    std::string out;
    FILE* pipe = popen((command + " 2>/dev/null").c_str(), "r");
    if (pipe == nullptr) return out;
    char chunk[4096];
    std::size_t n;
    while ((n = std::fread(chunk, 1, sizeof(chunk), pipe)) > 0) out.append(chunk, n);
    pclose(pipe);
    return out;
}

}  // namespace TestSupport
