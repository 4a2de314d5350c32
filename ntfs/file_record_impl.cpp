#include "ntfs/file_record_impl.h"

#include <algorithm>
#include <cstring>

#include "loader/common/byte_order.h"
#include "loader/common/raise.h"
#include "ntfs/attribute_factory.h"
#include "ntfs/mft.h"
#include "ntfs/ntfs_driver.h"

namespace ntfs {

namespace {

constexpr std::uint32_t kMostListSize = 0x40000;
constexpr std::uint64_t kReadThroughPiece = 102400;
constexpr int kAnyInstance = -1;

bool NameEquals(const unsigned char* stored, std::uint32_t length, const std::u16string& name) {
    if (length != name.size()) return false;
    for (std::uint32_t i = 0; i < length; ++i) {
        if (Common::LoadLE16(stored + 2 * i) != static_cast<std::uint16_t>(name[i])) return false;
    }
    return true;
}

std::u16string NameAt(const unsigned char* stored, std::uint32_t length) {
    std::u16string name(length, u'\0');
    for (std::uint32_t i = 0; i < length; ++i) name[i] = static_cast<char16_t>(Common::LoadLE16(stored + 2 * i));
    return name;
}

void CheckAttribute(const AttributeRecord* header, std::uint32_t room) {
    const std::uint32_t length = header->length();
    if (length < AttributeRecord::kCommonSize || length > room)
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    if (header->name_length() != 0 && std::uint32_t(header->name_offset()) + 2u * header->name_length() > length) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    if (header->non_resident()) {
        if (length < AttributeRecord::kNonResidentHeaderSize) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        const std::uint32_t pairs = header->mapping_pairs_offset();
        if (pairs < AttributeRecord::kNonResidentHeaderSize || pairs > length)
            Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    } else {
        if (length < AttributeRecord::kResidentHeaderSize) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        if (header->value_offset() > length || header->value_length() > length - header->value_offset()) {
            Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        }
    }
}

}  // namespace

void CheckRecordLayout(RecordBuffer& buffer, std::uint32_t record_size) {
    const FileRecordHeader* header = buffer.header();
    const std::uint32_t in_use = header->bytes_in_use();
    const std::uint32_t first = header->attrs_offset();
    const std::uint32_t array_end = header->multi_sector_.usa_ofs() + 2u * header->multi_sector_.usa_count();
    if (in_use > record_size || first < array_end || first > in_use)
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    std::uint32_t offset = first;
    for (;;) {
        if (in_use - offset < 4) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        const auto* attribute = reinterpret_cast<const AttributeRecord*>(buffer.data() + offset);
        if (attribute->type() == kAttributeEnd) return;
        if (in_use - offset < AttributeRecord::kCommonSize) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        CheckAttribute(attribute, in_use - offset);
        offset += attribute->length();
    }
}

std::u16string AttributeName(const AttributeRecord* header) {
    return NameAt(reinterpret_cast<const unsigned char*>(header) + header->name_offset(), header->name_length());
}

BaseFileRecordImpl::BaseFileRecordImpl(NTFSDriver* driver, std::uint64_t number, Mft* mft)
    : driver_(driver), mft_(mft != nullptr ? mft : driver->mft.get()), number_(number) {
    base_ = mft_->getRecord(number);
    try {
        CheckRecordLayout(*base_, driver->record_size);
        if (base_->header()->link_count() == 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        Attribute* name = findAttribute(kFileName, std::u16string());
        if (name == nullptr) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        releaseAttribute(name);
    } catch (...) {
        releaseEverything();
        throw;
    }
}

BaseFileRecordImpl::~BaseFileRecordImpl() {
    // A file whose last name went is deleted by its last holder. A failure
    // here can't reach anyone: the file's clusters and records stay taken.
    if (delete_on_destruction_ && base_ != nullptr && base_->header()->link_count() == 0) {
        try {
            deleteFile();
        } catch (...) {
        }
    }
    try {
        releaseEverything();
    } catch (...) {
    }
}

void BaseFileRecordImpl::releaseEverything() {
    // An object may hold others of this record (its next extents), which it
    // gives back as it goes.
    while (!attributes_.empty()) {
        std::unique_ptr<Attribute> object = std::move(attributes_.begin()->second.object);
        attributes_.erase(attributes_.begin());
        object.reset();
    }
    for (auto& extension : extensions_) mft_->putRecord(extension.second);
    extensions_.clear();
    if (base_ != nullptr) mft_->putRecord(base_);
    base_ = nullptr;
}

AttributeRecord* BaseFileRecordImpl::findInRecord(RecordBuffer* buffer, std::uint32_t type, const std::u16string& name,
                                                  std::uint64_t vcn, int instance) {
    // The layout was checked when the record was taken in.
    std::uint32_t offset = buffer->header()->attrs_offset();
    for (;;) {
        auto* attribute = reinterpret_cast<AttributeRecord*>(buffer->data() + offset);
        const std::uint32_t found = attribute->type();
        if (found == kAttributeEnd || found > type) return nullptr;
        if (found == type && (instance < 0 || attribute->instance() == instance)) {
            const bool at_vcn = attribute->non_resident() ? attribute->lowest_vcn() == vcn : vcn == 0;
            const auto* stored = reinterpret_cast<const unsigned char*>(attribute) + attribute->name_offset();
            if (at_vcn && NameEquals(stored, attribute->name_length(), name)) return attribute;
        }
        offset += attribute->length();
    }
}

RecordBuffer* BaseFileRecordImpl::recordOf(std::uint64_t number) {
    if (number == number_) return base_;
    auto found = extensions_.find(number);
    if (found != extensions_.end()) return found->second;
    if (number >= mft_->recordCount()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    RecordBuffer* buffer = mft_->getRecord(number);
    try {
        CheckRecordLayout(*buffer, driver_->record_size);
        // An extension record names its base; one of another file isn't ours.
        if (RecordNumberOf(buffer->header()->base_mft_record()) != number_)
            Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    } catch (...) {
        mft_->putRecord(buffer);
        throw;
    }
    extensions_.insert_or_assign(number, buffer);
    return buffer;
}

void BaseFileRecordImpl::loadList() {
    if (list_loaded_) return;
    AttributeRecord* header = findInRecord(base_, kAttributeList, std::u16string(), 0, kAnyInstance);
    if (header == nullptr) {
        list_loaded_ = true;
        return;
    }
    std::unique_ptr<Attribute> list(MakeAttribute(driver_, this, header));
    const std::uint64_t size = list->size();
    if (size < 1 || size > kMostListSize) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    std::vector<unsigned char> bytes(static_cast<std::size_t>(size));
    if (list->read(0, size, bytes.data()) != size) Common::Raise(ERROR_TAG, Common::Failures::FILE_READ);
    const std::uint64_t records = mft_->listableRecords();
    std::vector<ListEntry> entries;
    std::size_t offset = 0;
    while (offset < bytes.size()) {
        const std::size_t room = bytes.size() - offset;
        if (room >= 4 && Common::LoadLE32(bytes.data() + offset) == kAttributeEnd) break;
        if (room < AttrListEntry::kNameOffset) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        const auto* entry = reinterpret_cast<const AttrListEntry*>(bytes.data() + offset);
        const std::uint32_t length = entry->length();
        if (length < AttrListEntry::kNameOffset || length > room)
            Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        if (entry->name_length() != 0 && std::uint32_t(entry->name_offset()) + 2u * entry->name_length() > length) {
            Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        }
        const std::uint64_t record = RecordNumberOf(entry->mft_reference());
        if (record >= records) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        entries.push_back({entry->type(), NameAt(bytes.data() + offset + entry->name_offset(), entry->name_length()),
                           entry->lowest_vcn(), record, entry->instance()});
        offset += length;
    }
    std::stable_sort(entries.begin(), entries.end(),
                     [](const ListEntry& a, const ListEntry& b) { return a.type < b.type; });
    list_ = std::move(entries);
    has_list_ = true;
    list_loaded_ = true;
}

// A list entry whose record doesn't hold the attribute is damage: taken for
// a missing attribute, it would let a change make a second one.
AttributeRecord* BaseFileRecordImpl::locateEntry(const ListEntry& entry) {
    AttributeRecord* found =
        findInRecord(recordOf(entry.record), entry.type, entry.name, entry.lowest_vcn, entry.instance);
    if (found == nullptr) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    return found;
}

AttributeRecord* BaseFileRecordImpl::locate(std::uint32_t type, const std::u16string& name, std::uint64_t vcn) {
    loadList();
    if (!has_list_) return findInRecord(base_, type, name, vcn, kAnyInstance);
    for (const ListEntry& entry : list_) {
        if (entry.type == type && entry.lowest_vcn == vcn && entry.name == name) return locateEntry(entry);
    }
    return nullptr;
}

Attribute* BaseFileRecordImpl::heldAt(const AttributeRecord* header) const {
    auto found = attributes_.find(header);
    return found == attributes_.end() ? nullptr : found->second.object.get();
}

Attribute* BaseFileRecordImpl::hold(AttributeRecord* header) {
    if (header == nullptr) return nullptr;
    Slot& slot = attributes_[header];
    if (!slot.object) {
        try {
            slot.object.reset(MakeAttribute(driver_, this, header));
        } catch (...) {
            attributes_.erase(header);
            throw;
        }
    }
    ++slot.uses;
    return slot.object.get();
}

Attribute* BaseFileRecordImpl::findAttribute(std::uint32_t type, const std::u16string& name) {
    return hold(locate(type, name, 0));
}

Attribute* BaseFileRecordImpl::nextExtent(const AttributeRecord* header) {
    if (!header->non_resident()) return nullptr;
    return hold(locate(header->type(), AttributeName(header), header->highest_vcn() + 1));
}

const std::vector<AttributeRecord*>& BaseFileRecordImpl::order() {
    if (order_known_) return order_;
    loadList();
    std::vector<AttributeRecord*> headers;
    auto add = [&headers](AttributeRecord* header) {
        if (header != nullptr && std::find(headers.begin(), headers.end(), header) == headers.end()) {
            headers.push_back(header);
        }
    };
    if (has_list_) {
        for (const ListEntry& entry : list_) add(locateEntry(entry));
    } else {
        std::uint32_t offset = base_->header()->attrs_offset();
        for (;;) {
            auto* attribute = reinterpret_cast<AttributeRecord*>(base_->data() + offset);
            if (attribute->type() == kAttributeEnd) break;
            add(attribute);
            offset += attribute->length();
        }
    }
    order_ = std::move(headers);
    order_known_ = true;
    return order_;
}

Attribute* BaseFileRecordImpl::nextAttribute(Attribute* previous) {
    const std::vector<AttributeRecord*>& headers = order();
    std::size_t next = 0;
    if (previous != nullptr) {
        auto at = std::find(headers.begin(), headers.end(), previous->header());
        if (at == headers.end()) return nullptr;
        next = static_cast<std::size_t>(at - headers.begin()) + 1;
    }
    return next < headers.size() ? hold(headers[next]) : nullptr;
}

Attribute* BaseFileRecordImpl::nextOfKind(Attribute* previous) {
    const std::vector<AttributeRecord*>& headers = order();
    auto at = std::find(headers.begin(), headers.end(), previous->header());
    if (at == headers.end()) return nullptr;
    const std::uint32_t type = previous->type();
    for (++at; at != headers.end(); ++at) {
        if ((*at)->type() == type) return hold(*at);
    }
    return nullptr;
}

void BaseFileRecordImpl::releaseAttribute(Attribute* attribute) {
    if (attribute == nullptr) return;
    auto found = attributes_.find(attribute->header());
    if (found == attributes_.end() || found->second.object.get() != attribute) return;
    if (--found->second.uses != 0) return;
    std::unique_ptr<Attribute> object = std::move(found->second.object);
    attributes_.erase(found);
    object.reset();
}

std::uint64_t BaseFileRecordImpl::reference() {
    return number_ | std::uint64_t(base_->header()->sequence_number()) << 48;
}

std::uint32_t BaseFileRecordImpl::maxAttributeSize() {
    const std::uint32_t size = driver_->record_size;
    return size - 56 - ((size / driver_->sector_size * 2 + 7) & ~7u);
}

void BaseFileRecordImpl::readThrough() {
    std::vector<unsigned char> scratch(kReadThroughPiece);
    for (Attribute* attribute = nextAttribute(nullptr); attribute != nullptr;) {
        AttributeRef held(this, attribute);
        if (!(attribute->type() == kData && attribute->header()->name_length() == 0)) {
            const std::uint64_t size = attribute->size();
            for (std::uint64_t at = 0; at < size; at += kReadThroughPiece) {
                attribute->read(at, std::min(kReadThroughPiece, size - at), scratch.data());
            }
        }
        attribute = nextAttribute(attribute);
    }
}

}  // namespace ntfs
