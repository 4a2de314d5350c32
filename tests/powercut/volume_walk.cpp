// The walk runs in a forked child that writes one line per finding to a
// pipe; the parent reads the lines and the child's end.
#include "tests/powercut/volume_walk.h"

#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <memory>
#include <sstream>

#include "files/utf_conversion.h"
#include "loader/common/error_codes.h"
#include "tests/powercut/sha256.h"
#include "tests/support/volume_fixture.h"

namespace PowerCut {
namespace {

// Deeper trees, or more entries, than these can only be a loop in damage.
constexpr int kDeepest = 32;
constexpr std::uint64_t kMostEntries = 20000;

class Walker {
public:
    Walker(FILE* out, std::uint64_t volume_bytes) : out_(out), volume_bytes_(volume_bytes) {}

    void walk(rio_dir& dir, const std::string& prefix, int depth) {
        std::unique_ptr<i_dir::iterator> entry(dir.begin());
        if (entry == nullptr) {
            if (dir.failed() && dir.error().Code() != Common::FILE_EOF) note('E', prefix, code(dir));
            return;
        }
        for (bool more = !entry->failed(); more; more = step(*entry, prefix)) {
            if (++entries_ > kMostEntries || depth > kDeepest) return note('E', prefix, "<loop>");
            visit(dir, *entry, prefix + utf16_to_utf8(entry->name()), depth);
        }
        if (entry->failed() && entry->error().Code() != Common::FILE_EOF) note('E', prefix, code(*entry));
    }

private:
    void visit(rio_dir& dir, i_dir::iterator& entry, const std::string& path, int depth) {
        if (entry.kind() == KIND_DIRECTORY) {
            std::unique_ptr<rio_dir> sub(dir.open_dir(entry));
            if (sub == nullptr || sub->failed()) note('E', path, code(sub == nullptr ? dir : *sub));
            else walk(*sub, path + "/", depth + 1);
        } else {
            read(dir, entry, path);
        }
    }

    // Moves to the next entry. An entry whose object is gone (FILE_OPEN: an
    // inode with no links left after a cut) fails alone: it is noted, with
    // the name the iterator stands on, and the walk goes past it.
    bool step(i_dir::iterator& entry, const std::string& prefix) {
        while (!entry.next()) {
            if (!entry.failed() || entry.error().Code() != Common::FILE_OPEN) return false;
            const std::string failure = code(entry);
            entry.set_error(Common::Error());
            note('O', prefix + utf16_to_utf8(entry.name()), failure);
            if (entries_ > kMostEntries) return true;  // the loop check above notes it
        }
        return true;
    }

    static std::string code(file_object& object) { return std::to_string(object.error().Code()); }

    void note(char what, const std::string& path, const std::string& text) {
        std::fprintf(out_, "%c\t%s\t%s\n", what, path.c_str(), text.c_str());
    }

    // A file never holds more bytes than the volume: a read that goes on
    // past that follows a loop.
    void read(rio_dir& dir, i_dir::iterator& entry, const std::string& path) {
        std::unique_ptr<ri_file> file(dir.open_file(entry, false));
        if (file == nullptr) return note('E', path, code(dir));
        if (file->failed()) return note('E', path, code(*file));
        std::string data;
        std::vector<char> chunk(65536);
        for (;;) {
            std::uint64_t got = 0;
            file->read(chunk.data(), chunk.size(), got);
            if (file->failed()) return note('E', path, code(*file));
            if (got == 0) break;
            data.append(chunk.data(), got);
            if (data.size() > volume_bytes_) return note('E', path, "<endless>");
        }
        note('F', path, Sha256Hex(data));
    }

    FILE* out_;
    std::uint64_t volume_bytes_;
    std::uint64_t entries_ = 0;
};

[[noreturn]] void WalkInChild(const DriverRow& row, const std::vector<unsigned char>& image, unsigned seconds,
                              int fd) {
    alarm(seconds);
    FILE* out = fdopen(fd, "w");
    auto disk = TestSupport::DiskOf(image, row.sector_size);
    FileSystemDriver* driver = nullptr;
    try {
        driver = row.mount(*disk);
    } catch (const Common::Error& error) {
        std::fprintf(out, "R\t\t%u\nD\t\t\n", error.Code());
        std::fclose(out);
        _exit(0);
    }
    ++driver->references;
    {
        std::unique_ptr<rio_dir> root(driver->open_root());
        if (root == nullptr || root->failed()) std::fprintf(out, "E\t/\troot\n");
        else Walker(out, image.size()).walk(*root, "", 0);
    }
    release(driver);
    std::fprintf(out, "D\t\t\n");
    std::fclose(out);
    _exit(0);
}

void Take(WalkResult& result, const std::string& line, bool& done) {
    std::size_t first = line.find('\t');
    std::size_t second = first == std::string::npos ? first : line.find('\t', first + 1);
    if (second == std::string::npos) return;
    const std::string path = line.substr(first + 1, second - first - 1);
    const std::string text = line.substr(second + 1);
    const std::string corrupt = std::to_string(Common::FILE_CORRUPT);
    switch (line[0]) {
    case 'R':
        result.outcome = WalkResult::kRefused;
        result.refusal = static_cast<std::uint32_t>(std::stoul(text));
        if (text != corrupt) result.wrong_codes.push_back("mount refused with " + text);
        break;
    case 'F':
        result.files[path] = text;
        break;
    case 'O':
        result.files[path] = "<error " + text + ">";
        break;
    case 'E':
        result.files[path] = "<error " + text + ">";
        if (text != corrupt) result.wrong_codes.push_back("/" + path + ": " + text);
        break;
    case 'D':
        done = true;
        break;
    }
}

}  // namespace

WalkResult WalkVolume(const DriverRow& row, const std::vector<unsigned char>& image, unsigned seconds) {
    int fds[2];
    WalkResult result;
    if (pipe(fds) != 0) return result;
    std::fflush(nullptr);
    pid_t child = fork();
    if (child < 0) {
        close(fds[0]);
        close(fds[1]);
        return result;
    }
    if (child == 0) {
        close(fds[0]);
        WalkInChild(row, image, seconds, fds[1]);
    }
    close(fds[1]);
    std::string text;
    char chunk[4096];
    for (ssize_t n; (n = ::read(fds[0], chunk, sizeof(chunk))) > 0;) text.append(chunk, static_cast<std::size_t>(n));
    close(fds[0]);
    int status = 0;
    waitpid(child, &status, 0);
    result.outcome = WalkResult::kMounted;
    bool done = false;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) Take(result, line, done);
    if (WIFSIGNALED(status) && WTERMSIG(status) == SIGALRM) result.outcome = WalkResult::kHung;
    else if (!done || !WIFEXITED(status) || WEXITSTATUS(status) != 0) result.outcome = WalkResult::kCrashed;
    return result;
}

}  // namespace PowerCut
