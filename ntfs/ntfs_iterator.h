#pragma once
// A walk over an NTFS directory in key order. Nearly all that it says comes
// from the key of the entry it stands on, a copy of the file's $FILE_NAME;
// the file's record is read only for what the key doesn't hold: the first
// sector, the short name, the link count, the link target and security.
//
// The iterator holds its directory, and is on its directory's list, so
// that a change of the index can tell it to keep its name and find its
// place again by name at its next use.
#include <cstdint>
#include <string>
#include <vector>

#include "fsdriver/iterator_object.h"
#include "fsdriver/lru_list.h"
#include "ntfs/file_record.h"
#include "ntfs/index_tree.h"

namespace ntfs {

class NTFSDirectory;

class NTFSIterator : public FileSystemDriver::IteratorObject, public LRUList<NTFSIterator> {
public:
    // Stands nowhere until first() or stand(). `filtering` leaves out what
    // a listing hides.
    NTFSIterator(NTFSDirectory* directory, bool filtering);
    ~NTFSIterator() override;

    // The first entry that the walk shows; false when there is none.
    bool first();
    // Stands on the entry under `placed`.
    void stand(const IndexCursor& placed);

    bool next() override;
    file_identifier* identifier() override;
    std::u16string name() override;
    std::uint64_t size() override { return key().data_size(); }
    std::uint64_t allocated_size() override { return key().allocated_size(); }
    std::uint32_t kind() override;
    file_time modified() override;
    file_time created() override;
    file_time accessed() override;
    bool hidden() override { return (key().file_attributes() & kAttributeHidden) != 0; }
    std::uint64_t object_id() override { return RecordNumberOf(reference()); }
    std::uint64_t first_sector() override;
    std::u16string short_name() override;
    std::uint32_t attributes() override;
    // With a null buffer, only the descriptor's size; else the descriptor
    // copied there, which the caller sized by a first call.
    std::uint32_t security(void* buffer) override;
    std::uint32_t links() override;
    std::u16string link_target() override;

    // The entry's file reference.
    std::uint64_t reference();
    // The entry under the iterator, re-placed first when it went stale:
    // FILE_NOT_FOUND when its name has gone or the filter hides it now.
    const IndexEntryHeader* entry();
    const FileNameValue& key();
    // The index is about to change.
    void go_stale();

    NTFSDirectory* directory;

private:
    RecordRef entry_record();

    IndexCursor cursor_;
    std::u16string name_;  // filled on first demand and before going stale
    bool filtering_;
    bool stale_ = false;
};

// The kind of an entry from its attributes and reparse tag: files,
// directories, symbolic links to files and to directories, junctions and
// other name-surrogate directories, and deduplicated files.
std::uint32_t KindOfEntry(std::uint32_t attributes, std::uint32_t reparse_tag);

inline constexpr std::uint32_t kLongestFileName = 255;
// However long its attribute list, a record can't list more names than this.
inline constexpr std::uint32_t kMaxFileNames = 0x10000;

// Calls `visit` with each $FILE_NAME value of the record and its name.
template <typename Visit>
void ForEachFileName(const RecordRef& record, Visit visit) {
    BaseFileRecord* base = record.get();
    std::uint32_t seen = 0;
    for (AttributeRef name(base, base->firstOfType(kFileName)); name;
         name = AttributeRef(base, base->nextOfKind(name.get()))) {
        if (++seen > kMaxFileNames) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        const std::uint64_t size = name->size();
        if (size < FileNameValue::kNameOffset || size > FileNameValue::SizeFor(kLongestFileName)) {
            Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        }
        std::vector<unsigned char> value(static_cast<std::size_t>(size));
        if (name->read(0, size, value.data()) != size) Common::Raise(ERROR_TAG, Common::Failures::FILE_READ);
        if (!FileNameKey::Sound(value.data(), value.size())) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        visit(*FileNameKey::ValueOf(value.data()), FileNameKey::NameOf(value.data()));
    }
}

}  // namespace ntfs
