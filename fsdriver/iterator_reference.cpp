#include "fsdriver/iterator_reference.h"

#include "fsdriver/iterator_object.h"
#include "fsdriver/reference_guard.h"
#include "loader/common/error_codes.h"
#include "loader/common/messages.h"

FileSystemDriver::IteratorReference::IteratorReference(FileSystemDriver* driver, IteratorObject* object)
    : driver_(driver), object_(object) {
    ++driver_->references;
    if (object_ == nullptr) store_end();
}

FileSystemDriver::IteratorReference::~IteratorReference() {
    {
        DriverLockHold hold(driver_->file_lock);
        delete object_;
    }
    ::release(driver_);
}

void FileSystemDriver::IteratorReference::store_end() {
    set_error(Common::Error(ERROR_TAG, Common::FILE_EOF, Common::Messages::FILE_EOF));
}

template <typename Result, typename Query>
Result FileSystemDriver::IteratorReference::ask(Result fallback, Query query) {
    if (object_ == nullptr) return fallback;
    Result answer = fallback;
    GuardedCall(*this, driver_->file_lock, [&] { answer = query(*object_); });
    return answer;
}

bool FileSystemDriver::IteratorReference::next() {
    bool more = ask(false, [](IteratorObject& o) { return o.next(); });
    if (!more && object_ != nullptr && !failed()) {
        // The walk is over: the object goes at once.
        {
            DriverLockHold hold(driver_->file_lock);
            delete object_;
            object_ = nullptr;
        }
        store_end();
    }
    return more;
}

file_identifier* FileSystemDriver::IteratorReference::identifier() {
    return ask(static_cast<file_identifier*>(nullptr), [](IteratorObject& o) { return o.identifier(); });
}

std::u16string FileSystemDriver::IteratorReference::name() {
    return ask(std::u16string(), [](IteratorObject& o) { return o.name(); });
}

std::u16string FileSystemDriver::IteratorReference::short_name() {
    return ask(std::u16string(), [](IteratorObject& o) { return o.short_name(); });
}

std::uint64_t FileSystemDriver::IteratorReference::size() {
    return ask(std::uint64_t(0), [](IteratorObject& o) { return o.size(); });
}

std::uint64_t FileSystemDriver::IteratorReference::allocated_size() {
    return ask(std::uint64_t(0), [](IteratorObject& o) { return o.allocated_size(); });
}

std::uint32_t FileSystemDriver::IteratorReference::kind() {
    return ask(std::uint32_t(0), [](IteratorObject& o) { return o.kind(); });
}

file_time FileSystemDriver::IteratorReference::modified() {
    return ask(file_time(0), [](IteratorObject& o) { return o.modified(); });
}

file_time FileSystemDriver::IteratorReference::changed() {
    return ask(file_time(0), [](IteratorObject& o) { return o.changed(); });
}

file_time FileSystemDriver::IteratorReference::created() {
    return ask(file_time(0), [](IteratorObject& o) { return o.created(); });
}

file_time FileSystemDriver::IteratorReference::accessed() {
    return ask(file_time(0), [](IteratorObject& o) { return o.accessed(); });
}

std::uint32_t FileSystemDriver::IteratorReference::attributes() {
    return ask(0xFFFFFFFFu, [](IteratorObject& o) { return o.attributes(); });
}

std::uint32_t FileSystemDriver::IteratorReference::permissions() {
    return ask(0xFFFFFFFFu, [](IteratorObject& o) { return o.permissions(); });
}

bool FileSystemDriver::IteratorReference::hidden() {
    return ask(false, [](IteratorObject& o) { return o.hidden(); });
}

std::uint32_t FileSystemDriver::IteratorReference::owner() {
    return ask(0xFFFFFFFFu, [](IteratorObject& o) { return o.owner(); });
}

std::uint32_t FileSystemDriver::IteratorReference::group() {
    return ask(0xFFFFFFFFu, [](IteratorObject& o) { return o.group(); });
}

std::uint32_t FileSystemDriver::IteratorReference::links() {
    return ask(1u, [](IteratorObject& o) { return o.links(); });
}

std::uint32_t FileSystemDriver::IteratorReference::device_major() {
    return ask(0u, [](IteratorObject& o) { return o.device_major(); });
}

std::uint32_t FileSystemDriver::IteratorReference::device_minor() {
    return ask(0u, [](IteratorObject& o) { return o.device_minor(); });
}

std::uint64_t FileSystemDriver::IteratorReference::object_id() {
    return ask(std::uint64_t(0), [](IteratorObject& o) { return o.object_id(); });
}

std::u16string FileSystemDriver::IteratorReference::link_target() {
    return ask(std::u16string(), [](IteratorObject& o) { return o.link_target(); });
}

std::uint32_t FileSystemDriver::IteratorReference::security(void* buffer) {
    return ask(0u, [buffer](IteratorObject& o) { return o.security(buffer); });
}
