#include "hfsplus/nodes_cache.h"

#include <utility>

#include "loader/common/raise.h"

namespace hfsplus {

NodesCache::NodesCache(std::uint8_t capacity, std::uint16_t node_size, std::uint32_t node_count)
    : node_size(node_size),
      node_count(node_count),
      entries(capacity),
      buffers(static_cast<std::size_t>(capacity) * node_size) {
    if (capacity < 2) Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
    for (std::uint8_t i = 0; i < capacity; ++i) entries[i].buffer = i;
}

void NodesCache::Resize(std::uint32_t count) {
    if (count < node_count) Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
    node_count = count;
}

NodeBlock* NodesCache::Find(std::uint32_t number) const {
    auto found = nodes.find(number);
    return found == nodes.end() ? nullptr : found->second.get();
}

bool NodesCache::Holds(std::uint32_t number) const {
    for (const Entry& entry : entries) {
        if (entry.node == number) return true;
    }
    return false;
}

NodeBlock& NodesCache::Node(std::uint32_t number) {
    if (NodeBlock* node = Find(number)) return *node;
    auto made = nodes.emplace(number, std::make_unique<NodeBlock>(number, node_size));
    return *made.first->second;
}

NodeBlock& NodesCache::Take(std::uint8_t place, std::uint32_t number) {
    NodeBlock& node = Node(number);
    entries[place].node = number;
    node.Bind(buffers.data() + static_cast<std::size_t>(entries[place].buffer) * node_size);
    return node;
}

NodeBlock& NodesCache::Acquire(std::uint32_t number) {
    if (number == 0 || number >= node_count) Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
    return is_full ? AcquireFull(number) : AcquireFilling(number);
}

NodeBlock& NodesCache::AcquireFilling(std::uint32_t number) {
    const std::uint8_t last = static_cast<std::uint8_t>(entries.size() - 1);
    for (std::uint8_t place = 0; place < last; ++place) {
        if (entries[place].node == number) {
            if (place > 0) std::swap(entries[place], entries[place - 1]);
            return Node(number);
        }
        if (entries[place].node == kFreeEntry) return Take(place, number);
    }
    if (entries[last].node == number) return Node(number);
    if (entries[last].node != kFreeEntry) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    is_full = 1;
    return Take(last, number);
}

NodeBlock& NodesCache::AcquireFull(std::uint32_t number) {
    const std::uint8_t last = static_cast<std::uint8_t>(entries.size() - 1);
    if (entries[last].node == number) return Node(number);
    for (int place = last - 1; place >= 0; --place) {
        if (entries[place].node == number) {
            std::swap(entries[place], entries[place + 1]);
            return Node(number);
        }
    }
    NodeBlock& victim = Node(entries[0].node);
    // The tree writes its dirty nodes out before a miss can evict one.
    if (victim.IsDirty()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    victim.Unbind();
    return Take(0, number);
}

}  // namespace hfsplus
