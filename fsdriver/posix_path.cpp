#include "fsdriver/posix_path.h"

std::u16string ComposePosixPath(const std::u16string& base, const std::u16string& path) {
    std::u16string out = !path.empty() && path[0] == u'/' ? std::u16string(u"/") : base;
    std::size_t at = 0;
    while (at <= path.size()) {
        std::size_t end = path.find(u'/', at);
        if (end == std::u16string::npos) end = path.size();
        std::u16string component = path.substr(at, end - at);
        at = end + 1;
        if (component.empty() || component == u".") continue;
        if (component == u"..") {
            std::size_t slash = out.rfind(u'/');
            out.resize(slash == 0 || slash == std::u16string::npos ? 1 : slash);
            if (out.empty() || out[0] != u'/') out = u"/";
            continue;
        }
        if (out.size() >= 2) out += u'/';
        out += component;
    }
    return out;
}

bool PosixNameAllowed(const std::u16string& name) {
    return !name.empty() && name != u"." && name != u".." && name.find(u'/') == std::u16string::npos;
}
