// Hard links and what decides whether an entry may go: the open objects of
// this folder and, for a hard link, of its inode in the private directory.
#include <memory>

#include "files/dir_object.h"
#include "hfsplus/catalog_file.h"
#include "hfsplus/hfsplus_directory.h"
#include "hfsplus/hfsplus_driver.h"
#include "hfsplus/hfsplus_file.h"
#include "hfsplus/hfsplus_iterator.h"
#include "hfsplus/hfsplus_metadata.h"
#include "loader/common/raise.h"

namespace hfsplus {

namespace {

// The private directory's id; 0 when the volume has none yet.
std::uint32_t PrivateIdOrZero(CatalogFile& catalog) {
    try {
        return catalog.GetPrivateDirectoryId();
    } catch (const Common::Error& error) {
        if (error.Code() != Common::FILE_NOT_FOUND) throw;
        return 0;
    }
}

// The inode of a hard link, checked: a file with links.
CatalogRecord CheckedInode(CatalogFile& catalog, const CatalogRecord& link) {
    CatalogRecord inode = catalog.ResolveHardLink(link.id());
    if (!inode.is_file() || inode.file().permissions().special() == 0) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    return inode;
}

}  // namespace

HFSPlusFileObject* HFSPlusDirectoryObject::FindOpenFileIn(std::uint32_t folder, std::uint32_t file_id) const {
    return hfs->opened_files().FindOpenFile(folder, file_id);
}

bool HFSPlusDirectoryObject::IsInodeOpen(const CatalogRecord& link) {
    CatalogFile& catalog = hfs->metadata().GetCatalogFile();
    const CatalogRecord inode = CheckedInode(catalog, link);
    return FindOpenFileIn(catalog.GetParentId(inode.id()), inode.id()) != nullptr;
}

bool HFSPlusDirectoryObject::CanDelete(const std::u16string& name) {
    CatalogFile& catalog = hfs->metadata().GetCatalogFile();
    const CatalogRecord record = GetChild(name);
    if (record.is_folder()) {
        return record.id() != kRootFolderId && record.folder().valence() == 0 &&
               record.id() != PrivateIdOrZero(catalog);
    }
    if (!record.is_file()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    if (FindOpenFile(record.id()) != nullptr) return false;
    if (!CatalogFile::IsHardLink(record)) return true;
    // The last link of an open inode would take the inode with it.
    const CatalogRecord inode = CheckedInode(catalog, record);
    if (FindOpenFileIn(catalog.GetParentId(inode.id()), inode.id()) == nullptr) return true;
    return inode.file().permissions().special() != 1;
}

// The framework asks the folder of the existing name, naming the folder
// and the name the link is to get there.
void HFSPlusDirectoryObject::link_entry(const std::u16string& name, DirectoryObject& target,
                                        const std::u16string& new_name) {
    hfs->refuse_if_unchangeable();
    auto* to = dynamic_cast<HFSPlusDirectoryObject*>(&target);
    if (to == nullptr || to->hfs != hfs) Common::Raise(ERROR_TAG, Common::Failures::FILE_CREATE);
    to->MakeLink(new_name, *this, name);
}

void HFSPlusDirectoryObject::MakeLink(const std::u16string& name, HFSPlusDirectoryObject& source,
                                      const std::u16string& existing) {
    hfs->refuse_if_unchangeable();
    if (name.empty() || name.size() > kMaxNameLength || IsDotName(name) || IsDotName(existing)) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CREATE);
    }
    TouchDirectory();
    CatalogFile& catalog = hfs->metadata().GetCatalogFile();
    if (catalog.IsTaken(catalog_id, HFSPlusString(name))) Common::Raise(ERROR_TAG, Common::Failures::FILE_DELETE);
    std::uint32_t id = 0;
    {
        std::unique_ptr<IteratorObject> found(source.find(existing));
        if (!found) Common::Raise(ERROR_TAG, Common::Failures::FILE_CREATE);
        const std::uint32_t kind = found->kind();
        if (kind != KIND_FILE && kind != KIND_SYMLINK) Common::Raise(ERROR_TAG, Common::Failures::FILE_CREATE);
        id = static_cast<std::uint32_t>(found->object_id());
    }
    const std::uint32_t folder = catalog.GetParentId(id);
    HFSPlusFileObject* live = FindOpenFileIn(folder, id);
    if (live != nullptr) live->flush_file();
    const CatalogRecord before = catalog.GetRecordById(id);
    const bool was_link = CatalogFile::IsHardLink(before);
    catalog.CreateHardLink(before.name, folder, HFSPlusString(name), catalog_id);
    // The first link moved the file into the private directory: its object
    // now stands for the link left at the old name.
    if (!was_link && live != nullptr) live->BecomeLink(catalog.GetRecord(folder, before.name));
}

// The private directory, made in the root on a volume that takes changes
// when it isn't there. The driver holds one count on its object, so that
// the inodes' objects hanging on it keep it, and the framework's trimming
// of idle directories passes it by, until unmount.
HFSPlusDirectoryObject& HFSPlusDriver::GetPrivateDirectory() {
    if (private_directory != nullptr) return *private_directory;
    CatalogFile& catalog = metadata().GetCatalogFile();
    std::uint32_t id = PrivateIdOrZero(catalog);
    if (id == 0) {
        if (read_only != 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_READ_ONLY);
        get_object(DirectoryIdOfCatalogId(kRootFolderId))->make_directory(kPrivateDirectoryName);
        id = catalog.GetPrivateDirectoryId();
    }
    if (id < kFirstUserCatalogId) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    auto* object = dynamic_cast<HFSPlusDirectoryObject*>(get_object(DirectoryIdOfCatalogId(id)));
    if (object == nullptr) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    ++object->references;
    private_directory = object;
    return *object;
}

}  // namespace hfsplus
