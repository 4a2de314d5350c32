#include "fsdriver/file_object.h"

#include <cstring>

#include "loader/common/raise.h"

namespace {

constexpr std::uint32_t kRequestAllocatedRanges = 0x4D434C41;  // "ALCM"
constexpr std::uint32_t kRequestSetTimes = 0x4D544653;         // "SFTM"

std::uint64_t U64At(const unsigned char* block, std::size_t offset) {
    std::uint64_t value;
    std::memcpy(&value, block + offset, sizeof(value));
    return value;
}

}  // namespace

void FileSystemDriver::FileObject::control(void* block) {
    unsigned char* bytes = static_cast<unsigned char*>(block);
    std::uint32_t word;
    std::memcpy(&word, bytes, sizeof(word));
    switch (word) {
    case kRequestAllocatedRanges: {
        std::uint64_t result = allocated_ranges(U64At(bytes, 8), U64At(bytes, 16));
        std::memcpy(bytes + 24, &result, sizeof(result));
        return;
    }
    case kRequestSetTimes:
        set_times(U64At(bytes, 8), U64At(bytes, 16), U64At(bytes, 24));
        return;
    default:
        Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
    }
}

std::uint64_t FileSystemDriver::FileObject::allocated_ranges(std::uint64_t, std::uint64_t) {
    Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
}

FileSystemDriver::BackupObject* FileSystemDriver::FileObject::new_backup_object(std::uint32_t) {
    Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
}

FileSystemDriver::RestoreObject* FileSystemDriver::FileObject::new_restore_object(std::uint32_t) {
    Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
}
