#pragma once
// The shape of every HFS+ backup object: a piece that shows the three
// fields of the framework's BackupObject, and an object that is an ordered
// list of such pieces, built in place in an aggregate, read one after the
// other. An object shows the fields of the piece under its cursor, so a
// caller sees one sequence of streams whatever the nesting.
#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

#include "fsdriver/backup_object.h"
#include "hfsplus/memory_allocator.h"

namespace hfsplus {

// Where an aggregate's table finds each kind of piece.
enum BackupPiece : unsigned {
    kPieceAttributes = 0,
    kPieceFileTimes = 1,
    kPiecePosixAttributes = 2,
    kPiecePosixExtendedAttributes = 3,
    kPieceDataFork = 4,
    kPieceResourceFork = 5,
    kPieceAttributeDataFork = 6,  // or a fork's extents array
    kPieceInlineAttributeData = 7,  // or the value stream
    kPieceFinderInfo = 8,
    kPieceSymlinkTarget = 9,
    kPieceAttributesSequence = 10,
    kPieceDeviceObjectContent = 11,
};

// Stream types of the pieces.
constexpr std::uint32_t kStreamAttributes = 1;
constexpr std::uint32_t kStreamData = 4;
constexpr std::uint32_t kStreamTimes = 5;
constexpr std::uint32_t kStreamPosix = 6;
constexpr std::uint32_t kStreamExtendedAttributes = 7;

class HFSPlusBackupedItem : public FileSystemDriver::BackupObject {
public:
    HFSPlusBackupedItem() = default;
    HFSPlusBackupedItem(const HFSPlusBackupedItem&) = delete;
    HFSPlusBackupedItem& operator=(const HFSPlusBackupedItem&) = delete;
};

template <typename A, typename M = AggregateMemoryAllocator<A>>
class HFSPlusBackupObject : public HFSPlusBackupedItem {
public:
    // Reads the current piece, then moves past every piece that has no
    // more to give, taking over the fields of the next.
    std::uint64_t read(void* area) override {
        if (cursor >= pieces.size()) {
            stream_type = 0;
            return 0;
        }
        const std::uint64_t got = pieces[cursor]->read(area);
        Settle();
        return got;
    }

protected:
    template <typename... Arguments>
    explicit HFSPlusBackupObject(Arguments&&... arguments) : allocator(std::forward<Arguments>(arguments)...) {}

    // Builds the piece `T` in `slot` of the aggregate, marks it at `index`
    // and appends it to the list, through the table as any reader would.
    template <typename T, typename... Arguments>
    void Append(unsigned index, std::optional<T>& slot, Arguments&&... arguments) {
        slot.emplace(std::forward<Arguments>(arguments)...);
        allocator.Place(index, static_cast<HFSPlusBackupedItem*>(&*slot));
        pieces.push_back(static_cast<HFSPlusBackupedItem*>(allocator.GetItem(index)));
    }

    // The cursor on the first piece that still has data, its fields shown;
    // 0 when none has. Called when the list is complete and after a read.
    void Settle() {
        while (cursor < pieces.size() && pieces[cursor]->stream_type == 0) ++cursor;
        if (cursor >= pieces.size()) {
            stream_type = 0;
            chunk = 0;
            alignment = 1;
            return;
        }
        stream_type = pieces[cursor]->stream_type;
        chunk = pieces[cursor]->chunk;
        alignment = pieces[cursor]->alignment;
    }

    M allocator;
    std::vector<HFSPlusBackupedItem*> pieces;  // not owned: they live in the allocator
    std::size_t cursor = 0;
};

}  // namespace hfsplus
