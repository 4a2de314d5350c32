#include "hfsplus/opened_files_map.h"

#include "loader/common/raise.h"

namespace hfsplus {

void OpenedFilesInDirectoriesMap::Register(std::uint32_t directory_id, OpenFilesSet* files) {
    if (!sets_.emplace(directory_id, files).second) Common::Raise(ERROR_TAG, Common::Failures::FILE_EXISTS);
}

void OpenedFilesInDirectoriesMap::Unregister(std::uint32_t directory_id) { sets_.erase(directory_id); }

OpenFilesSet& OpenedFilesInDirectoriesMap::GetOpenFiles(std::uint32_t directory_id) const {
    auto found = sets_.find(directory_id);
    if (found == sets_.end()) Common::Raise(ERROR_TAG, Common::Failures::FILE_NOT_FOUND);
    return *found->second;
}

HFSPlusFileObject* OpenedFilesInDirectoriesMap::FindOpenFile(std::uint32_t directory_id, std::uint32_t file_id) const {
    auto set = sets_.find(directory_id);
    if (set == sets_.end()) return nullptr;
    auto file = set->second->find(file_id);
    return file == set->second->end() ? nullptr : file->second;
}

}  // namespace hfsplus
