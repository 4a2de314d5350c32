#pragma once
// Where a backup object keeps its pieces: every piece that an object may
// have is built in place inside one aggregate, and a table of byte offsets
// says which of them are there. A piece that the table doesn't mark was
// never built for this entry, and asking for it is a request that the
// entry doesn't fit (FILE_BACKUP), never a read of unbuilt storage.
#include <cstddef>
#include <cstdint>
#include <memory>

#include "loader/common/raise.h"

namespace hfsplus {

class MemoryAllocator {
public:
    // The places of an aggregate's table, one per kind of piece.
    static constexpr unsigned kPieces = 12;
    static constexpr std::uint64_t kNoPiece = 0xFFFFFFFFFFFFFFFFull;

    virtual ~MemoryAllocator() = default;
    // The piece at `index`; FILE_BACKUP when it isn't there.
    virtual void* GetItem(unsigned index) = 0;
};

// One aggregate `A`, a plain structure of every possible piece, and the
// offsets of the pieces built in it.
template <typename A>
class AggregateMemoryAllocator : public MemoryAllocator {
public:
    AggregateMemoryAllocator() {
        for (std::uint64_t& offset : offsets) offset = kNoPiece;
    }
    AggregateMemoryAllocator(const AggregateMemoryAllocator&) = delete;
    AggregateMemoryAllocator& operator=(const AggregateMemoryAllocator&) = delete;

    // Marks `piece`, built inside the aggregate, as the piece at `index`.
    // A place outside the table or the aggregate is a fault of the caller.
    void Place(unsigned index, const void* piece) {
        const auto* base = reinterpret_cast<const unsigned char*>(&aggregate);
        const auto* at = static_cast<const unsigned char*>(piece);
        if (index >= kPieces || at < base || at >= base + sizeof(A)) {
            Common::Raise(ERROR_TAG, Common::Failures::FILE_BACKUP);
        }
        offsets[index] = static_cast<std::uint64_t>(at - base);
    }

    void* GetItem(unsigned index) override {
        if (index >= kPieces || offsets[index] == kNoPiece) Common::Raise(ERROR_TAG, Common::Failures::FILE_BACKUP);
        return reinterpret_cast<unsigned char*>(&aggregate) + offsets[index];
    }

    A aggregate;
    std::uint64_t offsets[kPieces];
};

// A list of pieces of one kind: `count` aggregates `A`, taken one after
// the other. The count is the caller's, from a list it has read.
template <typename A>
class SequenceMemoryAllocator : public MemoryAllocator {
public:
    explicit SequenceMemoryAllocator(std::size_t count)
        : elements(count == 0 ? nullptr : new AggregateMemoryAllocator<A>[count]), length(count) {}
    SequenceMemoryAllocator(const SequenceMemoryAllocator&) = delete;
    SequenceMemoryAllocator& operator=(const SequenceMemoryAllocator&) = delete;

    // The next free aggregate, which becomes the one that Place and
    // GetItem answer for; FILE_BACKUP when none is left.
    A& Take() {
        if (next >= length) Common::Raise(ERROR_TAG, Common::Failures::FILE_BACKUP);
        return elements[next++].aggregate;
    }
    void Place(unsigned index, const void* piece) { Current().Place(index, piece); }
    void* GetItem(unsigned index) override { return Current().GetItem(index); }

    std::size_t size() const { return length; }

private:
    AggregateMemoryAllocator<A>& Current() {
        if (next == 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_BACKUP);
        return elements[next - 1];
    }

    std::unique_ptr<AggregateMemoryAllocator<A>[]> elements;
    std::size_t length;
    std::size_t next = 0;
};

}  // namespace hfsplus
