#include "loader/configuration_file.h"

#include "files/xml_document.h"

namespace EfiLoader {

Common::Error ConfigurationFile::Load(i_file& file) {
    std::uint32_t line = 0;
    std::uint32_t column = 0;
    // Where a document went wrong is not reported: the loader only says that
    // its configuration is bad. The host tool shows the place.
    if (!read_xml_document(root_, file, line, column)) return BadConfiguration(ERROR_TAG);
    return Common::Success;
}

std::uint32_t ConfigurationFile::GetJobCount() const {
    const xml_element* jobs = root_ ? root_->find_child("Jobs") : nullptr;
    return jobs != nullptr ? static_cast<std::uint32_t>(jobs->children.size()) : 0;
}

Common::Error ConfigurationFile::GetJob(std::uint32_t index, ActionPointer& action) const {
    if (index >= GetJobCount()) return BadConfiguration(ERROR_TAG);
    const xml_element* jobs = root_->find_child("Jobs");
    if (jobs == nullptr) return BadConfiguration(ERROR_TAG);
    return CreateJob(*jobs->children[index], action);
}

Common::Error ConfigurationFile::GetMainAction(ActionPointer& action) const {
    if (!root_ || root_->children.empty()) return BadConfiguration(ERROR_TAG);
    ActionPointer created;
    Common::Error error = CreateAction(*root_->children.front(), created);
    if (!error.Failed()) action = created;
    return error;
}

}  // namespace EfiLoader
