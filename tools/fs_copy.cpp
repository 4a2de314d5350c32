// cat, cp-out and cp-in: bytes between a volume and the host, through the
// same file objects the loader reads a kernel with.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "files/utf_conversion.h"
#include "tools/command.h"
#include "tools/fs_operations.h"
#include "tools/fs_progress.h"

namespace MorvaneTool {
namespace {

constexpr std::size_t kChunk = 1024 * 1024;
// The request that sets a file's modified, created and accessed times.
constexpr std::uint32_t kSetTimesRequest = 0x4D544653;  // "SFTM"

struct HostFile {
    int descriptor = -1;
    explicit HostFile(int opened) : descriptor(opened) {}
    ~HostFile() {
        if (descriptor > STDOUT_FILENO) close(descriptor);
    }
    HostFile(const HostFile&) = delete;
    HostFile& operator=(const HostFile&) = delete;
};

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
    std::vector<unsigned char> buffer(kChunk);
    CopyProgress progress(path, file.size());
    for (;;) {
        std::uint64_t got = 0;
        file.read(buffer.data(), buffer.size(), got);
        if (file.failed()) return ReportRefusal("cannot read", path, file.error());
        if (got == 0) return kExitOk;
        if (!WriteAll(descriptor, buffer.data(), static_cast<std::size_t>(got))) {
            return ReportHostFailure("cannot write", host_path, std::strerror(errno));
        }
        progress.Advance(got);
    }
}

void KeepModifiedTime(const std::string& host_path, file_time modified) {
    if (modified == 0) return;
    timespec times[2];
    times[0].tv_sec = 0;
    times[0].tv_nsec = UTIME_OMIT;
    times[1].tv_sec = static_cast<time_t>(modified / 1000);
    times[1].tv_nsec = static_cast<long>(modified % 1000) * 1000000L;
    utimensat(AT_FDCWD, host_path.c_str(), times, 0);
}

// Copies an opened file of the volume to a host path; `file` is null when
// the open failed with `open_error`.
int CopyFileOut(ri_file* file, const Common::Error& open_error, file_time modified, const std::string& path,
                const std::string& host_path) {
    if (file == nullptr) return ReportRefusal("cannot open", path, open_error);
    HostFile host(open(host_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644));
    if (host.descriptor < 0) return ReportHostFailure("cannot create", host_path, std::strerror(errno));
    int status = ReadOut(*file, host.descriptor, path, host_path);
    if (status == kExitOk) KeepModifiedTime(host_path, modified);
    return status;
}

// A name that can stand as one component of a host path. A damaged or
// hostile volume may hold "..", or a long name with a "/" in it, which would
// otherwise write outside the target folder.
bool SafeHostName(const std::string& name) {
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos;
}

int CopyTreeOut(i_dir& dir, const std::string& path, const std::string& host_path, int depth) {
    if (depth > kDeepestTree) return ReportTooDeep(path);
    if (mkdir(host_path.c_str(), 0755) != 0 && errno != EEXIST) {
        return ReportHostFailure("cannot create", host_path, std::strerror(errno));
    }
    int status = kExitOk;
    Common::Error error;
    bool walked = ForEachEntry(
        dir,
        [&](i_dir::iterator& entry) {
            std::string name = utf16_to_utf8(entry.name());
            std::string inner = path + "/" + name;
            std::string host_inner = host_path + "/" + name;
            if (!SafeHostName(name)) {
                std::fprintf(stderr, "morvane fs: '%s': a name the host can't take; not copied\n", inner.c_str());
                status = kExitRefused;
                return false;
            }
            if (entry.kind() == KIND_DIRECTORY) {
                std::unique_ptr<i_dir> below(dir.open_dir(entry));
                status = below == nullptr ? ReportRefusal("cannot open directory", inner, dir.error())
                                          : CopyTreeOut(*below, inner, host_inner, depth + 1);
                if (status == kExitOk) KeepModifiedTime(host_inner, entry.modified());
            } else {
                std::unique_ptr<ri_file> file(dir.open_file(entry, false));
                status = CopyFileOut(file.get(), dir.error(), entry.modified(), inner, host_inner);
            }
            return status == kExitOk;
        },
        error);
    if (!walked) return ReportRefusal("cannot list", path, error);
    return status;
}

int CopyOneOut(const FsRequest& request, const std::string& path, const std::string& target) {
    std::u16string wide = VolumePath(path);
    Common::Error error;
    std::unique_ptr<i_dir::iterator> entry = FindEntry(request.root, wide, error);
    if (entry == nullptr) return ReportRefusal("cannot find", path, error);
    std::string name = utf16_to_utf8(LastComponent(wide));
    std::string host_path = IsHostDirectory(target) && !name.empty() ? target + "/" + name : target;
    bool directory = entry->kind() == KIND_DIRECTORY || entry->kind() == KIND_ROOT_SELF;
    if (directory && !request.recursive) {
        std::fprintf(stderr, "morvane fs: '%s' is a directory (copy it with -r)\n", path.c_str());
        return kExitRefused;
    }
    if (!directory) {
        std::unique_ptr<ri_file> file(request.root.open_file(wide.c_str(), false));
        return CopyFileOut(file.get(), request.root.error(), entry->modified(), path, host_path);
    }
    std::unique_ptr<rio_dir> dir = OpenDirectory(request.root, wide, error);
    if (dir == nullptr) return ReportRefusal("cannot open directory", path, error);
    if (name.empty()) host_path = target;
    return CopyTreeOut(*dir, TrimSeparators(wide).empty() ? "" : path, host_path, 0);
}

// Writes a host descriptor's bytes into a new file of the volume.
int WriteIn(rio_file& file, int descriptor, std::uint64_t total, const std::string& host_path,
            const std::string& path) {
    std::vector<unsigned char> buffer(kChunk);
    CopyProgress progress(path, total);
    for (;;) {
        ssize_t got = read(descriptor, buffer.data(), buffer.size());
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return ReportHostFailure("cannot read", host_path, std::strerror(errno));
        if (got == 0) return kExitOk;
        std::uint64_t written = 0;
        file.write(buffer.data(), static_cast<std::uint64_t>(got), written);
        if (file.failed()) return ReportRefusal("cannot write", path, file.error());
        if (written != static_cast<std::uint64_t>(got)) {
            return ReportHostFailure("cannot write", path, "the volume took fewer bytes than given");
        }
        progress.Advance(written);
    }
}

// The modification time of the host file goes to the volume's entry; the
// others take the same value, since the host keeps no creation time.
int SetVolumeTimes(rio_file& file, const struct stat& info, const std::string& path) {
    // Written before the times, so that closing has no change left to stamp.
    file.flush();
    if (file.failed()) return ReportRefusal("cannot write", path, file.error());
    std::uint64_t modified = static_cast<std::uint64_t>(info.st_mtim.tv_sec) * 1000 +
                             static_cast<std::uint64_t>(info.st_mtim.tv_nsec / 1000000);
    unsigned char block[32] = {};
    std::memcpy(block, &kSetTimesRequest, sizeof(kSetTimesRequest));
    for (std::size_t offset = 8; offset < sizeof(block); offset += 8) std::memcpy(block + offset, &modified, 8);
    file.control(block);
    if (file.failed()) return ReportRefusal("cannot set the times of", path, file.error());
    return kExitOk;
}

// Where a copy into the volume lands: into a directory that the target names.
std::u16string CopyInTarget(rio_dir& root, const std::string& host_path, const std::string& target) {
    std::u16string wide = VolumePath(target);
    Common::Error ignored;
    std::unique_ptr<i_dir::iterator> entry = FindEntry(root, wide, ignored);
    bool into_directory = TrimSeparators(wide).empty() || (entry != nullptr && (entry->kind() == KIND_DIRECTORY ||
                                                                                 entry->kind() == KIND_ROOT_SELF));
    if (!into_directory) return wide;
    std::size_t cut = host_path.find_last_of('/');
    std::string name = cut == std::string::npos ? host_path : host_path.substr(cut + 1);
    return TrimSeparators(wide) + u"/" + VolumePath(name);
}

}  // namespace

int CatFiles(const FsRequest& request) {
    for (const std::string& path : request.paths) {
        std::unique_ptr<ri_file> file(request.root.open_file(VolumePath(path).c_str(), false));
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
    for (std::size_t i = 0; i + 1 < request.paths.size(); ++i) {
        int status = CopyOneOut(request, request.paths[i], target);
        if (status != kExitOk) return status;
    }
    return kExitOk;
}

int CopyIn(const FsRequest& request) {
    const std::string& host_path = request.paths[0];
    const std::string& target = request.paths[1];
    HostFile host(open(host_path.c_str(), O_RDONLY));
    struct stat info {};
    if (host.descriptor < 0 || fstat(host.descriptor, &info) != 0) {
        return ReportHostFailure("cannot open", host_path, std::strerror(errno));
    }
    if (!S_ISREG(info.st_mode)) return ReportHostFailure("cannot copy", host_path, "not a regular file");
    std::u16string path = CopyInTarget(request.root, host_path, target);
    std::string shown = utf16_to_utf8(path);
    Common::Error absent;
    bool existed = FindEntry(request.root, path, absent) != nullptr;
    std::unique_ptr<rio_file> file(request.root.create_file(path.c_str()));
    if (file == nullptr) return ReportRefusal("cannot create", shown, request.root.error());
    int status = WriteIn(*file, host.descriptor, static_cast<std::uint64_t>(info.st_size), host_path, shown);
    if (status == kExitOk && request.keep_time) status = SetVolumeTimes(*file, info, shown);
    if (status == kExitOk) {
        file->flush();
        if (file->failed()) status = ReportRefusal("cannot write", shown, file->error());
    }
    file.reset();
    // A copy that failed leaves no part of a new file behind.
    if (status != kExitOk && !existed) request.root.remove_file(path.c_str());
    return status;
}

}  // namespace MorvaneTool
