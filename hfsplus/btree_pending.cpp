#include "hfsplus/btree_pending.h"

#include <algorithm>

#include "loader/common/raise.h"

namespace hfsplus {

void RecordBufferArray::Append(const unsigned char* key, std::size_t key_size, const unsigned char* data,
                               std::size_t data_size) {
    const std::size_t padded_key = key_size + (key_size & 1);
    const std::size_t padded_data = data_size + (data_size & 1);
    if (key_size < 2 || padded_key + padded_data > slot_size) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_NO_MEMORY);
    }
    std::vector<unsigned char> record(padded_key + padded_data, 0);
    std::copy(key, key + key_size, record.begin());
    if (data_size != 0) std::copy(data, data + data_size, record.begin() + static_cast<std::ptrdiff_t>(padded_key));
    records.push_back(std::move(record));
}

void RecordBufferArray::PushBack(const unsigned char* record, std::size_t size) {
    records.emplace_back(record, record + size);
}

const std::vector<unsigned char>& RecordBufferArray::Front() const {
    if (records.empty()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    return records.front();
}

void RecordBufferArray::PopFront() {
    if (records.empty()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    records.pop_front();
}

std::size_t RecordBufferArray::NeededSize() const {
    std::size_t sum = 0;
    for (const auto& record : records) sum += record.size() + 2;
    return sum;
}

RecordBufferArray& RecordBufferTree::Level(unsigned level) {
    if (level < 1 || level > 0xFF) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    while (levels.size() < level) levels.emplace_back(slot_size);
    return levels[level - 1];
}

void RecordBufferTree::Clear() {
    for (auto& level : levels) level.Clear();
}

}  // namespace hfsplus
