// The metadata that a file keeps twice, in its record and in the keys of
// the index entries that name it, brought in step in one pass: first
// $STANDARD_INFORMATION, then each $FILE_NAME with its parent's key.
#include <vector>

#include "loader/common/raise.h"
#include "ntfs/file_security.h"
#include "ntfs/ntfs_directory.h"
#include "ntfs/ntfs_file.h"
#include "platform/clib/clib.h"

namespace ntfs {

namespace {

constexpr std::uint64_t kUnixEpoch = 0x19DB1DED53E8000;  // 1970 in 100 ns from 1601
constexpr std::uint64_t kUnitsPerMs = 10000;
// A $FILE_NAME value holds at most 255 characters.
constexpr std::uint64_t kMaxNameValue = FileNameValue::SizeFor(255);

template <typename Field, typename Value>
bool Assign(Field& field, Value value) {
    if (field.get() == value) return false;
    field.set(value);
    return true;
}

std::uint32_t NewAttributes(std::uint32_t old_value, std::uint32_t wanted, bool masked) {
    if (!masked) return wanted;
    return (wanted & kUserAttributeMask) | (old_value & ~kUserAttributeMask);
}

// Times and attributes, laid out alike in both kinds of value. Answers
// whether anything changed.
template <typename Value>
bool ApplyCommon(Value& value, const MetadataUpdate& update, bool with_times, bool masked) {
    bool changed = false;
    if (with_times) {
        if (update.created) changed |= Assign(value.creation_time_, *update.created);
        if (update.modified) {
            // The record's change time follows the data's.
            changed |= Assign(value.last_data_change_time_, *update.modified);
            changed |= Assign(value.last_mft_change_time_, *update.modified);
        }
        if (update.accessed) changed |= Assign(value.last_access_time_, *update.accessed);
    }
    if (update.attributes) {
        changed |= Assign(value.file_attributes_, NewAttributes(value.file_attributes(), *update.attributes, masked));
    }
    return changed;
}

bool ApplyName(FileNameValue& value, const MetadataUpdate& update) {
    bool changed = false;
    if (update.data_size) changed |= Assign(value.data_size_, *update.data_size);
    if (update.allocated_size) changed |= Assign(value.allocated_size_, *update.allocated_size);
    if (update.reparse_tag) changed |= Assign(value.reparse_tag_, *update.reparse_tag);
    return changed;
}

}  // namespace

std::uint64_t NTFSFileObject::VolumeTime(std::int64_t framework_time) {
    if (framework_time < 0) return kUnixEpoch;
    return kUnixEpoch + static_cast<std::uint64_t>(framework_time) * kUnitsPerMs;
}

std::uint64_t NTFSFileObject::Now() { return VolumeTime(Clib::Now()); }

void NTFSFileObject::updateMetadata(const MetadataUpdate& update, bool masked) {
    if (driver->read_only) driver->refuse_change(ERROR_TAG);
    updateStandardInformation(update, masked);
    updateFileNames(update, masked);
    record->flush();
}

bool NTFSFileObject::updateStandardInformation(const MetadataUpdate& update, bool masked) {
    AttributeRef standard = record.find(kStandardInformation);
    if (!standard) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    StandardInformation value{};
    if (standard->read(0, StandardInformation::kShortSize, &value) != StandardInformation::kShortSize) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_READ);
    }
    if (!ApplyCommon(value, update, update_times, masked)) return false;
    if (standard->write(0, StandardInformation::kShortSize, &value) != StandardInformation::kShortSize) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_WRITE);
    }
    return true;
}

void NTFSFileObject::updateFileNames(const MetadataUpdate& update, bool masked) {
    // Every name's key: a file with several links has a key in each parent.
    for (AttributeRef name(record.get(), record->firstOfType(kFileName)); name && name->type() == kFileName;
         name = AttributeRef(record.get(), record->nextOfKind(name.get()))) {
        const std::uint64_t length = name->size();
        if (length < FileNameValue::kNameOffset || length > kMaxNameValue) {
            Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        }
        std::vector<unsigned char> bytes(length);
        if (name->read(0, length, bytes.data()) != length) Common::Raise(ERROR_TAG, Common::Failures::FILE_READ);
        auto* value = reinterpret_cast<FileNameValue*>(bytes.data());
        if (FileNameValue::SizeFor(value->file_name_length()) > length) {
            Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        }
        const bool changed = ApplyCommon(*value, update, update_times, masked) | ApplyName(*value, update);
        if (changed && name->write(0, length, bytes.data()) != length) {
            Common::Raise(ERROR_TAG, Common::Failures::FILE_WRITE);
        }
        NTFSDirectory::UpdateKeyInParent(driver, record->reference(), *value, static_cast<std::uint32_t>(length));
    }
}

void NTFSFileObject::setTimes(const std::uint64_t* created, const std::uint64_t* modified,
                              const std::uint64_t* accessed) {
    MetadataUpdate update;
    update.created = created;
    update.modified = modified;
    update.accessed = accessed;
    update_times = true;
    updateMetadata(update, true);
    // Explicit times stand: the flush at close leaves them.
    update_times = false;
}

void NTFSFileObject::setAttributes(std::uint32_t value) {
    MetadataUpdate update;
    update.attributes = &value;
    const std::uint64_t now = Now();
    if (update_times) update.modified = &now;
    updateMetadata(update, true);
}

std::uint32_t NTFSFileObject::attributes() {
    AttributeRef standard = record.find(kStandardInformation);
    if (!standard) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    StandardInformation value{};
    if (standard->read(0, StandardInformation::kShortSize, &value) != StandardInformation::kShortSize) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_READ);
    }
    return value.file_attributes();
}

std::vector<unsigned char> NTFSFileObject::security() { return ReadSecurity(driver, record); }

}  // namespace ntfs
