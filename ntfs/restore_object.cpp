#include "ntfs/restore_object.h"

#include <vector>

#include "loader/common/raise.h"
#include "ntfs/ntfs_directory.h"
#include "ntfs/ntfs_file.h"
#include "ntfs/restore_pieces.h"
#include "ntfs/restore_win_stream.h"
#include "ntfs/restore_win_streams.h"

namespace ntfs {

namespace {

// The names of a record that a directory lists, skipping DOS twins: the
// parent reference and the name of each.
struct ListedName {
    std::uint64_t parent;
    std::u16string name;
};

std::vector<ListedName> ListedNames(BaseFileRecord& file) {
    std::vector<ListedName> names;
    for (AttributeRef value(&file, file.firstOfType(kFileName)); value && value->type() == kFileName;
         value = AttributeRef(&file, file.nextOfKind(value.get()))) {
        const std::uint64_t length = value->size();
        if (length < FileNameValue::kNameOffset || length > FileNameValue::SizeFor(255)) continue;
        std::vector<unsigned char> bytes(static_cast<std::size_t>(length));
        if (value->read(0, length, bytes.data()) != length) continue;
        const auto* name = reinterpret_cast<const FileNameValue*>(bytes.data());
        if (FileNameValue::SizeFor(name->file_name_length()) > length) continue;
        if (name->file_name_type() == FileNameValue::kDos) continue;
        std::u16string text(name->file_name_length(), u'\0');
        for (std::size_t i = 0; i < text.size(); ++i) {
            text[i] = static_cast<char16_t>(Common::LoadLE16(bytes.data() + FileNameValue::kNameOffset + 2 * i));
        }
        names.push_back({name->parent_directory(), text});
    }
    return names;
}

}  // namespace

RestoreObject::RestoreObject(NTFSFileObject& target, std::unique_ptr<NTFSFileObject> owned, bool directory)
    : RestoreSubObject(0), owned_(std::move(owned)), holder_(target, directory) {}

RestoreObject::~RestoreObject() {
    if (complete_ || taken_back_) return;
    // Nothing told the restore that it ended: a piece cut short now can
    // only be taken back, not refused.
    try {
        finish();
    } catch (const Common::Error&) {
        takeBack();
    }
}

void RestoreObject::write(std::uint32_t stream_type, const void* data, std::uint64_t size) {
    if (complete_ || taken_back_) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    try {
        if (stream_type == 0) {
            finish();
            complete_ = true;
            return;
        }
        if (!serves(stream_type)) Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
        if (last_kind_ != 0 && stream_type != last_kind_) finishKind(last_kind_);
        last_kind_ = stream_type;
        const std::uint64_t taken = write(stream_type, static_cast<const unsigned char*>(data), size);
        if (taken != size) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    } catch (const Common::Error&) {
        takeBack();
        throw;
    }
}

std::uint64_t RestoreObject::write(std::uint32_t kind, const unsigned char* data, std::uint64_t size) {
    std::uint64_t taken = 0;
    const std::size_t count = sub_objects_.size();
    for (std::size_t step = 0; step < count && taken < size; ++step) {
        const std::size_t at = (cursor_ + step) % count;
        const std::uint64_t took = sub_objects_[at]->write(kind, data + taken, size - taken);
        if (took == 0) continue;
        taken += took;
        if (taken == size) cursor_ = at;
    }
    return taken;
}

void RestoreObject::finish() {
    for (const auto& sub_object : sub_objects_) sub_object->finish();
}

void RestoreObject::abandon() {
    for (const auto& sub_object : sub_objects_) sub_object->abandon();
}

bool RestoreObject::serves(std::uint32_t kind) const {
    for (const auto& sub_object : sub_objects_) {
        if (sub_object->kind() == kind) return true;
    }
    return false;
}

void RestoreObject::finishKind(std::uint32_t kind) {
    for (const auto& sub_object : sub_objects_) {
        if (sub_object->kind() == kind) sub_object->finish();
    }
}

void RestoreObject::takeBack() {
    taken_back_ = true;
    // What was refused already stands refused; a failure on the way back
    // leaves the rest as it is.
    try {
        abandon();
        if (!holder_.directory) removeFile();
    } catch (const Common::Error&) {
    }
}

void RestoreObject::removeFile() {
    NTFSFileObject& file = holder_.object;
    const std::vector<ListedName> names = ListedNames(*file.record);
    // A file of several names was there before the restore emptied it;
    // which of them the restore meant isn't known here.
    if (names.size() != 1) return;
    RemoveReparseEntry(file);
    const std::uint64_t parent = RecordNumberOf(names.front().parent);
    if (parent < kRootRecord || parent > 0xFFFFFFFFull + kRootRecord) return;
    FileSystemDriver::DirectoryObject* object = file.driver->get_object(NTFSDriver::DirectoryIdOfRecord(parent));
    auto* directory = dynamic_cast<NTFSDirectory*>(object);
    if (directory == nullptr) return;
    ++directory->references;
    try {
        directory->remove_link(names.front().name, file.record->reference());
    } catch (...) {
        --directory->references;
        throw;
    }
    --directory->references;
}

std::unique_ptr<RestoreObject> NewRestoreObject(NTFSFileObject& target, std::unique_ptr<NTFSFileObject> owned,
                                                bool directory, std::uint32_t option) {
    target.driver->refuse_if_unchangeable();
    auto object = std::make_unique<RestoreObject>(target, std::move(owned), directory);
    const FileObjectHolder& holder = object->holder();
    object->add(std::make_unique<RestoreAttributes>(holder));
    object->add(std::make_unique<RestoreFileTimes>(holder, option));
    object->add(std::make_unique<RestoreWinStreams>(holder, option));
    object->add(std::make_unique<RestoreEFSStreams>());
    if (!directory) object->add(std::make_unique<RestorePlainStreams>(holder));
    return object;
}

FileSystemDriver::RestoreObject* NTFSFile::new_restore_object(std::uint32_t option) {
    return NewRestoreObject(*this, nullptr, false, option).release();
}

FileSystemDriver::RestoreObject* NTFSDirectory::new_restore_object(std::uint32_t option) {
    auto object = std::make_unique<NTFSFileObject>(ntfs, record);
    NTFSFileObject& target = *object;
    return NewRestoreObject(target, std::move(object), true, option).release();
}

}  // namespace ntfs
