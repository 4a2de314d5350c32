// The attribute list of a file whose attributes live in more than one
// record: built when the first extension record comes, kept in memory as
// entries and written whole after every change.
#include <algorithm>
#include <cstring>

#include "loader/common/byte_order.h"
#include "loader/common/raise.h"
#include "ntfs/file_record_impl.h"
#include "ntfs/mft.h"
#include "ntfs/ntfs_driver.h"
#include "ntfs/record_layout.h"

namespace ntfs {

namespace {

std::uint32_t EntryLength(const std::u16string& name) {
    return (AttrListEntry::kNameOffset + 2u * std::uint32_t(name.size()) + 7) & ~7u;
}

std::uint32_t ValueLengthFor(std::uint32_t size, std::uint32_t value_offset) { return (size + value_offset + 7) & ~7u; }

}  // namespace

std::uint64_t BaseFileRecordImpl::referenceOf(RecordBuffer* buffer) {
    return buffer->number | std::uint64_t(buffer->header()->sequence_number()) << 48;
}

void BaseFileRecordImpl::ensureList() {
    loadList();
    if (has_list_) return;
    std::vector<ListEntry> entries;
    auto add_record = [&entries](RecordBuffer* buffer) {
        std::uint32_t offset = buffer->header()->attrs_offset();
        for (;;) {
            const auto* header = reinterpret_cast<const AttributeRecord*>(buffer->data() + offset);
            if (header->type() == kAttributeEnd) break;
            // The list names every attribute but itself.
            if (header->type() != kAttributeList) {
                entries.push_back({header->type(), AttributeName(header),
                                   header->non_resident() ? header->lowest_vcn() : 0, buffer->number,
                                   header->instance()});
            }
            offset += header->length();
        }
    };
    add_record(base_);
    for (auto& extension : extensions_) add_record(extension.second);
    list_ = std::move(entries);
    has_list_ = true;
    ++list_version_;
}

void BaseFileRecordImpl::enterInList(std::uint64_t record, const AttributeRecord* header) {
    if (header->type() == kAttributeList) return;
    list_.push_back({header->type(), AttributeName(header), header->non_resident() ? header->lowest_vcn() : 0, record,
                     header->instance()});
    ++list_version_;
    order_known_ = false;
}

void BaseFileRecordImpl::dropFromList(std::uint64_t record, const AttributeRecord* header) {
    const std::uint64_t vcn = header->non_resident() ? header->lowest_vcn() : 0;
    const std::u16string name = AttributeName(header);
    auto at = std::find_if(list_.begin(), list_.end(), [&](const ListEntry& entry) {
        return entry.record == record && entry.type == header->type() && entry.lowest_vcn == vcn &&
               entry.instance == header->instance() && entry.name == name;
    });
    if (at == list_.end()) return;
    list_.erase(at);
    ++list_version_;
    order_known_ = false;
}

std::vector<unsigned char> BaseFileRecordImpl::serialiseList() {
    std::stable_sort(list_.begin(), list_.end(), [this](const ListEntry& a, const ListEntry& b) {
        if (a.type != b.type) return a.type < b.type;
        const int names = CompareAttributeNames(driver_, a.name, b.name);
        if (names != 0) return names < 0;
        return a.lowest_vcn < b.lowest_vcn;
    });
    std::vector<unsigned char> bytes;
    for (const ListEntry& entry : list_) {
        const std::uint32_t length = EntryLength(entry.name);
        const std::size_t at = bytes.size();
        bytes.resize(at + length, 0);
        unsigned char* out = bytes.data() + at;
        Common::StoreLE32(out, entry.type);
        Common::StoreLE16(out + 4, static_cast<std::uint16_t>(length));
        out[6] = static_cast<unsigned char>(entry.name.size());
        out[7] = AttrListEntry::kNameOffset;
        Common::StoreLE64(out + 8, entry.lowest_vcn);
        Common::StoreLE64(out + 16, referenceOf(recordOf(entry.record)));
        Common::StoreLE16(out + 24, entry.instance);
        for (std::size_t i = 0; i < entry.name.size(); ++i)
            Common::StoreLE16(out + AttrListEntry::kNameOffset + 2 * i, static_cast<std::uint16_t>(entry.name[i]));
    }
    order_known_ = false;
    return bytes;
}

void BaseFileRecordImpl::writeList() {
    // Making room for the list may move attributes, which changes the list:
    // the moves call here again, and the outer call writes their result.
    if (writing_list_ || !has_list_) return;
    writing_list_ = true;
    try {
        std::uint64_t version;
        do {
            version = list_version_;
            AttributeRecord* header = findInRecord(base_, kAttributeList, std::u16string(), 0, -1);
            if (header == nullptr) header = insertInRecord(base_, ResidentHeader(kAttributeList, std::u16string()));
            if (version != list_version_) continue;
            storeList(header, serialiseList());
        } while (version != list_version_);
    } catch (...) {
        writing_list_ = false;
        throw;
    }
    writing_list_ = false;
}

void BaseFileRecordImpl::storeList(AttributeRecord* header, const std::vector<unsigned char>& bytes) {
    const auto size = static_cast<std::uint32_t>(bytes.size());
    if (!header->non_resident()) {
        const std::uint32_t needed = ValueLengthFor(size, header->value_offset());
        if (needed > maxAttributeSize()) {
            convertInPlace(base_, header);
        } else {
            // The list itself may be what goes to clusters to make the room.
            if (!resizeInRecord(header, needed, true)) {
                ++list_version_;  // look again: the caller's loop comes back here
                return;
            }
            std::memcpy(reinterpret_cast<unsigned char*>(header) + header->value_offset(), bytes.data(), size);
            header->set_value_length(size);
            mft_->flushRecord(number_);
            return;
        }
    }
    AttributeRef list(this, hold(header));
    if (list->resize(size, true) != size || list->write(0, size, bytes.data()) != size)
        Common::Raise(ERROR_TAG, Common::Failures::FILE_WRITE);
}

}  // namespace ntfs
