#include "fsdriver/file_system_driver.h"

#include <cstring>

#include "fsdriver/directory_object.h"
#include "loader/common/raise.h"
#include "fsdriver/file_object.h"
#include "fsdriver/file_system_cache.h"
#include "fsdriver/iterator_object.h"
#include "fsdriver/iterator_reference.h"

namespace {

constexpr std::uint32_t RequestWord(char a, char b, char c, char d) {
    return std::uint32_t(std::uint8_t(a)) | std::uint32_t(std::uint8_t(b)) << 8 |
           std::uint32_t(std::uint8_t(c)) << 16 | std::uint32_t(std::uint8_t(d)) << 24;
}

constexpr std::uint32_t kRequestMountId = RequestWord('G', 'S', 'Y', 'P');
constexpr std::uint32_t kRequestDismount = RequestWord('D', 'M', 'N', 'T');
constexpr std::uint32_t kRequestTypeName = RequestWord('G', 'F', 'S', 'T');
constexpr std::uint32_t kRequestFirstSector = RequestWord('G', 'P', 'H', 'L');

}  // namespace

FileSystemDriver::FileSystemDriver(Fdisk::SimpleDisk* device, std::uint64_t first_sector,
                                   std::uint64_t volume_sectors, std::uint32_t cache_group)
    : volume_sectors(volume_sectors),
      sector_size(device->GetSectorSize()),
      device(device),
      base_device(device),
      first_sector(first_sector) {
    cache = FileSystemCache::acquire(cache_group);
}

FileSystemDriver::~FileSystemDriver() {
    {
        DriverLockHold file_hold(file_lock);
        for (auto& entry : directories) delete entry.second;
        directories.clear();
    }
    {
        DriverLockHold cache_hold(cache->lock);
        DriverLockHold hold(block_lock);
        // Dirty blocks are not written here: the concrete driver's
        // destructor has dismounted already, or the mount failed.
        for (auto& entry : blocks) {
            CachedBlock* block = entry.second;
            cache->bytes -= CachedBlock::charge(block->count, sector_size);
            block->unlink();
            CachedBlock::destroy(block);
        }
        blocks.clear();
    }
    FileSystemCache::release(cache);
    if (device != base_device) {
        delete device;
        device = base_device;
    }
    if ((flags & MOUNT_OWNS_DEVICE) != 0) delete device;
}

void FileSystemDriver::dismount() {
    for (FileObject* writer = writer_list.head(); writer != nullptr; writer = writer_list.after(writer)) {
        writer->flush_file();
    }
    commit();
}

void FileSystemDriver::commit() {
    DriverLockHold hold(block_lock);
    if (flushing) return;
    flushing = true;
    struct Clear {
        bool& flag;
        ~Clear() { flag = false; }
    } clear{flushing};
    flush_blocks();
}

void FileSystemDriver::flush_blocks() {
    for (auto& entry : blocks) {
        CachedBlock* block = entry.second;
        if (block->dirty == 0) continue;
        block->dirty = 0;
        // A device that refuses here has nobody to tell: the error is dropped.
        device->Transfer(Fdisk::kTransferWrite, first_sector + block->first, block->data(), block->count);
    }
}

void FileSystemDriver::before_first_write() {
    if (device == base_device) return;
    Common::Error status = device->Transfer(Fdisk::kTransferFlush, 0, nullptr, 0);
    if (status.Failed()) Common::Raise(ERROR_TAG, Common::Failures::FILE_WRITE, status);
    delete device;
    device = base_device;
}

void FileSystemDriver::control(void* block) {
    unsigned char* bytes = static_cast<unsigned char*>(block);
    std::uint32_t word;
    std::memcpy(&word, bytes, sizeof(word));
    switch (word) {
    case kRequestMountId:
        std::memcpy(bytes + 4, &mount_id, sizeof(mount_id));
        return;
    case kRequestDismount:
        dismount();
        return;
    case kRequestTypeName: {
        const char* name = type_name();
        std::size_t i = 0;
        for (;; ++i) {
            char16_t wide = static_cast<unsigned char>(name[i]);
            std::memcpy(bytes + 4 + i * sizeof(char16_t), &wide, sizeof(wide));
            if (wide == 0) break;
        }
        return;
    }
    case kRequestFirstSector: {
        // The entry whose data's first sector is asked for, as an iterator
        // that this framework handed out.
        i_dir::iterator* given;
        std::memcpy(&given, bytes + 8, sizeof(given));
        auto* reference = dynamic_cast<IteratorReference*>(given);
        if (reference == nullptr || reference->entry() == nullptr) {
            Common::Raise(ERROR_TAG, Common::Failures::FILE_OPEN);
        }
        std::uint64_t sector = reference->entry()->first_sector();
        std::memcpy(bytes + 16, &sector, sizeof(sector));
        return;
    }
    default:
        Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
    }
}

FileSystemDriver::DirectoryObject* FileSystemDriver::get_object(std::uint32_t id) {
    auto found = directories.find(id);
    if (found != directories.end()) {
        directory_lru.move_to_head(found->second);
        return found->second;
    }
    // The new object has linked itself at the head of directory_lru.
    DirectoryObject* object = open_directory(id);
    directories.emplace(id, object);
    return object;
}
