#include "hfsplus/hfsplus_directory.h"

#include <memory>

#include "hfsplus/catalog_file.h"
#include "hfsplus/hfsplus_driver.h"
#include "hfsplus/hfsplus_file.h"
#include "hfsplus/hfsplus_iterator.h"
#include "hfsplus/hfsplus_metadata.h"
#include "loader/common/raise.h"

namespace hfsplus {

namespace {

// A name no entry can have is simply not there.
HFSPlusString StoredName(const std::u16string& name) {
    if (name.empty() || name.size() > kMaxNameLength) Common::Raise(ERROR_TAG, Common::Failures::FILE_NOT_FOUND);
    return HFSPlusString(name);
}

const the_identifier& KnownIdentifier(const file_identifier& entry) {
    auto* known = dynamic_cast<const the_identifier*>(&entry);
    if (known == nullptr) Common::Raise(ERROR_TAG, Common::Failures::FILE_NOT_FOUND);
    return *known;
}

// An opened object is found again by its id, through its thread: a
// folder's thread always exists, a file's when its flags say so. A record
// whose thread is missing (a change cut short between the node of the
// record and the node of its thread) is damage, not an absent name.
void CheckThreadOf(CatalogFile& catalog, const CatalogRecord& record) {
    if (!record.is_folder() && (record.file().flags() & kThreadExists) == 0) return;
    try {
        catalog.FindThread(record.id());
    } catch (const Common::Error& error) {
        if (error.Code() != Common::FILE_NOT_FOUND) throw;
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT, error);
    }
}

}  // namespace

HFSPlusDirectoryObject::HFSPlusDirectoryObject(HFSPlusDriver* driver, std::uint32_t catalog_id)
    : HFSPlusAbstractDirectoryObject(driver, HFSPlusDriver::DirectoryIdOfCatalogId(catalog_id)),
      hfs(driver),
      catalog_id(catalog_id),
      backup_factory(driver) {
    const CatalogRecord record = driver->metadata().GetCatalogFile().GetRecordById(catalog_id);
    if (!record.is_folder()) Common::Raise(ERROR_TAG, Common::Failures::FILE_OPEN);
    if (record.id() != catalog_id) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    driver->opened_files().Register(catalog_id, &open_files);
}

HFSPlusDirectoryObject::~HFSPlusDirectoryObject() { hfs->opened_files().Unregister(catalog_id); }

CatalogRecord HFSPlusDirectoryObject::GetChild(const std::u16string& name) const {
    return hfs->metadata().GetCatalogFile().GetRecord(catalog_id, StoredName(name));
}

FileSystemDriver::IteratorObject* HFSPlusDirectoryObject::begin() {
    auto iterator = std::make_unique<HFSPlusIteratorObject>(this);
    if (!iterator->PlaceOnFirstVisible()) return nullptr;
    return iterator.release();
}

FileSystemDriver::IteratorObject* HFSPlusDirectoryObject::find(const std::u16string& name) {
    return new HFSPlusIteratorObject(this, StoredName(name));
}

FileSystemDriver::IteratorObject* HFSPlusDirectoryObject::find(const file_identifier& entry) {
    return find(std::u16string(KnownIdentifier(entry).name()));
}

std::uint32_t HFSPlusDirectoryObject::lookup_directory(const std::u16string& name) {
    const CatalogRecord record = GetChild(name);
    if (!record.is_folder()) Common::Raise(ERROR_TAG, Common::Failures::FILE_OPEN);
    // No folder below another has the root's id or a special file's: such
    // an id would turn the walk back to the root or off the tree.
    if (record.id() < kFirstUserCatalogId) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    CheckThreadOf(hfs->metadata().GetCatalogFile(), record);
    return HFSPlusDriver::DirectoryIdOfCatalogId(record.id());
}

FileSystemDriver::FileObject* HFSPlusDirectoryObject::open_file(const std::u16string& name) {
    const CatalogRecord record = GetChild(name);
    if (!record.is_file()) Common::Raise(ERROR_TAG, Common::Failures::FILE_OPEN);
    CheckThreadOf(hfs->metadata().GetCatalogFile(), record);
    return OpenRecord(record);
}

FileSystemDriver::FileObject* HFSPlusDirectoryObject::open_file(IteratorObject& entry) {
    auto* standing = dynamic_cast<HFSPlusIteratorObject*>(&entry);
    if (standing == nullptr || standing->directory != this) Common::Raise(ERROR_TAG, Common::Failures::FILE_OPEN);
    return open_file(standing->name());
}

FileSystemDriver::FileObject* HFSPlusDirectoryObject::open_file(const file_identifier& entry) {
    return open_file(std::u16string(KnownIdentifier(entry).name()));
}

HFSPlusFileObject* HFSPlusDirectoryObject::FindOpenFile(std::uint32_t file_id) const {
    auto found = open_files.find(file_id);
    return found == open_files.end() ? nullptr : found->second;
}

HFSPlusFileObject* HFSPlusDirectoryObject::OpenRecord(const CatalogRecord& record) {
    if (HFSPlusFileObject* open = FindOpenFile(record.id())) return open;
    auto made = std::make_unique<HFSPlusFileObject>(hfs, this, record);
    open_files.emplace(made->file_id, made.get());
    return made.release();
}

HFSPlusFileObject* HFSPlusDirectoryObject::OpenInode(std::uint32_t link_id) {
    CatalogFile& catalog = hfs->metadata().GetCatalogFile();
    if (catalog.GetPrivateDirectoryId() != catalog_id) Common::Raise(ERROR_TAG, Common::Failures::FILE_OPEN);
    const CatalogRecord inode = catalog.ResolveHardLink(link_id);
    // The inode is reached by id: it must stand here, and be no link
    // itself, or opening it would go round in circles.
    if (inode.parent_id != catalog_id || CatalogFile::IsHardLink(inode)) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    return OpenRecord(inode);
}

void HFSPlusDirectoryObject::ForgetFile(std::uint32_t file_id) { open_files.erase(file_id); }

FileSystemDriver::BackupObject* HFSPlusDirectoryObject::new_backup_object(IteratorObject* entry, std::uint32_t option) {
    if (entry == nullptr) return backup_factory.Make(catalog_id, option);
    auto* standing = dynamic_cast<HFSPlusIteratorObject*>(entry);
    if (standing == nullptr || standing->directory != this) Common::Raise(ERROR_TAG, Common::Failures::FILE_BACKUP);
    const std::uint32_t id = standing->Record().id();
    if (HFSPlusFileObject* open = FindOpenFile(id)) open->flush_file();
    return backup_factory.Make(id, option);
}

}  // namespace hfsplus
