// New descriptors in $Secure. "$SDS" holds 256 KiB blocks in pairs, each
// primary block followed by its mirror copy; a record never crosses a
// block, and each starts on 16 bytes. "$SII" finds a record by id, "$SDH"
// by hash, both holding the record's 20-byte head as their data.
#include <cstring>

#include "loader/common/byte_order.h"
#include "loader/common/raise.h"
#include "ntfs/ntfs_driver.h"
#include "ntfs/system_indexes.h"

namespace ntfs {

namespace {

constexpr std::uint32_t kHeadSize = 20;
constexpr std::uint32_t kIdAt = 4;
constexpr std::uint32_t kOffsetAt = 8;
constexpr std::uint32_t kSizeAt = 16;
constexpr std::uint64_t kBlock = 0x40000;  // a primary block; its mirror follows
constexpr std::uint64_t kBlockMask = kBlock - 1;
constexpr std::uint64_t kRecordAlignment = 16;
// The padding that the hash index keeps behind its data.
constexpr unsigned char kHashPadding[4] = {'I', 0, 'I', 0};

std::uint32_t RotateLeft3(std::uint32_t value) { return (value << 3) | (value >> 29); }

IndexTreeBase::Entry EntryWith(const unsigned char* key, std::uint16_t key_length, const unsigned char* head,
                               std::uint16_t entry_length) {
    const std::uint16_t data_offset = static_cast<std::uint16_t>(IndexEntryHeader::kKeyOffset + key_length);
    IndexTreeBase::Entry entry(entry_length, 0);
    Common::StoreLE16(entry.data(), data_offset);
    Common::StoreLE16(entry.data() + 2, kHeadSize);
    Common::StoreLE16(entry.data() + 8, entry_length);
    Common::StoreLE16(entry.data() + 10, key_length);
    std::memcpy(entry.data() + IndexEntryHeader::kKeyOffset, key, key_length);
    std::memcpy(entry.data() + data_offset, head, kHeadSize);
    return entry;
}

}  // namespace

std::uint32_t SecurityHash(const void* descriptor, std::uint32_t length) {
    const auto* bytes = static_cast<const unsigned char*>(descriptor);
    std::uint32_t hash = 0;
    for (std::uint32_t at = 0; at + 4 <= length; at += 4) hash = RotateLeft3(hash) + Common::LoadLE32(bytes + at);
    return hash;
}

std::uint32_t SecureFile::add(const void* descriptor, std::uint32_t length) {
    if (descriptor == nullptr || length == 0) return 0;
    if (length > kBlock - kHeadSize) Common::Raise(ERROR_TAG, Common::Failures::FILE_WRITE);
    std::vector<unsigned char> record(kHeadSize + length, 0);
    Common::StoreLE32(record.data(), SecurityHash(descriptor, length));
    Common::StoreLE32(record.data() + kSizeAt, kHeadSize + length);
    std::memcpy(record.data() + kHeadSize, descriptor, length);
    const std::uint32_t known = findStored(record);
    if (known != 0) return known;
    const std::uint32_t id = next_free_id_;
    Common::StoreLE32(record.data() + kIdAt, id);
    store(record);
    indexStored(record);
    ++next_free_id_;
    record_->flush();
    return id;
}

std::uint32_t SecureFile::findStored(const std::vector<unsigned char>& record) {
    const std::uint32_t hash = Common::LoadLE32(record.data());
    IndexCursor cursor;
    // The ids of one hash lie together in key order; a walk from the front
    // finds them without the lookup of a key that isn't there.
    for (bool more = hashes_->first(cursor); more; more = hashes_->next(cursor)) {
        const std::uint32_t key_hash = Common::LoadLE32(KeyOf(cursor.position.entry));
        if (key_hash > hash) break;
        if (key_hash < hash) continue;
        const std::uint32_t id = Common::LoadLE32(KeyOf(cursor.position.entry) + 4);
        std::vector<unsigned char> stored;
        try {
            stored = descriptor(id);
        } catch (const Common::Error&) {
            continue;  // a damaged neighbour doesn't stop the search
        }
        if (stored.size() == record.size() - kHeadSize &&
            std::memcmp(stored.data(), record.data() + kHeadSize, stored.size()) == 0) {
            return id;
        }
    }
    return 0;
}

std::uint64_t SecureFile::store(std::vector<unsigned char>& record) {
    const std::uint64_t size = record.size();
    const std::uint64_t end = stream_->size() & ~kBlock;
    std::uint64_t place = (end + kRecordAlignment - 1) / kRecordAlignment * kRecordAlignment;
    if (size + (place & kBlockMask) > kBlock - kHeadSize) place = (place & ~kBlockMask) + 2 * kBlock;
    const std::uint64_t new_size = place + size + kBlock;
    if (stream_->resize(new_size, true) != new_size) Common::Raise(ERROR_TAG, Common::Failures::FILE_DISK_FULL);
    Common::StoreLE64(record.data() + kOffsetAt, place);
    for (std::uint64_t copy : {std::uint64_t(0), kBlock}) {
        if (place > end && stream_->write(end + copy, place - end, nullptr) != place - end) {
            Common::Raise(ERROR_TAG, Common::Failures::FILE_WRITE);
        }
        if (stream_->write(place + copy, size, record.data()) != size) {
            Common::Raise(ERROR_TAG, Common::Failures::FILE_WRITE);
        }
    }
    return place;
}

void SecureFile::indexStored(const std::vector<unsigned char>& record) {
    IndexCursor cursor;
    ids_->insert(EntryWith(record.data() + kIdAt, 4, record.data(), 40), cursor);
    IndexTreeBase::Entry by_hash = EntryWith(record.data(), 8, record.data(), 48);
    std::memcpy(by_hash.data() + IndexEntryHeader::kKeyOffset + 8 + kHeadSize, kHashPadding, sizeof(kHashPadding));
    hashes_->insert(by_hash, cursor);
}

}  // namespace ntfs
