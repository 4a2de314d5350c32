// Changing a resident value: in its record, and out of it into clusters
// when it no longer fits.
#include <algorithm>
#include <cstring>

#include "loader/common/raise.h"
#include "ntfs/attribute_factory.h"
#include "ntfs/file_record.h"
#include "ntfs/nonresident_image.h"
#include "ntfs/ntfs_driver.h"
#include "ntfs/res_attribute.h"

namespace ntfs {

namespace {

constexpr std::uint8_t kResidentIndexed = 0x01;

// The attribute's length for a value of `length` bytes behind `offset`.
std::uint64_t LengthFor(std::uint64_t length, std::uint32_t offset) { return (length + offset + 7) & ~std::uint64_t(7); }

}  // namespace

std::uint64_t ResAttribute::write(std::uint64_t position, std::uint64_t length, const void* buffer) {
    if (delegate_) return delegate_->write(position, length, buffer);
    if (length > ~std::uint64_t(0) - position) Common::Raise(ERROR_TAG, Common::Failures::FILE_WRITE);
    if (position + length > header_->value_length()) {
        resize(position + length, true);
        if (delegate_) return delegate_->write(position, length, buffer);
    }
    const std::uint64_t value_length = header_->value_length();
    if (position >= value_length) return 0;
    const auto count = static_cast<std::size_t>(std::min(length, value_length - position));
    if (buffer != nullptr) {
        std::memcpy(value() + position, buffer, count);
    } else {
        std::memset(value() + position, 0, count);
    }
    record->flush();
    return count;
}

std::uint64_t ResAttribute::writeSectors(std::uint64_t position, std::uint64_t length, const void* buffer) {
    if (delegate_) return delegate_->writeSectors(position, length, buffer);
    const std::uint32_t sector = driver->sector_size;
    if (buffer == nullptr || position % sector != 0 || length % sector != 0) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_WRITE);
    }
    return write(position, length, buffer);
}

void ResAttribute::setIndexed() {
    if (delegate_) return delegate_->setIndexed();
    header_->set_resident_flags(static_cast<std::uint8_t>(header_->resident_flags() | kResidentIndexed));
}

std::uint64_t ResAttribute::resize(std::uint64_t size, bool may_move) {
    if (delegate_) return delegate_->resize(size, may_move);
    const AttrDefEntry* definition = driver->attr_defs->find(type());
    if (definition == nullptr) Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
    const std::uint64_t current = header_->value_length();
    if (size < current) return shrink(size, definition->min_size());
    if (size == current) return current;
    const bool must_stay = (definition->flags() & AttrDefEntry::kMustStayResident) != 0;
    return grow(size, definition->max_size(), must_stay, may_move);
}

std::uint64_t ResAttribute::shrink(std::uint64_t size, std::uint64_t minimum) {
    const std::uint64_t current = header_->value_length();
    const std::uint64_t length = std::min(current, std::max(size, minimum));
    record->resizeInRecord(header_, static_cast<std::uint32_t>(LengthFor(length, header_->value_offset())), false);
    header_->set_value_length(static_cast<std::uint32_t>(length));
    record->flush();
    return length;
}

std::uint64_t ResAttribute::grow(std::uint64_t size, std::uint64_t maximum, bool must_stay, bool may_move) {
    const std::uint64_t current = header_->value_length();
    const std::uint64_t length = std::min(size, maximum);
    if (length <= current) return current;
    const std::uint64_t needed = LengthFor(length, header_->value_offset());
    if (needed > record->maxAttributeSize()) {
        if (must_stay) Common::Raise(ERROR_TAG, Common::Failures::FILE_DISK_FULL);
        moveToClusters(may_move);
        return delegate_->resize(size, may_move);
    }
    while (!record->resizeInRecord(header_, static_cast<std::uint32_t>(needed), may_move)) {
        // Room was made elsewhere, which may have moved this very value out.
        if (delegate_) return delegate_->resize(size, may_move);
    }
    // Bytes behind the old value were padding: the new part reads as zeros.
    std::memset(value() + current, 0, static_cast<std::size_t>(length - current));
    header_->set_value_length(static_cast<std::uint32_t>(length));
    record->flush();
    return length;
}

void ResAttribute::moveToClusters(bool may_move) {
    NonresidentImage image = MakeNonresidentImage(driver, header_, value(), header_->value_length());
    const auto length = static_cast<std::uint32_t>(image.bytes.size());
    try {
        while (!record->resizeInRecord(header_, length, may_move)) {
            if (delegate_) {
                image.runs.freeAll(driver);
                return;
            }
        }
    } catch (...) {
        image.runs.freeAll(driver);
        throw;
    }
    std::memcpy(header_, image.bytes.data(), length);
    record->flush();
    delegate_.reset(MakeAttribute(driver, record, header_));
}

}  // namespace ntfs
