// Finding a GPT partition by its unique GUID among the firmware's block
// devices, and opening a device by its position, against GPT images made
// with sgdisk and attached to the simulator.
#include <efi.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "firmware/block_enumeration.h"
#include "firmware/firmware_access.h"
#include "firmware/simple_disk.h"
#include "loader/common/error_codes.h"
#include "loader/common/messages.h"
#include "loader/load_kernel.h"
#include "loader/partition_disk.h"
#include "platform/host/block_io_devices.h"
#include "platform/host/simulator.h"
#include "tests/support/temp_folder.h"

namespace {

struct Firmware {
    HostFirmware::Simulator simulator;
    Firmware() { Uefi::InitializeFirmwareAccess(simulator.ImageHandle(), simulator.SystemTable()); }
    HostFirmware::BlockDevices& Disks() { return simulator.Disks(); }
};

struct MadePartition {
    std::uint32_t number;
    std::uint64_t first;
    std::uint64_t last;
};

// Runs the image script; what sgdisk placed where, as the script reports it.
std::vector<MadePartition> MakeGptImage(const std::string& image, int size_mib, const std::vector<std::string>& partitions) {
    std::string here = __FILE__;
    std::string command = "'" + here.substr(0, here.rfind("/unit/")) + "/images/make_gpt_disk.sh' '" + image + "' " +
                          std::to_string(size_mib);
    for (const std::string& partition : partitions) command += " " + partition;
    std::vector<MadePartition> made;
    FILE* output = popen(command.c_str(), "r");
    if (output == nullptr) return made;
    unsigned number = 0;
    unsigned long long first = 0, last = 0;
    while (std::fscanf(output, "%u %llu %llu", &number, &first, &last) == 3) made.push_back({number, first, last});
    EXPECT_EQ(pclose(output), 0) << command;
    return made;
}

// The 16 bytes of a GUID in the firmware's layout: the first three fields
// little endian, the last two as written.
struct GuidBytes {
    const char* text;
    std::uint8_t bytes[16];
};

const GuidBytes kBoot = {"01234567-89AB-CDEF-0123-456789ABCDEF",
                         {0x67, 0x45, 0x23, 0x01, 0xAB, 0x89, 0xEF, 0xCD, 0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF}};
const GuidBytes kRoot = {"A1B2C3D4-E5F6-4708-9A0B-1C2D3E4F5061",
                         {0xD4, 0xC3, 0xB2, 0xA1, 0xF6, 0xE5, 0x08, 0x47, 0x9A, 0x0B, 0x1C, 0x2D, 0x3E, 0x4F, 0x50, 0x61}};
const GuidBytes kHome = {"0FEDCBA9-8765-4321-8000-00000000CAFE",
                         {0xA9, 0xCB, 0xED, 0x0F, 0x65, 0x87, 0x21, 0x43, 0x80, 0x00, 0x00, 0x00, 0x00, 0x00, 0xCA, 0xFE}};
const std::uint8_t kAbsent[16] = {0xD4, 0xC3, 0xB2, 0xA1, 0xF6, 0xE5, 0x08, 0x47, 0x9A, 0x0B, 0x1C, 0x2D, 0x3E, 0x4F, 0x50, 0x62};

std::string Layout(int size_mib, const GuidBytes& guid) { return std::to_string(size_mib) + ":" + guid.text; }

// The images the tests read, each made once per run and only when a test
// wants it: sgdisk takes a second for each table it writes. Tests that
// write work on a copy.
struct SharedImage {
    TestSupport::TempFolder folder;
    std::string path;
    std::vector<MadePartition> made;
    SharedImage(int size_mib, const std::vector<std::string>& partitions)
        : path(folder.Path() + "/gpt.img"), made(MakeGptImage(path, size_mib, partitions)) {}
};

// kBoot 2 MiB, kRoot 5 MiB, kHome 3 MiB on 16 MiB.
const SharedImage& Three() {
    static SharedImage image(16, {Layout(2, kBoot), Layout(5, kRoot), Layout(3, kHome)});
    return image;
}

// kBoot 4 MiB on 8 MiB.
const SharedImage& Large() {
    static SharedImage image(8, {Layout(4, kBoot)});
    return image;
}

std::string FirstBytes(Fdisk::SimpleDisk& disk, std::size_t count) {
    std::vector<std::uint8_t> sector(disk.GetSectorSize());
    if (disk.Transfer(Fdisk::kTransferRead, 0, sector.data(), 1).Failed()) return "<unreadable>";
    return std::string(sector.begin(), sector.begin() + static_cast<long>(count));
}

TEST(PartitionDisk, FindsEachPartitionByItsGuid) {
    Firmware firmware;
    TestSupport::TempFolder folder;
    // A disk without a GPT first: a whole disk in the list is passed over.
    std::string raw = folder.Path() + "/raw.img";
    ASSERT_EQ(std::system(("truncate -s 1M '" + raw + "'").c_str()), 0);
    firmware.Disks().Attach(raw);
    const std::vector<MadePartition>& made = Three().made;
    ASSERT_EQ(made.size(), 3u);
    firmware.Disks().Attach(Three().path);

    struct Case {
        const GuidBytes* guid;
        std::size_t made_index;
    };
    const Case cases[] = {{&kRoot, 1}, {&kBoot, 0}, {&kHome, 2}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.guid->text);
        const MadePartition& partition = made[c.made_index];
        std::unique_ptr<Fdisk::SimpleDisk> disk;
        Common::Error result = EfiLoader::FindPartitionDisk(c.guid->bytes, disk);
        ASSERT_FALSE(result.Failed()) << result.Code();
        ASSERT_NE(disk, nullptr);
        EXPECT_EQ(disk->GetSectorSize(), 512u);
        EXPECT_EQ(disk->GetLastSector(), partition.last - partition.first);
        EXPECT_EQ(FirstBytes(*disk, 12), "partition " + std::to_string(partition.number) + std::string(1, '\0'));
    }
    // A GUID one bit away from kRoot's names no partition.
    std::unique_ptr<Fdisk::SimpleDisk> disk;
    Common::Error result = EfiLoader::FindPartitionDisk(kAbsent, disk);
    EXPECT_EQ(result.Code(), Common::DISK_NOT_FOUND);
    EXPECT_EQ(result.Message(), u"No se pudo encontrar.");
    EXPECT_EQ(disk, nullptr);
}

TEST(PartitionDisk, WritesLandInsideThePartition) {
    Firmware firmware;
    TestSupport::TempFolder folder;
    std::string image = folder.Path() + "/copy.img";
    ASSERT_EQ(std::system(("cp '" + Three().path + "' '" + image + "'").c_str()), 0);
    const std::vector<MadePartition>& made = Three().made;
    ASSERT_EQ(made.size(), 3u);
    HostFirmware::DiskOptions options;
    options.writable = true;
    firmware.Disks().Attach(image, options);
    std::unique_ptr<Fdisk::SimpleDisk> disk;
    ASSERT_FALSE(EfiLoader::FindPartitionDisk(kRoot.bytes, disk).Failed());
    std::vector<std::uint8_t> sector(512, 0);
    std::memcpy(sector.data(), "second partition, sector 3", 26);
    ASSERT_FALSE(disk->Transfer(Fdisk::kTransferWrite, 3, sector.data(), 1).Failed());
    ASSERT_FALSE(disk->Transfer(Fdisk::kTransferFlush, 0, nullptr, 0).Failed());
    disk.reset();

    // dd reads the bytes back where the partition table says they belong.
    std::string command = "dd if='" + image + "' bs=512 skip=" + std::to_string(made[1].first + 3) + " count=1 status=none";
    FILE* output = popen(command.c_str(), "r");
    char bytes[26] = {};
    ASSERT_EQ(std::fread(bytes, 1, sizeof(bytes), output), sizeof(bytes));
    pclose(output);
    EXPECT_EQ(std::string(bytes, sizeof(bytes)), "second partition, sector 3");
}

TEST(PartitionDisk, TheFirstOfTwoDevicesWithTheGuidWins) {
    Firmware firmware;
    // The same partition GUID on two disks, with sizes that tell them apart.
    const std::vector<MadePartition>& large_made = Large().made;
    ASSERT_EQ(large_made.size(), 1u);
    ASSERT_NE(large_made[0].last - large_made[0].first, Three().made[0].last - Three().made[0].first);
    firmware.Disks().Attach(Large().path);
    firmware.Disks().Attach(Three().path);
    std::unique_ptr<Fdisk::SimpleDisk> disk;
    ASSERT_FALSE(EfiLoader::FindPartitionDisk(kBoot.bytes, disk).Failed());
    EXPECT_EQ(disk->GetLastSector(), large_made[0].last - large_made[0].first);
    EXPECT_EQ(FirstBytes(*disk, 11), "partition 1");
}

// A hand-made partition handle: a PCI node and a hard drive node whose
// signature is the GUID of kBoot, in the given partition format.
struct HandMadePartition {
    std::vector<std::uint8_t> path;
    EFI_BLOCK_IO_MEDIA media{};
    EFI_BLOCK_IO_PROTOCOL block_io{};

    HandMadePartition(Firmware& firmware, std::uint8_t format, bool with_block_io) {
        path = {1, 1, 6, 0, 0, 2, 4, 1, 42, 0, 1, 0, 0, 0};
        path.resize(path.size() + 16, 0);  // start and size
        path.insert(path.end(), kBoot.bytes, kBoot.bytes + 16);
        path.insert(path.end(), {format, format, 0x7F, 0xFF, 4, 0});
        media.BlockSize = 512;
        media.LastBlock = 99;
        block_io.Media = &media;
        EFI_GUID path_guid = DEVICE_PATH_PROTOCOL;
        EFI_GUID block_io_guid = EFI_BLOCK_IO_PROTOCOL_GUID;
        EFI_HANDLE handle = firmware.simulator.Handles().Install(nullptr, path_guid, path.data());
        if (with_block_io) firmware.simulator.Handles().Install(handle, block_io_guid, &block_io);
    }
};

TEST(PartitionDisk, OnlyAGptSignatureMatchesAndAnUnopenableDeviceCarriesItsCause) {
    struct Case {
        std::uint8_t format;
        std::uint32_t code;
    };
    const Case cases[] = {{1, Common::DISK_NOT_FOUND}, {0, Common::DISK_NOT_FOUND}, {2, 0}};
    for (const Case& c : cases) {
        SCOPED_TRACE(int(c.format));
        Firmware firmware;
        HandMadePartition partition(firmware, c.format, true);
        std::unique_ptr<Fdisk::SimpleDisk> disk;
        EXPECT_EQ(EfiLoader::FindPartitionDisk(kBoot.bytes, disk).Code(), c.code);
        EXPECT_EQ(disk != nullptr, c.code == 0);
        if (disk) {
            EXPECT_EQ(disk->GetLastSector(), 99u);
        }
    }
    // A matching handle without Block I/O: the refusal carries its cause.
    Firmware firmware;
    HandMadePartition partition(firmware, 2, false);
    std::unique_ptr<Fdisk::SimpleDisk> disk;
    Common::Error result = EfiLoader::FindPartitionDisk(kBoot.bytes, disk);
    EXPECT_EQ(result.Code(), Common::DISK_OPEN);
    EXPECT_EQ(result.Message(), Common::Messages::DISK_OPEN);
    EXPECT_EQ(result.Next().Code(), Common::DISK_UNSUPPORTED);
    EXPECT_EQ(result.Next().Message(), Common::Messages::DISK_UNSUPPORTED);
    EXPECT_EQ(disk, nullptr);
}

TEST(PartitionDisk, OpensDevicesByTheirPosition) {
    Firmware firmware;
    const std::vector<MadePartition>& made = Three().made;
    ASSERT_EQ(made.size(), 3u);
    firmware.Disks().Attach(Three().path);
    // The list of partitions: the whole disk, then its three partitions.
    struct Case {
        std::uint32_t index;
        std::uint32_t code;
        std::uint64_t last_sector;
    };
    const Case cases[] = {
        {0, Common::DISK_INDEX_RANGE, 0},
        {1, 0, 16 * 2048 - 1},
        {2, 0, made[0].last - made[0].first},
        {3, 0, made[1].last - made[1].first},
        {4, 0, made[2].last - made[2].first},
        {5, Common::DISK_INDEX_RANGE, 0},
        {0xFFFFFFFFu, Common::DISK_INDEX_RANGE, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.index);
        std::unique_ptr<Fdisk::SimpleDisk> disk;
        Common::Error result = EfiLoader::OpenDiskByIndex(c.index, disk);
        EXPECT_EQ(result.Code(), c.code);
        if (c.code == Common::DISK_INDEX_RANGE) {
            EXPECT_EQ(result.Message(), Common::Messages::DISK_INDEX_RANGE);
            EXPECT_EQ(disk, nullptr);
        } else {
            ASSERT_NE(disk, nullptr);
            EXPECT_EQ(disk->GetLastSector(), c.last_sector);
        }
    }
}

TEST(PartitionDisk, AFailedEnumerationGivesTheFirmwareStatus) {
    Firmware firmware;
    firmware.Disks().Attach(Three().path);
    firmware.simulator.FailPoolAllocations(true);
    std::unique_ptr<Fdisk::SimpleDisk> disk;
    Common::Error found = EfiLoader::FindPartitionDisk(kBoot.bytes, disk);
    Common::Error opened = EfiLoader::OpenDiskByIndex(1, disk);
    firmware.simulator.FailPoolAllocations(false);
    EXPECT_EQ(found.Code(), Common::DISK_OUT_OF_RESOURCES);
    EXPECT_EQ(found.Message(), Common::Messages::DISK_OUT_OF_RESOURCES);
    EXPECT_EQ(opened.Code(), Common::DISK_OUT_OF_RESOURCES);
    EXPECT_EQ(disk, nullptr);
}

// The kernel action's partition road, as far as this build goes: a GUID that
// names no partition is not found; one that names a partition reaches the
// mount, which no built-in driver takes yet.
// Three's kRoot partition formatted by mkfs.fat and filled by mtools with
// a kernel and a ramdisk under \boot; the other partitions hold no volume.
struct FatPartitionImage {
    TestSupport::TempFolder folder;
    std::string path = folder.Path() + "/fat.img";
    FatPartitionImage() {
        const MadePartition& root = Three().made.at(1);
        const std::string volume = folder.Path() + "/volume.img";
        const std::string make =
            "cp '" + Three().path + "' '" + path + "' && truncate -s " +
            std::to_string((root.last - root.first + 1) * 512) + " '" + volume + "' && mkfs.fat -F 12 '" + volume +
            "' >/dev/null && printf 'kernel bytes' > '" + folder.Path() + "/k' && printf 'ramdisk' > '" +
            folder.Path() + "/r' && mmd -i '" + volume + "' ::BOOT && mcopy -i '" + volume + "' '" + folder.Path() +
            "/k' ::BOOT/vmlinuz && mcopy -i '" + volume + "' '" + folder.Path() + "/r' ::BOOT/Initrd.img && dd if='" +
            volume + "' of='" + path + "' bs=512 seek=" + std::to_string(root.first) + " conv=notrunc status=none";
        EXPECT_EQ(std::system(make.c_str()), 0) << make;
    }
};

std::string ReadAll(ri_file& file) {
    char buffer[64];
    std::uint64_t got = 0;
    file.read(buffer, sizeof buffer, got);
    return std::string(buffer, got);
}

TEST(PartitionDisk, KernelActionOnAPartition) {
    FatPartitionImage image;
    struct Case {
        const char* guid;
        const char16_t* kernel_path;
        std::uint32_t code;
    };
    const Case cases[] = {
        {kRoot.text, u"/boot/vmlinuz", 0},
        // The path walk takes both separators, and the names their FAT case rules.
        {"a1b2c3d4-e5f6-4708-9a0b-1c2d3e4f5061", u"\\BOOT\\VMLINUZ", 0},
        {kRoot.text, u"\\boot\\missing", 0x1480008},          // VOLUME_NOT_MOUNTED
        {kHome.text, u"\\boot\\vmlinuz", 0x1480008},          // no driver takes it
        {"A1B2C3D4-E5F6-4708-9A0B-1C2D3E4F5062", u"\\vmlinuz", 0x10D00E},  // DISK_NOT_FOUND
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.guid);
        Firmware firmware;
        firmware.Disks().Attach(image.path);
        auto element = xml_element::create("LoadKernel");
        auto kernel = xml_element::create("Kernel");
        kernel->attributes["Path"] = c.kernel_path;
        auto ramdisk = xml_element::create("Ramdisk");
        ramdisk->attributes["Path"] = u"boot/initrd.img";
        auto gpt = xml_element::create("GPT");
        std::string guid = c.guid;
        gpt->attributes["Guid"] = std::u16string(guid.begin(), guid.end());
        element->append_child(std::move(kernel));
        element->append_child(std::move(ramdisk));
        element->append_child(std::move(gpt));
        EfiLoader::LoadKernel action(element.get());
        EXPECT_EQ(action.Load().Code(), c.code);
        if (c.code != 0) continue;
        ASSERT_TRUE(action.kernel && action.ramdisk);
        // Both files come from the one volume the action holds.
        EXPECT_NE(action.volume, nullptr);
        EXPECT_EQ(ReadAll(*action.kernel), "kernel bytes");
        EXPECT_EQ(ReadAll(*action.ramdisk), "ramdisk");
    }
}

}  // namespace
