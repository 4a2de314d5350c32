#include "loader/action.h"

#include "loader/common/error_codes.h"
#include "loader/load_kernel.h"
#include "loader/menu.h"
#include "loader/rename_job.h"

namespace EfiLoader {

Common::Error BadConfiguration(std::uint64_t tag) { return Common::Error(tag, Common::BAD_CONFIGURATION); }

Common::Error Action::Load() {
    const xml_element* loading_element = element->find_child("Loading");
    if (loading_element == nullptr) return Common::Success;
    loading = loading_element->attribute_or("Text", u"");
    if (loading.empty()) return BadConfiguration(ERROR_TAG);
    return Common::Success;
}

Common::Error CreateAction(const xml_element& element, ActionPointer& action) {
    if (element.name == "Menu") {
        action.reset(new Menu(&element));
    } else if (element.name == "LoadKernel") {
        action.reset(new LoadKernel(&element));
    } else if (element.name == "Chainload") {
        action.reset(new ChainLoad(&element));
    } else {
        return BadConfiguration(ERROR_TAG);
    }
    return action->Load();
}

Common::Error CreateJob(const xml_element& element, ActionPointer& action) {
    if (element.name != "Rename") return BadConfiguration(ERROR_TAG);
    action.reset(new RenameJob(&element));
    return action->Load();
}

}  // namespace EfiLoader
