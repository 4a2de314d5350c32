// Index nodes going to disk: the root through its attribute, buffers
// protected by their update sequence at their place in the allocation,
// buffers taken from and given back to the index's bitmap.
#include <cstring>

#include "loader/common/byte_order.h"
#include "loader/common/raise.h"
#include "ntfs/fixups.h"
#include "ntfs/index_buffer_allocator.h"
#include "ntfs/index_tree.h"
#include "ntfs/ntfs_driver.h"

namespace ntfs {

namespace {

constexpr std::uint16_t kUpdateSequenceOffset = 40;

}  // namespace

void IndexTreeBase::writeRoot() {
    const std::uint64_t size = root_.size();
    if (root_attribute_->write(0, size, root_.data()) != size) Common::Raise(ERROR_TAG, Common::Failures::FILE_WRITE);
}

void IndexTreeBase::writeBuffer(std::uint64_t vcn) {
    auto cached = nodes_.find(vcn);
    if (cached == nodes_.end()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    unsigned char* bytes = cached->second.data();
    ApplyWriteFixups(bytes, buffer_size_, kIndexBufferFixupMinimum);
    std::uint64_t written = 0;
    try {
        written = allocation_->write(vcn * vcn_unit_, buffer_size_, bytes);
    } catch (...) {
        ApplyReadFixups(bytes, buffer_size_, kIndexBufferFixupMinimum);
        throw;
    }
    ApplyReadFixups(bytes, buffer_size_, kIndexBufferFixupMinimum);
    if (written != buffer_size_) Common::Raise(ERROR_TAG, Common::Failures::FILE_WRITE);
}

std::uint32_t IndexTreeBase::clustersPerBuffer() {
    openAllocation();
    return rootHead()->clusters_per_index_block();
}

// A new, empty buffer: its entry area starts behind the update sequence
// array and holds nothing yet, not even an end entry; the caller fills it.
std::uint64_t IndexTreeBase::allocateBuffer() {
    const std::uint32_t per_buffer = clustersPerBuffer();
    IndexBufferAllocator allocator(driver_, record_, name_, per_buffer);
    std::vector<BitRun> runs;
    std::uint64_t got = 0;
    allocator.allocate(runs, 1, &got, true, false);
    if (got == 0 || runs.empty()) Common::Raise(ERROR_TAG, Common::Failures::FILE_DISK_FULL);
    const std::uint64_t vcn = runs.front().first * per_buffer;
    // A node this operation reached from the root is in use whatever its
    // bit says; handing it out again would overwrite live entries. The bit
    // is stored only once that is ruled out, so a refusal changes nothing.
    if (nodes_.count(vcn) != 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    allocator.setBit(runs.front().first);
    const std::uint64_t position = vcn * vcn_unit_;
    if (position / vcn_unit_ != vcn) Common::Raise(ERROR_TAG, Common::Failures::FILE_DISK_FULL);
    const std::uint64_t end = position + buffer_size_;
    const std::uint64_t size = allocation_->size();
    if (size < end) {
        allocation_->write(size, end - size, nullptr);
        if (allocation_->size() != end) Common::Raise(ERROR_TAG, Common::Failures::FILE_DISK_FULL);
    }
    std::vector<unsigned char> buffer(buffer_size_, 0);
    auto* block = reinterpret_cast<IndexBlock*>(buffer.data());
    std::memcpy(block->multi_sector_.magic_, "INDX", 4);
    const auto count = static_cast<std::uint16_t>((buffer_size_ >> 9) + 1);
    block->multi_sector_.usa_ofs_.set(kUpdateSequenceOffset);
    block->multi_sector_.usa_count_.set(count);
    block->index_block_vcn_.set(vcn);
    Common::StoreLE16(buffer.data() + kUpdateSequenceOffset, 1);
    const std::uint32_t entries = ((count * 2u + 47u) & ~7u) - IndexBlock::kHeaderOffset;
    block->index_.entries_offset_.set(entries);
    block->index_.index_length_.set(entries);
    block->index_.allocated_size_.set(buffer_size_ - IndexBlock::kHeaderOffset);
    ApplyWriteFixups(buffer.data(), buffer_size_, kIndexBufferFixupMinimum);
    if (allocation_->write(position, buffer_size_, buffer.data()) != buffer_size_) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_WRITE);
    }
    loadNode(vcn, false);
    return vcn;
}

void IndexTreeBase::freeNode(std::uint64_t vcn) {
    const std::uint32_t per_buffer = clustersPerBuffer();
    if (vcn % per_buffer != 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    IndexBufferAllocator allocator(driver_, record_, name_, per_buffer);
    allocator.freeBits(vcn / per_buffer, 1);
    nodes_.erase(vcn);
}

void IndexTreeBase::resetRoot() {
    std::vector<unsigned char> value = EmptyRootValue(*driver_, rootHead(), 0, collation_);
    if (root_attribute_->resize(value.size(), true) != value.size()) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_DISK_FULL);
    }
    root_ = std::move(value);
    writeRoot();
}

// What the root grows to for `extra` more bytes of entries.
std::uint64_t IndexTreeBase::rootSizeWith(std::uint32_t extra) {
    return kIndexRootHeadSize + std::uint64_t(rootHead()->index_.index_length()) + extra;
}

}  // namespace ntfs
