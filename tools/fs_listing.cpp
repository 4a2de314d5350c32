// ls and stat: what the loader sees of a volume's entries.
#include <cstdio>

#include "tools/command.h"
#include "tools/fs_operations.h"
#include "tools/fs_volume.h"

namespace MorvaneTool {
namespace {

std::string Utf8(const std::u16string& text) { return HostText(text); }

char KindLetter(std::uint32_t kind) {
    switch (kind) {
        case KIND_FILE: return '-';
        case KIND_CHARACTER_DEVICE: return 'c';
        case KIND_BLOCK_DEVICE: return 'b';
        case KIND_FIFO: return 'p';
        case KIND_SOCKET: return 's';
        case KIND_SYMLINK:
        case kDirectoryLinkKind: return 'l';
        default: return 'd';
    }
}

const char* KindName(std::uint32_t kind) {
    switch (kind) {
        case KIND_FILE: return "file";
        case KIND_CHARACTER_DEVICE: return "character device";
        case KIND_BLOCK_DEVICE: return "block device";
        case KIND_FIFO: return "fifo";
        case KIND_SOCKET: return "socket";
        case KIND_SYMLINK: return "symbolic link";
        case kDirectoryLinkKind: return "symbolic link to a directory";
        case KIND_DIRECTORY: return "directory";
        case KIND_ROOT_SELF: return "root directory";
        default: return "other";
    }
}

// One line of a listing; `shown` is the name as the listing prints it.
void PrintEntryLine(i_dir::iterator& entry, const std::string& shown, bool long_form, bool human_sizes) {
    std::uint32_t kind = entry.kind();
    const char* mark = IsDirectoryKind(kind) ? "/" : "";
    if (!long_form) {
        std::printf("%s%s\n", shown.c_str(), mark);
        return;
    }
    // A link is listed with the length of its target, as the host lists
    // one: NTFS keeps the target in a reparse point, and its data is empty.
    std::string target = IsLinkKind(kind) ? Utf8(LinkTarget(entry)) : std::string();
    std::uint64_t size = IsLinkKind(kind) ? target.size() : entry.size();
    std::string link = IsLinkKind(kind) ? " -> " + target : std::string();
    std::string size_text = human_sizes ? SizeText(size) : std::to_string(size);
    std::printf("%c %12s %s %s%s%s\n", KindLetter(kind), size_text.c_str(), TimeText(entry.modified(), false).c_str(),
                shown.c_str(), mark, link.c_str());
}

// Lists `dir`; with `recursive` the directories below too, each name shown
// behind `prefix`.
bool ListDirectory(i_dir& dir, const std::string& prefix, const FsRequest& request, Common::Error& error,
                   std::string& failed_path, int depth) {
    bool below_ok = true;
    bool walked = ForEachEntry(
        dir,
        [&](i_dir::iterator& entry) {
            std::string shown = prefix + Utf8(entry.name());
            PrintEntryLine(entry, shown, request.long_form, request.human_sizes);
            if (!request.recursive || !IsDirectoryKind(entry.kind())) return true;
            if (depth >= kDeepestTree) {
                failed_path = shown;
                below_ok = false;
                return false;
            }
            std::unique_ptr<i_dir> below(dir.open_dir(entry));
            if (below == nullptr) {
                error = dir.error();
                failed_path = shown;
                below_ok = false;
                return false;
            }
            below_ok = ListDirectory(*below, shown + "/", request, error, failed_path, depth + 1);
            return below_ok;
        },
        error);
    if (!walked && failed_path.empty()) failed_path = prefix.empty() ? "/" : prefix;
    return walked && below_ok;
}

int ListOne(const FsRequest& request, const std::string& path) {
    std::u16string wide = VolumePath(path);
    Common::Error error;
    std::unique_ptr<i_dir::iterator> entry = FindEntry(request.root, wide, error);
    if (entry == nullptr) return ReportRefusal("cannot list", path, error);
    if (!IsDirectoryKind(entry->kind())) {
        PrintEntryLine(*entry, path, request.long_form, request.human_sizes);
        return kExitOk;
    }
    std::unique_ptr<rio_dir> dir = OpenDirectory(request.root, wide, error);
    if (dir == nullptr) return ReportRefusal("cannot open directory", path, error);
    std::string failed_path;
    if (!ListDirectory(*dir, "", request, error, failed_path, 0)) {
        if (!error.Failed()) return ReportTooDeep(failed_path);
        return ReportRefusal("cannot list", failed_path, error);
    }
    return kExitOk;
}

void PrintStat(i_dir::iterator& entry, const std::string& path) {
    std::printf("path:        %s\n", path.c_str());
    std::printf("name:        %s\n", Utf8(entry.name()).c_str());
    std::u16string short_name = entry.short_name();
    if (!short_name.empty()) std::printf("short name:  %s\n", Utf8(short_name).c_str());
    std::printf("kind:        %s\n", KindName(entry.kind()));
    std::u16string target = LinkTarget(entry);
    if (!target.empty()) std::printf("target:      %s\n", Utf8(target).c_str());
    std::printf("size:        %llu\n", static_cast<unsigned long long>(entry.size()));
    std::printf("allocated:   %llu\n", static_cast<unsigned long long>(entry.allocated_size()));
    std::printf("modified:    %s\n", TimeText(entry.modified(), true).c_str());
    std::printf("created:     %s\n", TimeText(entry.created(), true).c_str());
    std::printf("accessed:    %s\n", TimeText(entry.accessed(), true).c_str());
    std::printf("attributes:  0x%X\n", entry.attributes());
    std::printf("hidden:      %s\n", entry.hidden() ? "yes" : "no");
}

}  // namespace

int ListEntries(const FsRequest& request) {
    if (request.paths.empty()) return ListOne(request, "/");
    int status = kExitOk;
    for (const std::string& path : request.paths) {
        if (request.paths.size() > 1) std::printf("%s:\n", path.c_str());
        int one = ListOne(request, path);
        if (one != kExitOk) status = one;
    }
    return status;
}

int StatEntries(const FsRequest& request) {
    int status = kExitOk;
    for (const std::string& path : request.paths) {
        Common::Error error;
        std::unique_ptr<i_dir::iterator> entry = FindEntry(request.root, VolumePath(path), error);
        if (entry == nullptr) {
            status = ReportRefusal("cannot stat", path, error);
            continue;
        }
        PrintStat(*entry, path);
    }
    return status;
}

}  // namespace MorvaneTool
