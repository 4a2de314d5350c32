// The changes of a folder: files and folders made, removed and renamed,
// symbolic links made. The catalog does the records; this side keeps the
// rules that concern names and open objects.
#include <memory>
#include <string>

#include "hfsplus/attributes_file.h"
#include "hfsplus/catalog_file.h"
#include "hfsplus/hfsplus_directory.h"
#include "hfsplus/hfsplus_driver.h"
#include "hfsplus/hfsplus_file.h"
#include "hfsplus/hfsplus_iterator.h"
#include "hfsplus/hfsplus_metadata.h"
#include "hfsplus/journaled_object.h"
#include "loader/common/raise.h"

namespace hfsplus {

namespace {

constexpr unsigned kAttributesComponent = 5;

bool IsNotFound(const Common::Error& error) { return error.Code() == Common::FILE_NOT_FOUND; }

// A name a new entry can take: 1 to 255 characters, no "." or "..".
void CheckNewName(const std::u16string& name, const Common::Failure& failure) {
    if (name.empty() || name.size() > kMaxNameLength || IsDotName(name)) Common::Raise(ERROR_TAG, failure);
}

// Each 16-bit unit by itself: a link's target is kept as the bytes the
// caller's units give, as the link's reader decodes them.
std::string TargetBytes(const std::u16string& target) {
    std::string bytes;
    for (const char16_t unit : target) {
        if (unit < 0x80) {
            bytes += static_cast<char>(unit);
        } else if (unit < 0x800) {
            bytes += static_cast<char>(0xC0 | (unit >> 6));
            bytes += static_cast<char>(0x80 | (unit & 0x3F));
        } else {
            bytes += static_cast<char>(0xE0 | (unit >> 12));
            bytes += static_cast<char>(0x80 | ((unit >> 6) & 0x3F));
            bytes += static_cast<char>(0x80 | (unit & 0x3F));
        }
    }
    return bytes;
}

}  // namespace

void HFSPlusDirectoryObject::TouchDirectory() {
    hfs->refuse_if_unchangeable();
    CatalogFile& catalog = hfs->metadata().GetCatalogFile();
    CatalogRecord record = catalog.GetRecordById(catalog_id);
    if (!record.is_folder()) Common::Raise(ERROR_TAG, Common::Failures::FILE_OPEN);
    record.folder().accessDate_.set(MacTimeNow());
    catalog.WriteFolderRecord(catalog_id, record);
}

FileSystemDriver::FileObject* HFSPlusDirectoryObject::create_file(const std::u16string& name) {
    hfs->refuse_if_unchangeable();
    CheckNewName(name, Common::Failures::FILE_CREATE);
    // Emptying the journal's files would lose the volume's journal.
    if (IsJournalName(name, catalog_id)) Common::Raise(ERROR_TAG, Common::Failures::FILE_DELETE);
    TouchDirectory();
    CatalogFile& catalog = hfs->metadata().GetCatalogFile();
    CatalogRecord record;
    try {
        record = GetChild(name);
    } catch (const Common::Error& error) {
        if (!IsNotFound(error)) throw;
        return OpenRecord(catalog.CreateFile(HFSPlusString(name), catalog_id));
    }
    // Emptying a file that someone holds would pull its bytes from under them.
    if (!record.is_file() || FindOpenFile(record.id()) != nullptr ||
        (CatalogFile::IsHardLink(record) && IsInodeOpen(record))) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_DELETE);
    }
    std::unique_ptr<HFSPlusFileObject> file(OpenRecord(record));
    file->set_size(0);
    return file.release();
}

void HFSPlusDirectoryObject::remove_file(const std::u16string& name) {
    hfs->refuse_if_unchangeable();
    if (IsDotName(name) || IsJournalName(name, catalog_id)) Common::Raise(ERROR_TAG, Common::Failures::FILE_DELETE);
    TouchDirectory();
    CatalogFile& catalog = hfs->metadata().GetCatalogFile();
    const CatalogRecord record = GetChild(name);
    if (!record.is_file()) Common::Raise(ERROR_TAG, Common::Failures::FILE_DELETE);
    std::uint32_t inode_id = 0;
    std::uint32_t link_count = 0;
    if (CatalogFile::IsHardLink(record)) {
        const CatalogRecord inode = catalog.ResolveHardLink(record.id());
        if (!inode.is_file() || inode.file().permissions().special() == 0) {
            Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        }
        inode_id = inode.id();
        link_count = inode.file().permissions().special();
    }
    if (!CanDelete(name)) Common::Raise(ERROR_TAG, Common::Failures::FILE_DELETE);
    catalog.DeleteFile(record.name, catalog_id);
    if (!hfs->metadata().HasComponent(kAttributesComponent)) return;
    AttributesFile& attributes = hfs->metadata().GetAttributesFile();
    attributes.DeleteAttributes(record.id());
    if (inode_id != 0 && link_count == 1) attributes.DeleteAttributes(inode_id);
}

void HFSPlusDirectoryObject::remove_directory_entry(const std::u16string& name) {
    hfs->refuse_if_unchangeable();
    if (IsDotName(name)) Common::Raise(ERROR_TAG, Common::Failures::FILE_DELETE);
    TouchDirectory();
    const CatalogRecord record = GetChild(name);
    if (!record.is_folder() || record.id() == kRootFolderId || !CanDelete(name)) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_DELETE);
    }
    hfs->metadata().GetCatalogFile().DeleteFolder(record.name, catalog_id);
    if (hfs->metadata().HasComponent(kAttributesComponent)) {
        hfs->metadata().GetAttributesFile().DeleteAttributes(record.id());
    }
}

void HFSPlusDirectoryObject::make_directory(const std::u16string& name) {
    hfs->refuse_if_unchangeable();
    CheckNewName(name, Common::Failures::FILE_CREATE);
    TouchDirectory();
    CatalogRecord record;
    try {
        record = GetChild(name);
    } catch (const Common::Error& error) {
        if (!IsNotFound(error)) throw;
        hfs->metadata().GetCatalogFile().CreateDirectory(HFSPlusString(name), catalog_id);
        return;
    }
    Common::Raise(ERROR_TAG, record.is_folder() ? Common::Failures::FILE_CREATE : Common::Failures::FILE_EXISTS);
}

void HFSPlusDirectoryObject::symlink_entry(const std::u16string& name, const std::u16string& target) {
    hfs->refuse_if_unchangeable();
    CheckNewName(name, Common::Failures::FILE_CREATE);
    if (target.empty()) Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
    TouchDirectory();
    CatalogFile& catalog = hfs->metadata().GetCatalogFile();
    if (catalog.IsTaken(catalog_id, HFSPlusString(name))) Common::Raise(ERROR_TAG, Common::Failures::FILE_CREATE);
    const std::string bytes = TargetBytes(target);
    // Held only for the writing: the link's object has no other owner.
    std::unique_ptr<HFSPlusFileObject> link(OpenRecord(catalog.CreateSymlink(HFSPlusString(name), catalog_id)));
    if (!link) Common::Raise(ERROR_TAG, Common::Failures::FILE_NO_MEMORY);
    std::uint64_t written = 0;
    link->write(bytes.data(), 0, bytes.size(), written);
    if (written != bytes.size()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CREATE);
    link->flush_file();
}

void HFSPlusDirectoryObject::rename_entry(const std::u16string& name, DirectoryObject& target,
                                          const std::u16string& new_name) {
    hfs->refuse_if_unchangeable();
    auto* to = dynamic_cast<HFSPlusDirectoryObject*>(&target);
    // The journal's files are found by their names in the root.
    if (IsDotName(name) || to == nullptr || to->hfs != hfs || IsJournalName(name, catalog_id) ||
        IsJournalName(new_name, to->catalog_id)) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_RENAME);
    }
    CheckNewName(new_name, Common::Failures::FILE_RENAME);
    TouchDirectory();
    CatalogRecord record;
    try {
        record = GetChild(name);
    } catch (const Common::Error& error) {
        if (!IsNotFound(error)) throw;
        Common::Raise(ERROR_TAG, Common::Failures::FILE_RENAME);
    }
    bool same_inode = false;
    if (record.is_folder()) {
        // Only empty folders leave their parent.
        if (to != this && record.folder().valence() != 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_RENAME);
    } else if (!record.is_file()) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_RENAME);
    } else if (CatalogFile::IsHardLink(record)) {
        same_inode = to->IsLinkTo(new_name, record.file().permissions().special());
    }
    if (!same_inode) {
        if (to != this && record.is_file() && FindOpenFile(record.id()) != nullptr) {
            Common::Raise(ERROR_TAG, Common::Failures::FILE_RENAME);
        }
        to->CheckRenameTarget(new_name, to == this ? record.id() : 0);
    }
    hfs->metadata().GetCatalogFile().Rename(record.name, catalog_id, HFSPlusString(new_name), to->catalog_id);
}

bool HFSPlusDirectoryObject::IsLinkTo(const std::u16string& name, std::uint32_t inode_number) {
    try {
        const CatalogRecord other = GetChild(name);
        return other.is_file() && CatalogFile::IsHardLink(other) &&
               other.file().permissions().special() == inode_number;
    } catch (const Common::Error& error) {
        if (!IsNotFound(error)) throw;
        return false;
    }
}

void HFSPlusDirectoryObject::CheckRenameTarget(const std::u16string& name, std::uint32_t own_id) {
    std::unique_ptr<IteratorObject> found;
    try {
        found.reset(find(name));
    } catch (const Common::Error& error) {
        if (!IsNotFound(error)) throw;
        return;
    }
    if (!found) Common::Raise(ERROR_TAG, Common::Failures::FILE_RENAME);
    // Under the folding order a new case of the same name finds the entry
    // itself; anything else standing there is not overwritten.
    if (own_id == 0 || found->object_id() != own_id) Common::Raise(ERROR_TAG, Common::Failures::FILE_EXISTS);
}

}  // namespace hfsplus
