#pragma once
// The fields of a file record header that the write path changes, and the
// shapes of the records and attribute headers that it lays out. Each field
// is stored little-endian at its place, whatever the host.
#include <cstdint>
#include <string>
#include <vector>

#include "ntfs/mft.h"

namespace ntfs {

class NTFSDriver;

namespace record_field {
constexpr std::uint32_t kSequence = 16;
constexpr std::uint32_t kLinkCount = 18;
constexpr std::uint32_t kFlags = 22;
constexpr std::uint32_t kBaseRecord = 32;
constexpr std::uint32_t kNextInstance = 40;
constexpr std::uint32_t kRecordNumber = 44;
}  // namespace record_field

void SetRecordField16(RecordBuffer& buffer, std::uint32_t offset, std::uint16_t value);
void SetRecordField64(RecordBuffer& buffer, std::uint32_t offset, std::uint64_t value);

// Lays out an empty record in use over `buffer`, keeping the sequence
// number found there (0 becomes 1).
void LayOutFreshRecord(RecordBuffer& buffer, std::uint32_t record_size);

// A resident header of `type` and `name` with an empty value.
std::vector<unsigned char> ResidentHeader(std::uint32_t type, const std::u16string& name);

// The order of attribute names within a type: without regard to case
// first, then exactly. Negative when `a` sorts first.
int CompareAttributeNames(const NTFSDriver* driver, const std::u16string& a, const std::u16string& b);

// The bytes in use that a record has left: allocated minus in use, 0 when
// the header claims more than the record holds.
std::uint32_t FreeBytes(RecordBuffer& buffer, std::uint32_t record_size);

}  // namespace ntfs
