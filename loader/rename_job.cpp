#include "loader/rename_job.h"

#include <memory>
#include <vector>

#include "firmware/efi_file.h"
#include "loader/common/error_codes.h"
#include "loader/common/messages.h"

namespace EfiLoader {
namespace {

constexpr std::uint64_t kCopyStep = 32768;

// A stream's stored error becomes the result, and the stream forgets it.
Common::Error TakeError(file_object& file) {
    Common::Error error = file.error();
    file.set_error(Common::Success);
    return error;
}

void Rename(const std::u16string& source_path, const std::u16string& target_path) {
    // The source must exist; nothing has changed when it does not.
    Uefi::OpenFile(source_path).reset();
    bool target_exists = true;
    try {
        Uefi::OpenFile(target_path).reset();
    } catch (const Common::Error&) {
        // No target is the ordinary case.
        target_exists = false;
    }
    if (target_exists) Uefi::DeleteFile(target_path);

    std::unique_ptr<ri_file> source = Uefi::OpenFile(source_path);
    std::unique_ptr<rio_file> target = Uefi::OpenFirmwareFile(target_path, Uefi::kOpenCreate);
    std::uint64_t copied = 0;
    Common::Error error = CopyFile(source.get(), target.get(), copied);
    if (error.Failed()) throw error;
    // Closing flushes: the target first, then the source, then the old name goes.
    target.reset();
    source.reset();
    Uefi::DeleteFile(source_path);
}

}  // namespace

Common::Error RenameJob::Run() {
    try {
        Rename(element->attribute_or("FileNameSource", u""), element->attribute_or("FileNameTarget", u""));
    } catch (const Common::Error& error) {
        return error;
    }
    return Common::Success;
}

Common::Error CopyFile(i_file* source, o_file* target, std::uint64_t& copied) {
    copied = 0;
    if (source == nullptr) return Common::Error(ERROR_TAG, Common::FILE_READ, Common::Messages::FILE_READ);
    if (target == nullptr) return Common::Error(ERROR_TAG, Common::FILE_WRITE, Common::Messages::FILE_WRITE);
    std::vector<std::uint8_t> buffer(kCopyStep);
    for (;;) {
        std::uint64_t got = 0;
        source->read(buffer.data(), kCopyStep, got);
        if (source->failed()) return TakeError(*source);
        if (got == 0) return Common::Success;
        std::uint64_t written = 0;
        target->write(buffer.data(), got, written);
        if (target->failed()) return TakeError(*target);
        if (written < got) {
            Common::Error full(ERROR_TAG, Common::FILE_DISK_FULL, Common::Messages::FILE_DISK_FULL);
            target->set_error(full);
            return full;
        }
        copied += got;
    }
}

}  // namespace EfiLoader
