// Symbolic links as the tool meets them: followed within the volume on
// request, and named for what they are where a file was wanted.
#include <cstdio>

#include "tools/command.h"
#include "tools/fs_operations.h"

namespace MorvaneTool {
namespace {

// As many links in one chain as a Linux path walk follows; more is a loop.
constexpr int kMostLinkHops = 40;

std::u16string ParentPath(const std::u16string& path) {
    std::u16string trimmed = TrimSeparators(path);
    std::size_t cut = trimmed.find_last_of(u'/');
    return cut == std::u16string::npos ? std::u16string(u"/") : trimmed.substr(0, cut + 1);
}

}  // namespace

std::u16string LinkTarget(i_dir::iterator& link) {
    std::u16string target = link.link_target();
    for (char16_t& c : target) {
        if (c == u'\\') c = u'/';
    }
    return target;
}

std::unique_ptr<i_dir::iterator> FollowLinks(rio_dir& root, std::u16string& path, Common::Error& error,
                                             bool& looping) {
    looping = false;
    for (int hop = 0; hop <= kMostLinkHops; ++hop) {
        std::unique_ptr<i_dir::iterator> entry = FindEntry(root, path, error);
        if (entry == nullptr || !IsLinkKind(entry->kind())) return entry;
        std::u16string target = LinkTarget(*entry);
        // A link's target is a path of the volume it lies on: an absolute
        // one starts at the volume's root, not at the host's.
        path = !target.empty() && target[0] == u'/' ? target : ParentPath(path) + target;
    }
    looping = true;
    return nullptr;
}

int ReportLink(const char* action, const std::string& path, i_dir::iterator& link) {
    std::fprintf(stderr, "morvane fs: %s '%s': a symbolic link to '%s' (cp-out -L copies what it points to)\n",
                 action, path.c_str(), HostText(LinkTarget(link)).c_str());
    return kExitRefused;
}

}  // namespace MorvaneTool
