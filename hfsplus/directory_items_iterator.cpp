#include "hfsplus/directory_items_iterator.h"

#include "hfsplus/catalog_file.h"
#include "hfsplus/hfsplus_metadata.h"
#include "loader/common/raise.h"

namespace hfsplus {

namespace {

bool IsChildRecord(const CatalogRecord& record) { return record.is_folder() || record.is_file(); }

}  // namespace

std::uint32_t HFSPlusDirectoryContent::GetItemCount() {
    const CatalogRecord record = metadata_->GetCatalogFile().GetRecordById(directory_id_);
    if (!record.is_folder()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    return record.folder().valence();
}

HFSPlusDirectoryItemsIterator::HFSPlusDirectoryItemsIterator(HFSPlusMetadata* metadata,
                                                             HFSPlusAbstractDirectoryContent* content)
    : directory_id(content->GetDirectoryId()), metadata(metadata), content(content) {
    const std::uint32_t count = content->GetItemCount();
    if (count == 0) {
        GoToEnd(count);
        return;
    }
    PlaceOnFirst();
}

HFSPlusDirectoryItemsIterator::HFSPlusDirectoryItemsIterator(HFSPlusMetadata* metadata,
                                                             HFSPlusAbstractDirectoryContent* content,
                                                             const HFSPlusString& wanted)
    : directory_id(content->GetDirectoryId()), metadata(metadata), content(content) {
    const std::uint32_t count = content->GetItemCount();
    if (count == 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_NOT_FOUND);
    const RecordPosition target = metadata->GetCatalogFile().FindByKey(directory_id, wanted);
    // The number of the child is what the valence checks of later steps
    // stand on, so it is counted from the first child.
    PlaceOnFirst();
    while (position != target) {
        Step();
        if (AtEnd()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
}

void HFSPlusDirectoryItemsIterator::PlaceOnFirst() {
    CatalogFile& catalog = metadata->GetCatalogFile();
    RecordPosition first;
    try {
        first = catalog.GetFirstChild(directory_id);
    } catch (const Common::Error& error) {
        // The valence promised children that the tree doesn't hold.
        if (error.Code() == Common::FILE_NOT_FOUND) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT, error);
        throw;
    }
    const CatalogRecord record = catalog.GetRecordAt(first);
    if (record.parent_id != directory_id || !IsChildRecord(record)) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    Stand(first, record, 0);
}

void HFSPlusDirectoryItemsIterator::Step() {
    if (AtEnd()) return;
    const std::uint32_t count = content->GetItemCount();
    if (index >= count) {
        // The folder lost children under the walk; what stood behind is gone.
        GoToEnd(count);
        return;
    }
    CatalogFile& catalog = metadata->GetCatalogFile();
    const RecordPosition next = catalog.GetNextRecord(position);
    const bool last = index + 1 == count;
    if (!next.IsValid()) {
        if (!last) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        GoToEnd(count);
        return;
    }
    const CatalogRecord record = catalog.GetRecordAt(next);
    const bool ours = record.parent_id == directory_id;
    // Behind the last child the folder must end, and before it must not:
    // a valence too small or too large is found here.
    if (ours == last) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    if (last) {
        GoToEnd(count);
        return;
    }
    if (!IsChildRecord(record)) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    // Names rise from one child to the next, so that a walk that comes
    // round again ends. HFSX volumes store them in binary order, in which
    // names differing only in case rise though they fold alike.
    const bool rises_folded = CompareFolded(name.data(), name.length(), record.name.data(), record.name.length()) < 0;
    const bool rises_binary = CompareBinary(name.data(), name.length(), record.name.data(), record.name.length()) < 0;
    if (!rises_folded && !rises_binary) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    Stand(next, record, index + 1);
}

void HFSPlusDirectoryItemsIterator::Stand(const RecordPosition& at, const CatalogRecord& record, std::uint32_t number) {
    position = at;
    item_id = record.id();
    // An id of all ones would read as the end of the walk.
    if (item_id == kEndItemId) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    name = record.name;
    index = number;
}

void HFSPlusDirectoryItemsIterator::GoToEnd(std::uint32_t count) {
    item_id = kEndItemId;
    position = RecordPosition();
    index = count;
    name = HFSPlusString();
}

bool HFSPlusDirectoryItemsIterator::operator==(const HFSPlusDirectoryItemsIterator& other) const {
    if (directory_id != other.directory_id) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    return item_id == other.item_id && position == other.position;
}

}  // namespace hfsplus
