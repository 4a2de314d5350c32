// Hard links and the deletion of files. A file that gets its second name
// moves into the private directory as its inode, "iNode<id>", and both
// names become link records that carry that id; the inode's link count
// says how many there are, and the last link to go takes the inode and its
// blocks with it.
#include "hfsplus/allocation_file.h"
#include "hfsplus/catalog_file.h"
#include "hfsplus/extents_overflow.h"
#include "hfsplus/hfsplus_driver.h"
#include "hfsplus/hfsplus_metadata.h"
#include "loader/common/raise.h"

namespace hfsplus {

namespace {

std::uint32_t LinkCount(const CatalogRecord& inode) {
    const std::uint32_t count = inode.file().permissions().special();
    if (count == 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    return count;
}

void SetLinkCount(CatalogRecord& inode, std::uint32_t count) {
    inode.file().permissions_.special_.set(count);
    inode.file().attributeModDate_.set(MacTimeNow());
}

}  // namespace

// The first hard link of a volume makes the folder, an ordinary one
// under the root, as a directory would make it.
std::uint32_t CatalogFile::EnsurePrivateDirectory() {
    const std::uint32_t present = PrivateDirectoryIdOrZero();
    if (present != 0) return present;
    CreateDirectory(HFSPlusString(kPrivateDirectoryName), kRootFolderId);
    return GetPrivateDirectoryId();
}

void CatalogFile::CreateHardLink(const HFSPlusString& source_name, std::uint32_t source_parent,
                                 const HFSPlusString& new_name, std::uint32_t new_parent) {
    CheckChange();
    if (IsTaken(new_parent, new_name)) Common::Raise(ERROR_TAG, Common::Failures::FILE_EXISTS);
    const std::uint32_t private_id = PrivateDirectoryIdOrZero();
    // An inode is reached through its links, never linked to itself.
    if (private_id != 0 && (new_parent == private_id || source_parent == private_id)) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CREATE);
    }
    CatalogRecord source = GetRecord(source_parent, source_name);
    const bool linked = IsHardLink(source);
    if (!linked && !IsRegularOrLink(source)) Common::Raise(ERROR_TAG, Common::Failures::FILE_CREATE);
    ParentFolder(new_parent, Common::Failures::FILE_CREATE);
    if (linked) {
        CatalogRecord inode = ResolveHardLink(source.id());
        const std::uint32_t count = LinkCount(inode);
        CreateHardLinkEntry(AllocateCatalogId(), new_name, new_parent, source.file().permissions().special());
        SetLinkCount(inode, count + 1);
        WriteFileRecord(inode.id(), inode);
        return;
    }
    const std::uint32_t id = source.id();
    const HFSPlusString inode_name = MakeINodeName(id);
    // The file leaves its place only when its new one is free.
    if (private_id != 0 && IsTaken(private_id, inode_name)) Common::Raise(ERROR_TAG, Common::Failures::FILE_CREATE);
    const std::uint32_t inode_parent = EnsurePrivateDirectory();
    DeleteFileEntry(id, source.name, source_parent);
    CreateEntryFromRecord(source, inode_name, inode_parent);
    CreateHardLinkEntry(AllocateCatalogId(), source.name, source_parent, id);
    CreateHardLinkEntry(AllocateCatalogId(), new_name, new_parent, id);
    SetLinkCount(source, 2);
    WriteFileRecord(id, source);
}

void CatalogFile::LoadForks(const CatalogRecord& record, ExtentsDescriptorArray& data,
                            ExtentsDescriptorArray& resource) {
    ExtentsOverflowFile& overflow = driver->metadata().GetExtentsOverflowFile();
    const HFSPlusCatalogFile& file = record.file();
    data.Append(file.dataFork().extents_, kExtentsPerRecord);
    overflow.LoadExtents(file.fileID(), kDataFork, data);
    resource.Append(file.resourceFork().extents_, kExtentsPerRecord);
    overflow.LoadExtents(file.fileID(), kResourceFork, resource);
    // Blocks freed on the word of a list that doesn't hold the fork could
    // be another file's.
    if (data.block_count() != file.dataFork().totalBlocks() ||
        resource.block_count() != file.resourceFork().totalBlocks()) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
}

void CatalogFile::FreeForks(std::uint32_t id, const ExtentsDescriptorArray& data,
                            const ExtentsDescriptorArray& resource) {
    AllocationFile& allocation = driver->metadata().GetAllocationFile();
    allocation.FreeExtents(data);
    allocation.FreeExtents(resource);
    ExtentsOverflowFile& overflow = driver->metadata().GetExtentsOverflowFile();
    overflow.DeleteRecords(id, kDataFork);
    overflow.DeleteRecords(id, kResourceFork);
    MarkDirty();
}

void CatalogFile::DeleteLinkTarget(const CatalogRecord& link) {
    CatalogRecord inode = ResolveHardLink(link.id());
    const std::uint32_t count = LinkCount(inode);
    if (count > 1) {
        SetLinkCount(inode, count - 1);
        WriteFileRecord(inode.id(), inode);
        return;
    }
    ExtentsDescriptorArray data;
    ExtentsDescriptorArray resource;
    LoadForks(inode, data, resource);
    DeleteFileEntry(inode.id(), inode.name, inode.parent_id);
    FreeForks(inode.id(), data, resource);
}

void CatalogFile::DeleteFile(const HFSPlusString& name, std::uint32_t parent) {
    CheckChange();
    const std::uint32_t private_id = PrivateDirectoryIdOrZero();
    if (private_id != 0 && parent == private_id) Common::Raise(ERROR_TAG, Common::Failures::FILE_DELETE);
    const CatalogRecord record = GetRecord(parent, name);
    if (!record.is_file()) Common::Raise(ERROR_TAG, Common::Failures::FILE_DELETE);
    ExtentsDescriptorArray data;
    ExtentsDescriptorArray resource;
    LoadForks(record, data, resource);
    if (IsHardLink(record)) DeleteLinkTarget(record);
    DeleteFileEntry(record.id(), record.name, parent);
    FreeForks(record.id(), data, resource);
}

}  // namespace hfsplus
