#pragma once
// A walk over the children of one folder in catalog key order. The walk
// holds a position in the catalog and the id of the child there, never a
// pointer into a node, so whatever the tree reads meanwhile can't leave it
// dangling. The folder's valence says how many children to expect; the
// walk checks the records against it at each step, so a valence that lies
// in either direction ends in FILE_CORRUPT, and so does a leaf chain that
// turns back on itself (names must rise strictly within a folder).
#include <cstdint>

#include "hfsplus/hfsplus_string.h"
#include "hfsplus/record_position.h"

namespace hfsplus {

class HFSPlusMetadata;
struct CatalogRecord;

// How many children a folder holds, as its record tells now.
class HFSPlusAbstractDirectoryContent {
public:
    virtual ~HFSPlusAbstractDirectoryContent() = default;
    virtual std::uint32_t GetItemCount() = 0;
    virtual std::uint32_t GetDirectoryId() const = 0;
};

class HFSPlusDirectoryContent : public HFSPlusAbstractDirectoryContent {
public:
    HFSPlusDirectoryContent(HFSPlusMetadata* metadata, std::uint32_t directory_id)
        : metadata_(metadata), directory_id_(directory_id) {}

    // The valence of the folder's record, read anew each time: a folder
    // that changes under a walk is seen at its next step. FILE_CORRUPT when
    // the id isn't a folder.
    std::uint32_t GetItemCount() override;
    std::uint32_t GetDirectoryId() const override { return directory_id_; }

private:
    HFSPlusMetadata* metadata_;  // not owned
    std::uint32_t directory_id_;
};

class HFSPlusDirectoryItemsIterator {
public:
    static constexpr std::uint32_t kEndItemId = 0xFFFFFFFFu;

    // On the first child; at the end for a folder without children.
    HFSPlusDirectoryItemsIterator(HFSPlusMetadata* metadata, HFSPlusAbstractDirectoryContent* content);
    // On the child `name`; FILE_NOT_FOUND when the folder has none such.
    HFSPlusDirectoryItemsIterator(HFSPlusMetadata* metadata, HFSPlusAbstractDirectoryContent* content,
                                  const HFSPlusString& name);

    // To the next child, or to the end; nothing at the end.
    void Step();
    bool AtEnd() const { return item_id == kEndItemId; }
    // Equal when on the same child; FILE_CORRUPT for walks of two folders.
    bool operator==(const HFSPlusDirectoryItemsIterator& other) const;
    bool operator!=(const HFSPlusDirectoryItemsIterator& other) const { return !(*this == other); }

    std::uint32_t directory_id;
    std::uint32_t item_id = kEndItemId;
    RecordPosition position;
    HFSPlusMetadata* metadata;                 // not owned
    HFSPlusAbstractDirectoryContent* content;  // not owned
    std::uint32_t index = 0;                   // of the current child; the item count at the end
    HFSPlusString name;

private:
    void PlaceOnFirst();
    // Takes the child at `at` as the current one, the `number`th.
    void Stand(const RecordPosition& at, const CatalogRecord& record, std::uint32_t number);
    void GoToEnd(std::uint32_t count);
};

}  // namespace hfsplus
