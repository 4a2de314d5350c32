#pragma once
// What the harness puts on every volume and what it does to it. The tree is
// made on the host and copied onto the image by the file system's own
// tools; a scenario changes the mounted volume through the directory and
// file interfaces, as the loader does, so one table serves every driver
// that writes.
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "files/dir_object.h"

namespace PowerCut {

struct TreeFile {
    std::string path;  // from the root, '/' between names, no leading '/'
    std::string content;
};

struct Tree {
    std::vector<std::string> folders;  // parents before children
    std::vector<TreeFile> files;
};

const Tree& StandardTree();

// Makes the tree under `folder` on the host.
void WriteTree(const Tree& tree, const std::string& folder);

// Path to SHA-256 of every file under `folder`, by sha256sum.
std::map<std::string, std::string> HostSums(const std::string& folder);

struct Scenario {
    const char* name;
    // Paths the scenario may change or remove; a folder covers what it holds.
    std::vector<std::string> touched;
    // Raises std::runtime_error when the volume refuses a step.
    std::function<void(rio_dir& root)> act;
};

const std::vector<Scenario>& Scenarios();

bool Touches(const Scenario& scenario, const std::string& path);

}  // namespace PowerCut
