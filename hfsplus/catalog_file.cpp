#include "hfsplus/catalog_file.h"

#include <cstring>

#include "hfsplus/extents_overflow.h"
#include "hfsplus/node_block.h"
#include "hfsplus/volume_header.h"
#include "loader/common/byte_order.h"
#include "loader/common/raise.h"

namespace hfsplus {

namespace {

constexpr std::uint32_t kForkId = kCatalogFileId;
constexpr std::uint32_t kMaxKeySize = sizeof(HFSPlusCatalogKey);
constexpr std::uint32_t kMaxDataSize = sizeof(HFSPlusCatalogFile);
constexpr std::size_t kNameOffset = 6;  // behind keyLength and parentID
constexpr std::size_t kThreadNameOffset = 8;

// A catalog key whose bytes were checked: its parent and its name's
// characters (still big-endian) with their count.
struct KeyView {
    std::uint32_t parent;
    const unsigned char* name;
    std::size_t length;
};

KeyView ViewKey(const unsigned char* key, std::size_t size) {
    const std::size_t key_length = size >= 2 ? Common::LoadBE16(key) : 0;
    if (size < kNameOffset + 2 || key_length < kCatalogKeyMinLength || key_length + 2 > size) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    const std::size_t length = Common::LoadBE16(key + kNameOffset);
    if (length > kMaxNameLength || kCatalogKeyMinLength + 2 * length > key_length) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    return {Common::LoadBE32(key + 2), key + kNameOffset + 2, length};
}

int CompareParents(std::uint32_t a, std::uint32_t b) { return a == b ? 0 : (a < b ? -1 : 1); }

// The bytes a record of this type needs; FILE_CORRUPT for an unknown type
// or a thread whose name doesn't fit.
std::size_t RecordSizeFor(const unsigned char* data, std::size_t available) {
    if (available < 2) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    switch (Common::LoadBE16(data)) {
        case kFolderRecord:
            return sizeof(HFSPlusCatalogFolder);
        case kFileRecord:
            return sizeof(HFSPlusCatalogFile);
        case kFolderThreadRecord:
        case kFileThreadRecord: {
            if (available < kCatalogThreadMinSize) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
            const std::size_t length = Common::LoadBE16(data + kThreadNameOffset);
            if (length > kMaxNameLength) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
            return kCatalogThreadMinSize + 2 * length;
        }
        default:
            Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
}

}  // namespace

CatalogFile::CatalogFile(HFSPlusDriver* driver, std::uint16_t node_size, ExtentsOverflowFile& extents)
    : SpecialFileWithBTree(driver, kForkId, node_size, kMaxKeySize, kMaxDataSize) {
    if (IsEmpty()) return;
    binary_names = volume_header->header().signature() == kSignatureHFSX &&
                   HeaderRecord().keyCompareType() == kBinaryCompare;
    extents.CompleteExtents(*this);
    LoadMap();
}

CatalogFile::~CatalogFile() = default;

std::size_t CatalogFile::BuildKey(unsigned char* out, std::uint32_t parent, const HFSPlusString& name) {
    if (name.length() > kMaxNameLength) Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
    Common::StoreBE16(out, static_cast<std::uint16_t>(kCatalogKeyMinLength + 2 * name.length()));
    Common::StoreBE32(out + 2, parent);
    return kNameOffset + name.ToDisk(out + kNameOffset);
}

int CatalogFile::CompareKeys(const unsigned char* a, std::size_t a_size, const unsigned char* b,
                             std::size_t b_size) const {
    const KeyView x = ViewKey(a, a_size);
    const KeyView y = ViewKey(b, b_size);
    if (int order = CompareParents(x.parent, y.parent)) return order;
    if (binary_names) return CompareBinaryStored(x.name, x.length, y.name, y.length);
    return CompareFoldedStored(x.name, x.length, y.name, y.length);
}

bool CatalogFile::FollowsInChain(const KeyAndNodeIndexRecord& previous, const KeyAndNodeIndexRecord& next) const {
    const KeyView x = ViewKey(previous.key, previous.key_size);
    const KeyView y = ViewKey(next.key, next.key_size);
    if (int order = CompareParents(y.parent, x.parent)) return order > 0;
    return CompareFoldedStored(y.name, y.length, x.name, x.length) > 0 ||
           CompareBinaryStored(y.name, y.length, x.name, x.length) > 0;
}

void CatalogFile::CheckValid() const {
    if (IsEmpty()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
}

RecordPosition CatalogFile::Find(const unsigned char* key, std::size_t key_size) {
    CheckValid();
    const RecordPosition position = FindPosition(key, key_size, 1);
    if (!position.IsValid()) Common::Raise(ERROR_TAG, Common::Failures::FILE_NOT_FOUND);
    NodeBlock& node = GetNode(position.node);
    if (position.index >= node.GetRecordCount() ||
        CompareKeys(key, key_size, node.GetKey(position.index), node.GetKeySize(position.index)) != 0) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_NOT_FOUND);
    }
    return position;
}

RecordPosition CatalogFile::FindByKey(std::uint32_t parent, const HFSPlusString& name) {
    unsigned char key[kMaxKeySize];
    const std::size_t key_size = BuildKey(key, parent, name);
    return Find(key, key_size);
}

RecordPosition CatalogFile::FindThread(std::uint32_t id) { return FindByKey(id, HFSPlusString()); }

CatalogRecord CatalogFile::GetThread(std::uint32_t id) {
    CatalogRecord thread = GetRecordAt(FindThread(id));
    if (!thread.is_thread()) Common::Raise(ERROR_TAG, Common::Failures::FILE_NOT_FOUND);
    return thread;
}

RecordPosition CatalogFile::FindById(std::uint32_t id) {
    const CatalogRecord thread = GetThread(id);
    const HFSPlusString name = HFSPlusString::FromDisk(thread.thread().nodeName(), thread.size - kThreadNameOffset);
    // A thread that names no record is damage, not an absent id: a rename
    // cut short between the node of the record and the node of its thread
    // leaves one, and its file, listed in its folder, must read as corrupt.
    try {
        return FindByKey(thread.thread().parentID(), name);
    } catch (const Common::Error& error) {
        if (error.Code() != Common::FILE_NOT_FOUND) throw;
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT, error);
    }
}

CatalogRecord CatalogFile::CopyRecord(NodeBlock& node, std::uint16_t index) const {
    const KeyView key = ViewKey(node.GetKey(index), node.GetKeySize(index));
    std::size_t available = 0;
    const unsigned char* data = node.GetRecordData(index, available);
    const std::size_t size = RecordSizeFor(data, available);
    if (size > available || size > CatalogRecord::kMaxSize) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    CatalogRecord record;
    std::memcpy(record.bytes, data, size);
    record.size = size;
    record.parent_id = key.parent;
    record.name = HFSPlusString::FromStored(key.name, key.length);
    return record;
}

CatalogRecord CatalogFile::GetRecordAt(const RecordPosition& position) {
    CheckValid();
    if (!position.IsValid()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    return CopyRecord(GetLeafAt(position), position.index);
}

CatalogRecord CatalogFile::GetRecord(std::uint32_t parent, const HFSPlusString& name) {
    return GetRecordAt(FindByKey(parent, name));
}

CatalogRecord CatalogFile::GetRecordById(std::uint32_t id) { return GetRecordAt(FindById(id)); }

std::uint32_t CatalogFile::GetParentId(std::uint32_t id) { return GetThread(id).thread().parentID(); }

HFSPlusString CatalogFile::GetVolumeName() {
    const CatalogRecord thread = GetThread(kRootFolderId);
    if (thread.type() != kFolderThreadRecord) Common::Raise(ERROR_TAG, Common::Failures::FILE_NOT_FOUND);
    return HFSPlusString::FromDisk(thread.thread().nodeName(), thread.size - kThreadNameOffset);
}

std::uint32_t CatalogFile::GetPrivateDirectoryId() {
    const CatalogRecord record = GetRecord(kRootFolderId, HFSPlusString(kPrivateDirectoryName));
    if (!record.is_folder()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    return record.folder().folderID();
}

RecordPosition CatalogFile::GetFirstChild(std::uint32_t parent) {
    CheckValid();
    unsigned char key[kMaxKeySize];
    const std::size_t key_size = BuildKey(key, parent, HFSPlusString());
    RecordPosition position = FindPosition(key, key_size, 1);
    // The thread sorts first in its folder; at most one stands in front
    // of the first child.
    for (int threads = 0;; ++threads) {
        const CatalogRecord record = CopyRecord(GetLeafAt(position), position.index);
        if (record.parent_id != parent) Common::Raise(ERROR_TAG, Common::Failures::FILE_NOT_FOUND);
        if (!record.is_thread()) return position;
        if (threads > 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_NOT_FOUND);
        position = GetNextRecord(position);
    }
}

RecordPosition CatalogFile::GetNextRecord(const RecordPosition& position) {
    CheckValid();
    return GetNextLeafPosition(position);
}

bool CatalogFile::IsHardLink(const CatalogRecord& record) {
    if (!record.is_file()) return false;
    const HFSPlusCatalogFile& file = record.file();
    // Links that Linux makes carry no mode at all; the Finder codes are
    // what marks them.
    const std::uint16_t type = record.mode_type();
    return (type == kModeRegular || type == 0) && file.fdType() == kHardLinkType &&
           file.fdCreator() == kHardLinkCreator;
}

bool CatalogFile::IsDeviceRecord(const CatalogRecord& record) {
    const std::uint16_t type = record.mode_type();
    return record.is_file() && (type == kModeBlock || type == kModeCharacter || type == kModeSocket || type == kModeFifo);
}

bool CatalogFile::IsRegularOrLink(const CatalogRecord& record) {
    const std::uint16_t type = record.mode_type();
    return record.is_file() && (type == kModeRegular || type == kModeSymlink);
}

bool CatalogFile::IsNonEmptyFolder(const CatalogRecord& record) {
    return record.is_folder() && record.folder().valence() != 0;
}

CatalogRecord CatalogFile::ResolveHardLink(std::uint32_t id) {
    const CatalogRecord link = GetRecordById(id);
    if (!link.is_file()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    if (!IsHardLink(link)) Common::Raise(ERROR_TAG, Common::Failures::FILE_NOT_FOUND);
    const std::uint32_t number = link.file().permissions().special();
    CatalogRecord inode = FindInodeRecord(number);
    if (!inode.is_file()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    return inode;
}

// The link's number is the inode's catalog id on volumes whose links are
// made that way; others (Linux's among them) number links apart from the
// catalog, and then only the inode's name "iNode<number>" in the private
// directory leads to it, as the published format has it.
CatalogRecord CatalogFile::FindInodeRecord(std::uint32_t number) {
    try {
        return GetRecordById(number);
    } catch (const Common::Error& error) {
        if (error.Code() != Common::FILE_NOT_FOUND) throw;
    }
    return GetRecord(GetPrivateDirectoryId(), MakeINodeName(number));
}

}  // namespace hfsplus
