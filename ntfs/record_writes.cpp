// The changes a file's record object makes in its records' bytes.
#include <algorithm>
#include <cstring>

#include "loader/common/raise.h"
#include "ntfs/file_record_impl.h"
#include "ntfs/mft.h"
#include "ntfs/ntfs_driver.h"
#include "ntfs/record_layout.h"

namespace ntfs {

void BaseFileRecordImpl::flush() {
    mft_->flushRecord(number_);
    for (auto& extension : extensions_) mft_->flushRecord(extension.first);
}

RecordBuffer* BaseFileRecordImpl::holderOf(const AttributeRecord* header) {
    const auto* at = reinterpret_cast<const unsigned char*>(header);
    auto holds = [at, this](RecordBuffer* buffer) {
        return at >= buffer->data() && at < buffer->data() + driver_->record_size;
    };
    if (holds(base_)) return base_;
    for (auto& extension : extensions_) {
        if (holds(extension.second)) return extension.second;
    }
    Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
}

void BaseFileRecordImpl::shiftTail(RecordBuffer* buffer, std::uint32_t from, std::int64_t delta) {
    FileRecordHeader* header = buffer->header();
    const std::uint32_t in_use = header->bytes_in_use();
    unsigned char* bytes = buffer->data();
    std::memmove(bytes + from + delta, bytes + from, in_use - from);
    header->set_bytes_in_use(static_cast<std::uint32_t>(in_use + delta));
    // The objects are keyed by their headers' addresses: those that moved
    // get new keys and are told where their headers went.
    const auto* first = reinterpret_cast<const AttributeRecord*>(bytes + from);
    const auto* last = reinterpret_cast<const AttributeRecord*>(bytes + in_use);
    std::map<const AttributeRecord*, Slot> moved;
    for (auto it = attributes_.lower_bound(first); it != attributes_.end() && it->first < last;) {
        auto* target = reinterpret_cast<AttributeRecord*>(const_cast<unsigned char*>(
            reinterpret_cast<const unsigned char*>(it->first) + delta));
        it->second.object->rebase(target);
        moved.emplace(target, std::move(it->second));
        it = attributes_.erase(it);
    }
    for (auto& entry : moved) attributes_.emplace(entry.first, std::move(entry.second));
    order_known_ = false;
}

bool BaseFileRecordImpl::resizeInRecord(AttributeRecord* header, std::uint32_t length, bool may_move) {
    RecordBuffer* buffer = holderOf(header);
    const auto at = static_cast<std::uint32_t>(reinterpret_cast<unsigned char*>(header) - buffer->data());
    const std::uint32_t old_length = header->length();
    if (length <= old_length) {
        shiftTail(buffer, at + old_length, -std::int64_t(old_length - length));
        header->set_length(length);
        return true;
    }
    const std::uint32_t grow = length - old_length;
    if (length > maxAttributeSize()) Common::Raise(ERROR_TAG, Common::Failures::FILE_DISK_FULL);
    if (grow > FreeBytes(*buffer, driver_->record_size)) {
        if (!may_move) Common::Raise(ERROR_TAG, Common::Failures::FILE_DISK_FULL);
        // Whatever moved, the caller's header may be elsewhere now.
        makeRoom(buffer, header, grow);
        return false;
    }
    shiftTail(buffer, at + old_length, grow);
    std::memset(buffer->data() + at + old_length, 0, grow);
    header->set_length(length);
    return true;
}

}  // namespace ntfs
