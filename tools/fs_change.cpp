// mkdir, mv, ln and rm: changes to a volume's tree, as the loader's own rename
// and clean-up jobs make them.
#include "tools/command.h"
#include "tools/fs_operations.h"
#include "tools/host_text.h"

namespace MorvaneTool {
namespace {

bool IsDirectoryEntry(i_dir::iterator& entry) { return IsDirectoryKind(entry.kind()); }

// True when `one` names the entry that was found as `other_entry` in
// `other_parent`, as "/readme" and "/README" do on a volume that ignores case.
bool NameSameEntry(rio_dir& root, const std::u16string& one, rio_dir& other_parent, i_dir::iterator& other_entry) {
    Common::Error ignored;
    std::unique_ptr<rio_dir> one_parent;
    std::unique_ptr<i_dir::iterator> entry = FindEntry(root, one, ignored, &one_parent);
    if (entry == nullptr || one_parent == nullptr || one_parent->relation(other_parent) != 0) return false;
    std::unique_ptr<file_identifier> mine(entry->identifier());
    std::unique_ptr<file_identifier> theirs(other_entry.identifier());
    return mine != nullptr && theirs != nullptr && one_parent->compare(*mine, *theirs) == 0 &&
           !one_parent->failed();
}

// A target that is an existing directory receives the entry under its own
// name, unless the target is the entry itself under another spelling: then
// the move is a rename.
std::u16string MoveTarget(rio_dir& root, const std::u16string& from, const std::u16string& to) {
    Common::Error ignored;
    std::unique_ptr<rio_dir> parent;
    std::unique_ptr<i_dir::iterator> entry = FindEntry(root, to, ignored, &parent);
    if (entry == nullptr || !IsDirectoryEntry(*entry)) return to;
    if (parent != nullptr && NameSameEntry(root, from, *parent, *entry)) return to;
    return TrimSeparators(to) + u"/" + LastComponent(from);
}

}  // namespace

int MakeDirs(const FsRequest& request) {
    for (const std::string& path : request.paths) {
        std::u16string made = VolumePath(path);
        request.root.make_dir(made.c_str());
        if (request.root.failed()) {
            return ReportCreateRefusal("cannot make directory", path, request.root, made, request.root.error());
        }
    }
    return kExitOk;
}

int MoveEntry(const FsRequest& request) {
    std::u16string from = VolumePath(request.paths[0]);
    std::u16string to = MoveTarget(request.root, from, VolumePath(request.paths[1]));
    request.root.rename(TrimSeparators(from).c_str(), to.c_str());
    if (request.root.failed()) {
        return ReportCreateRefusal("cannot move", request.paths[0], request.root, to, request.root.error());
    }
    return kExitOk;
}

// A symbolic link's target is text the volume keeps as given, so it isn't
// made a volume path: a relative target stays relative to the link.
int LinkEntry(const FsRequest& request) {
    std::u16string made = VolumePath(request.paths[1]);
    if (request.symbolic) {
        std::u16string target;
        HostTextToVolume(request.paths[0], target);
        request.root.symlink(made.c_str(), target.c_str());
    } else {
        request.root.link(TrimSeparators(VolumePath(request.paths[0])).c_str(), made.c_str());
    }
    if (request.root.failed()) {
        return ReportCreateRefusal("cannot link", request.paths[1], request.root, made, request.root.error());
    }
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
