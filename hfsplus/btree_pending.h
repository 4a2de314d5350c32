#pragma once
// Records on their way into a tree, one array per level: the record being
// inserted, and the records a full node had to give up so that it could
// take it. They wait in key order until a node has room for them.
#include <cstddef>
#include <cstdint>
#include <deque>
#include <vector>

namespace hfsplus {

class RecordBufferArray {
public:
    explicit RecordBufferArray(std::size_t slot_size) : slot_size(slot_size) {}

    // Key, a zero byte when its size is odd, data, a zero byte when its
    // size is odd. FILE_NO_MEMORY when that passes the slot size.
    void Append(const unsigned char* key, std::size_t key_size, const unsigned char* data, std::size_t data_size);
    // A record that a node gave up, as it stood there; it goes behind the others.
    void PushBack(const unsigned char* record, std::size_t size);
    const std::vector<unsigned char>& Front() const;  // FILE_CORRUPT when empty
    void PopFront();
    // The bytes that all records need in a node, their offsets included.
    std::size_t NeededSize() const;
    bool empty() const { return records.empty(); }
    std::size_t size() const { return records.size(); }
    void Clear() { records.clear(); }

private:
    std::size_t slot_size;
    std::deque<std::vector<unsigned char>> records;
};

class RecordBufferTree {
public:
    explicit RecordBufferTree(std::size_t slot_size) : slot_size(slot_size) {}

    // The array of `level` (1 = leaves), made on first use.
    RecordBufferArray& Level(unsigned level);
    void Clear();

private:
    std::size_t slot_size;
    std::deque<RecordBufferArray> levels;
};

}  // namespace hfsplus
