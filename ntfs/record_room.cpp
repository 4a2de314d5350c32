// Room made in a full record: a long value goes to clusters, a long
// attribute in clusters goes to an extension record of its own, and as a
// last resort the record's tail moves to a new extension record.
#include <algorithm>
#include <cstring>

#include "loader/common/byte_order.h"
#include "loader/common/raise.h"
#include "ntfs/file_record_impl.h"
#include "ntfs/mft.h"
#include "ntfs/nonresident_image.h"
#include "ntfs/ntfs_driver.h"
#include "ntfs/record_layout.h"
#include "ntfs/res_attribute.h"

namespace ntfs {

namespace {

constexpr std::size_t kCandidates = 3;
constexpr std::uint32_t kEndMarkerLength = 8;
constexpr std::uint32_t kListHeaderLength = 24;
constexpr std::uint32_t kSplitSlack = 48;

std::vector<unsigned char> CopyOf(const AttributeRecord* header) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(header);
    return std::vector<unsigned char>(bytes, bytes + header->length());
}

}  // namespace

std::vector<AttributeRecord*> BaseFileRecordImpl::longestAttributes(RecordBuffer* buffer) {
    std::vector<AttributeRecord*> all;
    for (std::uint32_t offset = buffer->header()->attrs_offset();;) {
        auto* header = reinterpret_cast<AttributeRecord*>(buffer->data() + offset);
        if (header->type() == kAttributeEnd) break;
        all.push_back(header);
        offset += header->length();
    }
    std::stable_sort(all.begin(), all.end(),
                     [](const AttributeRecord* a, const AttributeRecord* b) { return a->length() > b->length(); });
    if (all.size() > kCandidates) all.resize(kCandidates);
    return all;
}

bool BaseFileRecordImpl::qualifies(RecordBuffer*, const AttributeRecord* header) {
    return header->length() >= driver_->record_size * 5 / 16 || header->type() == kAttributeList;
}

void BaseFileRecordImpl::makeRoom(RecordBuffer* buffer, const AttributeRecord* asking, std::uint32_t asked) {
    for (AttributeRecord* candidate : longestAttributes(buffer)) {
        if (!qualifies(buffer, candidate)) continue;
        if (!candidate->non_resident()) {
            const AttrDefEntry* definition = driver_->attr_defs->find(candidate->type());
            const bool must_stay = definition == nullptr || (definition->flags() & AttrDefEntry::kMustStayResident);
            if (must_stay) continue;
            if (!heldObject(candidate)) {
                convertInPlace(buffer, candidate);
                return;
            }
            // A value held open moves through its own object, which goes on
            // serving its holders from the clusters.
            auto* resident = dynamic_cast<ResAttribute*>(heldAt(candidate));
            if (resident == nullptr || resident->delegate() != nullptr) continue;
            resident->moveToClusters(false);
            return;
        }
        if (candidate->type() != kAttributeList) {
            moveToExtension(candidate);
            return;
        }
    }
    splitRecord(buffer, asking, asked);
}

void BaseFileRecordImpl::convertInPlace(RecordBuffer* buffer, AttributeRecord* header) {
    const auto* value = reinterpret_cast<const unsigned char*>(header) + header->value_offset();
    NonresidentImage image = MakeNonresidentImage(driver_, header, value, header->value_length());
    const auto length = static_cast<std::uint32_t>(image.bytes.size());
    if (length > header->length()) {
        image.runs.freeAll(driver_);
        Common::Raise(ERROR_TAG, Common::Failures::FILE_NO_MEMORY);
    }
    resizeInRecord(header, length, false);
    std::memcpy(header, image.bytes.data(), length);
    mft_->flushRecord(buffer->number);
}

void BaseFileRecordImpl::repoint(const AttributeRecord* old_header, AttributeRecord* moved) {
    order_known_ = false;
    auto found = attributes_.find(old_header);
    if (found == attributes_.end()) return;
    Slot slot = std::move(found->second);
    attributes_.erase(found);
    slot.object->rebase(moved);
    attributes_.emplace(moved, std::move(slot));
}

void BaseFileRecordImpl::adoptExtension(RecordBuffer* buffer) {
    SetRecordField64(*buffer, record_field::kBaseRecord, reference());
    mft_->flushRecord(buffer->number);
    extensions_.insert_or_assign(buffer->number, buffer);
}

RecordBuffer* BaseFileRecordImpl::allocateExtension() {
    RecordBuffer* buffer = mft_->allocateRecord(false);
    adoptExtension(buffer);
    return buffer;
}

void BaseFileRecordImpl::freeExtension(RecordBuffer* buffer) {
    mft_->freeRecord(buffer);
    mft_->putRecord(buffer);
}

void BaseFileRecordImpl::moveToExtension(AttributeRecord* header) {
    RecordBuffer* from = holderOf(header);
    ensureList();
    RecordBuffer* to = allocateExtension();
    const std::vector<unsigned char> bytes = CopyOf(header);
    dropFromList(from->number, header);
    AttributeRecord* moved = placeAt(to, to->header()->attrs_offset(), bytes);
    repoint(header, moved);
    cutFromRecord(from, header);
    mft_->flushRecord(from->number);
    enterInList(to->number, moved);
    writeList();
}

void BaseFileRecordImpl::splitRecord(RecordBuffer* buffer, const AttributeRecord* asking, std::uint32_t asked) {
    loadList();
    const bool creating = !has_list_;
    ensureList();
    std::uint32_t list_room = 0;
    if (creating && buffer == base_) list_room = static_cast<std::uint32_t>(serialiseList().size()) + kListHeaderLength;
    const std::uint32_t in_use = buffer->header()->bytes_in_use();
    const std::uint32_t half = std::min((list_room + in_use + kSplitSlack + asked) / 2,
                                        list_room + in_use - kEndMarkerLength);
    const std::uint32_t first = buffer->header()->attrs_offset();
    std::uint32_t sum = list_room;
    std::uint32_t split = 0;
    for (std::uint32_t offset = first;;) {
        const auto* header = reinterpret_cast<const AttributeRecord*>(buffer->data() + offset);
        if (header->type() == kAttributeEnd) break;
        sum += header->length() + (header == asking ? asked : 0);
        if (sum >= half && header->type() > kAttributeList && offset != first) {
            split = offset;
            break;
        }
        offset += header->length();
    }
    if (split == 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_NO_MEMORY);
    moveTail(buffer, split);
}

void BaseFileRecordImpl::moveTail(RecordBuffer* buffer, std::uint32_t split) {
    RecordBuffer* to = allocateExtension();
    std::vector<std::pair<AttributeRecord*, AttributeRecord*>> moves;
    std::uint32_t place = to->header()->attrs_offset();
    for (std::uint32_t offset = split;;) {
        auto* header = reinterpret_cast<AttributeRecord*>(buffer->data() + offset);
        if (header->type() == kAttributeEnd) break;
        AttributeRecord* moved = placeAt(to, place, CopyOf(header));
        moves.emplace_back(header, moved);
        place += moved->length();
        offset += header->length();
    }
    for (auto& move : moves) {
        dropFromList(buffer->number, move.first);
        enterInList(to->number, move.second);
        repoint(move.first, move.second);
    }
    Common::StoreLE32(buffer->data() + split, kAttributeEnd);
    Common::StoreLE32(buffer->data() + split + 4, 0);
    buffer->header()->set_bytes_in_use(split + kEndMarkerLength);
    mft_->flushRecord(buffer->number);
    writeList();
}

Attribute* BaseFileRecordImpl::addExtent(std::uint32_t type, const std::u16string& name, std::uint64_t lowest,
                                         std::uint64_t highest, const unsigned char* mapping_pairs,
                                         std::uint32_t pairs_length) {
    const std::uint32_t name_end = AttributeRecord::kNonResidentHeaderSize + 2u * std::uint32_t(name.size());
    const std::uint32_t pairs = (name_end + 7) & ~7u;
    const std::uint32_t length = (pairs + pairs_length + 7) & ~7u;
    if (name.size() > 255 || length > maxAttributeSize()) Common::Raise(ERROR_TAG, Common::Failures::FILE_DISK_FULL);
    std::vector<unsigned char> bytes(length, 0);
    auto* header = reinterpret_cast<AttributeRecord*>(bytes.data());
    header->set_type(type);
    header->set_length(length);
    header->set_non_resident(true);
    header->set_name_length(static_cast<std::uint8_t>(name.size()));
    header->set_name_offset(static_cast<std::uint16_t>(AttributeRecord::kNonResidentHeaderSize));
    header->set_lowest_vcn(lowest);
    header->set_highest_vcn(highest);
    header->set_mapping_pairs_offset(static_cast<std::uint16_t>(pairs));
    for (std::size_t i = 0; i < name.size(); ++i) {
        Common::StoreLE16(bytes.data() + AttributeRecord::kNonResidentHeaderSize + 2 * i,
                          static_cast<std::uint16_t>(name[i]));
    }
    std::memcpy(bytes.data() + pairs, mapping_pairs, pairs_length);
    ensureList();
    RecordBuffer* to = allocateExtension();
    AttributeRecord* placed = placeAt(to, to->header()->attrs_offset(), bytes);
    enterInList(to->number, placed);
    writeList();
    return hold(locate(type, name, lowest));
}

}  // namespace ntfs
