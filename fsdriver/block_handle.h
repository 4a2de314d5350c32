#pragma once
// A hold on one cached block, for as long as the handle lives. Copying adds
// a hold, destruction and assignment give one back, so an early return or a
// raised error cannot leak a hold and no code releases a block by hand.
// A null handle is legal and holds nothing.
#include <cstdint>

struct CachedBlock;
class FileSystemDriver;

class BlockHandle {
public:
    BlockHandle() = default;
    // Takes over a hold that the cache has already counted.
    explicit BlockHandle(CachedBlock* adopted) : block_(adopted) {}
    BlockHandle(const BlockHandle& other);
    BlockHandle(BlockHandle&& other) noexcept : block_(other.block_) { other.block_ = nullptr; }
    BlockHandle& operator=(const BlockHandle& other);
    BlockHandle& operator=(BlockHandle&& other) noexcept;
    ~BlockHandle() { reset(); }

    // Gives the hold back now; the handle becomes null.
    void reset();

    explicit operator bool() const { return block_ != nullptr; }
    unsigned char* data() const;
    std::uint64_t first() const;
    std::uint32_t count() const;
    bool dirty() const;
    // Records a change of the data. Only after the owner's
    // prepare_block_write has let the write through.
    void set_dirty();

    CachedBlock* block() const { return block_; }

private:
    CachedBlock* block_ = nullptr;
};
