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

void CheckAction(const xml_element& element, std::vector<conf_refusal>& refusals);

// A copy of the entry's own attributes, its action (or actions) stood in
// for by accepted ones: what the menu's rules see of the entry alone.
std::unique_ptr<xml_element> EntryStandIn(const xml_element& entry) {
    auto copy = xml_element::create(entry.name);
    copy->attributes = entry.attributes;
    for (std::size_t i = 0; i < entry.children.size(); ++i) copy->append_child(xml_element::create("Chainload"));
    return copy;
}

// A menu of the accepted entries and one more, without the Topic: its
// building fails only for a fault of that entry within the menu (no Key,
// no single action, a key or Default that another entry has).
Common::Error TryEntry(const std::vector<const xml_element*>& accepted, const xml_element& entry) {
    auto probe = xml_element::create("Menu");
    for (const xml_element* earlier : accepted) probe->append_child(EntryStandIn(*earlier));
    probe->append_child(EntryStandIn(entry));
    EfiLoader::ActionPointer action;
    return EfiLoader::CreateAction(*probe, action);
}

// Every faulty entry of a menu the loader refuses, each at the entry or
// at the innermost action in it that fails. When no entry is at fault, the
// menu as a whole is: its Topic's Delay without a default entry.
void CheckMenu(const xml_element& menu, const Common::Error& menu_error, std::vector<conf_refusal>& refusals) {
    const std::size_t before = refusals.size();
    std::vector<const xml_element*> accepted;
    for (const auto& child : menu.children) {
        if (child->name != "Entry") continue;
        if (child->children.size() == 1) CheckAction(*child->children.front(), refusals);
        // An entry whose action fails still holds its key and Default
        // against the entries after it.
        Common::Error error = TryEntry(accepted, *child);
        if (error.Failed()) {
            refusals.push_back(Refusal(error, *child));
        } else {
            accepted.push_back(child.get());
        }
    }
    if (refusals.size() != before) return;
    const xml_element* topic = menu.find_child("Topic");
    const bool has_delay = topic != nullptr && topic->attributes.count("Delay") != 0;
    refusals.push_back(Refusal(menu_error, has_delay ? *topic : menu));
}

// Reported at the innermost element that fails by itself, so that the
// report names the element to mend rather than the menu around it.
void CheckAction(const xml_element& element, std::vector<conf_refusal>& refusals) {
    EfiLoader::ActionPointer action;
    Common::Error error = EfiLoader::CreateAction(element, action);
    if (!error.Failed()) return;
    if (element.name == "Menu") {
        CheckMenu(element, error, refusals);
    } else {
        refusals.push_back(Refusal(error, element));
    }
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
