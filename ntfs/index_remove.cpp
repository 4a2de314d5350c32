// Removal from an index tree. An entry in a leaf simply goes; an entry
// with a sub-node gives its place to its predecessor, the greatest key
// below it. A leaf that loses its last key is freed and its parent's entry
// goes with it; keys that lose their place that way go in again through
// the ordinary insertion, which keeps the tree balanced without any
// merging of nodes.
#include <cstring>
#include <set>

#include "loader/common/raise.h"
#include "ntfs/index_tree.h"
#include "ntfs/ntfs_driver.h"

namespace ntfs {

namespace {

// Each level holds at least two keys: a deeper path only comes from damage.
constexpr std::size_t kMaxDepth = 32;

bool SamePlace(const IndexTreeBase::Place* place, std::uint64_t vcn, std::uint32_t offset) {
    return place != nullptr && place->vcn == vcn && place->offset == offset;
}

}  // namespace

void IndexTreeBase::remove(IndexCursor& cursor) {
    if (!cursor.valid() || IsEndEntry(cursor.position.entry)) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    const Place target = placeOf(cursor.position);
    Path path = pathOf(cursor);
    cursor.clear();
    std::vector<Entry> again;
    if (HasSubNode(entryAt(target))) {
        replaceWithPredecessor(target, path, again);
    } else {
        removeFromNode(target);
        collapse(target.vcn, path, again, nullptr);
    }
    insertAgain(again);
}

void IndexTreeBase::insertAgain(std::vector<Entry>& again) {
    for (const Entry& entry : again) {
        IndexCursor cursor;
        insert(entry, cursor);
    }
}

void IndexTreeBase::removeFromNode(const Place& place) {
    const std::uint32_t size = entryAt(place)->length();
    IndexHeader* node = mutableNode(place.vcn);
    const std::uint32_t length = node->index_length();
    auto* at = reinterpret_cast<unsigned char*>(node) + place.offset;
    std::memmove(at, at + size, length - place.offset - size);
    node->index_length_.set(length - size);
    if (place.vcn != IndexPosition::kRootVcn) {
        writeBuffer(place.vcn);
        return;
    }
    node->allocated_size_.set(length - size);
    root_.resize(kIndexRootHeadSize + length - size);
    if (root_attribute_->resize(root_.size(), true) != root_.size()) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_WRITE);
    }
    writeRoot();
}

// An entry with a sub-node: its predecessor, the last key of the
// rightmost leaf below it, comes out of that leaf and takes its place.
void IndexTreeBase::replaceWithPredecessor(const Place& target, Path path, std::vector<Entry>& again) {
    Path below = path;
    below.push_back(target);
    std::set<std::uint64_t> entered;
    std::uint64_t vcn = subNodeAt(target);
    std::uint32_t end = 0;
    for (;;) {
        if (below.size() > kMaxDepth || !entered.insert(vcn).second) {
            Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        }
        end = endOffset(vcn);
        if (!HasSubNode(entryAt(Place{vcn, end}))) break;
        below.push_back(Place{vcn, end});
        vcn = subNodeAt(Place{vcn, end});
    }
    std::uint32_t offset = 0;
    if (!lastRealEntry(vcn, offset)) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    Entry predecessor = keyOnlyCopy(Place{vcn, offset});
    removeFromNode(Place{vcn, offset});
    if (collapse(vcn, below, again, &target)) {
        // The entry went with the emptied nodes below it: the predecessor
        // has no place to take and goes in anew.
        again.push_back(std::move(predecessor));
        return;
    }
    Entry moved = WithSubNode(std::move(predecessor), subNodeAt(target));
    removeFromNode(target);
    Place place = target;
    while (insertAt(place, moved, path)) {
    }
}

bool IndexTreeBase::collapse(std::uint64_t leaf, Path& path, std::vector<Entry>& again, const Place* watched) {
    std::uint64_t vcn = leaf;
    std::uint32_t unused = 0;
    while (vcn != IndexPosition::kRootVcn && !lastRealEntry(vcn, unused)) {
        if (path.empty()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        freeNode(vcn);
        const Place parent = path.back();
        path.pop_back();
        if (!IsEndEntry(entryAt(parent))) {
            const bool watched_goes = SamePlace(watched, parent.vcn, parent.offset);
            if (!watched_goes) again.push_back(keyOnlyCopy(parent));
            removeFromNode(parent);
            return watched_goes;
        }
        std::uint32_t last = 0;
        if (lastRealEntry(parent.vcn, last)) {
            // The end entry takes over the last key's sub-node; the key
            // itself goes in anew.
            setSubNodeAt(parent, subNodeAt(Place{parent.vcn, last}));
            const bool watched_goes = SamePlace(watched, parent.vcn, last);
            if (!watched_goes) again.push_back(keyOnlyCopy(Place{parent.vcn, last}));
            removeFromNode(Place{parent.vcn, last});
            return watched_goes;
        }
        // The parent led to the freed node alone: it is empty now as well.
        // (A node whose end entry still leads to a live sub-node holds keys
        // below it however few it holds itself, and stays.)
        if (parent.vcn == IndexPosition::kRootVcn) {
            resetRoot();
            return false;
        }
        vcn = parent.vcn;
    }
    return false;
}

}  // namespace ntfs
