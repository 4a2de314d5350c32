#pragma once
// Block I/O of the simulator over disk-image files of the host. Each image
// becomes a whole-disk handle, and each used entry of its GPT a partition
// handle below it, with the device paths a real firmware would give them
// and the child-controller link that a partition driver leaves.
#include <efi.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace HostFirmware {

class Simulator;

struct DiskOptions {
    std::uint32_t sector_size = 512;
    bool writable = false;
    std::uint32_t media_id = 1;
};

class BlockIoMedium;

// The ReadBlocks calls a medium received and their sizes in bytes, so a
// run can tell whether its files came in large transfers or many small ones.
struct ReadTally {
    std::uint64_t calls = 0;
    std::uint64_t bytes = 0;
    std::map<std::uint64_t, std::uint64_t> calls_by_size;

    void Add(std::uint64_t size);
};

// The protocol as the firmware hands it out, with the way back to its medium.
struct BlockIoInterface {
    EFI_BLOCK_IO_PROTOCOL protocol;
    BlockIoMedium* medium;
};

// One Block I/O protocol over a stretch of an image file: the whole image,
// or one partition of it.
class BlockIoMedium {
public:
    BlockIoMedium(int file, std::uint64_t first_byte, std::uint64_t sectors, const DiskOptions& options, bool partition);
    BlockIoMedium(const BlockIoMedium&) = delete;
    BlockIoMedium& operator=(const BlockIoMedium&) = delete;

    EFI_BLOCK_IO_PROTOCOL* Protocol() { return &interface_.protocol; }
    // What the protocol reports; a test may change it as a removable drive
    // would. Transfers check against it, and address the file by BlockSize.
    EFI_BLOCK_IO_MEDIA& Media() { return media_; }
    EFI_HANDLE Handle() const { return handle_; }
    const std::vector<std::uint8_t>& DevicePath() const { return device_path_; }

    // While not EFI_SUCCESS, every call answers this status and does nothing.
    EFI_STATUS forced_status = EFI_SUCCESS;
    // What the image was asked, for tests.
    int reads = 0;
    ReadTally read_sizes;
    int writes = 0;
    int flushes = 0;
    std::uint32_t last_media_id = 0;
    EFI_LBA last_lba = 0;
    UINTN last_buffer_size = 0;

private:
    friend class BlockDevices;
    static EFI_STATUS EFIAPI Reset(EFI_BLOCK_IO_PROTOCOL* self, BOOLEAN extended);
    static EFI_STATUS EFIAPI ReadBlocks(EFI_BLOCK_IO_PROTOCOL* self, UINT32 media_id, EFI_LBA lba, UINTN size, VOID* buffer);
    static EFI_STATUS EFIAPI WriteBlocks(EFI_BLOCK_IO_PROTOCOL* self, UINT32 media_id, EFI_LBA lba, UINTN size, VOID* buffer);
    static EFI_STATUS EFIAPI FlushBlocks(EFI_BLOCK_IO_PROTOCOL* self);
    EFI_STATUS Check(UINT32 media_id, EFI_LBA lba, UINTN size, const void* buffer);

    BlockIoInterface interface_{};
    EFI_BLOCK_IO_MEDIA media_{};
    int file_;
    std::uint64_t first_byte_;
    EFI_HANDLE handle_ = nullptr;
    std::vector<std::uint8_t> device_path_;
};

// A GPT entry as the simulator found it in an image.
struct GptPartition {
    std::uint32_t number = 0;  // the entry's index + 1
    std::uint64_t first_lba = 0;
    std::uint64_t last_lba = 0;
    std::uint8_t type_guid[16] = {};
    std::uint8_t unique_guid[16] = {};
};

// Reads the primary GPT of an image whose sectors are `sector_size` bytes.
// An image without a valid header has no partitions; entries that are
// unused or lie outside the image are left out.
std::vector<GptPartition> ReadGpt(int file, std::uint64_t file_size, std::uint32_t sector_size);

class BlockDevices {
public:
    explicit BlockDevices(Simulator& simulator) : simulator_(simulator) {}
    ~BlockDevices();
    BlockDevices(const BlockDevices&) = delete;
    BlockDevices& operator=(const BlockDevices&) = delete;

    // Attaches an image: installs its whole-disk handle and a handle for each
    // GPT partition. Answers the disk's number (0 for the first). Throws
    // std::runtime_error when the image cannot be opened or is not a whole
    // number of sectors.
    std::size_t Attach(const std::string& image, const DiskOptions& options = DiskOptions());

    std::size_t Count() const { return disks_.size(); }
    BlockIoMedium& Disk(std::size_t disk) { return *disks_.at(disk).whole; }
    // The partitions of a disk in the order of their GPT entries.
    std::vector<BlockIoMedium*> Partitions(std::size_t disk);

private:
    struct AttachedDisk {
        int file = -1;
        std::unique_ptr<BlockIoMedium> whole;
        std::vector<std::unique_ptr<BlockIoMedium>> partitions;
    };

    void InstallMedium(BlockIoMedium& medium);

    Simulator& simulator_;
    EFI_HANDLE partition_driver_ = nullptr;
    std::vector<AttachedDisk> disks_;
};

}  // namespace HostFirmware
