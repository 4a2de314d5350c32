#include "hfsplus/hfsplus_driver.h"

#include <algorithm>
#include <string>

#include "hfsplus/allocation_file.h"
#include "hfsplus/attributes_file.h"
#include "hfsplus/catalog_file.h"
#include "hfsplus/extents_overflow.h"
#include "hfsplus/hfsplus_directory.h"
#include "hfsplus/hfsplus_string.h"
#include "hfsplus/hfsplus_metadata.h"
#include "hfsplus/opened_files_map.h"
#include "hfsplus/volume_header.h"
#include "loader/common/raise.h"

namespace hfsplus {

void HFSPlusDriver::space(std::uint64_t& total, std::uint64_t& free, std::uint64_t& available) {
    const VolumeHeader& header = metadata().GetVolumeHeader().header();
    total = std::uint64_t(header.blockSize()) * header.totalBlocks();
    free = std::uint64_t(header.blockSize()) * header.freeBlocks();
    available = free;
}

// The volume's name is the root folder's: the name in its thread record.
void HFSPlusDriver::label(char16_t* buffer, std::uint32_t capacity) {
    if (buffer == nullptr || capacity == 0) return;
    const std::u16string name = metadata().GetCatalogFile().GetVolumeName().ToHost();
    const std::size_t length = std::min<std::size_t>(name.size(), capacity - 1);
    std::copy(name.begin(), name.begin() + static_cast<std::ptrdiff_t>(length), buffer);
    buffer[length] = 0;
}

int HFSPlusDriver::compare_identifiers(const file_identifier& a, const file_identifier& b) {
    const auto* left = dynamic_cast<const the_identifier*>(&a);
    const auto* right = dynamic_cast<const the_identifier*>(&b);
    if (left == nullptr || right == nullptr) return left == right ? 0 : left == nullptr ? -1 : 1;
    const std::u16string left_name = left->name();
    const std::u16string right_name = right->name();
    return CompareBinary(left_name.data(), left_name.size(), right_name.data(), right_name.size());
}

// The volume's soundness is proved once, before its first change; a volume
// that fails keeps failing, as nothing of it has changed.
void HFSPlusDriver::refuse_if_unchangeable() {
    if (read_only != 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_READ_ONLY);
    if (sound_for_changes) return;
    metadata().CheckSoundForChanges(*this);
    sound_for_changes = true;
}

FileSystemDriver::DirectoryObject* HFSPlusDriver::open_directory(std::uint32_t id) {
    return new HFSPlusDirectoryObject(this, CatalogIdOfDirectory(id));
}

void HFSPlusDriver::flush_blocks() {
    // An eviction inside the objects' flush or inside a metadata write
    // comes back here: the blocks' pass alone then, the objects being in
    // the middle of a change.
    if (read_only == 0 && !flushing_metadata && metadata_writes == 0) {
        flushing_metadata = true;
        struct Clear {
            bool& flag;
            ~Clear() { flag = false; }
        } clear{flushing_metadata};
        flush_metadata();
    }
    FileSystemDriverPosix::flush_blocks();
}

void HFSPlusDriver::flush_files() {
    HFSPlusMetadata& held = metadata();
    if (held.attributes_file) held.attributes_file->FlushTree();
    if (held.catalog_file) held.catalog_file->FlushTree();
    if (held.extents_overflow_file) held.extents_overflow_file->FlushTree();
    if (held.allocation_file) held.allocation_file->Flush();
}

void HFSPlusDriver::flush_metadata() {
    flush_files();
    if (metadata().volume_header) metadata().volume_header->FlushHeader();
}

void HFSPlusDriver::FlushAreas(std::set<SectorArea>& areas) {
    for (const SectorArea& area : areas) {
        if (area.IsEmpty()) continue;
        DriverLockHold hold(block_lock);
        auto block = blocks.upper_bound(area.first);
        if (block != blocks.begin()) --block;
        for (; block != blocks.end() && block->first <= area.last; ++block) {
            CachedBlock* cached = block->second;
            if (cached->dirty == 0 || cached->first + cached->count <= area.first) continue;
            cached->dirty = 0;
            device->Transfer(Fdisk::kTransferWrite, first_sector + cached->first, cached->data(), cached->count);
        }
    }
    areas.clear();
}

HFSPlusMetadata& HFSPlusDriver::metadata() const {
    if (!metadata_holder) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    return *metadata_holder;
}

OpenedFilesInDirectoriesMap& HFSPlusDriver::opened_files() const {
    if (!opened_files_map) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    return *opened_files_map;
}

}  // namespace hfsplus
