#include "ntfs/short_name.h"

#include <vector>

#include "loader/common/raise.h"
#include "ntfs/ntfs_directory.h"
#include "ntfs/ntfs_driver.h"
#include "ntfs/ntfs_iterator.h"

namespace ntfs {

namespace {

constexpr std::uint32_t kNameSpaceOffset = 65;

std::vector<unsigned char> ValueOf(Attribute& name) {
    const std::uint64_t size = name.size();
    if (size < FileNameValue::kNameOffset || size > FileNameValue::SizeFor(kLongestFileName)) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    std::vector<unsigned char> value(static_cast<std::size_t>(size));
    if (name.read(0, size, value.data()) != size) Common::Raise(ERROR_TAG, Common::Failures::FILE_READ);
    if (!FileNameKey::Sound(value.data(), value.size())) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    return value;
}

void WriteValue(BaseFileRecord& file, Attribute& name, const unsigned char* value, std::uint32_t length) {
    if (name.resize(length, true) != length || name.write(0, length, value) != length) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_WRITE);
    }
    file.flush();
}

}  // namespace

void HeldAttribute::reset(BaseFileRecord* record, Attribute* attribute) {
    if (attribute_ != nullptr) record_->releaseAttribute(attribute_);
    record_ = record;
    attribute_ = attribute;
}

Attribute* HeldAttribute::release() {
    Attribute* held = attribute_;
    attribute_ = nullptr;
    return held;
}

void ScanNamesUnderParent(BaseFileRecord& file, std::uint64_t parent, const std::u16string& name,
                          std::uint8_t name_space, NamesUnderParent& notes) {
    std::uint32_t seen = 0;
    for (Attribute* attribute = file.firstOfType(kFileName); attribute != nullptr;) {
        if (++seen > kMaxFileNames) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        HeldAttribute held;
        held.reset(&file, attribute);
        const std::vector<unsigned char> value = ValueOf(*attribute);
        const FileNameValue& key = *FileNameKey::ValueOf(value.data());
        if (key.parent_directory() == parent) {
            const std::uint8_t space = key.file_name_type();
            if ((space & FileNameValue::kWin32) != 0) {
                if (name_space == FileNameValue::kPosix) Common::Raise(ERROR_TAG, Common::Failures::FILE_RENAME);
                notes.win32_exists = true;
            } else if (space == FileNameValue::kDos) {
                notes.old_short_name = FileNameKey::NameOf(value.data());
                notes.old_short.reset(&file, held.release());
            } else if (name_space != FileNameValue::kWin32 && FileNameKey::NameOf(value.data()) == name) {
                notes.long_name.reset(&file, held.release());
            }
        }
        // The walk goes on from the attribute, held until the step is made.
        Attribute* next = file.nextOfKind(attribute);
        attribute = next;
    }
}

void NTFSDirectory::set_short_name(const std::u16string& name, const std::u16string& short_name) {
    ntfs->refuse_if_unchangeable();
    IndexCursor taken;
    if (index().find(short_name, taken)) Common::Raise(ERROR_TAG, Common::Failures::FILE_RENAME);
    const FoundEntry entry = found_entry(name);
    RecordRef file = record_of(entry.reference);
    const std::uint64_t parent = record->reference();
    NameValue value(entry.value(), parent, FileNameValue::kDos, short_name);
    NamesUnderParent notes;
    ScanNamesUnderParent(*file, parent, FileNameKey::NameOf(entry.key.data()), entry.value().file_name_type(), notes);
    if (!notes.win32_exists && !notes.long_name) value.set_name_space(FileNameValue::kWin32AndDos);

    add_link(value, entry.reference);
    {
        AttributeRef added(file.get(), file->addAttribute(kFileName, std::u16string(), true));
        WriteValue(*file, *added, value.data(), value.length());
    }
    pair_with_short_name(*file, entry.reference, notes);
}

// The long name becomes the Win32 half of the pair, and a short name that
// the file had goes.
void NTFSDirectory::pair_with_short_name(BaseFileRecord& file, std::uint64_t reference, NamesUnderParent& notes) {
    if (notes.long_name) {
        std::vector<unsigned char> long_value = ValueOf(*notes.long_name.get());
        long_value[kNameSpaceOffset] = FileNameValue::kWin32;
        const auto length = static_cast<std::uint32_t>(long_value.size());
        WriteValue(file, *notes.long_name.get(), long_value.data(), length);
        update_index_key(reference, *FileNameKey::ValueOf(long_value.data()), length);
    }
    if (notes.old_short) {
        file.removeAttribute(notes.old_short.release());
        IndexCursor cursor;
        lookup(notes.old_short_name, reference, cursor);
        tell_iterators();
        index().remove(cursor);
    }
}

}  // namespace ntfs
