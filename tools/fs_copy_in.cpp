// cp-in: a host file's bytes into a new file of the volume, through the
// same file objects the loader writes with.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <vector>

#include "tools/command.h"
#include "tools/copy_chunk.h"
#include "tools/fs_operations.h"
#include "tools/fs_progress.h"
#include "tools/host_file.h"

namespace MorvaneTool {
namespace {

// The request that sets a file's modified, created and accessed times.
constexpr std::uint32_t kSetTimesRequest = 0x4D544653;  // "SFTM"

// Volumes whose entries hold clock times of a few years only; a time outside
// them would be dropped by the driver, which keeps what the entry had.
struct TimeSpan {
    const char* type_name;
    int first_year;
    int last_year;
    int last_second;  // of the last minute of the span: FAT counts in 2 s
};
const TimeSpan kTimeSpans[] = {{"FAT16", 1980, 2107, 58}, {"FAT32", 1980, 2107, 58}};

file_time LocalClock(int year, int month, int day, int hour, int minute, int second) {
    std::tm parts {};
    parts.tm_year = year - 1900;
    parts.tm_mon = month - 1;
    parts.tm_mday = day;
    parts.tm_hour = hour;
    parts.tm_min = minute;
    parts.tm_sec = second;
    parts.tm_isdst = -1;
    return static_cast<file_time>(std::mktime(&parts)) * 1000;
}

// `wanted` moved into what the volume can hold, with a word on stderr when
// it had to move.
file_time HoldableTime(rio_dir& root, file_time wanted, const std::string& path) {
    std::string type = VolumeTypeName(root);
    for (const TimeSpan& span : kTimeSpans) {
        if (type != span.type_name) continue;
        file_time earliest = LocalClock(span.first_year, 1, 1, 0, 0, 0);
        file_time latest = LocalClock(span.last_year, 12, 31, 23, 59, span.last_second);
        file_time held = wanted < earliest ? earliest : wanted > latest ? latest : wanted;
        if (held != wanted) {
            std::fprintf(stderr, "morvane fs: '%s': %s keeps times from %d to %d; %s stored as %s\n", path.c_str(),
                         span.type_name, span.first_year, span.last_year, TimeText(wanted, false).c_str(),
                         TimeText(held, false).c_str());
        }
        return held;
    }
    return wanted;
}

// Writes a host descriptor's bytes into a new file of the volume.
int WriteIn(rio_file& file, int descriptor, std::uint64_t total, const std::string& host_path,
            const std::string& path) {
    CopyChunk chunk;
    CopyProgress progress(path, total);
    for (;;) {
        ssize_t got = read(descriptor, chunk.data(), chunk.size());
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return ReportHostFailure("cannot read", host_path, std::strerror(errno));
        if (got == 0) return kExitOk;
        std::uint64_t written = 0;
        file.write(chunk.data(), static_cast<std::uint64_t>(got), written);
        if (file.failed()) return ReportRefusal("cannot write", path, file.error());
        if (written != static_cast<std::uint64_t>(got)) {
            return ReportHostFailure("cannot write", path, "the volume took fewer bytes than given");
        }
        progress.Advance(written);
    }
}

// The modification time of the host file goes to the volume's entry; the
// others take the same value, since the host keeps no creation time.
int SetVolumeTimes(rio_dir& root, rio_file& file, const struct stat& info, const std::string& path) {
    // Written before the times, so that closing has no change left to stamp.
    file.flush();
    if (file.failed()) return ReportRefusal("cannot write", path, file.error());
    file_time wanted = static_cast<file_time>(info.st_mtim.tv_sec) * 1000 + info.st_mtim.tv_nsec / 1000000;
    file_time modified = HoldableTime(root, wanted, path);
    unsigned char block[32] = {};
    std::memcpy(block, &kSetTimesRequest, sizeof(kSetTimesRequest));
    for (std::size_t offset = 8; offset < sizeof(block); offset += 8) std::memcpy(block + offset, &modified, 8);
    file.control(block);
    if (file.failed()) return ReportRefusal("cannot set the times of", path, file.error());
    return kExitOk;
}

// Where a copy into the volume lands: into a directory that the target
// names, under the host file's name. False when that name isn't UTF-8.
bool CopyInTarget(rio_dir& root, const std::string& host_path, const std::string& target, std::u16string& path) {
    path = VolumePath(target);
    Common::Error ignored;
    std::unique_ptr<i_dir::iterator> entry = FindEntry(root, path, ignored);
    bool into_directory = TrimSeparators(path).empty() || (entry != nullptr && IsDirectoryKind(entry->kind()));
    if (!into_directory) return true;
    std::size_t cut = host_path.find_last_of('/');
    std::string name = cut == std::string::npos ? host_path : host_path.substr(cut + 1);
    if (!ValidVolumePath(name)) return false;
    path = TrimSeparators(path) + u"/" + VolumePath(name);
    return true;
}

}  // namespace

int CopyIn(const FsRequest& request) {
    const std::string& host_path = request.paths[0];
    const std::string& target = request.paths[1];
    HostDescriptor host(open(host_path.c_str(), O_RDONLY));
    struct stat info {};
    if (host.descriptor < 0 || fstat(host.descriptor, &info) != 0) {
        return ReportHostFailure("cannot open", host_path, std::strerror(errno));
    }
    if (!S_ISREG(info.st_mode)) return ReportHostFailure("cannot copy", host_path, "not a regular file");
    std::u16string path;
    if (!CopyInTarget(request.root, host_path, target, path)) {
        return ReportHostFailure("cannot copy", host_path, "its name is not UTF-8; give the name on the volume");
    }
    std::string shown = HostText(path);
    Common::Error absent;
    bool existed = FindEntry(request.root, path, absent) != nullptr;
    std::unique_ptr<rio_file> file(request.root.create_file(path.c_str()));
    if (file == nullptr) return ReportCreateRefusal("cannot create", shown, request.root, path, request.root.error());
    int status = WriteIn(*file, host.descriptor, static_cast<std::uint64_t>(info.st_size), host_path, shown);
    if (status == kExitOk && request.keep_time) status = SetVolumeTimes(request.root, *file, info, shown);
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
