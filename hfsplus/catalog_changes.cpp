// The catalog's changes as a directory asks for them: files, folders and
// symbolic links made under a free name and a new id, empty folders
// removed, entries renamed or moved.
#include "hfsplus/catalog_file.h"
#include "hfsplus/hfsplus_driver.h"
#include "loader/common/raise.h"

namespace hfsplus {

namespace {

void CheckFree(CatalogFile& catalog, std::uint32_t parent, const HFSPlusString& name) {
    if (catalog.IsTaken(parent, name)) Common::Raise(ERROR_TAG, Common::Failures::FILE_EXISTS);
}

}  // namespace

// The parent is looked at before an id is taken, so that a refused
// creation leaves even the header's next id as it was.
CatalogRecord CatalogFile::CreateFile(const HFSPlusString& name, std::uint32_t parent) {
    CheckChange();
    CheckFree(*this, parent, name);
    ParentFolder(parent, Common::Failures::FILE_CREATE);
    return CreateFileEntry(AllocateCatalogId(), name, parent);
}

void CatalogFile::CreateDirectory(const HFSPlusString& name, std::uint32_t parent) {
    CheckChange();
    CheckFree(*this, parent, name);
    ParentFolder(parent, Common::Failures::FILE_CREATE);
    CreateFolderEntry(AllocateCatalogId(), name, parent);
}

CatalogRecord CatalogFile::CreateSymlink(const HFSPlusString& name, std::uint32_t parent) {
    CheckChange();
    CheckFree(*this, parent, name);
    ParentFolder(parent, Common::Failures::FILE_CREATE);
    return CreateSymlinkEntry(AllocateCatalogId(), name, parent);
}

bool CatalogFile::IsTaken(std::uint32_t parent, const HFSPlusString& name) {
    try {
        FindByKey(parent, name);
    } catch (const Common::Error& error) {
        if (error.Code() == Common::FILE_NOT_FOUND) return false;
        throw;
    }
    return true;
}

std::uint32_t CatalogFile::PrivateDirectoryIdOrZero() {
    try {
        return GetPrivateDirectoryId();
    } catch (const Common::Error& error) {
        if (error.Code() != Common::FILE_NOT_FOUND) throw;
    }
    return 0;
}

void CatalogFile::DeleteFolder(const HFSPlusString& name, std::uint32_t parent) {
    CheckChange();
    const std::uint32_t private_id = PrivateDirectoryIdOrZero();
    // The root (under the parent of id 1) has no folder above it to count in.
    if (parent == private_id || parent == kRootParentId) Common::Raise(ERROR_TAG, Common::Failures::FILE_DELETE);
    const CatalogRecord record = GetRecord(parent, name);
    if (!record.is_folder() || IsNonEmptyFolder(record) || record.id() == private_id) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_DELETE);
    }
    DeleteFolderEntry(record.id(), name, parent);
}

// A folder moved below itself would leave its whole subtree unreachable.
// The walk up is bounded by the records of the tree, so that a damaged
// chain of parents can't hold it.
void CatalogFile::CheckNotInside(std::uint32_t folder, std::uint32_t parent) {
    const std::uint32_t most = leaf_records();
    for (std::uint32_t steps = 0; parent != kRootFolderId && parent != kRootParentId; ++steps) {
        if (parent == folder) Common::Raise(ERROR_TAG, Common::Failures::FILE_RENAME);
        if (steps > most) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        parent = GetParentId(parent);
    }
}

// Everything a rename can be refused for is looked at before the old entry
// goes: what is left then is the tree's own failure (a full volume).
void CatalogFile::Rename(const HFSPlusString& old_name, std::uint32_t old_parent, const HFSPlusString& new_name,
                         std::uint32_t new_parent) {
    CheckChange();
    const std::uint32_t private_id = PrivateDirectoryIdOrZero();
    if (old_parent == private_id || new_parent == private_id || old_parent == kRootParentId) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_RENAME);
    }
    if (IsTaken(new_parent, new_name)) {
        // Under the folding order "a" finds "A": only the very same name
        // is no change at all.
        if (new_parent == old_parent && new_name == old_name) return;
        Common::Raise(ERROR_TAG, Common::Failures::FILE_RENAME);
    }
    const CatalogRecord record = GetRecord(old_parent, old_name);
    if (!record.is_folder() && !record.is_file()) Common::Raise(ERROR_TAG, Common::Failures::FILE_RENAME);
    ParentFolder(new_parent, Common::Failures::FILE_RENAME);
    // The nodes the new entry and its thread may take are made ready, if
    // the tree can grow, before the old entry goes.
    ReserveNodes(2 * InsertionReserve(), 0);
    if (record.is_folder()) {
        if (record.id() == private_id) Common::Raise(ERROR_TAG, Common::Failures::FILE_RENAME);
        CheckNotInside(record.id(), new_parent);
        DeleteFolderEntry(record.id(), old_name, old_parent);
    } else {
        DeleteFileEntry(record.id(), old_name, old_parent);
    }
    CreateEntryFromRecord(record, new_name, new_parent);
    MarkDirty();
}

}  // namespace hfsplus
