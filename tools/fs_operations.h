#pragma once
// The operations of `morvane fs` on a mounted volume. Each prints its own
// errors on stderr and answers an exit code of tools/command.h: what the
// volume refuses is kExitRefused, what fails on the host side kExitUsageOrIo.
#include <memory>
#include <string>
#include <vector>

#include "files/dir_object.h"
#include "loader/common/error_codes.h"

namespace MorvaneTool {

// The flags and operands given behind the operation's name.
struct FsOperands {
    std::vector<std::string> paths;  // in order
    bool long_form = false;          // ls -l
    bool human_sizes = false;        // ls -h: sizes in KiB, MiB... with -l
    bool recursive = false;          // ls -R, cp-out -r
    bool keep_time = false;          // cp-in -p
    bool follow_links = false;       // cp-out -L
    bool symbolic = false;           // ln -s
    bool list = false;               // backup --list
    bool kind_given = false;         // backup --kind K
    std::uint32_t kind = 0;
    bool option_given = false;       // backup, restore --option N
    std::uint32_t option = 0;        // the driver's option bits
};

// The host file that holds the volume, so that no copy overwrites it.
struct HostIdentity {
    unsigned long long device = 0;
    unsigned long long inode = 0;
};

struct FsRequest : FsOperands {
    FsRequest(rio_dir& volume_root, const FsOperands& operands, const HostIdentity& image_file)
        : FsOperands(operands), root(volume_root), image(image_file) {}
    rio_dir& root;
    HostIdentity image;
};

int ListEntries(const FsRequest& request);
int StatEntries(const FsRequest& request);
int CatFiles(const FsRequest& request);
int CopyOut(const FsRequest& request);
int CopyIn(const FsRequest& request);
int MakeDirs(const FsRequest& request);
int MoveEntry(const FsRequest& request);
int LinkEntry(const FsRequest& request);
int RemoveEntries(const FsRequest& request);
int BackupEntry(const FsRequest& request);
int RestoreEntry(const FsRequest& request);

// ---- shared by the operations ----

// A walk below this many levels is taken for a damaged volume whose
// directories hold their own ancestors, not followed for ever.
constexpr int kDeepestTree = 128;
// Prints that the walk stopped there, and answers kExitRefused.
int ReportTooDeep(const std::string& path);

// A volume path from the UTF-8 text of the command line, which the command
// has checked (ValidVolumePath). Runs of "/" count as one, as at a shell: the
// Windows flavour would take a leading "//" for a network path.
std::u16string VolumePath(const std::string& text);
bool ValidVolumePath(const std::string& text);
// A name or path of the volume as the host shows it.
std::string HostText(const std::u16string& text);
// The path without separators at its end: empty for the root.
std::u16string TrimSeparators(const std::u16string& path);
// The last component of a path, for "copy into a directory".
std::u16string LastComponent(const std::u16string& path);

// Prints "morvane fs: ACTION 'PATH': REASON" and answers kExitRefused.
int ReportRefusal(const char* action, const std::string& path, const Common::Error& error);
// As ReportRefusal, for a change that makes the entry `made`. A FAT12/16
// root holds a fixed number of entries, and its driver answers a full one
// with the code of a bad name; a good name there means the root is full.
int ReportCreateRefusal(const char* action, const std::string& path, rio_dir& root, const std::u16string& made,
                        const Common::Error& error);
// True when `host_path` is the image the volume is read from: opening it
// for writing would cut the volume off under the driver.
bool IsTheImage(const std::string& host_path, const HostIdentity& image);
// Prints "morvane fs: ACTION 'PATH': REASON" and answers kExitUsageOrIo.
int ReportHostFailure(const char* action, const std::string& path, const std::string& reason);

// The entry that a path names, the root's own entry for the root; null with
// `error` set when there is none. With `parent`, the directory that holds
// it (null for the root) is handed out too.
std::unique_ptr<i_dir::iterator> FindEntry(rio_dir& root, const std::u16string& path, Common::Error& error,
                                           std::unique_ptr<rio_dir>* parent = nullptr);
// The directory a path names (the root for an empty path), or null with `error`.
std::unique_ptr<rio_dir> OpenDirectory(rio_dir& root, const std::u16string& path, Common::Error& error);

// "YYYY-MM-DD HH:MM:SS" in the host's time zone, as the drivers read the
// volumes' times in it; milliseconds when asked, "-" for a time not known.
std::string TimeText(file_time milliseconds, bool with_milliseconds);

// The kind of volume the driver serves ("FAT16", "FAT32", "Ext4"...).
std::string VolumeTypeName(rio_dir& root);

// A link's target with "/" between its components. The tool takes "\" for
// a separator in every volume path, and Windows writes its links with it.
std::u16string LinkTarget(i_dir::iterator& link);

// The entry at the end of a chain of symbolic links that starts at `path`,
// followed within the volume; `path` becomes that entry's path. Null with
// `error` set when a link leads nowhere, and with `looping` set when the
// chain is longer than any sensible one.
std::unique_ptr<i_dir::iterator> FollowLinks(rio_dir& root, std::u16string& path, Common::Error& error,
                                             bool& looping);
// Prints that `path` is a symbolic link where a file was wanted; kExitRefused.
int ReportLink(const char* action, const std::string& path, i_dir::iterator& link);

inline bool IsDirectoryKind(std::uint32_t kind) { return kind == KIND_DIRECTORY || kind == KIND_ROOT_SELF; }
// NTFS answers this kind for a symbolic link made to a directory: it is a
// link like any other to the tool, which lists and copies its target.
constexpr std::uint32_t kDirectoryLinkKind = 151;
inline bool IsLinkKind(std::uint32_t kind) { return kind == KIND_SYMLINK || kind == kDirectoryLinkKind; }

// An empty directory gives an iterator that has failed with FILE_EOF, and
// the last next() leaves the same state behind: that is the end, not a
// failure.
inline bool EndOfEntries(const file_object& object) { return object.error().Code() == Common::FILE_EOF; }

// Calls visit(iterator) for every entry of `dir` but "." and "..". False
// with `error` set when the walk fails before its end; visit answers false
// to stop it early.
template <typename Visit>
bool ForEachEntry(i_dir& dir, Visit visit, Common::Error& error) {
    std::unique_ptr<i_dir::iterator> entry(dir.begin());
    if (entry == nullptr) {
        if (EndOfEntries(dir)) return true;
        error = dir.error();
        return false;
    }
    if (entry->failed()) {
        if (EndOfEntries(*entry)) return true;
        error = entry->error();
        return false;
    }
    do {
        std::u16string name = entry->name();
        if (name == u"." || name == u"..") continue;
        if (!visit(*entry)) return true;
    } while (entry->next());
    if (entry->failed() && !EndOfEntries(*entry)) {
        error = entry->error();
        return false;
    }
    return true;
}

}  // namespace MorvaneTool
