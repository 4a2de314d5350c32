// The shared record objects: one per file, alive while held.
#include "ntfs/file_record.h"
#include "ntfs/file_record_impl.h"
#include "ntfs/ntfs_driver.h"

namespace ntfs {

Attribute* BaseFileRecord::firstOfType(std::uint32_t type) {
    Attribute* attribute = nextAttribute(nullptr);
    while (attribute != nullptr && attribute->type() != type) {
        Attribute* next = nextAttribute(attribute);
        releaseAttribute(attribute);
        attribute = next;
    }
    return attribute;
}

RecordRef::RecordRef(const RecordRef& other) : driver_(other.driver_), record_(other.record_) {
    if (record_ != nullptr) driver_->record_cache->hold(record_);
}

RecordRef& RecordRef::operator=(RecordRef other) noexcept {
    std::swap(driver_, other.driver_);
    std::swap(record_, other.record_);
    return *this;
}

void RecordRef::reset() {
    if (record_ != nullptr) driver_->record_cache->put(record_);
    record_ = nullptr;
}

BaseFileRecord* RecordRef::get() const { return record_; }

FileRecordCache::FileRecordCache(NTFSDriver* driver) : driver_(driver) {}

FileRecordCache::~FileRecordCache() = default;

RecordRef FileRecordCache::get(std::uint64_t number) {
    auto found = entries_.find(number);
    if (found == entries_.end()) {
        auto record = std::make_unique<BaseFileRecordImpl>(driver_, number);
        found = entries_.emplace(number, Entry{0, std::move(record)}).first;
    }
    ++found->second.uses;
    return RecordRef(driver_, found->second.record.get());
}

void FileRecordCache::hold(BaseFileRecordImpl* record) { ++entries_.at(record->recordNumber()).uses; }

void FileRecordCache::put(BaseFileRecordImpl* record) {
    auto found = entries_.find(record->recordNumber());
    if (found == entries_.end() || --found->second.uses != 0) return;
    std::unique_ptr<BaseFileRecordImpl> gone = std::move(found->second.record);
    entries_.erase(found);
}

}  // namespace ntfs
