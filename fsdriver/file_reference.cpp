#include "fsdriver/file_reference.h"

#include <cstring>

#include "loader/common/raise.h"
#include "fsdriver/file_object.h"
#include "fsdriver/reference_guard.h"

namespace {

constexpr std::uint32_t kRequestDefragment = 0x47524644;  // "DFRG"
constexpr std::uint32_t kRequestSetTimes = 0x4D544653;    // "SFTM"
constexpr std::uint32_t kRequestSectorAt = 0x43455347;    // "GSEC"

// Whether the references already on a file let this opening in.
bool OpeningAllowed(const FileSystemDriver::FileObject& object, bool for_write, bool shared) {
    if (!for_write) return object.writers == 0 || (shared && object.plain == 0);
    return shared ? object.plain == 0 : object.references == 0;
}

}  // namespace

FileSystemDriver::FileReference::FileReference(FileSystemDriver* driver, FileObject* object, bool for_write,
                                               bool shared)
    : driver_(driver), object_(object), for_write_(for_write), shared_(shared) {
    if (!OpeningAllowed(*object, for_write, shared)) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_OPEN);
    }
    ++object->references;
    if (for_write) {
        if (object->writers++ == 0) driver->writer_list.push_head(object);
    }
    if (!shared) ++object->plain;
    ++driver->references;
}

FileSystemDriver::FileReference::~FileReference() {
    {
        DriverLockHold hold(driver_->file_lock);
        if (!shared_) --object_->plain;
        if (for_write_ && --object_->writers == 0) {
            object_->LRUList<FileObject>::unlink();
            // The last writer leaves the file complete on the volume. Nobody
            // is left to be told of a failure here.
            try {
                object_->flush_file();
            } catch (const Common::Error&) {
            }
        }
        if (--object_->references == 0) delete object_;
    }
    ::release(driver_);
}

void FileSystemDriver::FileReference::read(void* buffer, std::uint64_t size, std::uint64_t& got) {
    got = 0;
    if (failed() || position_ < 0) return;
    GuardedCall(*this, driver_->file_lock, [&] {
        object_->read(buffer, static_cast<std::uint64_t>(position_), size, got);
        position_ += static_cast<std::int64_t>(got);
    });
}

void FileSystemDriver::FileReference::write(const void* buffer, std::uint64_t size, std::uint64_t& written) {
    written = 0;
    if (failed()) return;
    GuardedCall(*this, driver_->file_lock, [&] {
        if (!for_write_) Common::Raise(ERROR_TAG, Common::Failures::FILE_READ_ONLY);
        if (position_ < 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_SEEK);
        object_->write(buffer, static_cast<std::uint64_t>(position_), size, written);
        position_ += static_cast<std::int64_t>(written);
    });
}

void FileSystemDriver::FileReference::set_size(std::uint64_t size) {
    if (failed()) return;
    GuardedCall(*this, driver_->file_lock, [&] {
        if (!for_write_) Common::Raise(ERROR_TAG, Common::Failures::FILE_READ_ONLY);
        object_->set_size(size);
    });
}

void FileSystemDriver::FileReference::flush() {
    if (failed()) return;
    GuardedCall(*this, driver_->file_lock, [&] { driver_->dismount(); });
}

std::uint64_t FileSystemDriver::FileReference::size() {
    std::uint64_t answer = 0;
    if (failed()) return answer;
    GuardedCall(*this, driver_->file_lock, [&] { answer = object_->size(); });
    return answer;
}

std::int64_t FileSystemDriver::FileReference::seek(std::int64_t position) {
    if (failed()) return position_;
    position_ = position;
    return position_;
}

std::int64_t FileSystemDriver::FileReference::seek_relative(std::int64_t delta) {
    if (failed()) return position_;
    position_ += delta;
    return position_;
}

std::int64_t FileSystemDriver::FileReference::seek_end(std::int64_t delta) {
    if (failed()) return position_;
    GuardedCall(*this, driver_->file_lock,
                [&] { position_ = static_cast<std::int64_t>(object_->size()) + delta; });
    return position_;
}

void FileSystemDriver::FileReference::control(void* block) {
    GuardedCall(*this, driver_->file_lock, [&] {
        unsigned char* bytes = static_cast<unsigned char*>(block);
        std::uint32_t word;
        std::memcpy(&word, bytes, sizeof(word));
        switch (word) {
        case kRequestDefragment:
        case kRequestSetTimes:
            if (!for_write_) Common::Raise(ERROR_TAG, Common::Failures::FILE_READ_ONLY);
            object_->control(block);
            return;
        case kRequestSectorAt: {
            std::uint64_t sector = object_->sector_at(static_cast<std::uint64_t>(position_));
            std::memcpy(bytes + 8, &sector, sizeof(sector));
            bytes[16] = 0;
            return;
        }
        default:
            object_->control(block);
        }
    });
}
