#pragma once
// The update sequence protection of multi-sector blocks (file records,
// index buffers): the last two bytes of every 512-byte stride hold the
// block's update sequence number on disk, and the array at the head of the
// block keeps what belongs there. A stride whose tail doesn't carry the
// number was torn by an interrupted write.
#include <cstdint>

namespace ntfs {

// The smallest update sequence offsets a block's header leaves room for.
constexpr std::uint32_t kRecordFixupMinimum = 42;
constexpr std::uint32_t kIndexBufferFixupMinimum = 40;

// Checks the array of a block of `size` bytes and puts the saved words back
// in place; FILE_CORRUPT when the array or a stride's tail doesn't agree.
// The stride is 512 bytes whatever the device's sector size.
void ApplyReadFixups(unsigned char* block, std::uint32_t size, std::uint32_t minimum_offset);

// The reverse, before a block goes to disk: a new update sequence number
// (never 0), each stride's tail saved into the array and replaced by the
// number. FILE_CORRUPT for an array that ApplyReadFixups would refuse.
void ApplyWriteFixups(unsigned char* block, std::uint32_t size, std::uint32_t minimum_offset);

}  // namespace ntfs
