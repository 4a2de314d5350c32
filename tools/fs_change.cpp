// mkdir, mv and rm: changes to a volume's tree, as the loader's own rename
// and clean-up jobs make them.
#include "files/utf_conversion.h"
#include "tools/command.h"
#include "tools/fs_operations.h"

namespace MorvaneTool {
namespace {

bool IsDirectoryEntry(i_dir::iterator& entry) {
    return entry.kind() == KIND_DIRECTORY || entry.kind() == KIND_ROOT_SELF;
}

// A target that is an existing directory receives the entry under its own name.
std::u16string MoveTarget(rio_dir& root, const std::u16string& from, const std::u16string& to) {
    Common::Error ignored;
    std::unique_ptr<i_dir::iterator> entry = FindEntry(root, to, ignored);
    if (entry == nullptr || !IsDirectoryEntry(*entry)) return to;
    return TrimSeparators(to) + u"/" + LastComponent(from);
}

}  // namespace

int MakeDirs(const FsRequest& request) {
    for (const std::string& path : request.paths) {
        request.root.make_dir(VolumePath(path).c_str());
        if (request.root.failed()) return ReportRefusal("cannot make directory", path, request.root.error());
    }
    return kExitOk;
}

int MoveEntry(const FsRequest& request) {
    std::u16string from = VolumePath(request.paths[0]);
    std::u16string to = MoveTarget(request.root, from, VolumePath(request.paths[1]));
    request.root.rename(TrimSeparators(from).c_str(), to.c_str());
    if (request.root.failed()) return ReportRefusal("cannot move", request.paths[0], request.root.error());
    return kExitOk;
}

int RemoveEntries(const FsRequest& request) {
    for (const std::string& path : request.paths) {
        std::u16string wide = TrimSeparators(VolumePath(path));
        Common::Error error;
        std::unique_ptr<i_dir::iterator> entry = FindEntry(request.root, wide, error);
        if (entry == nullptr) return ReportRefusal("cannot remove", path, error);
        bool directory = IsDirectoryEntry(*entry);
        entry.reset();
        if (directory) {
            request.root.remove_dir(wide.c_str());
        } else {
            request.root.remove_file(wide.c_str());
        }
        if (request.root.failed()) return ReportRefusal("cannot remove", path, request.root.error());
    }
    return kExitOk;
}

}  // namespace MorvaneTool
