#pragma once
// Which files of which folders have a live object. Each directory object
// keeps the set of its own open files and enters it here under its catalog
// id, so that one folder can look into another's: a hard link's inode lives
// in the private directory, and whether it is open there decides what may
// be done to the link.
#include <cstdint>
#include <map>

namespace hfsplus {

class HFSPlusFileObject;

// The open files of one folder by catalog node id; not owned.
using OpenFilesSet = std::map<std::uint32_t, HFSPlusFileObject*>;

class OpenedFilesInDirectoriesMap {
public:
    // FILE_EXISTS when the folder has a set here already: a folder has one
    // directory object at a time.
    void Register(std::uint32_t directory_id, OpenFilesSet* files);
    // Forgets the folder's set; nothing for a folder that has none.
    void Unregister(std::uint32_t directory_id);
    // FILE_NOT_FOUND when the folder has no directory object.
    OpenFilesSet& GetOpenFiles(std::uint32_t directory_id) const;
    // The live object of `file_id` in that folder; null when the folder or
    // the file has none.
    HFSPlusFileObject* FindOpenFile(std::uint32_t directory_id, std::uint32_t file_id) const;

private:
    std::map<std::uint32_t, OpenFilesSet*> sets_;
};

}  // namespace hfsplus
