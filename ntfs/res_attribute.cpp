#include "ntfs/res_attribute.h"

#include <algorithm>
#include <cstring>

#include "loader/common/raise.h"
#include "ntfs/ntfs_driver.h"

namespace ntfs {

std::uint64_t ResAttribute::physicalPosition(std::uint64_t position) {
    if (delegate_) return delegate_->physicalPosition(position);
    // The value shares its sectors with the rest of the record.
    Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
}

std::uint64_t ResAttribute::read(std::uint64_t position, std::uint64_t length, void* buffer) {
    if (delegate_) return delegate_->read(position, length, buffer);
    if (length == 0 || buffer == nullptr) return 0;
    const std::uint64_t value_length = header_->value_length();
    if (position >= value_length) Common::Raise(ERROR_TAG, Common::Failures::FILE_EOF);
    const std::uint64_t count = std::min(length, value_length - position);
    // The record's check put the value inside the attribute.
    const auto* value = reinterpret_cast<const unsigned char*>(header_) + header_->value_offset();
    std::memcpy(buffer, value + position, static_cast<std::size_t>(count));
    return count;
}

std::uint64_t ResAttribute::readSectors(std::uint64_t position, std::uint64_t length, void* buffer) {
    if (delegate_) return delegate_->readSectors(position, length, buffer);
    if (length == 0) return 0;
    if (buffer == nullptr || position % driver->sector_size != 0 || length % driver->sector_size != 0) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_READ);
    }
    return read(position, length, buffer);
}

std::uint64_t ResAttribute::readWithTail(std::uint64_t position, std::uint64_t length, void* buffer, bool direct) {
    if (delegate_) return delegate_->readWithTail(position, length, buffer, direct);
    return read(position, length, buffer);
}

std::uint64_t ResAttribute::usedRanges(std::uint64_t position, std::uint64_t length,
                                       std::map<std::uint64_t, std::uint64_t>& ranges) {
    if (delegate_) return delegate_->usedRanges(position, length, ranges);
    const std::uint64_t value_length = header_->value_length();
    if (position >= value_length) return 0;
    const std::uint64_t walked = std::min(length, value_length - position);
    if (walked != 0) ranges[position] = walked;
    return walked;
}

std::uint64_t ResAttribute::size() { return delegate_ ? delegate_->size() : header_->value_length(); }

std::uint64_t ResAttribute::allocatedSize() {
    if (delegate_) return delegate_->allocatedSize();
    return (std::uint64_t(header_->value_length()) + 7) & ~std::uint64_t(7);
}

void ResAttribute::rebase(AttributeRecord* moved) {
    header_ = moved;
    if (delegate_) delegate_->rebase(moved);
}

}  // namespace ntfs
