// Changes of an entry's ownership, mode, security block and dates, by
// name. A file with a live object changes through it, so that its content
// and the record stay in step; a hard link's change lands on its inode,
// whose fields are the ones every link answers with.
#include "hfsplus/catalog_file.h"
#include "hfsplus/hfsplus_directory.h"
#include "hfsplus/hfsplus_driver.h"
#include "hfsplus/hfsplus_file.h"
#include "hfsplus/hfsplus_metadata.h"
#include "loader/common/raise.h"

namespace hfsplus {

void HFSPlusDirectoryObject::ChangeEntry(const std::u16string& name, const EntryChange& change) {
    TouchDirectory();
    CatalogFile& catalog = hfs->metadata().GetCatalogFile();
    CatalogRecord record = GetChild(name);
    if (record.is_folder()) {
        ApplyEntryChange(record, change, false);
        return catalog.WriteFolderRecord(record.id(), record);
    }
    if (!record.is_file()) Common::Raise(ERROR_TAG, Common::Failures::FILE_NOT_FOUND);
    if (HFSPlusFileObject* open = FindOpenFile(record.id())) return open->ChangeRecord(change);
    if (CatalogFile::IsHardLink(record)) {
        record = catalog.ResolveHardLink(record.id());
        if (!record.is_file()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        HFSPlusFileObject* inode = FindOpenFileIn(catalog.GetParentId(record.id()), record.id());
        if (inode != nullptr) return inode->ChangeRecord(change);
    }
    ApplyEntryChange(record, change, false);
    catalog.WriteFileRecord(record.id(), record);
}

void HFSPlusDirectoryObject::set_security(const std::u16string& name, const void* data, std::uint32_t size) {
    hfs->refuse_if_unchangeable();
    ChangeEntry(name, SecurityChange(data, size));
}

void HFSPlusDirectoryObject::set_attributes(const std::u16string&, std::uint32_t) {
    Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
}

void HFSPlusDirectoryObject::set_permissions(const std::u16string& name, std::uint32_t value) {
    hfs->refuse_if_unchangeable();
    EntryChange change;
    change.what = EntryChange::What::kPermissions;
    change.first = value & 0xFFFF;
    ChangeEntry(name, change);
}

void HFSPlusDirectoryObject::set_owner(const std::u16string& name, std::uint32_t owner, std::uint32_t group) {
    hfs->refuse_if_unchangeable();
    EntryChange change;
    change.what = EntryChange::What::kOwner;
    change.first = owner;
    change.second = group;
    ChangeEntry(name, change);
}

void HFSPlusDirectoryObject::set_times(const std::u16string& name, std::uint64_t modified, std::uint64_t created,
                                       std::uint64_t accessed) {
    hfs->refuse_if_unchangeable();
    ChangeEntry(name, TimesChange(modified, created, accessed));
}

void HFSPlusDirectoryObject::make_node(const std::u16string&, std::uint32_t, std::uint32_t, std::uint32_t,
                                       std::uint32_t) {
    Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
}

}  // namespace hfsplus
