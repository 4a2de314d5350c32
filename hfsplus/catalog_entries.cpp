// The making and removing of single catalog entries: a file or folder
// record with its thread, the parent's valence and the volume header's
// counts kept in step, catalog ids given out, records rewritten in place.
#include <cstring>

#include "hfsplus/catalog_file.h"
#include "hfsplus/hfsplus_driver.h"
#include "hfsplus/node_block.h"
#include "hfsplus/volume_header.h"
#include "loader/common/byte_order.h"
#include "loader/common/raise.h"

namespace hfsplus {

namespace {

constexpr std::size_t kThreadNameOffset = 8;  // behind type, reserved and parentID
constexpr std::uint16_t kHasThread = 0x0002;
// A folder that keeps the count of its child folders (HFSX volumes do).
constexpr std::uint16_t kHasFolderCount = 0x0010;
constexpr std::uint32_t kUnknownOwner = 99;
constexpr std::uint16_t kFileMode = 0100644;
constexpr std::uint16_t kFolderMode = 040755;
constexpr std::uint16_t kSymlinkMode = 0120644;
constexpr std::uint16_t kHardLinkFinderFlags = 0x0100;

std::size_t ThreadOf(unsigned char* out, std::uint16_t type, std::uint32_t parent, const HFSPlusString& name) {
    std::memset(out, 0, 8);
    Common::StoreBE16(out, type);
    Common::StoreBE32(out + 4, parent);
    return 8 + name.ToDisk(out + 8);
}

void SetOwner(HFSPlusCatalogFile& file, std::uint32_t owner, std::uint16_t mode) {
    file.permissions_.ownerID_.set(owner);
    file.permissions_.groupID_.set(owner);
    file.permissions_.fileMode_.set(mode);
}

void SetFinderCodes(HFSPlusCatalogFile& file, std::uint32_t type, std::uint32_t creator) {
    file.fdType_.set(type);
    file.fdCreator_.set(creator);
}

std::uint32_t Add(std::uint32_t value, int delta) {
    // A count that would pass 0 stays there: a damaged count is no reason
    // to refuse the change that met it.
    if (delta < 0 && value < static_cast<std::uint32_t>(-delta)) return 0;
    return value + static_cast<std::uint32_t>(delta);
}

}  // namespace

void CatalogFile::CheckChange() const {
    if (driver->read_only != 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_READ_ONLY);
    CheckValid();
}

CatalogRecord CatalogFile::ParentFolder(std::uint32_t parent, const Common::Failure& failure) {
    CatalogRecord record = GetRecordById(parent);
    if (!record.is_folder() || record.id() != parent) Common::Raise(ERROR_TAG, failure);
    return record;
}

CatalogRecord CatalogFile::NewRecord(std::uint16_t type, std::uint32_t id, const CatalogRecord& parent) {
    CatalogRecord record;
    const std::uint32_t now = MacTimeNow();
    // Folder and file records share the layout of their first 48 bytes and
    // the place of the text encoding.
    HFSPlusCatalogFolder& common = record.folder();
    common.recordType_.set(type);
    common.folderID_.set(id);
    common.createDate_.set(now);
    common.contentModDate_.set(now);
    common.attributeModDate_.set(now);
    common.accessDate_.set(now);
    common.permissions_.ownerID_.set(kUnknownOwner);
    common.permissions_.groupID_.set(kUnknownOwner);
    common.textEncoding_ = parent.folder().textEncoding_;
    record.size = type == kFolderRecord ? sizeof(HFSPlusCatalogFolder) : sizeof(HFSPlusCatalogFile);
    if (type == kFileRecord) record.file().flags_.set(kHasThread);
    return record;
}

CatalogRecord CatalogFile::CreateFileEntry(std::uint32_t id, const HFSPlusString& name, std::uint32_t parent) {
    CheckChange();
    const CatalogRecord folder = ParentFolder(parent, Common::Failures::FILE_CREATE);
    CatalogRecord record = NewRecord(kFileRecord, id, folder);
    SetOwner(record.file(), kUnknownOwner, kFileMode);
    SetFinderCodes(record.file(), 0, kHardLinkCreator);
    return AddEntry(record, name, folder);
}

CatalogRecord CatalogFile::CreateFolderEntry(std::uint32_t id, const HFSPlusString& name, std::uint32_t parent) {
    CheckChange();
    const CatalogRecord folder = ParentFolder(parent, Common::Failures::FILE_CREATE);
    CatalogRecord record = NewRecord(kFolderRecord, id, folder);
    record.folder().permissions_.fileMode_.set(kFolderMode);
    // fsck.hfsplus wants every folder of an HFSX volume to keep the count
    // of its child folders.
    if (volume_header->header().signature() == kSignatureHFSX) record.folder().flags_.set(kHasFolderCount);
    return AddEntry(record, name, folder);
}

CatalogRecord CatalogFile::CreateSymlinkEntry(std::uint32_t id, const HFSPlusString& name, std::uint32_t parent,
                                              std::uint32_t type) {
    CheckChange();
    if (type != kSymlinkType) Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
    const CatalogRecord folder = ParentFolder(parent, Common::Failures::FILE_CREATE);
    CatalogRecord record = NewRecord(kFileRecord, id, folder);
    SetOwner(record.file(), kUnknownOwner, kSymlinkMode);
    SetFinderCodes(record.file(), kSymlinkType, kSymlinkCreator);
    return AddEntry(record, name, folder);
}

// A link's dates are the volume's birth, its owner root: only the inode's
// own record speaks for the file.
CatalogRecord CatalogFile::CreateHardLinkEntry(std::uint32_t id, const HFSPlusString& name, std::uint32_t parent,
                                               std::uint32_t inode, std::uint32_t type) {
    CheckChange();
    if (type != kHardLinkType) Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
    const CatalogRecord folder = ParentFolder(parent, Common::Failures::FILE_CREATE);
    const std::uint32_t born = ParentFolder(kRootFolderId, Common::Failures::FILE_CORRUPT).folder().createDate();
    CatalogRecord record = NewRecord(kFileRecord, id, folder);
    HFSPlusCatalogFile& file = record.file();
    file.createDate_.set(born);
    file.contentModDate_.set(born);
    file.attributeModDate_.set(born);
    file.accessDate_.set(born);
    SetOwner(file, 0, kModeRegular);
    file.permissions_.special_.set(inode);
    SetFinderCodes(file, kHardLinkType, kHardLinkCreator);
    file.fdFlags_.set(kHardLinkFinderFlags);
    return AddEntry(record, name, folder);
}

CatalogRecord CatalogFile::CreateEntryFromRecord(const CatalogRecord& record, const HFSPlusString& name,
                                                 std::uint32_t parent) {
    CheckChange();
    const bool sized = record.is_folder() ? record.size == sizeof(HFSPlusCatalogFolder)
                                          : record.is_file() && record.size == sizeof(HFSPlusCatalogFile);
    if (!sized) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    return AddEntry(record, name, ParentFolder(parent, Common::Failures::FILE_CREATE));
}

CatalogRecord CatalogFile::AddEntry(const CatalogRecord& record, const HFSPlusString& name, CatalogRecord parent) {
    const std::uint32_t parent_id = parent.id();
    unsigned char key[sizeof(HFSPlusCatalogKey)];
    const std::size_t key_size = BuildKey(key, parent_id, name);
    InsertRecord(key, key_size, record.bytes, record.size, 1);
    unsigned char thread_key[sizeof(HFSPlusCatalogKey)];
    const std::size_t thread_key_size = BuildKey(thread_key, record.id(), HFSPlusString());
    unsigned char thread[sizeof(HFSPlusCatalogThread)];
    const std::uint16_t thread_type = record.is_folder() ? kFolderThreadRecord : kFileThreadRecord;
    const std::size_t thread_size = ThreadOf(thread, thread_type, parent_id, name);
    try {
        InsertRecord(thread_key, thread_key_size, thread, thread_size, 1);
    } catch (const Common::Error&) {
        // An id that has a thread already (or a tree out of room) must not
        // leave a record that no thread leads to.
        try {
            RemoveKey(parent_id, name);
        } catch (const Common::Error&) {
        }
        throw;
    }
    CountChild(parent, record.is_folder(), 1);
    CountInHeader(record.is_folder(), 1);
    CatalogRecord made = record;
    made.parent_id = parent_id;
    made.name = name;
    return made;
}

void CatalogFile::CountChild(CatalogRecord parent, bool folder, int delta) {
    HFSPlusCatalogFolder& record = parent.folder();
    const std::uint32_t now = MacTimeNow();
    record.valence_.set(Add(record.valence(), delta));
    if (folder && (record.flags() & kHasFolderCount) != 0) {
        record.folderCount_.set(Add(record.folderCount_.get(), delta));
    }
    record.contentModDate_.set(now);
    record.attributeModDate_.set(now);
    WriteFolderRecord(parent.id(), parent);
    MarkDirty();
}

void CatalogFile::CountInHeader(bool folder, int delta) {
    VolumeHeader& header = volume_header->header();
    if (folder) {
        header.folderCount_.set(Add(header.folderCount(), delta));
    } else {
        header.fileCount_.set(Add(header.fileCount(), delta));
    }
    volume_header->MarkDirty();
    MarkDirty();
}

std::uint32_t CatalogFile::AllocateCatalogId() {
    CheckChange();
    VolumeHeader& header = volume_header->header();
    const std::uint32_t next = header.nextCatalogID();
    if (next < kFirstUserCatalogId) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    if ((header.attributes() & kVolumeCatalogIdsReused) == 0) {
        if (next == 0xFFFFFFFFu) Common::Raise(ERROR_TAG, Common::Failures::FILE_DISK_FULL);
        header.nextCatalogID_.set(next + 1);
        volume_header->MarkDirty();
        return next;
    }
    for (std::uint32_t id = next == 0xFFFFFFFFu ? kFirstUserCatalogId : next; id != 0xFFFFFFFFu; ++id) {
        try {
            FindThread(id);
            continue;
        } catch (const Common::Error& error) {
            if (error.Code() != Common::FILE_NOT_FOUND) throw;
        }
        header.nextCatalogID_.set(id + 1);
        volume_header->MarkDirty();
        return id;
    }
    header.nextCatalogID_.set(0xFFFFFFFFu);
    volume_header->MarkDirty();
    Common::Raise(ERROR_TAG, Common::Failures::FILE_DISK_FULL);
}

void CatalogFile::WriteFileRecord(std::uint32_t id, const CatalogRecord& record) {
    WriteRecord(id, record, kFileRecord);
}

void CatalogFile::WriteFolderRecord(std::uint32_t id, const CatalogRecord& record) {
    WriteRecord(id, record, kFolderRecord);
}

// The record keeps its key and its size, so it changes in its node in
// place and no other node needs to know.
void CatalogFile::WriteRecord(std::uint32_t id, const CatalogRecord& record, std::uint16_t type) {
    CheckChange();
    const std::size_t size = type == kFolderRecord ? sizeof(HFSPlusCatalogFolder) : sizeof(HFSPlusCatalogFile);
    if (record.type() != type || record.size != size || record.id() != id) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    const RecordPosition position = FindById(id);
    const CatalogRecord present = GetRecordAt(position);
    if (present.type() != type || present.id() != id) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    NodeBlock& node = GetLeafAt(position);
    std::size_t available = 0;
    const unsigned char* data = node.GetRecordData(position.index, available);
    if (available < size) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    unsigned char* target = node.RecordBytes(position.index) + (data - node.GetRecord(position.index));
    std::memcpy(target, record.bytes, size);
    node.SetDirty(true);
    MarkDirty();
}

void CatalogFile::RemoveKey(std::uint32_t parent, const HFSPlusString& name) {
    unsigned char key[sizeof(HFSPlusCatalogKey)];
    const std::size_t key_size = BuildKey(key, parent, name);
    const RecordPosition position = FindPosition(key, key_size, 1);
    if (!position.IsValid()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    NodeBlock& node = GetNode(position.node);
    if (position.index >= node.GetRecordCount() ||
        CompareKeys(key, key_size, node.GetKey(position.index), node.GetKeySize(position.index)) != 0) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    DeleteRecord(key, key_size, position);
}

// Everything is looked at before the first record goes: the entry must be
// the one of `id`, its thread must lead back to it, the parent must be a
// folder. A mismatch is damage, and nothing is touched.
void CatalogFile::DeleteEntry(std::uint32_t id, const HFSPlusString& name, std::uint32_t parent) {
    CheckChange();
    const CatalogRecord folder = ParentFolder(parent, Common::Failures::FILE_CORRUPT);
    const CatalogRecord entry = GetRecord(parent, name);
    const CatalogRecord thread = GetThread(id);
    const HFSPlusString thread_name =
        HFSPlusString::FromDisk(thread.thread().nodeName(), thread.size - kThreadNameOffset);
    unsigned char a[sizeof(HFSPlusCatalogKey)];
    unsigned char b[sizeof(HFSPlusCatalogKey)];
    const std::size_t a_size = BuildKey(a, parent, name);
    const std::size_t b_size = BuildKey(b, thread.thread().parentID(), thread_name);
    if (entry.id() != id || CompareKeys(a, a_size, b, b_size) != 0) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    RemoveKey(id, HFSPlusString());
    RemoveKey(parent, name);
    CountChild(folder, entry.is_folder(), -1);
}

void CatalogFile::DeleteFileEntry(std::uint32_t id, const HFSPlusString& name, std::uint32_t parent) {
    DeleteEntry(id, name, parent);
    CountInHeader(false, -1);
}

void CatalogFile::DeleteFolderEntry(std::uint32_t id, const HFSPlusString& name, std::uint32_t parent) {
    DeleteEntry(id, name, parent);
    CountInHeader(true, -1);
}

}  // namespace hfsplus
