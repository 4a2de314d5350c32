#pragma once
// An ext image file as the ext tests use it: mke2fs makes it, debugfs
// changes it and answers about it, e2fsck -fn and dumpe2fs judge it. Only
// the independent tools touch it here; a test's own driver comes in
// through Volume.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "tests/support/shell.h"
#include "tests/support/volume_fixture.h"

namespace TestSupport {

struct ExtImage : ImageFile {
    // A `kib` KiB volume that `mkfs` makes, filled from the host folder
    // `source` unless that is empty.
    bool make(const std::string& mkfs, unsigned kib, const std::string& source = "") {
        return RunQuietly("truncate -s " + std::to_string(kib) + "K '" + path + "' && " + mkfs + " -q -F" +
                          (source.empty() ? "" : " -d '" + source + "'") + " '" + path + "'") == 0;
    }
    // One debugfs request that writes, such as "sif /f size 0".
    bool change(const std::string& request) const {
        return RunQuietly("debugfs -w -R '" + request + "' '" + path + "'") == 0;
    }
    // Many at once, through a script: debugfs opens the volume only once.
    bool change_all(const std::vector<std::string>& requests) const {
        std::string script;
        for (const std::string& request : requests) script += request + "\n";
        folder.Write("requests", script);
        return RunQuietly("debugfs -w -f '" + folder.Path() + "/requests' '" + path + "'") == 0;
    }
    std::string ask(const std::string& request) const {
        return CaptureOutput("debugfs -R '" + request + "' '" + path + "'");
    }
    // The number behind `label` in the answer to `request`, decimal or
    // 0x-hex; with no label the answer's first; -1 when the label is absent.
    long long number(const std::string& request, const std::string& label = "") const {
        const std::string answer = ask(request);
        const std::size_t at = answer.find(label);
        return at == std::string::npos ? -1 : std::strtoll(answer.c_str() + at + label.size(), nullptr, 0);
    }
    long long inode(const std::string& name) const { return number("stat " + name, "Inode: "); }
    // What e2fsck -fn finds; empty for a clean volume only. A run that fails
    // without saying why still shows, so that it can't pass for clean.
    std::string problems() const {
        if (RunQuietly("e2fsck -fn '" + path + "'") == 0) return "";
        const std::string found = CaptureOutput("e2fsck -fn '" + path + "'");
        return found.empty() ? "<e2fsck failed>" : found;
    }
    // A file's bytes as debugfs dumps them: they never pass through our driver.
    std::string content(const std::string& name) const {
        const std::string out = path + ".out";
        RunQuietly("rm -f '" + out + "'; debugfs -R 'dump " + name + " " + out + "' '" + path + "'");
        const std::vector<unsigned char> data = LoadFile(out);
        return std::string(data.begin(), data.end());
    }
    // dumpe2fs's whole listing, each group's descriptor and bitmaps with it.
    std::string groups() const { return CaptureOutput("dumpe2fs '" + path + "'"); }
    // A superblock count as dumpe2fs -h shows it ("Free blocks"); ~0 for none.
    std::uint64_t superblock_count(const std::string& field) const {
        const std::string text = CaptureOutput("dumpe2fs -h '" + path + "'");
        const std::size_t at = text.find("\n" + field + ":");
        return at == std::string::npos ? ~0ull : std::strtoull(text.c_str() + at + field.size() + 2, nullptr, 10);
    }
};

}  // namespace TestSupport
