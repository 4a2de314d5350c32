// The loader's schema rules, from its own factory: each job and the main
// action are built as the loader builds them when it reads the document,
// with LoadKernel's files left closed, so that no volume is touched.
#include <memory>

#include "loader/action.h"
#include "loader/configuration_file.h"
#include "loader/load_kernel.h"
#include "tools/conf_checks.h"

namespace MorvaneTool {
namespace {

// Restores LoadKernel's file opening however the check ends.
struct closed_files {
    closed_files() { EfiLoader::LoadKernel::opens_files = false; }
    ~closed_files() { EfiLoader::LoadKernel::opens_files = true; }
};

conf_refusal Refusal(const Common::Error& error, const xml_element& element) {
    return conf_refusal{error.Code(), error.Tag(), &element};
}

// A menu refuses when any entry's action does; the refusal is reported at
// the innermost action that fails by itself, so that it names the element
// to mend rather than the menu around it.
void CheckAction(const xml_element& element, std::vector<conf_refusal>& refusals) {
    EfiLoader::ActionPointer action;
    Common::Error error = EfiLoader::CreateAction(element, action);
    if (!error.Failed()) return;
    const std::size_t before = refusals.size();
    if (element.name == "Menu") {
        for (const auto& entry : element.children) {
            if (entry->name == "Entry" && entry->children.size() == 1) CheckAction(*entry->children.front(), refusals);
        }
    }
    if (refusals.size() == before) refusals.push_back(Refusal(error, element));
}

}  // namespace

std::vector<conf_refusal> CheckRules(const EfiLoader::ConfigurationFile& document) {
    closed_files closed;
    std::vector<conf_refusal> refusals;
    const xml_element& root = *document.Root();
    const xml_element* jobs = root.find_child("Jobs");
    for (std::uint32_t index = 0; jobs != nullptr && index < document.GetJobCount(); ++index) {
        EfiLoader::ActionPointer job;
        Common::Error error = document.GetJob(index, job);
        if (error.Failed()) refusals.push_back(Refusal(error, *jobs->children[index]));
    }
    EfiLoader::ActionPointer main_action;
    Common::Error error = document.GetMainAction(main_action);
    if (error.Failed() && root.children.empty()) {
        refusals.push_back(Refusal(error, root));
    } else if (error.Failed()) {
        CheckAction(*root.children.front(), refusals);
    }
    return refusals;
}

}  // namespace MorvaneTool
