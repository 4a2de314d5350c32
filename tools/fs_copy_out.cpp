// cat and cp-out: bytes from a volume to the host, through the same file
// objects the loader reads a kernel with.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "tools/command.h"
#include "tools/copy_chunk.h"
#include "tools/fs_operations.h"
#include "tools/fs_progress.h"
#include "tools/host_file.h"

namespace MorvaneTool {
namespace {

bool WriteAll(int descriptor, const unsigned char* bytes, std::size_t size) {
    while (size > 0) {
        ssize_t written = write(descriptor, bytes, size);
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return false;
        bytes += written;
        size -= static_cast<std::size_t>(written);
    }
    return true;
}

bool IsHostDirectory(const std::string& path) {
    struct stat info {};
    return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

// Copies one file of the volume to a host descriptor. Answers an exit code.
int ReadOut(ri_file& file, int descriptor, const std::string& path, const std::string& host_path) {
    CopyChunk chunk;
    CopyProgress progress(path, file.size());
    for (;;) {
        std::uint64_t got = 0;
        file.read(chunk.data(), chunk.size(), got);
        if (file.failed()) return ReportRefusal("cannot read", path, file.error());
        if (got == 0) return kExitOk;
        if (!WriteAll(descriptor, chunk.data(), static_cast<std::size_t>(got))) {
            return ReportHostFailure("cannot write", host_path, std::strerror(errno));
        }
        progress.Advance(got);
    }
}

void KeepModifiedTime(const std::string& host_path, file_time modified, int flags = 0) {
    if (modified == 0) return;
    timespec times[2];
    times[0].tv_sec = 0;
    times[0].tv_nsec = UTIME_OMIT;
    times[1].tv_sec = static_cast<time_t>(modified / 1000);
    times[1].tv_nsec = static_cast<long>(modified % 1000) * 1000000L;
    utimensat(AT_FDCWD, host_path.c_str(), times, flags);
}

// A name that can stand as one component of a host path. A damaged or
// hostile volume may hold "..", or a long name with a "/" in it, which would
// otherwise write outside the target folder.
bool SafeHostName(const std::string& name) {
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos;
}

class OutwardCopy {
public:
    explicit OutwardCopy(const FsRequest& request) : request_(request) {}

    // One entry named on the command line, to `target`.
    int Named(const std::string& path, const std::string& target);

private:
    int Entry(i_dir& dir, i_dir::iterator& entry, const std::string& path, const std::string& host_path, int depth);
    int File(ri_file* file, const Common::Error& open_error, file_time modified, const std::string& path,
             const std::string& host_path);
    int Tree(i_dir& dir, const std::string& path, const std::string& host_path, int depth);
    int Link(i_dir::iterator& link, const std::string& path, const std::string& host_path);
    int Followed(const std::string& path, const std::string& host_path, int depth);
    int ByPath(const std::u16string& wide, i_dir::iterator& entry, const std::string& path,
               const std::string& host_path, int depth);

    const FsRequest& request_;
};

int OutwardCopy::File(ri_file* file, const Common::Error& open_error, file_time modified, const std::string& path,
                  const std::string& host_path) {
    if (file == nullptr) return ReportRefusal("cannot open", path, open_error);
    if (IsTheImage(host_path, request_.image)) {
        return ReportHostFailure("cannot copy onto", host_path, "it is the image the volume is read from");
    }
    HostDescriptor host(open(host_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644));
    if (host.descriptor < 0) return ReportHostFailure("cannot create", host_path, std::strerror(errno));
    int status = ReadOut(*file, host.descriptor, path, host_path);
    if (status == kExitOk) KeepModifiedTime(host_path, modified);
    return status;
}

// The link itself: a host link with the same target text.
int OutwardCopy::Link(i_dir::iterator& link, const std::string& path, const std::string& host_path) {
    std::string target = HostText(LinkTarget(link));
    if (target.empty()) return ReportLink("cannot copy", path, link);
    if (IsTheImage(host_path, request_.image)) {
        return ReportHostFailure("cannot copy onto", host_path, "it is the image the volume is read from");
    }
    unlink(host_path.c_str());
    if (symlink(target.c_str(), host_path.c_str()) != 0) {
        return ReportHostFailure("cannot create", host_path, std::strerror(errno));
    }
    KeepModifiedTime(host_path, link.modified(), AT_SYMLINK_NOFOLLOW);
    return kExitOk;
}

// What a link points to, found within the volume, copied under the link's name.
int OutwardCopy::Followed(const std::string& path, const std::string& host_path, int depth) {
    std::u16string wide = VolumePath(path);
    Common::Error error;
    bool looping = false;
    std::unique_ptr<i_dir::iterator> entry = FollowLinks(request_.root, wide, error, looping);
    if (looping) {
        std::fprintf(stderr, "morvane fs: '%s': too many levels of symbolic links\n", path.c_str());
        return kExitRefused;
    }
    if (entry == nullptr) return ReportRefusal("cannot follow the link", path, error);
    if (IsDirectoryKind(entry->kind())) {
        if (!request_.recursive) {
            std::fprintf(stderr, "morvane fs: '%s' leads to a directory (copy it with -r)\n", path.c_str());
            return kExitRefused;
        }
    }
    return ByPath(wide, *entry, path, host_path, depth + 1);
}

// An entry already found by its volume path `wide`, opened by that path.
int OutwardCopy::ByPath(const std::u16string& wide, i_dir::iterator& entry, const std::string& path,
                        const std::string& host_path, int depth) {
    if (!IsDirectoryKind(entry.kind())) {
        std::unique_ptr<ri_file> file(request_.root.open_file(wide.c_str(), false));
        return File(file.get(), request_.root.error(), entry.modified(), path, host_path);
    }
    Common::Error error;
    std::unique_ptr<rio_dir> dir = OpenDirectory(request_.root, wide, error);
    if (dir == nullptr) return ReportRefusal("cannot open directory", path, error);
    return Tree(*dir, path, host_path, depth);
}

int OutwardCopy::Entry(i_dir& dir, i_dir::iterator& entry, const std::string& path, const std::string& host_path,
                   int depth) {
    if (IsLinkKind(entry.kind())) {
        return request_.follow_links ? Followed(path, host_path, depth) : Link(entry, path, host_path);
    }
    if (entry.kind() == KIND_DIRECTORY) {
        std::unique_ptr<i_dir> below(dir.open_dir(entry));
        int status = below == nullptr ? ReportRefusal("cannot open directory", path, dir.error())
                                      : Tree(*below, path, host_path, depth + 1);
        if (status == kExitOk) KeepModifiedTime(host_path, entry.modified());
        return status;
    }
    std::unique_ptr<ri_file> file(dir.open_file(entry, false));
    return File(file.get(), dir.error(), entry.modified(), path, host_path);
}

int OutwardCopy::Tree(i_dir& dir, const std::string& path, const std::string& host_path, int depth) {
    if (depth > kDeepestTree) return ReportTooDeep(path);
    if (mkdir(host_path.c_str(), 0755) != 0 && errno != EEXIST) {
        return ReportHostFailure("cannot create", host_path, std::strerror(errno));
    }
    int status = kExitOk;
    Common::Error error;
    bool walked = ForEachEntry(
        dir,
        [&](i_dir::iterator& entry) {
            std::string name = HostText(entry.name());
            std::string inner = path + "/" + name;
            if (!SafeHostName(name)) {
                std::fprintf(stderr, "morvane fs: '%s': a name the host can't take; not copied\n", inner.c_str());
                status = kExitRefused;
                return false;
            }
            status = Entry(dir, entry, inner, host_path + "/" + name, depth);
            return status == kExitOk;
        },
        error);
    if (!walked) return ReportRefusal("cannot list", path, error);
    return status;
}

int OutwardCopy::Named(const std::string& path, const std::string& target) {
    std::u16string wide = VolumePath(path);
    Common::Error error;
    std::unique_ptr<i_dir::iterator> entry = FindEntry(request_.root, wide, error);
    if (entry == nullptr) return ReportRefusal("cannot find", path, error);
    std::string name = HostText(LastComponent(wide));
    std::string host_path = IsHostDirectory(target) && !name.empty() ? target + "/" + name : target;
    bool directory = IsDirectoryKind(entry->kind());
    if (directory && !request_.recursive) {
        std::fprintf(stderr, "morvane fs: '%s' is a directory (copy it with -r)\n", path.c_str());
        return kExitRefused;
    }
    if (IsLinkKind(entry->kind())) {
        return request_.follow_links ? Followed(path, host_path, 0) : Link(*entry, path, host_path);
    }
    return ByPath(wide, *entry, TrimSeparators(wide).empty() ? "" : path, host_path, 0);
}

}  // namespace

int CatFiles(const FsRequest& request) {
    for (const std::string& path : request.paths) {
        std::u16string wide = VolumePath(path);
        Common::Error error;
        std::unique_ptr<i_dir::iterator> entry = FindEntry(request.root, wide, error);
        if (entry != nullptr && IsLinkKind(entry->kind())) return ReportLink("cannot open", path, *entry);
        std::unique_ptr<ri_file> file(request.root.open_file(wide.c_str(), false));
        if (file == nullptr) return ReportRefusal("cannot open", path, request.root.error());
        std::fflush(stdout);
        int status = ReadOut(*file, STDOUT_FILENO, path, "standard output");
        if (status != kExitOk) return status;
    }
    return kExitOk;
}

int CopyOut(const FsRequest& request) {
    const std::string& target = request.paths.back();
    if (request.paths.size() > 2 && !IsHostDirectory(target)) {
        std::fprintf(stderr, "morvane fs: copying several entries needs a host folder as target\n");
        return kExitUsageOrIo;
    }
    OutwardCopy copy(request);
    for (std::size_t i = 0; i + 1 < request.paths.size(); ++i) {
        int status = copy.Named(request.paths[i], target);
        if (status != kExitOk) return status;
    }
    return kExitOk;
}

}  // namespace MorvaneTool
