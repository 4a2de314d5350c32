#pragma once
// A folder of the host that a test fills and that is removed afterwards:
// the ESP of a simulated machine.
#include <cstdio>
#include <cstdlib>
#include <string>

namespace TestSupport {

class TempFolder {
public:
    TempFolder() {
        char pattern[] = "/tmp/morvane-test-XXXXXX";
        path_ = mkdtemp(pattern);
    }
    ~TempFolder() { std::system(("rm -rf '" + path_ + "'").c_str()); }
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    const std::string& Path() const { return path_; }

    void Write(const std::string& name, const std::string& contents) const {
        std::string full = path_ + "/" + name;
        std::system(("mkdir -p \"$(dirname '" + full + "')\"").c_str());
        FILE* file = std::fopen(full.c_str(), "wb");
        std::fwrite(contents.data(), 1, contents.size(), file);
        std::fclose(file);
    }

    // The file's bytes, or "<missing>".
    std::string Read(const std::string& name) const {
        FILE* file = std::fopen((path_ + "/" + name).c_str(), "rb");
        if (file == nullptr) return "<missing>";
        std::string contents;
        char buffer[4096];
        while (std::size_t got = std::fread(buffer, 1, sizeof(buffer), file)) contents.append(buffer, got);
        std::fclose(file);
        return contents;
    }

private:
    std::string path_;
};

}  // namespace TestSupport
