// Attributes and names taken out of a file's records, and the file itself
// deleted when its last link went and its last holder lets go.
#include <cstring>

#include "loader/common/byte_order.h"
#include "loader/common/raise.h"
#include "ntfs/file_record_impl.h"
#include "ntfs/index_tree.h"
#include "ntfs/mft.h"
#include "ntfs/ntfs_driver.h"
#include "ntfs/record_layout.h"
#include "ntfs/run_list.h"
#include "ntfs/system_indexes.h"

namespace ntfs {

namespace {

// Volumes before this version keep no index of object ids.
constexpr std::uint16_t kFirstVersionWithObjIds = 0x0300;
constexpr std::uint32_t kObjectIdLength = 16;

}  // namespace

void BaseFileRecordImpl::cutFromRecord(RecordBuffer* buffer, AttributeRecord* header) {
    const auto at = static_cast<std::uint32_t>(reinterpret_cast<unsigned char*>(header) - buffer->data());
    const std::uint32_t length = header->length();
    shiftTail(buffer, at + length, -std::int64_t(length));
}

void BaseFileRecordImpl::freeClusters(AttributeRecord* header) {
    if (!header->non_resident()) return;
    const std::uint32_t pairs = header->mapping_pairs_offset();
    const std::uint64_t clusters = driver_->total_sectors / driver_->sectors_per_cluster;
    RunList runs = RunList::Decode(reinterpret_cast<unsigned char*>(header) + pairs, header->length() - pairs,
                                   header->lowest_vcn(), header->highest_vcn(), clusters);
    runs.freeAll(driver_);
}

void BaseFileRecordImpl::dropEmptyExtension(RecordBuffer* buffer) {
    if (buffer == base_) return;
    const auto* first = reinterpret_cast<const AttributeRecord*>(buffer->data() + buffer->header()->attrs_offset());
    if (first->type() != kAttributeEnd) return;
    extensions_.erase(buffer->number);
    freeExtension(buffer);
}

void BaseFileRecordImpl::eraseExtents(std::uint32_t type, const std::u16string& name, std::uint64_t from,
                                      bool just_one) {
    // The clusters go only once no record names them.
    std::vector<RunList> clusters;
    for (std::uint64_t vcn = from;;) {
        AttributeRecord* header = locate(type, name, vcn);
        if (header == nullptr) break;
        const bool more = header->non_resident() && header->highest_vcn() + 1 > vcn;
        const std::uint64_t next = more ? header->highest_vcn() + 1 : 0;
        if (header->non_resident()) {
            const std::uint32_t pairs = header->mapping_pairs_offset();
            const std::uint64_t total = driver_->total_sectors / driver_->sectors_per_cluster;
            clusters.push_back(RunList::Decode(reinterpret_cast<unsigned char*>(header) + pairs,
                                               header->length() - pairs, header->lowest_vcn(),
                                               header->highest_vcn(), total));
        }
        RecordBuffer* buffer = holderOf(header);
        if (has_list_) dropFromList(buffer->number, header);
        cutFromRecord(buffer, header);
        mft_->flushRecord(buffer->number);
        dropEmptyExtension(buffer);
        if (!more || just_one) break;
        vcn = next;
    }
    if (has_list_) writeList();
    for (RunList& runs : clusters) runs.freeAll(driver_);
}

void BaseFileRecordImpl::forgetObjectId() {
    ObjectIdIndex* index = driver_->objid_file ? driver_->objid_file->index() : nullptr;
    if (driver_->version < kFirstVersionWithObjIds || index == nullptr) return;
    Attribute* object_id = findAttribute(kObjectId, std::u16string());
    if (object_id == nullptr) return;
    unsigned char id[kObjectIdLength];
    bool whole = false;
    try {
        whole = object_id->read(0, kObjectIdLength, id) == kObjectIdLength;
    } catch (...) {
        releaseAttribute(object_id);
        throw;
    }
    releaseAttribute(object_id);
    if (!whole) return;
    ObjectIdIndex::Wanted wanted{};
    for (std::size_t i = 0; i < wanted.size(); ++i) wanted[i] = Common::LoadLE32(id + 4 * i);
    IndexCursor cursor;
    if (index->find(wanted, cursor)) index->remove(cursor);
}

void BaseFileRecordImpl::deleteFile() {
    forgetObjectId();
    loadList();
    for (const ListEntry& entry : list_) recordOf(entry.record);
    std::vector<RecordBuffer*> records{base_};
    for (auto& extension : extensions_) records.push_back(extension.second);
    for (RecordBuffer* buffer : records) {
        for (std::uint32_t offset = buffer->header()->attrs_offset();;) {
            auto* header = reinterpret_cast<AttributeRecord*>(buffer->data() + offset);
            if (header->type() == kAttributeEnd) break;
            freeClusters(header);
            offset += header->length();
        }
    }
    for (RecordBuffer* buffer : records) mft_->freeRecord(buffer);
}

void BaseFileRecordImpl::dropAttribute(Attribute* attribute, bool erase) {
    if (attribute == nullptr) return;
    if (!erase) return releaseAttribute(attribute);
    auto found = attributes_.find(attribute->header());
    if (found == attributes_.end() || found->second.object.get() != attribute)
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    if (found->second.uses > 1) Common::Raise(ERROR_TAG, Common::Failures::FILE_BUSY);
    const std::uint32_t type = attribute->type();
    const std::u16string name = attribute->name();
    // An extent other than the first goes alone: the stream was cut before it.
    const AttributeRecord* header = attribute->header();
    const std::uint64_t from = header->non_resident() ? header->lowest_vcn() : 0;
    // The object goes first: it may hold the objects of its next extents.
    AttributeRecord* exact = attribute->header();
    const bool resident = !exact->non_resident();
    std::unique_ptr<Attribute> object = std::move(found->second.object);
    attributes_.erase(found);
    object.reset();
    // Names are unnamed attributes of one type, many to a file: a resident
    // attribute goes by its own header, never by the first of its type and
    // name, or removing one name would take another.
    if (resident) eraseResident(exact);
    else eraseExtents(type, name, from, from != 0);
    order_known_ = false;
}

void BaseFileRecordImpl::eraseResident(AttributeRecord* header) {
    RecordBuffer* buffer = holderOf(header);
    if (has_list_) dropFromList(buffer->number, header);
    cutFromRecord(buffer, header);
    mft_->flushRecord(buffer->number);
    dropEmptyExtension(buffer);
    if (has_list_) writeList();
}

void BaseFileRecordImpl::removeAttribute(Attribute* attribute) {
    const bool is_name = attribute != nullptr && attribute->type() == kFileName;
    dropAttribute(attribute, true);
    if (is_name) changeLinkCount(-1);
}

namespace {

NameKey KeyOf(const unsigned char* value, std::uint32_t length) {
    if (length < FileNameValue::kNameOffset) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    const auto* name = reinterpret_cast<const FileNameValue*>(value);
    if (FileNameValue::SizeFor(name->file_name_length()) > length)
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    std::u16string text(name->file_name_length(), u'\0');
    for (std::size_t i = 0; i < text.size(); ++i)
        text[i] = static_cast<char16_t>(Common::LoadLE16(value + FileNameValue::kNameOffset + 2 * i));
    return {name->parent_directory(), name->file_name_type(), text};
}

bool IsPairedSpace(std::uint8_t a, std::uint8_t b) {
    return (a == FileNameValue::kWin32 && b == FileNameValue::kDos) ||
           (a == FileNameValue::kDos && b == FileNameValue::kWin32);
}

}  // namespace

std::pair<std::u16string, std::u16string> BaseFileRecordImpl::removeName(const void* value, std::uint32_t length) {
    const NameKey wanted = KeyOf(static_cast<const unsigned char*>(value), length);
    Attribute* found[2] = {nullptr, nullptr};  // the name and its twin, held
    std::pair<std::u16string, std::u16string> removed;
    try {
        findNames(wanted, found, removed);
        if (found[0] == nullptr) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        if (usesOf(found[0]) > 1 || (found[1] != nullptr && usesOf(found[1]) > 1))
            Common::Raise(ERROR_TAG, Common::Failures::FILE_BUSY);
    } catch (...) {
        releaseAttribute(found[0]);
        releaseAttribute(found[1]);
        throw;
    }
    Attribute* twin = found[1];
    try {
        removeAttribute(found[0]);
    } catch (...) {
        releaseAttribute(twin);
        throw;
    }
    if (twin != nullptr) removeAttribute(twin);
    return removed;
}

void BaseFileRecordImpl::findNames(const NameKey& wanted, Attribute* found[2],
                                   std::pair<std::u16string, std::u16string>& names) {
    // A Win32 name and its DOS twin are one name to the directory: both go.
    const bool may_have_twin = wanted.space == FileNameValue::kWin32 || wanted.space == FileNameValue::kDos;
    for (Attribute* at = firstOfType(kFileName); at != nullptr;) {
        const AttributeRecord* header = at->header();
        bool kept = false;
        bool done = false;
        if (!header->non_resident()) {
            const NameKey key = KeyOf(reinterpret_cast<const unsigned char*>(header) + header->value_offset(),
                                      header->value_length());
            const bool same_parent = key.parent == wanted.parent;
            if (same_parent && found[0] == nullptr && key.space == wanted.space &&
                driver_->compare_names(key.name.data(), key.name.size(), wanted.name.data(), wanted.name.size()) == 0) {
                names.first = key.name;
                found[0] = at;
                kept = true;
                done = !may_have_twin;
            } else if (same_parent && found[1] == nullptr && IsPairedSpace(key.space, wanted.space)) {
                names.second = key.name;
                found[1] = at;
                kept = true;
            }
        }
        Attribute* next = done ? nullptr : nextOfKind(at);
        if (!kept) releaseAttribute(at);
        at = next;
    }
}

std::uint32_t BaseFileRecordImpl::usesOf(Attribute* attribute) {
    auto found = attributes_.find(attribute->header());
    return found == attributes_.end() ? 0 : found->second.uses;
}

}  // namespace ntfs
