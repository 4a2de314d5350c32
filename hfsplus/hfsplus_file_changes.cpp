// The changes of a file object: bytes, size and the catalog record's
// fields, all through its FileContent, a hard link's on its inode's object.
#include <cstring>

#include "hfsplus/catalog_file.h"
#include "hfsplus/file_content.h"
#include "hfsplus/hfsplus_directory.h"
#include "hfsplus/hfsplus_driver.h"
#include "hfsplus/hfsplus_file.h"
#include "hfsplus/hfsplus_metadata.h"
#include "hfsplus/journaled_object.h"
#include "loader/common/raise.h"

namespace hfsplus {

namespace {

// Folder and file records share their first 48 bytes' layout, so one
// template serves both.
template <typename Record>
void Apply(Record& record, const EntryChange& change, bool touch_access) {
    const std::uint32_t now = MacTimeNow();
    switch (change.what) {
        case EntryChange::What::kSecurity:
            std::memcpy(&record.permissions_, change.security, sizeof(record.permissions_));
            break;
        case EntryChange::What::kPermissions:
            record.permissions_.fileMode_.set(static_cast<std::uint16_t>(change.first));
            break;
        case EntryChange::What::kOwner:
            record.permissions_.ownerID_.set(change.first);
            record.permissions_.groupID_.set(change.second);
            break;
        case EntryChange::What::kTimes:
            record.contentModDate_.set(change.first);
            record.createDate_.set(change.second);
            record.accessDate_.set(change.third);
            touch_access = false;
            break;
    }
    record.attributeModDate_.set(now);
    if (touch_access) record.accessDate_.set(now);
}

}  // namespace

EntryChange SecurityChange(const void* data, std::uint32_t size) {
    if (data == nullptr || size != sizeof(BSDInfo)) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    EntryChange change;
    change.what = EntryChange::What::kSecurity;
    change.security = static_cast<const unsigned char*>(data);
    return change;
}

EntryChange TimesChange(std::uint64_t modified, std::uint64_t created, std::uint64_t accessed) {
    EntryChange change;
    change.what = EntryChange::What::kTimes;
    change.first = MacTimeFromMilliseconds(modified);
    change.second = MacTimeFromMilliseconds(created);
    change.third = MacTimeFromMilliseconds(accessed);
    return change;
}

void ApplyEntryChange(CatalogRecord& record, const EntryChange& change, bool touch_access) {
    if (record.is_folder()) return Apply(record.folder(), change, touch_access);
    if (record.is_file()) return Apply(record.file(), change, touch_access);
    Common::Raise(ERROR_TAG, Common::Failures::FILE_NOT_FOUND);
}

void HFSPlusFileObject::write(const void* buffer, std::uint64_t position, std::uint64_t size,
                              std::uint64_t& written) {
    written = 0;
    if (link) return (**link).write(buffer, position, size, written);
    driver->refuse_if_unchangeable();
    content->Write(buffer, position, size, written);
}

void HFSPlusFileObject::set_size(std::uint64_t size) {
    if (link) return (**link).set_size(size);
    driver->refuse_if_unchangeable();
    content->SetSize(size);
}

void HFSPlusFileObject::ChangeRecord(const EntryChange& change) {
    if (link) return (**link).ChangeRecord(change);
    driver->refuse_if_unchangeable();
    CatalogFile& catalog = driver->metadata().GetCatalogFile();
    CatalogRecord record = catalog.GetRecordById(file_id);
    if (!record.is_file()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    ApplyEntryChange(record, change, true);
    catalog.WriteFileRecord(file_id, record);
    content->record_dirty = 1;
}

void HFSPlusFileObject::set_times(std::uint64_t modified, std::uint64_t created, std::uint64_t accessed) {
    ChangeRecord(TimesChange(modified, created, accessed));
}

void HFSPlusFileObject::SetSecurity(const void* data, std::uint32_t size) { ChangeRecord(SecurityChange(data, size)); }

void HFSPlusFileObject::SetPermissions(std::uint32_t value) {
    EntryChange change;
    change.what = EntryChange::What::kPermissions;
    change.first = value & 0xFFFF;
    ChangeRecord(change);
}

void HFSPlusFileObject::SetOwner(std::uint32_t owner, std::uint32_t group) {
    EntryChange change;
    change.what = EntryChange::What::kOwner;
    change.first = owner;
    change.second = group;
    ChangeRecord(change);
}

void HFSPlusFileObject::BecomeLink(const CatalogRecord& link_record) {
    if (!link_record.is_file() || !CatalogFile::IsHardLink(link_record)) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CREATE);
    }
    // The content was flushed before the link was made; the inode's object
    // reads the same blocks from now on. It is found before this object
    // changes, so a failure leaves the object as it was.
    auto inode = std::make_unique<HFSPlusFileReference>(driver->GetPrivateDirectory().OpenInode(link_record.id()));
    directory->ForgetFile(file_id);
    content.reset();
    file_id = link_record.id();
    hard_link = 1;
    link = std::move(inode);
    directory->open_files.emplace(file_id, this);
}

}  // namespace hfsplus
