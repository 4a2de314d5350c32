// Paths, lookups and messages shared by the operations of `morvane fs`.
#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <ctime>

#include "tools/command.h"
#include "tools/error_names.h"
#include "tools/fs_operations.h"
#include "tools/host_text.h"

namespace MorvaneTool {
namespace {

bool IsSeparator(char16_t c) { return c == u'/' || c == u'\\'; }

struct Explanation {
    std::uint32_t code;
    const char* text;
};

// The codes a user meets most, said in plain words beside their symbol.
const Explanation kExplanations[] = {
    {Common::FILE_NOT_FOUND, "no such file or directory"},
    {Common::FILE_EXISTS, "the name is taken"},
    {Common::FILE_DELETE, "cannot be removed (a directory must be empty)"},
    {Common::FILE_DISK_FULL, "the volume is full"},
    {Common::FILE_CORRUPT, "the volume is damaged"},
    {Common::FILE_READ_ONLY, "read-only"},
    {Common::FILE_OPEN, "cannot be opened (is it a directory, or a bad name?)"},
    {Common::FILE_CREATE, "cannot be created (a bad name, or a directory in the way?)"},
};

const char* Explain(std::uint32_t code) {
    for (const Explanation& explanation : kExplanations) {
        if (explanation.code == code) return explanation.text;
    }
    return "refused by the volume";
}

}  // namespace

// "YYYY-MM-DD HH:MM:SS" in the host's time zone, as the driver reads the
// volume's times in it too: so the text is the clock time stored on the
// volume, as other tools show it. Milliseconds when asked; "-" when the
// volume doesn't know the time.
std::string TimeText(file_time milliseconds, bool with_milliseconds) {
    if (milliseconds == 0) return "-";
    std::time_t seconds = static_cast<std::time_t>(milliseconds / 1000);
    long rest = static_cast<long>(milliseconds % 1000);
    if (rest < 0) {
        --seconds;
        rest += 1000;
    }
    std::tm parts {};
    if (localtime_r(&seconds, &parts) == nullptr) return "?";
    char text[40];
    std::strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S", &parts);
    std::string shown = text;
    if (with_milliseconds) {
        std::snprintf(text, sizeof(text), ".%03ld", rest);
        shown += text;
    }
    return shown;
}

std::u16string VolumePath(const std::string& text) {
    std::u16string wide;
    HostTextToVolume(text, wide);
    std::u16string path;
    for (char16_t c : wide) {
        if (c == u'/' && !path.empty() && path.back() == u'/') continue;
        path.push_back(c);
    }
    return path;
}

bool ValidVolumePath(const std::string& text) {
    std::u16string ignored;
    return HostTextToVolume(text, ignored);
}

std::string HostText(const std::u16string& text) { return VolumeTextToHost(text); }

std::string VolumeTypeName(rio_dir& root) {
    constexpr std::uint32_t kTypeNameRequest = 0x54534647;  // "GFST"
    constexpr std::size_t kLongestName = 15;
    unsigned char block[4 + 2 * (kLongestName + 1)] = {};
    std::memcpy(block, &kTypeNameRequest, sizeof(kTypeNameRequest));
    root.control(block);
    if (root.failed()) return std::string();
    std::string name;
    for (std::size_t i = 0; i < kLongestName; ++i) {
        char16_t unit;
        std::memcpy(&unit, block + 4 + 2 * i, sizeof(unit));
        if (unit == 0 || unit > 0x7F) break;
        name.push_back(static_cast<char>(unit));
    }
    return name;
}

std::u16string TrimSeparators(const std::u16string& path) {
    std::size_t end = path.size();
    while (end > 0 && IsSeparator(path[end - 1])) --end;
    return path.substr(0, end);
}

std::u16string LastComponent(const std::u16string& path) {
    std::u16string trimmed = TrimSeparators(path);
    std::size_t cut = trimmed.find_last_of(u"/\\");
    return cut == std::u16string::npos ? trimmed : trimmed.substr(cut + 1);
}

bool IsTheImage(const std::string& host_path, const HostIdentity& image) {
    struct stat info {};
    return stat(host_path.c_str(), &info) == 0 && info.st_dev == image.device && info.st_ino == image.inode;
}

int ReportRefusal(const char* action, const std::string& path, const Common::Error& error) {
    const char* name = ErrorName(error.Code());
    std::fprintf(stderr, "morvane fs: %s '%s': %s [%s 0x%X]\n", action, path.c_str(), Explain(error.Code()),
                 name != nullptr ? name : "code", error.Code());
    return kExitRefused;
}

namespace {

// The name rules of the Windows path flavour, which FAT volumes follow.
bool WindowsNameAllowed(const std::u16string& name) {
    constexpr std::size_t kLongestName = 255;
    if (name.empty() || name.size() > kLongestName) return false;
    if (name.find_first_not_of(u" .") == std::u16string::npos) return false;
    for (char16_t c : name) {
        if (c < 32 || std::u16string(u"\"*/:<>?\\|").find(c) != std::u16string::npos) return false;
    }
    return true;
}

bool InFixedRoot(const std::u16string& path) {
    std::u16string trimmed = TrimSeparators(path);
    std::size_t cut = trimmed.find_last_of(u"/\\");
    return cut == 0 || cut == std::u16string::npos;
}

}  // namespace

int ReportCreateRefusal(const char* action, const std::string& path, rio_dir& root, const std::u16string& made,
                        const Common::Error& error) {
    bool fixed_root_full = error.Code() == Common::FILE_CREATE && VolumeTypeName(root) == "FAT16" &&
                           InFixedRoot(made) && WindowsNameAllowed(LastComponent(made));
    if (!fixed_root_full) return ReportRefusal(action, path, error);
    std::fprintf(stderr,
                 "morvane fs: %s '%s': the root directory is full (FAT12 and FAT16 roots hold a fixed number of "
                 "entries) [FILE_CREATE 0x%X]\n",
                 action, path.c_str(), error.Code());
    return kExitRefused;
}

int ReportTooDeep(const std::string& path) {
    std::fprintf(stderr, "morvane fs: '%s': more than %d levels of directories; is the volume damaged?\n", path.c_str(),
                 kDeepestTree);
    return kExitRefused;
}

int ReportHostFailure(const char* action, const std::string& path, const std::string& reason) {
    std::fprintf(stderr, "morvane fs: %s '%s': %s\n", action, path.c_str(), reason.c_str());
    return kExitUsageOrIo;
}

std::unique_ptr<rio_dir> OpenDirectory(rio_dir& root, const std::u16string& path, Common::Error& error) {
    std::u16string trimmed = TrimSeparators(path);
    std::unique_ptr<rio_dir> dir(trimmed.empty() ? root.clone() : root.open_dir(trimmed.c_str()));
    if (dir == nullptr) error = root.error();
    return dir;
}

std::unique_ptr<i_dir::iterator> FindEntry(rio_dir& root, const std::u16string& path, Common::Error& error,
                                           std::unique_ptr<rio_dir>* parent_out) {
    std::u16string trimmed = TrimSeparators(path);
    if (trimmed.empty()) {
        std::unique_ptr<i_dir::iterator> self(root.self());
        if (self == nullptr || self->failed()) error = self == nullptr ? root.error() : self->error();
        return self != nullptr && !self->failed() ? std::move(self) : nullptr;
    }
    const char16_t* last = trimmed.c_str();
    std::unique_ptr<rio_dir> parent(root.open_parent(last));
    if (parent == nullptr) {
        error = root.error();
        return nullptr;
    }
    std::unique_ptr<i_dir::iterator> entry(parent->find(last));
    if (entry == nullptr || entry->failed()) {
        error = entry == nullptr ? parent->error() : entry->error();
        return nullptr;
    }
    if (parent_out != nullptr) *parent_out = std::move(parent);
    return entry;
}

}  // namespace MorvaneTool
