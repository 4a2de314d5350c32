#include "hfsplus/hfsplus_iterator.h"

#include <cstring>
#include <memory>
#include <vector>

#include "files/dir_object.h"
#include "files/file_identifier.h"
#include "files/utf_conversion.h"
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

// The longest symbolic link target taken: the longest path the systems
// that write HFS+ accept. A longer one is damage, not a path.
constexpr std::uint64_t kMostLinkTargetBytes = 4096;

// Folder and file records lay out the fields below alike; each reads them
// through its own view.
const BSDInfo& PermissionsOf(const CatalogRecord& record) {
    return record.is_folder() ? record.folder().permissions() : record.file().permissions();
}
std::uint16_t FinderFlagsOf(const CatalogRecord& record) {
    return record.is_folder() ? record.folder().frFlags() : record.file().fdFlags();
}
std::uint32_t CreateDateOf(const CatalogRecord& r) {
    return r.is_folder() ? r.folder().createDate() : r.file().createDate();
}
std::uint32_t ContentModDateOf(const CatalogRecord& r) {
    return r.is_folder() ? r.folder().contentModDate() : r.file().contentModDate();
}
std::uint32_t AttributeModDateOf(const CatalogRecord& r) {
    return r.is_folder() ? r.folder().attributeModDate() : r.file().attributeModDate();
}
std::uint32_t AccessDateOf(const CatalogRecord& r) {
    return r.is_folder() ? r.folder().accessDate() : r.file().accessDate();
}

std::uint32_t KindOfModeType(std::uint16_t type) {
    switch (type) {
        case kModeDirectory: return KIND_DIRECTORY;
        case kModeSymlink: return KIND_SYMLINK;
        case kModeCharacter: return KIND_CHARACTER_DEVICE;
        case kModeBlock: return KIND_BLOCK_DEVICE;
        case kModeSocket: return KIND_SOCKET;
        case kModeFifo: return KIND_FIFO;
        default: return KIND_FILE;
    }
}

}  // namespace

HFSPlusIteratorObject::HFSPlusIteratorObject(HFSPlusDirectoryObject* directory)
    : driver(directory->hfs),
      directory(directory),
      content(&driver->metadata(), directory->catalog_id),
      items(&driver->metadata(), &content),
      host_name(items.name.ToHost()) {
    ++directory->references;
}

HFSPlusIteratorObject::HFSPlusIteratorObject(HFSPlusDirectoryObject* directory, const HFSPlusString& name)
    : driver(directory->hfs),
      directory(directory),
      content(&driver->metadata(), directory->catalog_id),
      items(&driver->metadata(), &content, name),
      host_name(items.name.ToHost()) {
    ++directory->references;
}

HFSPlusIteratorObject::~HFSPlusIteratorObject() { --directory->references; }

bool HFSPlusIteratorObject::StepOverHidden() {
    while (!items.AtEnd() && IsHiddenName(host_name, items.directory_id)) {
        items.Step();
        host_name = items.name.ToHost();
    }
    return !items.AtEnd();
}

bool HFSPlusIteratorObject::PlaceOnFirstVisible() { return StepOverHidden(); }

bool HFSPlusIteratorObject::next() {
    if (items.AtEnd()) return false;
    items.Step();
    host_name = items.name.ToHost();
    return StepOverHidden();
}

CatalogRecord HFSPlusIteratorObject::Record() {
    if (items.AtEnd()) Common::Raise(ERROR_TAG, Common::Failures::FILE_EOF);
    CatalogRecord record = driver->metadata().GetCatalogFile().GetRecordAt(items.position);
    if (record.id() != items.item_id) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    if (!record.is_folder() && !record.is_file()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    return record;
}

CatalogRecord HFSPlusIteratorObject::Inode(const CatalogRecord& record) {
    if (!CatalogFile::IsHardLink(record)) return record;
    return driver->metadata().GetCatalogFile().ResolveHardLink(record.id());
}

file_identifier* HFSPlusIteratorObject::identifier() { return new the_identifier(name().c_str(), nullptr, 0); }

std::u16string HFSPlusIteratorObject::name() {
    if (host_name.empty()) Common::Raise(ERROR_TAG, Common::Failures::FILE_EOF);
    return host_name;
}

std::uint64_t HFSPlusIteratorObject::size() {
    const CatalogRecord record = Record();
    if (record.is_folder()) return 0;
    return CheckedForkSize(*driver, Inode(record).file().dataFork());
}

std::uint64_t HFSPlusIteratorObject::allocated_size() {
    const CatalogRecord record = Record();
    if (record.is_folder()) return 0;
    const CatalogRecord inode = Inode(record);
    CheckedForkSize(*driver, inode.file().dataFork());
    return std::uint64_t(inode.file().dataFork().totalBlocks()) * driver->block_size();
}

std::uint32_t HFSPlusIteratorObject::kind() { return KindOfModeType(Record().mode_type()); }

file_time HFSPlusIteratorObject::modified() {
    return MillisecondsFromMacTime(ContentModDateOf(Inode(Record())));
}

file_time HFSPlusIteratorObject::changed() {
    return MillisecondsFromMacTime(AttributeModDateOf(Inode(Record())));
}

file_time HFSPlusIteratorObject::created() { return MillisecondsFromMacTime(CreateDateOf(Inode(Record()))); }

file_time HFSPlusIteratorObject::accessed() { return MillisecondsFromMacTime(AccessDateOf(Inode(Record()))); }

bool HFSPlusIteratorObject::hidden() {
    const CatalogRecord record = Record();
    if (!host_name.empty() && host_name[0] == u'.') return true;
    return (FinderFlagsOf(Inode(record)) & kFinderInvisible) != 0;
}

std::uint64_t HFSPlusIteratorObject::object_id() { return Record().id(); }

std::uint64_t HFSPlusIteratorObject::first_sector() {
    const CatalogRecord record = Record();
    if (record.is_folder()) return 0;
    const std::uint32_t start = Inode(record).file().dataFork().extent(0).startBlock();
    if (start == 0) return 0;
    const std::uint64_t sector = std::uint64_t(start) * driver->sectors_per_block();
    if (sector >= driver->volume_sectors) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    return sector;
}

std::uint32_t HFSPlusIteratorObject::permissions() { return PermissionsOf(Inode(Record())).fileMode(); }

std::uint32_t HFSPlusIteratorObject::security(void* buffer) {
    const CatalogRecord inode = Inode(Record());
    if (buffer != nullptr) std::memcpy(buffer, &PermissionsOf(inode), sizeof(BSDInfo));
    return sizeof(BSDInfo);
}

std::uint32_t HFSPlusIteratorObject::links() {
    const CatalogRecord record = Record();
    if (!CatalogFile::IsHardLink(record)) return 1;
    const std::uint32_t count = PermissionsOf(Inode(record)).special();
    if (count == 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    return count;
}

std::uint32_t HFSPlusIteratorObject::owner() { return PermissionsOf(Inode(Record())).ownerID(); }

std::uint32_t HFSPlusIteratorObject::group() { return PermissionsOf(Inode(Record())).groupID(); }

std::uint32_t HFSPlusIteratorObject::DeviceNumber() {
    const CatalogRecord record = Record();
    if (!CatalogFile::IsDeviceRecord(record)) Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
    return record.file().permissions().special();
}

std::uint32_t HFSPlusIteratorObject::device_major() { return DeviceNumber() >> 16; }

std::uint32_t HFSPlusIteratorObject::device_minor() { return DeviceNumber() & 0xFFFF; }

std::u16string HFSPlusIteratorObject::link_target() {
    const CatalogRecord record = Record();
    if (!record.is_file() || record.mode_type() != kModeSymlink) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
    }
    // The link's live object if it has one; else one held for this call only.
    std::unique_ptr<HFSPlusFileObject> held;
    HFSPlusFileObject* file = directory->FindOpenFile(record.id());
    if (file == nullptr) {
        file = directory->OpenRecord(record);
        held.reset(file);
    }
    const std::uint64_t size = file->size();
    if (size == 0 || size > kMostLinkTargetBytes) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    std::vector<char> bytes(size + 1, 0);
    std::uint64_t got = 0;
    file->read(bytes.data(), 0, size, got);
    if (got != size) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    target = utf8_to_utf16(bytes.data(), size);
    return target;
}

}  // namespace hfsplus
