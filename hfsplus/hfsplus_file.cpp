#include "hfsplus/hfsplus_file.h"

#include "hfsplus/catalog_file.h"
#include "hfsplus/file_content.h"
#include "hfsplus/hfsplus_directory.h"
#include "hfsplus/hfsplus_driver.h"
#include "loader/common/raise.h"

namespace hfsplus {

HFSPlusFileReference::HFSPlusFileReference(HFSPlusFileObject* inode) : inode_(inode) {
    ++static_cast<ReferenceCount&>(*inode_).references;
    ++static_cast<FileSystemDriver::FileObject&>(*inode_).references;
}

HFSPlusFileReference::~HFSPlusFileReference() {
    --static_cast<ReferenceCount&>(*inode_).references;
    if (--static_cast<FileSystemDriver::FileObject&>(*inode_).references == 0) delete inode_;
}

HFSPlusFileObject::HFSPlusFileObject(HFSPlusDriver* driver, HFSPlusDirectoryObject* directory,
                                     const CatalogRecord& record)
    : file_id(record.id()), driver(driver), directory(directory), backup_factory(driver) {
    if (!record.is_file()) Common::Raise(ERROR_TAG, Common::Failures::FILE_OPEN);
    hard_link = CatalogFile::IsHardLink(record) ? 1 : 0;
    if (hard_link != 0) {
        link = std::make_unique<HFSPlusFileReference>(driver->GetPrivateDirectory().OpenInode(file_id));
    } else {
        content = std::make_unique<FileContent>(driver, record);
    }
    ++directory->references;
}

HFSPlusFileObject::~HFSPlusFileObject() {
    // Nobody is left to hear of a failure here.
    try {
        if (content) content->Flush();
    } catch (const Common::Error&) {
    }
    directory->ForgetFile(file_id);
    --directory->references;
}

HFSPlusFileObject& HFSPlusFileObject::Target() { return link ? *link->get() : *this; }

std::uint64_t HFSPlusFileObject::size() {
    if (link) return (**link).size();
    return content->GetSize();
}

std::uint64_t HFSPlusFileObject::sector_at(std::uint64_t position) {
    if (link) return (**link).sector_at(position);
    // A position from the framework's signed seek arrives as a huge one.
    if (position >= content->GetSize()) Common::Raise(ERROR_TAG, Common::Failures::FILE_SEEK);
    const SectorArea run = content->LocateRun(position, content->data_extents);
    if (run.IsEmpty()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    return run.first;
}

void HFSPlusFileObject::read(void* buffer, std::uint64_t position, std::uint64_t size, std::uint64_t& got) {
    got = 0;
    if (link) return (**link).read(buffer, position, size, got);
    content->Read(buffer, position, size, got);
}

void HFSPlusFileObject::flush_file() {
    if (link) return (**link).flush_file();
    content->Flush();
}

std::uint64_t HFSPlusFileObject::allocated_ranges(std::uint64_t position, std::uint64_t length) {
    if (link) return (**link).allocated_ranges(position, length);
    return content->GetAreas(position, length);
}

FileSystemDriver::BackupObject* HFSPlusFileObject::new_backup_object(std::uint32_t option) {
    flush_file();
    return backup_factory.Make(file_id, option);
}

}  // namespace hfsplus
