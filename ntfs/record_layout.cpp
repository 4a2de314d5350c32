#include "ntfs/record_layout.h"

#include <algorithm>
#include <cstring>

#include "loader/common/byte_order.h"
#include "ntfs/ntfs_driver.h"

namespace ntfs {

namespace {

constexpr std::uint32_t kSequenceArrayOffset = 42;
constexpr std::uint32_t kEndMarkerTail = 0x11477982;
constexpr std::uint32_t kNameOffset = AttributeRecord::kResidentHeaderSize;

std::uint32_t RoundUp8(std::uint32_t value) { return (value + 7) & ~7u; }

}  // namespace

void SetRecordField16(RecordBuffer& buffer, std::uint32_t offset, std::uint16_t value) {
    Common::StoreLE16(buffer.data() + offset, value);
}

void SetRecordField64(RecordBuffer& buffer, std::uint32_t offset, std::uint64_t value) {
    Common::StoreLE64(buffer.data() + offset, value);
}

void LayOutFreshRecord(RecordBuffer& buffer, std::uint32_t record_size) {
    std::uint16_t sequence = buffer.header()->sequence_number();
    if (sequence == 0) sequence = 1;
    buffer.bytes.assign(record_size, 0);
    unsigned char* bytes = buffer.data();
    std::memcpy(bytes, "FILE", 4);
    const std::uint16_t count = static_cast<std::uint16_t>((record_size >> 9) + 1);
    Common::StoreLE16(bytes + 4, kSequenceArrayOffset);
    Common::StoreLE16(bytes + 6, count);
    Common::StoreLE16(bytes + kSequenceArrayOffset, 1);
    const std::uint32_t first = (count * 2u + 49u) & ~7u;
    Common::StoreLE16(bytes + record_field::kSequence, sequence);
    Common::StoreLE16(bytes + 20, static_cast<std::uint16_t>(first));
    Common::StoreLE16(bytes + record_field::kFlags, kRecordInUse);
    Common::StoreLE32(bytes + 24, first + 8);
    Common::StoreLE32(bytes + 28, record_size);
    Common::StoreLE32(bytes + record_field::kRecordNumber, static_cast<std::uint32_t>(buffer.number));
    Common::StoreLE32(bytes + first, kAttributeEnd);
    Common::StoreLE32(bytes + first + 4, kEndMarkerTail);
}

std::vector<unsigned char> ResidentHeader(std::uint32_t type, const std::u16string& name) {
    const std::uint32_t value_offset = RoundUp8(kNameOffset + 2u * std::uint32_t(name.size()));
    std::vector<unsigned char> bytes(value_offset, 0);
    auto* header = reinterpret_cast<AttributeRecord*>(bytes.data());
    header->set_type(type);
    header->set_length(value_offset);
    header->set_name_length(static_cast<std::uint8_t>(name.size()));
    header->set_name_offset(static_cast<std::uint16_t>(kNameOffset));
    header->set_value_offset(static_cast<std::uint16_t>(value_offset));
    for (std::size_t i = 0; i < name.size(); ++i) {
        Common::StoreLE16(bytes.data() + kNameOffset + 2 * i, static_cast<std::uint16_t>(name[i]));
    }
    return bytes;
}

int CompareAttributeNames(const NTFSDriver* driver, const std::u16string& a, const std::u16string& b) {
    const int folded = driver->compare_names(a.data(), a.size(), b.data(), b.size());
    if (folded != 0) return folded;
    return a.compare(b) < 0 ? -1 : (a == b ? 0 : 1);
}

std::uint32_t FreeBytes(RecordBuffer& buffer, std::uint32_t record_size) {
    const std::uint32_t room = std::min(buffer.header()->bytes_allocated(), record_size);
    const std::uint32_t in_use = buffer.header()->bytes_in_use();
    return in_use > room ? 0 : room - in_use;
}

}  // namespace ntfs
