#include "fsdriver/windows_path.h"

namespace {

constexpr std::size_t kLongestComponent = 255;

bool IsSeparator(char16_t c) { return c == u'/' || c == u'\\'; }

bool IsLetter(char16_t c) { return (c >= u'A' && c <= u'Z') || (c >= u'a' && c <= u'z'); }

char16_t Upper(char16_t c) { return c >= u'a' && c <= u'z' ? char16_t(c - u'a' + u'A') : c; }

bool RefusedInComponent(char16_t c) {
    switch (c) {
    case u'"': case u'*': case u'<': case u'>': case u'?': case u'|': case u':':
        return true;
    default:
        return c < 32;
    }
}

// The root of a composed path: "C:\" or, for "\\server\share\...", up to the
// third backslash after the first character.
bool RootOf(const std::u16string& base, std::u16string& root) {
    if (base.size() < 3) return false;
    if (base[0] != u'\\') {
        root = base.substr(0, 3);
        return true;
    }
    int seen = 0;
    for (std::size_t i = 1; i < base.size(); ++i) {
        if (base[i] == u'\\' && ++seen == 3) {
            root = base.substr(0, i + 1);
            return true;
        }
    }
    return false;
}

// Where the result starts and where the components begin.
bool ComposePrefix(const std::u16string& base, const std::u16string& path, std::u16string& out, std::size_t& at) {
    std::size_t n = path.size();
    auto sep = [&](std::size_t i) { return i < n && IsSeparator(path[i]); };
    if (n >= 2 && IsLetter(path[0]) && path[1] == u':') {
        at = 2;
        if (!sep(2) && !base.empty() && base[0] == Upper(path[0])) {
            out = base;
        } else {
            out = std::u16string(1, Upper(path[0])) + u":\\";
        }
        return true;
    }
    if (!sep(0)) {
        out = base;
        at = 0;
        return true;
    }
    if (!sep(1)) {
        at = 1;
        return RootOf(base, out);
    }
    if (n >= 4 && path[2] == u'?' && sep(3)) {
        if (n >= 8 && Upper(path[4]) == u'U' && Upper(path[5]) == u'N' && Upper(path[6]) == u'C' && sep(7)) {
            out = u"\\\\";
            at = 8;
        } else if (n >= 6 && IsLetter(path[4]) && path[5] == u':' && (n == 6 || sep(6))) {
            out = std::u16string(1, Upper(path[4])) + u":\\";
            at = 6;
        } else {
            out = u"\\\\?\\";
            at = 4;
        }
        return true;
    }
    out = u"\\\\";
    at = 2;
    return true;
}

}  // namespace

bool ComposeWindowsPath(const std::u16string& base, const std::u16string& path, std::u16string& out) {
    if (path.empty()) return false;
    std::size_t at = 0;
    if (!ComposePrefix(base, path, out, at)) return false;
    while (at < path.size()) {
        while (at < path.size() && IsSeparator(path[at])) ++at;
        if (at == path.size()) break;
        std::size_t end = at;
        while (end < path.size() && !IsSeparator(path[end])) ++end;
        std::u16string component = path.substr(at, end - at);
        at = end;
        for (char16_t c : component) {
            if (RefusedInComponent(c)) return false;
        }
        if (component == u".") continue;
        if (component == u"..") {
            if (out.empty()) continue;
            // Back to just behind the backslash in front of the last component.
            std::size_t cut = out.size() >= 2 ? out.rfind(u'\\', out.size() - 2) : std::u16string::npos;
            if (cut == std::u16string::npos || cut + 1 < 3) {
                out.clear();
            } else {
                out.resize(cut + 1);
            }
            continue;
        }
        if (out.empty()) return false;
        std::size_t kept = component.find_last_not_of(u". ");
        if (kept == std::u16string::npos) return false;
        component.resize(kept + 1);
        if (component.size() > kLongestComponent) return false;
        out += component;
        out += u'\\';
    }
    if (out.size() == 2) return false;
    if (out.size() == 4 && out[0] == u'\\' && out[2] == u'?') return false;
    return true;
}

std::u16string WindowsPathToDriverForm(const std::u16string& composed) {
    if (composed.size() <= 3) return u"/";
    std::u16string driver_form = composed.substr(2, composed.size() - 3);
    for (char16_t& c : driver_form) {
        if (c == u'\\') c = u'/';
    }
    return driver_form;
}

bool WindowsNameAllowed(const std::u16string& directory, const std::u16string& name) {
    if (directory.empty()) return name.size() == 2 && IsLetter(name[0]) && name[1] == u':';
    if (name.find_first_not_of(u". ") == std::u16string::npos) return false;
    for (char16_t c : name) {
        if ((c >= 1 && c <= 31) || c == u'/' || c == u'\\' || RefusedInComponent(c)) return false;
    }
    return true;
}
