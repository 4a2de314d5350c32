#pragma once
// One NTFS directory: the "$I30" index of its record. Names are found
// without regard to case through $UpCase; where two entries differ only in
// case (POSIX names), a lookup gives whichever the tree meets first, and an
// identifier, which carries the file reference, finds its own.
//
// Until the volume's write path exists every change is refused before it
// reaches the disk.
#include <cstdint>
#include <memory>
#include <string>

#include "fsdriver/directory_object.h"
#include "fsdriver/lru_list.h"
#include "ntfs/file_record.h"
#include "ntfs/index_tree.h"

namespace ntfs {

class NTFSDriver;
class NTFSIterator;

class NTFSDirectory : public FileSystemDriver::DirectoryObject {
public:
    using IteratorObject = FileSystemDriver::IteratorObject;
    using FileObject = FileSystemDriver::FileObject;

    // The directory of record id + 5: FILE_NOT_FOUND for a system record
    // other than the root, FILE_CORRUPT for a record without "$I30".
    NTFSDirectory(NTFSDriver* driver, std::uint32_t id);
    ~NTFSDirectory() override;

    IteratorObject* begin() override;
    IteratorObject* find(const std::u16string& name) override;
    IteratorObject* find(const file_identifier& entry) override;
    std::uint32_t lookup_directory(const std::u16string& name) override;
    FileObject* open_file(const std::u16string& name) override;
    FileObject* open_file(IteratorObject& entry) override;
    FileObject* open_file(const file_identifier& entry) override;

    // Changes, refused until the write path exists.
    FileObject* create_file(const std::u16string& name) override;
    void remove_file(const std::u16string& name) override;
    void remove_directory_entry(const std::u16string& name) override;
    void make_directory(const std::u16string& name) override;
    void rename_entry(const std::u16string& name, DirectoryObject& target, const std::u16string& new_name) override;
    void link_entry(const std::u16string& name, DirectoryObject& target, const std::u16string& new_name) override;
    void symlink_entry(const std::u16string& name, const std::u16string& target) override;
    void set_security(const std::u16string& name, const void* data, std::uint32_t size) override;
    void set_attributes(const std::u16string& name, std::uint32_t value) override;
    void set_short_name(const std::u16string& name, const std::u16string& short_name) override;

    // --- for the iterators ---
    // The index, opened at first need and kept with the object.
    DirectoryIndex& index();
    // Places `cursor` on `name`; FILE_NOT_FOUND when it isn't there.
    void lookup(const std::u16string& name, IndexCursor& cursor);
    // Places `cursor` on the entry of `name` that holds `reference`.
    void lookup(const std::u16string& name, std::uint64_t reference, IndexCursor& cursor);
    // Whether a listing leaves the entry out: the record filter's records,
    // the system records and what lies below them other than the root's
    // entries, and DOS-only names, which the long name shows already.
    bool listing_hides(const IndexEntryHeader* entry) const;
    // The open file of an entry: the one already open, or a new one.
    // FILE_NOT_FOUND for a directory and for what the driver hides.
    FileObject* open_entry(const IndexEntryHeader* entry);
    // Before the index changes: each iterator keeps its name and lets go
    // of its cursor, to find its place again at its next use.
    void tell_iterators();

    NTFSDriver* ntfs;
    RecordRef record;
    LRUList<NTFSIterator> iterators;

private:
    std::unique_ptr<DirectoryIndex> index_;
};

}  // namespace ntfs
