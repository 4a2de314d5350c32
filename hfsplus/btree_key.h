#pragma once
// Keys of a node copied out of its buffer, so that they outlive it: a
// node's buffer may go to another node at the next node request.
#include <cstdint>
#include <cstring>

#include "hfsplus/node_block.h"
#include "loader/common/raise.h"

namespace hfsplus {

inline KeyAndNodeIndexRecord CopyKeyOf(const NodeBlock& node, std::uint16_t index) {
    KeyAndNodeIndexRecord copy;
    copy.key_size = node.GetKeySize(index);
    if (copy.key_size > KeyAndNodeIndexRecord::kKeyCapacity) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    std::memcpy(copy.key, node.GetKey(index), copy.key_size);
    return copy;
}

}  // namespace hfsplus
