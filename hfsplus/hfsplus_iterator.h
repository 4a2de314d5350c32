#pragma once
// A position on one entry of an HFS+ folder. It holds the place of the
// entry's record and the entry's id, not a copy of the record: each query
// reads the record at the place again and checks that the id is still the
// one it stood on, so a change of the node under it shows as FILE_CORRUPT
// rather than as another entry's answers. Past the end, every query but
// next() raises FILE_EOF.
//
// For a hard link, what the entry holds (size, dates, mode, owner) is its
// inode's; only object_id() and kind() are the link record's own.
#include <cstdint>
#include <string>

#include "fsdriver/iterator_object.h"
#include "hfsplus/catalog_record.h"
#include "hfsplus/directory_items_iterator.h"

namespace hfsplus {

class HFSPlusDriver;
class HFSPlusDirectoryObject;

class HFSPlusIteratorObject : public FileSystemDriver::IteratorObject {
public:
    // On the folder's first child, hidden or not: PlaceOnFirstVisible
    // finishes the placing for a listing.
    explicit HFSPlusIteratorObject(HFSPlusDirectoryObject* directory);
    // On the child `name`, hidden or not; FILE_NOT_FOUND when absent.
    HFSPlusIteratorObject(HFSPlusDirectoryObject* directory, const HFSPlusString& name);
    ~HFSPlusIteratorObject() override;
    HFSPlusIteratorObject(const HFSPlusIteratorObject&) = delete;
    HFSPlusIteratorObject& operator=(const HFSPlusIteratorObject&) = delete;

    // Steps over the names that listings leave out; false when none is left.
    bool PlaceOnFirstVisible();

    bool next() override;
    file_identifier* identifier() override;
    std::u16string name() override;
    std::uint64_t size() override;
    std::uint64_t allocated_size() override;
    std::uint32_t kind() override;
    file_time modified() override;
    file_time changed() override;
    file_time created() override;
    file_time accessed() override;
    bool hidden() override;
    std::uint64_t object_id() override;
    std::uint64_t first_sector() override;
    std::uint32_t permissions() override;
    // Copies the 16 bytes of the BSD info to `buffer` when there is one.
    std::uint32_t security(void* buffer) override;
    std::uint32_t links() override;
    std::uint32_t owner() override;
    std::uint32_t group() override;
    // Of device files only; FILE_UNSUPPORTED for any other entry.
    std::uint32_t device_major() override;
    std::uint32_t device_minor() override;
    // The target stored as UTF-8 in a symbolic link's data fork;
    // FILE_UNSUPPORTED for any other entry, FILE_CORRUPT for an empty one.
    std::u16string link_target() override;

    // The entry's record, read anew; FILE_EOF at the end, FILE_CORRUPT when
    // the place holds another entry now or a record of neither kind.
    CatalogRecord Record();
    // The record that holds the entry's content: a hard link's inode's.
    CatalogRecord Inode(const CatalogRecord& record);

    HFSPlusDriver* driver;               // not owned
    HFSPlusDirectoryObject* directory;   // not owned; counted while the iterator lives
    HFSPlusDirectoryContent content;
    HFSPlusDirectoryItemsIterator items;
    std::u16string host_name;
    std::u16string target;               // the last link_target() answered

private:
    bool StepOverHidden();
    std::uint32_t DeviceNumber();
};

}  // namespace hfsplus
