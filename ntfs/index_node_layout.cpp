// The layout of index nodes as the write path sees it: entries found by
// their offset from the node header with every length checked first, an
// entry put in at an offset, and cursor positions turned into offsets.
#include <cstring>

#include "loader/common/byte_order.h"
#include "loader/common/raise.h"
#include "ntfs/attribute.h"
#include "ntfs/file_record.h"
#include "ntfs/index_tree.h"
#include "ntfs/ntfs_driver.h"

namespace ntfs {

namespace {

constexpr std::uint32_t kEndEntryWithVcn = IndexEntryHeader::kEndEntrySize + 8;

unsigned char* BytesOf(IndexHeader* node) { return reinterpret_cast<unsigned char*>(node); }

}  // namespace

std::vector<unsigned char> EmptyRootValue(const NTFSDriver& driver, const IndexRoot* existing,
                                          std::uint32_t indexed_type, std::uint32_t collation) {
    std::vector<unsigned char> value(IndexRoot::kMinimumSize, 0);
    auto* root = reinterpret_cast<IndexRoot*>(value.data());
    if (existing != nullptr) {
        root->type_.set(existing->type());
        root->index_block_size_.set(existing->index_block_size());
        root->clusters_per_index_block_ = existing->clusters_per_index_block();
    } else {
        // Buffers smaller than a cluster are counted in sectors instead.
        const std::uint32_t per_cluster = driver.sectors_per_cluster;
        const std::uint32_t per_buffer = driver.sectors_per_index_buffer;
        root->type_.set(indexed_type);
        root->index_block_size_.set(driver.index_buffer_size);
        root->clusters_per_index_block_ =
            static_cast<std::uint8_t>(per_cluster <= per_buffer ? per_buffer / per_cluster : per_buffer);
    }
    root->collation_rule_.set(collation);
    root->index_.entries_offset_.set(IndexHeader::kSize);
    root->index_.index_length_.set(IndexHeader::kSize + IndexEntryHeader::kEndEntrySize);
    root->index_.allocated_size_.set(IndexHeader::kSize + IndexEntryHeader::kEndEntrySize);
    auto* end = reinterpret_cast<IndexEntryHeader*>(value.data() + sizeof(IndexRoot));
    end->length_.set(IndexEntryHeader::kEndEntrySize);
    end->flags_.set(kEntryLast);
    return value;
}

void IndexTreeBase::CreateRoot(NTFSDriver* owner, const RecordRef& holder, const std::u16string& name,
                               std::uint32_t collation, std::uint32_t indexed_type) {
    const std::vector<unsigned char> value = EmptyRootValue(*owner, nullptr, indexed_type, collation);
    const auto size = static_cast<std::uint64_t>(value.size());
    AttributeRef root(holder.get(), holder->createAttribute(kIndexRoot, name, true));
    if (root->resize(size, true) != size) Common::Raise(ERROR_TAG, Common::Failures::FILE_DISK_FULL);
    if (root->write(0, size, value.data()) != size) Common::Raise(ERROR_TAG, Common::Failures::FILE_WRITE);
    holder->markIndexed(indexed_type);
}

void IndexTreeBase::rewriteKey(const IndexCursor& cursor, const unsigned char* key, std::uint32_t length) {
    const Place place = placeOf(cursor.position);
    IndexEntryHeader* entry = entryAt(place);
    const std::uint32_t room = entry->length() - IndexEntryHeader::kKeyOffset - (HasSubNode(entry) ? 8u : 0u);
    if (IsEndEntry(entry) || entry->key_length() != length || length > room || !key_check_(key, length)) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    unsigned char* at = reinterpret_cast<unsigned char*>(entry) + IndexEntryHeader::kKeyOffset;
    if (key_order_(*driver_, at, length, key, length) != 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    if (place.vcn != IndexPosition::kRootVcn) {
        std::memcpy(at, key, length);
        writeBuffer(place.vcn);
        return;
    }
    // The root in memory stays as the disk has it when the write fails.
    std::vector<unsigned char> before = root_;
    try {
        std::memcpy(at, key, length);
        writeRoot();
    } catch (...) {
        root_ = std::move(before);
        throw;
    }
}

IndexHeader* IndexTreeBase::mutableNode(std::uint64_t vcn) {
    if (vcn == IndexPosition::kRootVcn) return &rootHead()->index_;
    return const_cast<IndexHeader*>(node(vcn));
}

IndexEntryHeader* IndexTreeBase::entryAt(const Place& place) {
    IndexHeader* node = mutableNode(place.vcn);
    const std::uint32_t length = node->index_length();
    if (place.offset < node->entries_offset() || place.offset > length ||
        length - place.offset < IndexEntryHeader::kEndEntrySize) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    auto* entry = reinterpret_cast<IndexEntryHeader*>(BytesOf(node) + place.offset);
    const std::uint32_t size = entry->length();
    if (size < IndexEntryHeader::kEndEntrySize || size % 8 != 0 || size > length - place.offset) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    if (HasSubNode(entry) && size < IndexEntryHeader::kEndEntrySize + 8) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    return entry;
}

std::uint32_t IndexTreeBase::endOffset(std::uint64_t vcn) {
    Place place{vcn, mutableNode(vcn)->entries_offset()};
    for (;;) {
        const IndexEntryHeader* entry = entryAt(place);
        if (IsEndEntry(entry)) return place.offset;
        place.offset += entry->length();
    }
}

bool IndexTreeBase::lastRealEntry(std::uint64_t vcn, std::uint32_t& offset) {
    Place place{vcn, mutableNode(vcn)->entries_offset()};
    bool found = false;
    for (;;) {
        const IndexEntryHeader* entry = entryAt(place);
        if (IsEndEntry(entry)) return found;
        offset = place.offset;
        found = true;
        place.offset += entry->length();
    }
}

void IndexTreeBase::placeEntry(const Place& place, const Entry& entry) {
    const auto size = static_cast<std::uint32_t>(entry.size());
    if (place.vcn == IndexPosition::kRootVcn) {
        // The root is exactly as long as its entries: the attribute was
        // sized for them.
        IndexHeader& header = rootHead()->index_;
        const std::uint32_t length = header.index_length();
        if (place.offset < header.entries_offset() || place.offset > length) {
            Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        }
        root_.resize(kIndexRootHeadSize + length);
        root_.insert(root_.begin() + kIndexRootHeadSize + place.offset, entry.begin(), entry.end());
        rootHead()->index_.index_length_.set(length + size);
        rootHead()->index_.allocated_size_.set(length + size);
        return;
    }
    IndexHeader* node = mutableNode(place.vcn);
    const std::uint32_t length = node->index_length();
    if (place.offset < node->entries_offset() || place.offset > length) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    if (size > node->allocated_size() - length) Common::Raise(ERROR_TAG, Common::Failures::FILE_DISK_FULL);
    unsigned char* at = BytesOf(node) + place.offset;
    std::memmove(at + size, at, length - place.offset);
    std::memcpy(at, entry.data(), size);
    node->index_length_.set(length + size);
}

IndexTreeBase::Place IndexTreeBase::placeOf(const IndexPosition& position) const {
    const auto* base = reinterpret_cast<const unsigned char*>(position.node);
    const auto* at = reinterpret_cast<const unsigned char*>(position.entry);
    return Place{position.vcn, static_cast<std::uint32_t>(at - base)};
}

IndexTreeBase::Path IndexTreeBase::pathOf(const IndexCursor& cursor) const {
    Path path;
    for (const IndexPosition& position : cursor.stack) path.push_back(placeOf(position));
    return path;
}

// A copy of the entry at `place` with the sub-node VCN taken off.
IndexTreeBase::Entry IndexTreeBase::keyOnlyCopy(const Place& place) {
    const IndexEntryHeader* entry = entryAt(place);
    const auto* bytes = reinterpret_cast<const unsigned char*>(entry);
    std::uint32_t size = entry->length();
    if (HasSubNode(entry)) size -= 8;
    Entry copy(bytes, bytes + size);
    auto* header = reinterpret_cast<IndexEntryHeader*>(copy.data());
    header->length_.set(static_cast<std::uint16_t>(size));
    header->flags_.set(static_cast<std::uint16_t>(entry->flags() & ~kEntrySubNode));
    return copy;
}

// The entry with room for a sub-node VCN at its end, set to `vcn`.
IndexTreeBase::Entry IndexTreeBase::WithSubNode(Entry entry, std::uint64_t vcn) {
    auto* header = reinterpret_cast<IndexEntryHeader*>(entry.data());
    if (!HasSubNode(header)) {
        entry.resize(entry.size() + 8);
        header = reinterpret_cast<IndexEntryHeader*>(entry.data());
        header->length_.set(static_cast<std::uint16_t>(entry.size()));
        header->flags_.set(static_cast<std::uint16_t>(header->flags() | kEntrySubNode));
    }
    Common::StoreLE64(entry.data() + entry.size() - 8, vcn);
    return entry;
}

std::uint64_t IndexTreeBase::subNodeAt(const Place& place) {
    const IndexEntryHeader* entry = entryAt(place);
    if (!HasSubNode(entry)) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    return Common::LoadLE64(reinterpret_cast<const unsigned char*>(entry) + entry->length() - 8);
}

void IndexTreeBase::setSubNodeAt(const Place& place, std::uint64_t vcn) {
    IndexEntryHeader* entry = entryAt(place);
    if (!HasSubNode(entry)) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    Common::StoreLE64(reinterpret_cast<unsigned char*>(entry) + entry->length() - 8, vcn);
}

// The end entry that replaces the middle of a split node: it keeps the
// middle's sub-node, if it had one.
IndexTreeBase::Entry IndexTreeBase::EndEntry(bool with_sub_node, std::uint64_t vcn) {
    Entry end(with_sub_node ? kEndEntryWithVcn : IndexEntryHeader::kEndEntrySize, 0);
    auto* header = reinterpret_cast<IndexEntryHeader*>(end.data());
    header->length_.set(static_cast<std::uint16_t>(end.size()));
    header->flags_.set(with_sub_node ? kEntryLast | kEntrySubNode : kEntryLast);
    if (with_sub_node) Common::StoreLE64(end.data() + IndexEntryHeader::kEndEntrySize, vcn);
    return end;
}

}  // namespace ntfs
