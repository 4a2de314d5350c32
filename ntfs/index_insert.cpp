// Insertion into an index tree: an entry goes in where the lookup of its
// key ends, in a leaf; a full buffer splits around its middle and hands
// the middle entry up to its parent, and a root that its record can't hold
// any more moves its entries down into a buffer of their own.
#include <cstring>

#include "loader/common/error.h"
#include "loader/common/raise.h"
#include "ntfs/index_tree.h"
#include "ntfs/ntfs_driver.h"

namespace ntfs {

namespace {

constexpr std::uint32_t kEndEntryWithVcn = IndexEntryHeader::kEndEntrySize + 8;

}  // namespace

// A root of 5/16 of a record or more leaves the room of its record to the
// other attributes and goes into a buffer; a smaller one stays and makes
// room among them.
bool MayLeaveRecord(const NTFSDriver& driver, Attribute& attribute) {
    return std::uint64_t(attribute.header()->length()) * 16 >= std::uint64_t(driver.record_size) * 5;
}

class IndexTreeBase::EntryProbe final : public Probe {
public:
    EntryProbe(const IndexTreeBase& tree, const Entry& entry)
        : tree_(tree),
          key_(entry.data() + IndexEntryHeader::kKeyOffset),
          length_(reinterpret_cast<const IndexEntryHeader*>(entry.data())->key_length()) {}
    int compare(const unsigned char* key, std::size_t length) const override {
        return tree_.key_order_(*tree_.driver_, key, length, key_, length_);
    }

private:
    const IndexTreeBase& tree_;
    const unsigned char* key_;
    std::size_t length_;
};

void IndexTreeBase::checkNewEntry(const Entry& entry) const {
    if (entry.size() < IndexEntryHeader::kEndEntrySize || entry.size() % 8 != 0 || entry.size() > 0xFFFF) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    const auto* header = reinterpret_cast<const IndexEntryHeader*>(entry.data());
    const std::size_t key_length = header->key_length();
    const std::size_t tail = HasSubNode(header) ? 8 : 0;
    if (header->length() != entry.size() || IsEndEntry(header) || key_length == 0 ||
        IndexEntryHeader::kKeyOffset + key_length + tail > entry.size() ||
        !key_check_(KeyOf(header), key_length)) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
}

void IndexTreeBase::insert(const Entry& entry, IndexCursor& cursor) {
    checkNewEntry(entry);
    // A new key enters a leaf: whatever the caller's entry said about a
    // sub-node is dropped.
    Entry leaf_entry = entry;
    auto* header = reinterpret_cast<IndexEntryHeader*>(leaf_entry.data());
    if (HasSubNode(header)) {
        leaf_entry.resize(leaf_entry.size() - 8);
        header = reinterpret_cast<IndexEntryHeader*>(leaf_entry.data());
        header->length_.set(static_cast<std::uint16_t>(leaf_entry.size()));
        header->flags_.set(static_cast<std::uint16_t>(header->flags() & ~kEntrySubNode));
    }
    const EntryProbe probe(*this, entry);
    if (walkTo(probe, cursor)) Common::Raise(ERROR_TAG, Common::Failures::FILE_EXISTS);
    Place place = placeOf(cursor.position);
    Path path = pathOf(cursor);
    cursor.clear();
    while (insertAt(place, leaf_entry, path)) {
    }
    if (!lookup(probe, cursor)) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
}

bool IndexTreeBase::insertAt(Place& place, Entry& entry, Path& path) {
    if (place.vcn == IndexPosition::kRootVcn) return insertInRoot(place, entry, path);
    const IndexHeader* node = mutableNode(place.vcn);
    if (entry.size() <= node->allocated_size() - node->index_length()) {
        placeEntry(place, entry);
        writeBuffer(place.vcn);
        return false;
    }
    return splitBuffer(place, entry, path);
}

bool IndexTreeBase::insertInRoot(Place& place, Entry& entry, Path& path) {
    const std::uint64_t wanted = rootSizeWith(static_cast<std::uint32_t>(entry.size()));
    std::uint64_t reached = 0;
    try {
        reached = root_attribute_->resize(wanted, false);
    } catch (const Common::Error& error) {
        if (error.Code() != Common::FILE_DISK_FULL) throw;
        if (!MayLeaveRecord(*driver_, *root_attribute_)) {
            // The write grows the attribute with leave to move others out.
            placeInRoot(place, entry);
            return false;
        }
        place = pushRootDown(place, path);
        return insertAt(place, entry, path);
    }
    if (reached != wanted) Common::Raise(ERROR_TAG, Common::Failures::FILE_WRITE);
    placeInRoot(place, entry);
    return false;
}

// The root in memory stays as the disk has it when the write fails.
void IndexTreeBase::placeInRoot(const Place& place, const Entry& entry) {
    std::vector<unsigned char> before = root_;
    try {
        placeEntry(place, entry);
        writeRoot();
    } catch (...) {
        root_ = std::move(before);
        throw;
    }
}

// The buffers' attributes of a tree that had none: the stream of buffers in
// clusters and its bitmap in the record. The root gives up its place in the
// record first (its copy in memory stays), since it is what filled it.
void IndexTreeBase::createAllocation() {
    if (root_attribute_->resize(0, false) != 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_WRITE);
    if (!record_.find(kIndexAllocation, name_)) {
        AttributeRef(record_.get(), record_->createAttribute(kIndexAllocation, name_, false));
    }
    if (!record_.find(kBitmap, name_)) AttributeRef(record_.get(), record_->createAttribute(kBitmap, name_, true));
    allocation_opened_ = false;
}

IndexTreeBase::Place IndexTreeBase::pushRootDown(const Place& place, Path& path) {
    const bool first_buffer = !record_.find(kIndexAllocation, name_) || !record_.find(kBitmap, name_);
    if (first_buffer) createAllocation();
    const std::uint64_t vcn = allocateBuffer();
    IndexHeader* buffer = mutableNode(vcn);
    const IndexHeader& root = rootHead()->index_;
    const std::uint32_t first = root.entries_offset();
    const std::uint32_t moved = root.index_length() - first;
    const std::uint32_t start = buffer->entries_offset();
    if (moved > buffer->allocated_size() - start) Common::Raise(ERROR_TAG, Common::Failures::FILE_DISK_FULL);
    std::memcpy(reinterpret_cast<unsigned char*>(buffer) + start, reinterpret_cast<const unsigned char*>(&root) + first,
                moved);
    buffer->index_length_.set(start + moved);
    buffer->flags_ = root.flags();
    const Place moved_place{vcn, place.offset - first + start};

    root_.resize(kIndexRootHeadSize + IndexHeader::kSize);
    IndexHeader& head = rootHead()->index_;
    head.entries_offset_.set(IndexHeader::kSize);
    head.index_length_.set(IndexHeader::kSize + kEndEntryWithVcn);
    head.allocated_size_.set(IndexHeader::kSize + kEndEntryWithVcn);
    head.flags_ = kNodeHasSubNodes;
    const Entry end = EndEntry(true, vcn);
    root_.insert(root_.end(), end.begin(), end.end());

    writeBuffer(vcn);
    // A root emptied for the buffers' attributes grows back among them.
    if (root_attribute_->resize(root_.size(), first_buffer) != root_.size()) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_WRITE);
    }
    writeRoot();
    path.assign(1, Place{IndexPosition::kRootVcn, IndexHeader::kSize});
    return moved_place;
}

// The first entry that reaches half of the node's room; the end entry
// gives way to the one before it, so both halves keep a key.
std::uint32_t IndexTreeBase::middleOf(std::uint64_t vcn) {
    const std::uint32_t half = mutableNode(vcn)->allocated_size() / 2;
    Place place{vcn, mutableNode(vcn)->entries_offset()};
    bool has_before = false;
    std::uint32_t before = 0;
    for (;;) {
        const IndexEntryHeader* entry = entryAt(place);
        if (IsEndEntry(entry)) {
            if (!has_before) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
            return before;
        }
        if (place.offset + entry->length() >= half) return place.offset;
        has_before = true;
        before = place.offset;
        place.offset += entry->length();
    }
}

bool IndexTreeBase::splitBuffer(Place& place, Entry& entry, Path& path) {
    if (path.empty()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    const std::uint64_t old_vcn = place.vcn;
    const std::uint32_t middle = middleOf(old_vcn);
    const IndexEntryHeader* middle_entry = entryAt(Place{old_vcn, middle});
    const bool had_sub_node = HasSubNode(middle_entry);
    const std::uint64_t middle_sub_node = had_sub_node ? subNodeAt(Place{old_vcn, middle}) : 0;
    const auto* middle_bytes = reinterpret_cast<const unsigned char*>(middle_entry);
    Entry handed = WithSubNode(Entry(middle_bytes, middle_bytes + middle_entry->length()), old_vcn);
    const std::uint32_t behind = middle + middle_entry->length();

    const std::uint64_t new_vcn = allocateBuffer();
    IndexHeader* old_node = mutableNode(old_vcn);
    IndexHeader* new_node = mutableNode(new_vcn);
    const std::uint32_t moved = old_node->index_length() - behind;
    const std::uint32_t start = new_node->entries_offset();
    if (moved > new_node->allocated_size() - start) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    std::memcpy(reinterpret_cast<unsigned char*>(new_node) + start, reinterpret_cast<unsigned char*>(old_node) + behind,
                moved);
    new_node->index_length_.set(start + moved);
    new_node->flags_ = old_node->flags();

    const Entry end = EndEntry(had_sub_node, middle_sub_node);
    std::memcpy(reinterpret_cast<unsigned char*>(old_node) + middle, end.data(), end.size());
    old_node->index_length_.set(middle + static_cast<std::uint32_t>(end.size()));
    // The parent's entry leads to the greater keys, which moved.
    setSubNodeAt(path.back(), new_vcn);

    const bool into_old = place.offset <= middle;
    if (!into_old && place.offset < behind) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    const Place target = into_old ? place : Place{new_vcn, place.offset - behind + start};
    placeEntry(target, entry);
    writeBuffer(into_old ? old_vcn : new_vcn);
    writeBuffer(into_old ? new_vcn : old_vcn);

    entry = std::move(handed);
    place = path.back();
    path.pop_back();
    return true;
}

}  // namespace ntfs
