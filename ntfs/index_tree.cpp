#include "ntfs/index_tree.h"

#include "loader/common/byte_order.h"
#include "loader/common/raise.h"
#include "ntfs/fixups.h"
#include "ntfs/ntfs_driver.h"

namespace ntfs {

namespace {

// A root lives in one file record, and records are at most 64 KiB.
constexpr std::uint64_t kMaxRootSize = 0x10000;
constexpr std::uint32_t kMinBufferSize = 512;
constexpr std::uint32_t kMaxBufferSize = 0x10000;
// Each level holds at least two keys, so 32 levels are more than a volume
// could fill; a deeper path only comes from damage.
constexpr std::size_t kMaxDepth = 32;

const IndexEntryHeader* FirstEntry(const IndexHeader* node) {
    return reinterpret_cast<const IndexEntryHeader*>(reinterpret_cast<const unsigned char*>(node) +
                                                     node->entries_offset());
}

const IndexEntryHeader* Following(const IndexEntryHeader* entry) {
    return reinterpret_cast<const IndexEntryHeader*>(reinterpret_cast<const unsigned char*>(entry) + entry->length());
}

std::uint64_t SubNodeVcn(const IndexEntryHeader* entry) {
    return Common::LoadLE64(reinterpret_cast<const unsigned char*>(entry) + entry->length() - 8);
}

bool IsPowerOfTwo(std::uint32_t value) { return value != 0 && (value & (value - 1)) == 0; }

}  // namespace

void IndexCursor::clear() {
    position = IndexPosition();
    stack.clear();
    entered.clear();
}

IndexTreeBase::IndexTreeBase(NTFSDriver* driver, RecordRef record, std::u16string name, std::uint32_t collation,
                             KeyCheck key_check, KeyOrder key_order)
    : driver_(driver),
      record_(std::move(record)),
      name_(std::move(name)),
      collation_(collation),
      key_check_(key_check),
      key_order_(key_order) {
    root_attribute_ = record_.find(kIndexRoot, name_);
    if (!root_attribute_) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    const std::uint64_t size = root_attribute_->size();
    if (size < IndexRoot::kMinimumSize || size > kMaxRootSize) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    root_.resize(static_cast<std::size_t>(size));
    if (root_attribute_->read(0, size, root_.data()) != size) Common::Raise(ERROR_TAG, Common::Failures::FILE_READ);
    if (reinterpret_cast<const IndexRoot*>(root_.data())->collation_rule() != collation) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    checkNode(rootNode(), root_.size() - offsetof(IndexRoot, index_));
}

IndexTreeBase::~IndexTreeBase() = default;

const IndexHeader* IndexTreeBase::rootNode() const { return &reinterpret_cast<const IndexRoot*>(root_.data())->index_; }

// Everything a walk over the node follows: the entry area inside the node,
// each entry inside the area with a length that reaches the next, a key
// that the index's comparison can read whole, room for the sub-node VCN,
// the sub-node flag as the node's, and an end entry that closes the node.
void IndexTreeBase::checkNode(const IndexHeader* node, std::size_t span) const {
    const std::uint32_t length = node->index_length();
    if (node->allocated_size() > span || length > node->allocated_size()) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    const bool sub_nodes = (node->flags() & kNodeHasSubNodes) != 0;
    const auto* base = reinterpret_cast<const unsigned char*>(node);
    std::size_t offset = node->entries_offset();
    if (offset < IndexHeader::kSize) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    for (;;) {
        if (offset > length || length - offset < IndexEntryHeader::kEndEntrySize) {
            Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        }
        const auto* entry = reinterpret_cast<const IndexEntryHeader*>(base + offset);
        const std::size_t size = entry->length();
        if (size < IndexEntryHeader::kEndEntrySize || size > length - offset) {
            Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        }
        if (HasSubNode(entry) != sub_nodes) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        std::size_t needed = IndexEntryHeader::kKeyOffset + (sub_nodes ? 8 : 0);
        if (!IsEndEntry(entry)) {
            const std::size_t key_length = entry->key_length();
            needed += key_length;
            if (key_length == 0 || needed > size || !key_check_(KeyOf(entry), key_length)) {
                Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
            }
        }
        if (needed > size) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        if (IsEndEntry(entry)) return;
        offset += size;
    }
}

void IndexTreeBase::openAllocation() {
    if (allocation_opened_) return;
    allocation_ = record_.find(kIndexAllocation, name_);
    // A tree without buffers is a root alone; one that has buffers must
    // also have the bitmap that says which are in use.
    AttributeRef bitmap = record_.find(kBitmap, name_);
    if (!allocation_ || !bitmap) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    const auto* root = reinterpret_cast<const IndexRoot*>(root_.data());
    const std::uint32_t size = root->index_block_size();
    const std::uint32_t per_buffer = root->clusters_per_index_block();
    if (!IsPowerOfTwo(size) || size < kMinBufferSize || size > kMaxBufferSize) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    if (per_buffer == 0 || size % per_buffer != 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    buffer_size_ = size;
    vcn_unit_ = size / per_buffer;
    // Only now: a refusal above comes again at the next node asked for.
    allocation_opened_ = true;
}

const IndexHeader* IndexTreeBase::node(std::uint64_t vcn) { return loadNode(vcn, true); }

const IndexHeader* IndexTreeBase::loadNode(std::uint64_t vcn, bool check) {
    auto cached = nodes_.find(vcn);
    if (cached == nodes_.end()) {
        openAllocation();
        const std::uint64_t stream_size = allocation_->size();
        if (vcn > stream_size / vcn_unit_) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        const std::uint64_t position = vcn * vcn_unit_;
        if (stream_size - position < buffer_size_) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        std::vector<unsigned char> buffer(buffer_size_);
        if (allocation_->read(position, buffer_size_, buffer.data()) != buffer_size_) {
            Common::Raise(ERROR_TAG, Common::Failures::FILE_READ);
        }
        ApplyReadFixups(buffer.data(), buffer_size_, kIndexBufferFixupMinimum);
        if (check) {
            checkNode(&reinterpret_cast<const IndexBlock*>(buffer.data())->index_,
                      buffer_size_ - IndexBlock::kHeaderOffset);
        }
        cached = nodes_.emplace(vcn, std::move(buffer)).first;
    }
    return &reinterpret_cast<const IndexBlock*>(cached->second.data())->index_;
}

void IndexTreeBase::stepDown(IndexCursor& cursor) {
    if (cursor.stack.size() >= kMaxDepth) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    const std::uint64_t vcn = SubNodeVcn(cursor.position.entry);
    if (!cursor.entered.insert(vcn).second) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    cursor.stack.push_back(cursor.position);
    const IndexHeader* below = node(vcn);
    cursor.position = IndexPosition{vcn, below, FirstEntry(below)};
}

void IndexTreeBase::descendLeftmost(IndexCursor& cursor) {
    while (HasSubNode(cursor.position.entry)) stepDown(cursor);
}

bool IndexTreeBase::popToNext(IndexCursor& cursor) {
    while (!cursor.stack.empty()) {
        cursor.position = cursor.stack.back();
        cursor.stack.pop_back();
        if (!IsEndEntry(cursor.position.entry)) return true;
    }
    return false;
}

bool IndexTreeBase::first(IndexCursor& cursor) {
    cursor.clear();
    const IndexHeader* root = rootNode();
    cursor.position = IndexPosition{IndexPosition::kRootVcn, root, FirstEntry(root)};
    descendLeftmost(cursor);
    if (!IsEndEntry(cursor.position.entry)) return true;
    return next(cursor);
}

bool IndexTreeBase::next(IndexCursor& cursor) {
    if (!cursor.valid()) return false;
    for (;;) {
        const IndexEntryHeader* entry = cursor.position.entry;
        if (!IsEndEntry(entry)) {
            cursor.position.entry = Following(entry);
            descendLeftmost(cursor);
        } else if (HasSubNode(entry)) {
            stepDown(cursor);
            descendLeftmost(cursor);
        } else {
            if (popToNext(cursor)) return true;
            cursor.clear();
            return false;
        }
        // An end entry reached this way stands for no key: go on from it.
        if (!IsEndEntry(cursor.position.entry)) return true;
    }
}

bool IndexTreeBase::lookup(const Probe& probe, IndexCursor& cursor) {
    if (walkTo(probe, cursor)) return true;
    cursor.clear();
    return false;
}

bool IndexTreeBase::walkTo(const Probe& probe, IndexCursor& cursor) {
    cursor.clear();
    const IndexHeader* root = rootNode();
    cursor.position = IndexPosition{IndexPosition::kRootVcn, root, FirstEntry(root)};
    for (;;) {
        const IndexEntryHeader* entry = cursor.position.entry;
        if (!IsEndEntry(entry)) {
            const int order = probe.compare(KeyOf(entry), entry->key_length());
            if (order == 0) return true;
            if (order < 0) {
                cursor.position.entry = Following(entry);
                continue;
            }
        }
        // Everything below this entry sorts before its key.
        if (!HasSubNode(entry)) return false;
        stepDown(cursor);
    }
}

bool IndexTreeBase::last(IndexCursor& cursor) {
    cursor.clear();
    const IndexHeader* root = rootNode();
    cursor.position = IndexPosition{IndexPosition::kRootVcn, root, FirstEntry(root)};
    for (;;) {
        const IndexEntryHeader* before = nullptr;
        while (!IsEndEntry(cursor.position.entry)) {
            before = cursor.position.entry;
            cursor.position.entry = Following(before);
        }
        if (!HasSubNode(cursor.position.entry)) {
            if (before == nullptr) {
                cursor.clear();
                return false;
            }
            cursor.position.entry = before;
            return true;
        }
        stepDown(cursor);
    }
}

bool FileNameKey::Sound(const unsigned char* key, std::size_t length) {
    return length >= FileNameValue::kNameOffset && FileNameValue::SizeFor(ValueOf(key)->file_name_length()) <= length;
}

std::u16string FileNameKey::NameOf(const unsigned char* key) {
    std::u16string name(ValueOf(key)->file_name_length(), u'\0');
    for (std::size_t i = 0; i < name.size(); ++i) {
        name[i] = static_cast<char16_t>(Common::LoadLE16(key + FileNameValue::kNameOffset + 2 * i));
    }
    return name;
}

int FileNameKey::Compare(const NTFSDriver& driver, const unsigned char* key, std::size_t, const Wanted& name) {
    const std::u16string stored = NameOf(key);
    return driver.compare_names(stored.data(), stored.size(), name.data(), name.size());
}

int FileNameKey::Order(const NTFSDriver& driver, const unsigned char* a, std::size_t, const unsigned char* b,
                       std::size_t) {
    const std::u16string first = NameOf(a);
    const std::u16string second = NameOf(b);
    return driver.compare_names(first.data(), first.size(), second.data(), second.size());
}

}  // namespace ntfs
