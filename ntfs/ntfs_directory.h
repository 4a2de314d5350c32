#pragma once
// One NTFS directory: the "$I30" index of its record. Names are found
// without regard to case through $UpCase; where two entries differ only in
// case (POSIX names), a lookup gives whichever the tree meets first, and an
// identifier, which carries the file reference, finds its own.
//
// A change writes each structure it touches at once, in an order that
// leaves, after a failure half-way, a name too many rather than a file
// without one: the index entry before the name in the record when a name
// comes, the name in the record before the index entry when one goes.
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "fsdriver/directory_object.h"
#include "fsdriver/lru_list.h"
#include "ntfs/file_record.h"
#include "ntfs/index_tree.h"

namespace ntfs {

class NTFSDriver;
class NTFSIterator;
struct NamesUnderParent;

// A $FILE_NAME value being made, byte order converted at each field.
class NameValue {
public:
    // A copy of `key` under another parent, namespace and name. Names of 1
    // to 255 characters only: FILE_CREATE otherwise.
    NameValue(const FileNameValue& key, std::uint64_t parent, std::uint8_t name_space, const std::u16string& name);
    // A new file's: all four times `now`, sizes 0, no reparse tag.
    static NameValue Fresh(std::uint64_t parent, std::uint64_t now, std::uint32_t attributes,
                           const std::u16string& name);

    const FileNameValue& value() const { return *FileNameKey::ValueOf(bytes_.data()); }
    const unsigned char* data() const { return bytes_.data(); }
    std::uint32_t length() const { return static_cast<std::uint32_t>(bytes_.size()); }
    void set_name_space(std::uint8_t name_space) { bytes_[kNameSpaceOffset] = name_space; }
    void set_reparse_tag(std::uint32_t tag);
    void set_attributes(std::uint32_t attributes);

private:
    static constexpr std::size_t kNameSpaceOffset = 65;
    explicit NameValue(const std::u16string& name);
    std::vector<unsigned char> bytes_;
};

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

    // Changes; on a volume held read only FILE_READ_ONLY.
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
    // Without an entry, this directory's own backup; with one, only a
    // symbolic link to a file is served, through its file object.
    FileSystemDriver::BackupObject* new_backup_object(IteratorObject* entry, std::uint32_t option) override;
    // This directory's attributes, times, descriptor, reparse point and
    // named streams set from a backup (restore_object.cpp).
    FileSystemDriver::RestoreObject* new_restore_object(std::uint32_t option) override;

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
    // Writes `value` (`length` bytes, a $FILE_NAME value) over the key of
    // the entry of the same name that holds `reference`. The index keeps
    // copies of the sizes, times and attributes of each name; a file that
    // changes them in its record brings the copies in step through this.
    // The key's length can't change: FILE_CORRUPT when it would.
    void update_index_key(std::uint64_t reference, const FileNameValue& value, std::uint32_t length);
    // The same in the directory that `value` names as its parent.
    static void UpdateKeyInParent(NTFSDriver* driver, std::uint64_t reference, const FileNameValue& value,
                                  std::uint32_t length);

    // Puts an entry for `value` naming the file `reference` in the index:
    // FILE_EXISTS when the name is there in any case.
    void add_link(const NameValue& value, std::uint64_t reference);
    // Takes the name (`name`, `reference`) out of the file's record, with
    // its short or long twin, and then out of the index. The file's last
    // name going, the file goes when its last holder lets go.
    void remove_link(const std::u16string& name, std::uint64_t reference);

    NTFSDriver* ntfs;
    RecordRef record;
    LRUList<NTFSIterator> iterators;

private:
    // A new record named `name` here, with its $STANDARD_INFORMATION and
    // the name in the index and in the record; `attributes` has the index
    // bit for a directory.
    RecordRef create_record(const std::u16string& name, std::uint32_t attributes);
    void write_standard_information(BaseFileRecord& file, std::uint64_t now, std::uint32_t attributes);
    void pair_with_short_name(BaseFileRecord& file, std::uint64_t reference, NamesUnderParent& notes);
    // The security id of this directory, which a new file shares.
    std::uint32_t security_id();
    // Removal of a directory's name: an only link needs an empty directory.
    void remove_directory_link(const std::u16string& name, std::uint64_t reference);
    // The entry of `name` and its key, copied before the index changes.
    struct FoundEntry {
        std::uint64_t reference = 0;
        std::vector<unsigned char> key;
        const FileNameValue& value() const { return *FileNameKey::ValueOf(key.data()); }
        bool is_directory() const { return (value().file_attributes() & kAttributeIndexed) != 0; }
    };
    FoundEntry found_entry(const std::u16string& name);
    // The file of an entry, its reference checked against the entry's.
    RecordRef record_of(std::uint64_t reference);

    std::unique_ptr<DirectoryIndex> index_;
};

}  // namespace ntfs
