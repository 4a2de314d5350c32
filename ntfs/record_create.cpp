// Attributes and names put into a file's records.
#include <cstring>

#include "loader/common/byte_order.h"
#include "loader/common/raise.h"
#include "ntfs/file_record_impl.h"
#include "ntfs/mft.h"
#include "ntfs/nonresident_image.h"
#include "ntfs/ntfs_driver.h"
#include "ntfs/record_layout.h"

namespace ntfs {

namespace {

constexpr std::size_t kLongestAttributeName = 255;
constexpr std::uint16_t kRecordHoldsNameIndex = 0x2;
constexpr std::uint16_t kRecordHoldsOtherIndex = 0x8;

}  // namespace

BaseFileRecordImpl::BaseFileRecordImpl(NTFSDriver* driver, std::uint64_t number, Fresh)
    : driver_(driver), mft_(driver->mft.get()), number_(number) {
    base_ = mft_->getRecord(number);
    list_loaded_ = true;
}

RecordRef FileRecordCache::create() {
    RecordBuffer* buffer = driver_->mft->allocateRecord(false);
    const std::uint64_t number = buffer->number;
    std::unique_ptr<BaseFileRecordImpl> record;
    try {
        record = std::make_unique<BaseFileRecordImpl>(driver_, number, BaseFileRecordImpl::Fresh{});
    } catch (...) {
        driver_->mft->freeRecord(buffer);
        driver_->mft->putRecord(buffer);
        throw;
    }
    driver_->mft->putRecord(buffer);
    auto placed = entries_.insert_or_assign(number, Entry{1, std::move(record)}).first;
    return RecordRef(driver_, placed->second.record.get());
}

AttributeRecord* BaseFileRecordImpl::insertInRecord(RecordBuffer* buffer, const std::vector<unsigned char>& bytes) {
    const auto length = static_cast<std::uint32_t>(bytes.size());
    if (length > maxAttributeSize()) Common::Raise(ERROR_TAG, Common::Failures::FILE_DISK_FULL);
    while (FreeBytes(*buffer, driver_->record_size) < length) makeRoom(buffer, nullptr, length);
    const auto* incoming = reinterpret_cast<const AttributeRecord*>(bytes.data());
    const std::u16string name = AttributeName(incoming);
    std::uint32_t at = buffer->header()->attrs_offset();
    for (;;) {
        const auto* present = reinterpret_cast<const AttributeRecord*>(buffer->data() + at);
        const std::uint32_t type = present->type();
        if (type == kAttributeEnd || type > incoming->type()) break;
        if (type == incoming->type() && CompareAttributeNames(driver_, AttributeName(present), name) >= 0) break;
        at += present->length();
    }
    return placeAt(buffer, at, bytes);
}

AttributeRecord* BaseFileRecordImpl::placeAt(RecordBuffer* buffer, std::uint32_t at,
                                             const std::vector<unsigned char>& bytes) {
    const auto length = static_cast<std::uint32_t>(bytes.size());
    shiftTail(buffer, at, length);
    std::memcpy(buffer->data() + at, bytes.data(), length);
    auto* header = reinterpret_cast<AttributeRecord*>(buffer->data() + at);
    const std::uint16_t instance = buffer->header()->next_attr_instance();
    header->set_instance(instance);
    SetRecordField16(*buffer, record_field::kNextInstance, static_cast<std::uint16_t>(instance + 1));
    mft_->flushRecord(buffer->number);
    return header;
}

Attribute* BaseFileRecordImpl::createAttribute(std::uint32_t type, const std::u16string& name, bool stay_resident) {
    if (name.size() > kLongestAttributeName || type == kAttributeEnd || type == 0)
        Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
    if (driver_->attr_defs->find(type) == nullptr) Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
    std::vector<unsigned char> bytes = ResidentHeader(type, name);
    if (!stay_resident) {
        // An empty stream in clusters: no runs, no clusters taken yet.
        const auto* resident = reinterpret_cast<const AttributeRecord*>(bytes.data());
        bytes = MakeNonresidentImage(driver_, resident, nullptr, 0).bytes;
    }
    loadList();
    AttributeRecord* header = insertInRecord(base_, bytes);
    if (has_list_) {
        enterInList(number_, header);
        writeList();
        // Writing the list may have made room by moving this very header.
        header = locate(type, name, 0);
    }
    order_known_ = false;
    return hold(header);
}

void BaseFileRecordImpl::changeLinkCount(int delta) {
    const int links = base_->header()->link_count() + delta;
    if (links < 0 || links > 0xFFFF) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    SetRecordField16(*base_, record_field::kLinkCount, static_cast<std::uint16_t>(links));
    mft_->flushRecord(number_);
}

Attribute* BaseFileRecordImpl::addAttribute(std::uint32_t type, const std::u16string& name, bool stay_resident) {
    Attribute* attribute = createAttribute(type, name, stay_resident);
    if (type == kFileName) changeLinkCount(1);
    return attribute;
}

void BaseFileRecordImpl::addName(const void* value, std::uint32_t length) {
    if (length < FileNameValue::kNameOffset) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    Attribute* name = addAttribute(kFileName, std::u16string(), true);
    AttributeRef held(this, name);
    if (name->write(0, length, value) != length) Common::Raise(ERROR_TAG, Common::Failures::FILE_WRITE);
}

void BaseFileRecordImpl::markIndexed(std::uint32_t type) {
    AttributeRef root(this, firstOfType(kIndexRoot));
    if (!root) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    const AttributeRecord* header = root->header();
    if (header->non_resident() || header->value_length() < IndexRoot::kMinimumSize)
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    const auto* value = reinterpret_cast<const unsigned char*>(header) + header->value_offset();
    const std::uint32_t indexed = Common::LoadLE32(value);
    if (indexed != type) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    const std::uint16_t flag = type == kFileName ? kRecordHoldsNameIndex : kRecordHoldsOtherIndex;
    SetRecordField16(*base_, record_field::kFlags, static_cast<std::uint16_t>(base_->header()->flags() | flag));
    mft_->flushRecord(number_);
}

BaseFileRecord* BaseFileRecordImpl::owner() {
    delete_on_destruction_ = true;
    return this;
}

bool BaseFileRecordImpl::mayLeaveRecord(Attribute* attribute) {
    const AttributeRecord* header = attribute->header();
    return header->length() >= driver_->record_size * 5 / 16;
}

}  // namespace ntfs
