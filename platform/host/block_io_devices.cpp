#include "platform/host/block_io_devices.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>

#include "platform/host/simulator.h"

namespace HostFirmware {
namespace {

constexpr std::uint64_t kGptHeaderSize = 92;
constexpr std::uint32_t kSmallestGptEntry = 128;
constexpr std::uint32_t kLargestGptEntry = 4096;
constexpr std::uint32_t kMostGptEntries = 16384;

std::uint64_t Little(const std::uint8_t* bytes, int width) {
    std::uint64_t value = 0;
    for (int i = width - 1; i >= 0; --i) value = (value << 8) | bytes[i];
    return value;
}

void PutLittle(std::vector<std::uint8_t>& bytes, std::uint64_t value, int width) {
    for (int i = 0; i < width; ++i) bytes.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
}

bool ReadAt(int file, std::uint64_t offset, void* buffer, std::size_t size) {
    auto* bytes = static_cast<std::uint8_t*>(buffer);
    while (size > 0) {
        ssize_t got = pread(file, bytes, size, static_cast<off_t>(offset));
        if (got <= 0) return false;
        bytes += got;
        offset += static_cast<std::uint64_t>(got);
        size -= static_cast<std::size_t>(got);
    }
    return true;
}

bool WriteAt(int file, std::uint64_t offset, const void* buffer, std::size_t size) {
    const auto* bytes = static_cast<const std::uint8_t*>(buffer);
    while (size > 0) {
        ssize_t put = pwrite(file, bytes, size, static_cast<off_t>(offset));
        if (put <= 0) return false;
        bytes += put;
        offset += static_cast<std::uint64_t>(put);
        size -= static_cast<std::size_t>(put);
    }
    return true;
}

// The nodes that lead to the n-th disk: a PCI root bridge, a storage
// controller on it, and the disk as a SCSI target.
std::vector<std::uint8_t> DiskPathNodes(std::size_t disk) {
    std::vector<std::uint8_t> path = {2, 1, 12, 0};  // ACPI, PNP0A03, UID 0
    PutLittle(path, 0x0A0341D0, 4);
    PutLittle(path, 0, 4);
    path.insert(path.end(), {1, 1, 6, 0, 0, 4});  // PCI function 0, device 4
    path.insert(path.end(), {3, 2, 8, 0});        // SCSI
    PutLittle(path, disk, 2);
    PutLittle(path, 0, 2);
    return path;
}

void AppendEnd(std::vector<std::uint8_t>& path) { path.insert(path.end(), {0x7F, 0xFF, 4, 0}); }

std::vector<std::uint8_t> HardDriveNode(const GptPartition& partition) {
    std::vector<std::uint8_t> node = {4, 1, 42, 0};
    PutLittle(node, partition.number, 4);
    PutLittle(node, partition.first_lba, 8);
    PutLittle(node, partition.last_lba - partition.first_lba + 1, 8);
    node.insert(node.end(), partition.unique_guid, partition.unique_guid + 16);
    node.push_back(2);  // partition format: GPT
    node.push_back(2);  // signature type: GUID
    return node;
}

}  // namespace

// ---- the protocol ----

void ReadTally::Add(std::uint64_t size) {
    ++calls;
    bytes += size;
    auto [entry, added] = calls_by_size.emplace(size, 1);
    if (!added) ++entry->second;
}

BlockIoMedium::BlockIoMedium(int file, std::uint64_t first_byte, std::uint64_t sectors, const DiskOptions& options,
                             bool partition)
    : file_(file), first_byte_(first_byte) {
    media_.MediaId = options.media_id;
    media_.MediaPresent = TRUE;
    media_.LogicalPartition = partition ? TRUE : FALSE;
    media_.ReadOnly = options.writable ? FALSE : TRUE;
    media_.BlockSize = options.sector_size;
    media_.IoAlign = 0;
    media_.LastBlock = sectors - 1;
    interface_.protocol.Revision = EFI_BLOCK_IO_PROTOCOL_REVISION;
    interface_.protocol.Media = &media_;
    interface_.protocol.Reset = Reset;
    interface_.protocol.ReadBlocks = ReadBlocks;
    interface_.protocol.WriteBlocks = WriteBlocks;
    interface_.protocol.FlushBlocks = FlushBlocks;
    interface_.medium = this;
}

namespace {
BlockIoMedium& MediumOf(EFI_BLOCK_IO_PROTOCOL* self) { return *reinterpret_cast<BlockIoInterface*>(self)->medium; }
}  // namespace

EFI_STATUS EFIAPI BlockIoMedium::Reset(EFI_BLOCK_IO_PROTOCOL*, BOOLEAN) { return EFI_SUCCESS; }

// The checks of the published ReadBlocks and WriteBlocks, in their order.
EFI_STATUS BlockIoMedium::Check(UINT32 media_id, EFI_LBA lba, UINTN size, const void* buffer) {
    last_media_id = media_id;
    last_lba = lba;
    last_buffer_size = size;
    if (forced_status != EFI_SUCCESS) return forced_status;
    if (!media_.MediaPresent) return EFI_NO_MEDIA;
    if (media_id != media_.MediaId) return EFI_MEDIA_CHANGED;
    if (buffer == nullptr) return EFI_INVALID_PARAMETER;
    if (media_.BlockSize == 0 || size % media_.BlockSize != 0) return EFI_BAD_BUFFER_SIZE;
    if (size == 0) return EFI_SUCCESS;
    std::uint64_t blocks = size / media_.BlockSize;
    if (lba > media_.LastBlock || blocks > media_.LastBlock - lba + 1) return EFI_INVALID_PARAMETER;
    return EFI_SUCCESS;
}

EFI_STATUS EFIAPI BlockIoMedium::ReadBlocks(EFI_BLOCK_IO_PROTOCOL* self, UINT32 media_id, EFI_LBA lba, UINTN size,
                                            VOID* buffer) {
    BlockIoMedium& medium = MediumOf(self);
    ++medium.reads;
    medium.read_sizes.Add(size);
    EFI_STATUS status = medium.Check(media_id, lba, size, buffer);
    if (status != EFI_SUCCESS || size == 0) return status;
    if (!ReadAt(medium.file_, medium.first_byte_ + lba * medium.media_.BlockSize, buffer, size)) return EFI_DEVICE_ERROR;
    return EFI_SUCCESS;
}

EFI_STATUS EFIAPI BlockIoMedium::WriteBlocks(EFI_BLOCK_IO_PROTOCOL* self, UINT32 media_id, EFI_LBA lba, UINTN size,
                                             VOID* buffer) {
    BlockIoMedium& medium = MediumOf(self);
    ++medium.writes;
    EFI_STATUS status = medium.Check(media_id, lba, size, buffer);
    if (status != EFI_SUCCESS) return status;
    if (medium.media_.ReadOnly) return EFI_WRITE_PROTECTED;
    if (size == 0) return EFI_SUCCESS;
    if (!WriteAt(medium.file_, medium.first_byte_ + lba * medium.media_.BlockSize, buffer, size)) return EFI_DEVICE_ERROR;
    return EFI_SUCCESS;
}

EFI_STATUS EFIAPI BlockIoMedium::FlushBlocks(EFI_BLOCK_IO_PROTOCOL* self) {
    BlockIoMedium& medium = MediumOf(self);
    ++medium.flushes;
    if (medium.forced_status != EFI_SUCCESS) return medium.forced_status;
    if (!medium.media_.MediaPresent) return EFI_NO_MEDIA;
    if (!medium.media_.ReadOnly && fsync(medium.file_) != 0) return EFI_DEVICE_ERROR;
    return EFI_SUCCESS;
}

// ---- the GPT of an image ----

std::vector<GptPartition> ReadGpt(int file, std::uint64_t file_size, std::uint32_t sector_size) {
    std::vector<GptPartition> partitions;
    if (sector_size < kGptHeaderSize || file_size / sector_size < 3) return partitions;
    std::uint64_t sectors = file_size / sector_size;
    std::vector<std::uint8_t> header(sector_size);
    if (!ReadAt(file, sector_size, header.data(), header.size())) return partitions;
    if (std::memcmp(header.data(), "EFI PART", 8) != 0) return partitions;
    std::uint64_t header_size = Little(&header[12], 4);
    std::uint64_t entries_lba = Little(&header[72], 8);
    std::uint64_t entry_count = Little(&header[80], 4);
    std::uint64_t entry_size = Little(&header[84], 4);
    if (header_size < kGptHeaderSize || header_size > sector_size) return partitions;
    if (entry_size < kSmallestGptEntry || entry_size > kLargestGptEntry || entry_size % 8 != 0) return partitions;
    if (entry_count > kMostGptEntries || entries_lba < 2 || entries_lba >= sectors) return partitions;
    std::uint64_t table_bytes = entry_count * entry_size;
    if (table_bytes > (sectors - entries_lba) * sector_size) return partitions;

    std::vector<std::uint8_t> table(static_cast<std::size_t>(table_bytes));
    if (!table.empty() && !ReadAt(file, entries_lba * sector_size, table.data(), table.size())) return partitions;
    static const std::uint8_t kUnused[16] = {};
    for (std::uint64_t index = 0; index < entry_count; ++index) {
        const std::uint8_t* entry = &table[static_cast<std::size_t>(index * entry_size)];
        if (std::memcmp(entry, kUnused, 16) == 0) continue;
        GptPartition partition;
        partition.number = static_cast<std::uint32_t>(index + 1);
        std::memcpy(partition.type_guid, entry, 16);
        std::memcpy(partition.unique_guid, entry + 16, 16);
        partition.first_lba = Little(entry + 32, 8);
        partition.last_lba = Little(entry + 40, 8);
        if (partition.first_lba > partition.last_lba || partition.last_lba >= sectors) continue;
        partitions.push_back(partition);
    }
    return partitions;
}

// ---- the devices ----

BlockDevices::~BlockDevices() {
    for (AttachedDisk& disk : disks_) {
        if (disk.file >= 0) close(disk.file);
    }
}

void BlockDevices::InstallMedium(BlockIoMedium& medium) {
    EFI_GUID block_io_guid = EFI_BLOCK_IO_PROTOCOL_GUID;
    EFI_GUID device_path_guid = DEVICE_PATH_PROTOCOL;
    medium.handle_ = simulator_.Handles().Install(nullptr, device_path_guid, medium.device_path_.data());
    simulator_.Handles().Install(medium.handle_, block_io_guid, medium.Protocol());
}

std::size_t BlockDevices::Attach(const std::string& image, const DiskOptions& options) {
    if (options.sector_size == 0) throw std::runtime_error("sector size 0: " + image);
    int file = open(image.c_str(), options.writable ? O_RDWR : O_RDONLY);
    if (file < 0) throw std::runtime_error("cannot open disk image " + image);
    struct stat status {};
    if (fstat(file, &status) != 0 || status.st_size <= 0 || static_cast<std::uint64_t>(status.st_size) % options.sector_size != 0) {
        close(file);
        throw std::runtime_error("disk image is not a whole number of sectors: " + image);
    }
    std::uint64_t file_size = static_cast<std::uint64_t>(status.st_size);

    std::size_t number = disks_.size();
    disks_.emplace_back();
    AttachedDisk& disk = disks_.back();
    disk.file = file;
    disk.whole = std::make_unique<BlockIoMedium>(file, 0, file_size / options.sector_size, options, false);
    std::vector<std::uint8_t> disk_path = DiskPathNodes(number);
    disk.whole->device_path_ = disk_path;
    AppendEnd(disk.whole->device_path_);
    InstallMedium(*disk.whole);

    // A partition driver opens the disk's Block I/O for each child it makes;
    // that link is how the firmware's controller tree is learnt.
    if (partition_driver_ == nullptr) partition_driver_ = simulator_.Handles().Create();
    EFI_GUID block_io_guid = EFI_BLOCK_IO_PROTOCOL_GUID;
    for (const GptPartition& entry : ReadGpt(file, file_size, options.sector_size)) {
        auto partition = std::make_unique<BlockIoMedium>(file, entry.first_lba * options.sector_size,
                                                         entry.last_lba - entry.first_lba + 1, options, true);
        partition->device_path_ = disk_path;
        std::vector<std::uint8_t> node = HardDriveNode(entry);
        partition->device_path_.insert(partition->device_path_.end(), node.begin(), node.end());
        AppendEnd(partition->device_path_);
        InstallMedium(*partition);
        EFI_OPEN_PROTOCOL_INFORMATION_ENTRY opener{};
        opener.AgentHandle = partition_driver_;
        opener.ControllerHandle = partition->Handle();
        opener.Attributes = EFI_OPEN_PROTOCOL_BY_CHILD_CONTROLLER;
        opener.OpenCount = 1;
        simulator_.Handles().Find(disk.whole->Handle(), block_io_guid)->openers.push_back(opener);
        disk.partitions.push_back(std::move(partition));
    }
    return number;
}

std::vector<BlockIoMedium*> BlockDevices::Partitions(std::size_t disk) {
    std::vector<BlockIoMedium*> partitions;
    for (auto& partition : disks_.at(disk).partitions) partitions.push_back(partition.get());
    return partitions;
}

// ---- the simulator's accessor ----

BlockDevices& Simulator::Disks() {
    if (!disks_) {
        disks_ = std::unique_ptr<BlockDevices, void (*)(BlockDevices*)>(new BlockDevices(*this),
                                                                       [](BlockDevices* devices) { delete devices; });
    }
    return *disks_;
}

}  // namespace HostFirmware
