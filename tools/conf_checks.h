#pragma once
// The checks of `morvane conf check` behind the readers: the loader's own
// rules, run over the tree as the loader builds its jobs and actions, and
// warnings about what the loader accepts but a person rarely means.
#include <cstdint>
#include <string>
#include <vector>

#include "files/xml_element.h"
#include "loader/configuration_file.h"

namespace MorvaneTool {

// A refusal of the loader's rules: its code and tag, and the innermost
// element whose building failed.
struct conf_refusal {
    std::uint32_t code = 0;
    std::uint64_t tag = 0;
    const xml_element* element = nullptr;
};

// Builds every job and the main action of the document (which holds a
// root) with the loader's own factory, files left closed. Empty when the
// loader would accept the tree.
std::vector<conf_refusal> CheckRules(const EfiLoader::ConfigurationFile& document);

// The simulated machine of `conf check --esp`, as `morvane boot` builds it:
// the ESP folder, the loader's path on it, and the disk images attached in
// order.
struct conf_machine {
    std::string esp;
    std::string image = "\\EFI\\BOOT\\BOOTX64.EFI";
    std::vector<std::string> disks;
};

// A file the loader could not open: the `Kernel` or `Ramdisk` element that
// names it, and where it was looked for and why it was not found.
struct conf_missing_file {
    const xml_element* element = nullptr;
    std::string lead;
};

struct conf_files {
    std::size_t opened = 0;
    std::vector<conf_missing_file> missing;
};

// Opens kernel and ramdisk of every kernel action the loader builds from
// the document (the main action, each menu entry's, nested menus too) with
// the loader's own code on that machine; runs nothing. False, with the
// host's reason in `problem`, when the machine cannot be built.
bool CheckFiles(const xml_element& root, const conf_machine& machine, conf_files& files, std::string& problem);

// One line each, without the "warning:" mark, led by the element's place.
std::vector<std::string> CheckWarnings(const xml_element& root);

// "LINE:COLUMN: <Name>", or "<Name>" for an element of the binary form.
std::string ElementPlace(const xml_element& element);

}  // namespace MorvaneTool
