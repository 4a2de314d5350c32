// The block device over the firmware's Block I/O, and the enumeration of
// block devices, against disk images attached to the simulator. The images
// are made by truncate, dd and sgdisk, never by the system's own code.
#include <efi.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "firmware/block_device.h"
#include "firmware/block_enumeration.h"
#include "firmware/firmware_access.h"
#include "loader/common/error_codes.h"
#include "loader/common/messages.h"
#include "platform/host/block_io_devices.h"
#include "platform/host/simulator.h"
#include "tests/support/temp_folder.h"

namespace {

struct Firmware {
    HostFirmware::Simulator simulator;
    Firmware() { Uefi::InitializeFirmwareAccess(simulator.ImageHandle(), simulator.SystemTable()); }
    HostFirmware::BlockDevices& Disks() { return simulator.Disks(); }
};

std::string ImageScript() {
    std::string here = __FILE__;
    return here.substr(0, here.rfind("/unit/")) + "/images/make_gpt_disk.sh";
}

void Shell(const std::string& command) { ASSERT_EQ(std::system(command.c_str()), 0) << command; }

// A raw image of `bytes` bytes with `text` written at `offset` by dd.
std::string RawImage(const TestSupport::TempFolder& folder, const std::string& name, std::uint64_t bytes,
                     std::uint64_t offset = 0, const std::string& text = "") {
    std::string path = folder.Path() + "/" + name;
    Shell("truncate -s " + std::to_string(bytes) + " '" + path + "'");
    if (!text.empty()) {
        Shell("printf '%s' '" + text + "' | dd of='" + path + "' bs=1 seek=" + std::to_string(offset) +
            " conv=notrunc status=none");
    }
    return path;
}

std::string FileBytes(const std::string& path, std::uint64_t offset, std::size_t count) {
    FILE* file = std::fopen(path.c_str(), "rb");
    if (file == nullptr) return "<missing>";
    std::string bytes(count, '\0');
    std::fseek(file, static_cast<long>(offset), SEEK_SET);
    bytes.resize(std::fread(&bytes[0], 1, count, file));
    std::fclose(file);
    return bytes;
}

// ---- the block device ----

TEST(BlockDevice, ShapeComesFromTheMedia) {
    struct Case {
        std::uint64_t sectors;
        std::uint32_t sector_size;
        std::uint64_t last_sector;
        std::uint64_t cylinders;
    };
    const Case cases[] = {
        {1, 512, 0, 0},
        {2097152, 512, 2097151, 2080},  // (2097151 / 16) / 63
        {100000, 512, 99999, 99},
        {1008, 512, 1007, 0},
        {1009, 512, 1008, 1},
        {16, 4096, 15, 0},
        {262144, 4096, 262143, 260},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.sectors) + " x " + std::to_string(c.sector_size));
        Firmware firmware;
        TestSupport::TempFolder folder;
        HostFirmware::DiskOptions options;
        options.sector_size = c.sector_size;
        std::size_t number = firmware.Disks().Attach(RawImage(folder, "d.img", c.sectors * c.sector_size), options);
        Common::Error error(1, 1);
        Fdisk::BlockDevice disk(firmware.Disks().Disk(number).Handle(), error);
        EXPECT_FALSE(error.Failed());
        EXPECT_EQ(disk.GetSectorSize(), c.sector_size);
        EXPECT_EQ(disk.GetLastSector(), c.last_sector);
        EXPECT_EQ(disk.GetGeometry()->sectors_per_track, 63);
        EXPECT_EQ(disk.GetGeometry()->last_head, 15);
        EXPECT_EQ(disk.GetGeometry()->cylinders, c.cylinders);
        EXPECT_EQ(disk.Extensions(), 0u);
    }
}

TEST(BlockDevice, ReadsAndWritesWholeSectors) {
    for (std::uint32_t sector_size : {512u, 4096u}) {
        SCOPED_TRACE(sector_size);
        Firmware firmware;
        TestSupport::TempFolder folder;
        std::string image = RawImage(folder, "d.img", 64ull * sector_size, 5ull * sector_size, "fifth sector");
        Shell("printf 'tail' | dd of='" + image + "' bs=1 seek=" + std::to_string(64ull * sector_size - 4) +
            " conv=notrunc status=none");
        HostFirmware::DiskOptions options;
        options.sector_size = sector_size;
        options.writable = true;
        std::size_t number = firmware.Disks().Attach(image, options);
        Common::Error error;
        Fdisk::BlockDevice disk(firmware.Disks().Disk(number).Handle(), error);
        ASSERT_FALSE(error.Failed());

        std::vector<std::uint8_t> buffer(2 * sector_size, 0xEE);
        EXPECT_FALSE(disk.Transfer(Fdisk::kTransferRead, 5, buffer.data(), 2).Failed());
        EXPECT_EQ(std::string(buffer.begin(), buffer.begin() + 12), "fifth sector");
        EXPECT_EQ(buffer[12], 0);
        EXPECT_EQ(buffer[2 * sector_size - 1], 0);  // the sixth sector is read too, and is empty
        EXPECT_FALSE(disk.Transfer(Fdisk::kTransferRead, 63, buffer.data(), 1).Failed());
        EXPECT_EQ(std::string(buffer.begin() + sector_size - 4, buffer.begin() + sector_size), "tail");

        std::memcpy(buffer.data(), "written by the loader", 21);
        EXPECT_FALSE(disk.Transfer(Fdisk::kTransferWrite, 9, buffer.data(), 1).Failed());
        EXPECT_FALSE(disk.Transfer(Fdisk::kTransferFlush, 0, nullptr, 0).Failed());
        EXPECT_EQ(FileBytes(image, 9ull * sector_size, 21), "written by the loader");
        EXPECT_EQ(firmware.Disks().Disk(number).flushes, 1);

        // Past the last sector the firmware refuses, and so does the device.
        Common::Error beyond = disk.Transfer(Fdisk::kTransferRead, 63, buffer.data(), 2);
        EXPECT_EQ(beyond.Code(), Common::DISK_INVALID_PARAMETER);
        EXPECT_EQ(beyond.Message(), Common::Messages::DISK_INVALID_PARAMETER);

        // A disk attached read only refuses the write and keeps its bytes.
        std::size_t locked = firmware.Disks().Attach(RawImage(folder, "r.img", 8 * 512, 512, "keep"));
        Fdisk::BlockDevice read_only(firmware.Disks().Disk(locked).Handle(), error);
        Common::Error refused = read_only.Transfer(Fdisk::kTransferWrite, 1, buffer.data(), 1);
        EXPECT_EQ(refused.Code(), Common::DISK_WRITE_PROTECTED);
        EXPECT_EQ(refused.Message(), Common::Messages::DISK_WRITE_PROTECTED);
        EXPECT_EQ(FileBytes(folder.Path() + "/r.img", 512, 4), "keep");
    }
}

TEST(BlockDevice, OperationsReachTheFirmwareCallTheyName) {
    struct Case {
        std::uint32_t operation;
        std::uint32_t code;
        int reads, writes, flushes;
    };
    const Case cases[] = {
        {0, Common::DISK_BAD_OPERATION, 0, 0, 0},          {1, Common::DISK_BAD_OPERATION, 0, 0, 0},
        {2, 0, 1, 0, 0},                                    {3, 0, 0, 1, 0},
        {4, 0, 0, 0, 1},                                    {5, 0, 0, 0, 0},
        {6, 0, 0, 0, 0},                                    {7, Common::DISK_BAD_OPERATION, 0, 0, 0},
        {0xFFFFFFFFu, Common::DISK_BAD_OPERATION, 0, 0, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.operation);
        Firmware firmware;
        TestSupport::TempFolder folder;
        HostFirmware::DiskOptions options;
        options.writable = true;
        std::size_t number = firmware.Disks().Attach(RawImage(folder, "d.img", 16 * 512), options);
        HostFirmware::BlockIoMedium& medium = firmware.Disks().Disk(number);
        Common::Error error;
        Fdisk::BlockDevice disk(medium.Handle(), error);
        std::vector<std::uint8_t> buffer(512);
        Common::Error result = disk.Transfer(c.operation, 3, buffer.data(), 1);
        EXPECT_EQ(result.Code(), c.code);
        if (c.code == Common::DISK_BAD_OPERATION) {
            EXPECT_EQ(result.Message(), Common::Messages::DISK_BAD_OPERATION);
        }
        EXPECT_EQ(medium.reads, c.reads);
        EXPECT_EQ(medium.writes, c.writes);
        EXPECT_EQ(medium.flushes, c.flushes);
        if (c.reads + c.writes > 0) {
            EXPECT_EQ(medium.last_lba, 3u);
            EXPECT_EQ(medium.last_buffer_size, 512u);
        }
    }
}

TEST(BlockDevice, EveryStatusButSuccessIsAFailure) {
    struct Case {
        EFI_STATUS status;
        std::uint32_t code;
    };
    const Case cases[] = {
        {EFI_DEVICE_ERROR, Common::DISK_DEVICE_ERROR},
        {EFI_NO_MEDIA, Common::DISK_NO_MEDIA},
        {EFI_MEDIA_CHANGED, Common::DISK_MEDIA_CHANGED},
        {EFI_WARN_UNKNOWN_GLYPH, Common::DISK_WARN_UNKNOWN_GLYPH},
        {EFI_WARN_WRITE_FAILURE, Common::DISK_WARN_WRITE_FAILURE},
        {EFI_WARN_BUFFER_TOO_SMALL, Common::DISK_WARN_BUFFER_TOO_SMALL},
        {0x8000000000000099ull, Common::DISK_UNKNOWN_STATUS},
    };
    for (std::uint32_t operation : {Fdisk::kTransferRead, Fdisk::kTransferWrite, Fdisk::kTransferFlush}) {
        for (const Case& c : cases) {
            SCOPED_TRACE(std::to_string(operation) + " " + std::to_string(c.status));
            Firmware firmware;
            TestSupport::TempFolder folder;
            HostFirmware::DiskOptions options;
            options.writable = true;
            std::size_t number = firmware.Disks().Attach(RawImage(folder, "d.img", 4 * 512), options);
            Common::Error error;
            Fdisk::BlockDevice disk(firmware.Disks().Disk(number).Handle(), error);
            firmware.Disks().Disk(number).forced_status = c.status;
            std::vector<std::uint8_t> buffer(512);
            Common::Error result = disk.Transfer(operation, 0, buffer.data(), 1);
            EXPECT_EQ(result.Code(), c.code);
            EXPECT_EQ(result.Message(), Common::DiskStatusToMessage(c.status));
            EXPECT_FALSE(result.Message().empty());
        }
    }
}

TEST(BlockDevice, TransferAsksTheMediaOfThisMoment) {
    Firmware firmware;
    TestSupport::TempFolder folder;
    std::size_t number = firmware.Disks().Attach(RawImage(folder, "d.img", 64 * 512));
    HostFirmware::BlockIoMedium& medium = firmware.Disks().Disk(number);
    Common::Error error;
    Fdisk::BlockDevice disk(medium.Handle(), error);
    std::vector<std::uint8_t> buffer(8 * 4096);

    // A count of 0 still reaches the firmware, with a byte count of 0.
    EXPECT_FALSE(disk.Transfer(Fdisk::kTransferRead, 2, buffer.data(), 0).Failed());
    EXPECT_EQ(medium.reads, 1);
    EXPECT_EQ(medium.last_buffer_size, 0u);
    EXPECT_EQ(medium.last_media_id, 1u);

    // Another medium in the drive: the device keeps its shape, the transfer
    // uses the new block size and media id.
    medium.Media().MediaId = 7;
    medium.Media().BlockSize = 4096;
    medium.Media().LastBlock = 7;
    EXPECT_FALSE(disk.Transfer(Fdisk::kTransferRead, 1, buffer.data(), 3).Failed());
    EXPECT_EQ(medium.last_media_id, 7u);
    EXPECT_EQ(medium.last_buffer_size, 3u * 4096);
    EXPECT_EQ(disk.GetSectorSize(), 512u);
    EXPECT_EQ(disk.GetLastSector(), 63u);
}

TEST(BlockDevice, AFailedOpenLeavesAnObjectWithTheCause) {
    struct Case {
        const char* what;
        bool known_handle;
        std::uint32_t code;
    };
    const Case cases[] = {
        {"handle without Block I/O", true, Common::DISK_UNSUPPORTED},
        {"handle the firmware does not know", false, Common::DISK_INVALID_PARAMETER},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Firmware firmware;
        EFI_HANDLE handle = firmware.simulator.Handles().Create();
        if (!c.known_handle) handle = &firmware;
        Common::Error error;
        auto disk = std::make_unique<Fdisk::BlockDevice>(handle, error);
        EXPECT_EQ(error.Code(), c.code);
        EXPECT_FALSE(error.Message().empty());
        EXPECT_EQ(disk->GetSectorSize(), 0u);
        EXPECT_EQ(disk->GetLastSector(), 0u);
        EXPECT_EQ(disk->GetGeometry()->cylinders, 0u);
        EXPECT_EQ(disk->GetGeometry()->sectors_per_track, 63);
        EXPECT_FALSE(disk->Transfer(Fdisk::kTransferNoAction5, 0, nullptr, 0).Failed());
        EXPECT_TRUE(disk->Transfer(Fdisk::kTransferRead, 0, nullptr, 0).Failed());
    }
}

TEST(BlockDevice, HoldsTheProtocolForItsLifetime) {
    Firmware firmware;
    TestSupport::TempFolder folder;
    std::size_t number = firmware.Disks().Attach(RawImage(folder, "d.img", 8 * 512));
    EFI_HANDLE handle = firmware.Disks().Disk(number).Handle();
    EFI_GUID block_io = EFI_BLOCK_IO_PROTOCOL_GUID;
    auto& openers = firmware.simulator.Handles().Find(handle, block_io)->openers;
    {
        Common::Error error;
        Fdisk::BlockDevice disk(handle, error);
        ASSERT_EQ(openers.size(), 1u);
        EXPECT_EQ(openers[0].AgentHandle, firmware.simulator.ImageHandle());
        EXPECT_EQ(openers[0].ControllerHandle, nullptr);
        EXPECT_EQ(openers[0].Attributes, static_cast<UINT32>(EFI_OPEN_PROTOCOL_BY_HANDLE_PROTOCOL));
    }
    EXPECT_TRUE(openers.empty());
}

// ---- the enumeration ----

// Device handles made by hand, for the shapes of trees that images do not make.
class HandMadeDevices {
public:
    explicit HandMadeDevices(Firmware& firmware) : firmware_(firmware) {}

    // A handle with this device path (no end node needed; one is added) and,
    // when asked, a Block I/O protocol.
    EFI_HANDLE Add(std::vector<std::uint8_t> path, bool block_io, bool end = true) {
        if (end) path.insert(path.end(), {0x7F, 0xFF, 4, 0});
        paths_.push_back(std::make_unique<std::vector<std::uint8_t>>(std::move(path)));
        EFI_GUID path_guid = DEVICE_PATH_PROTOCOL;
        EFI_HANDLE handle = firmware_.simulator.Handles().Install(nullptr, path_guid, paths_.back()->data());
        if (block_io) {
            EFI_GUID block_io_guid = EFI_BLOCK_IO_PROTOCOL_GUID;
            firmware_.simulator.Handles().Install(handle, block_io_guid, &protocol_);
        }
        return handle;
    }

    // Records `child` as made by a bus driver from `parent`.
    void Link(EFI_HANDLE parent, EFI_HANDLE child) {
        EFI_GUID path_guid = DEVICE_PATH_PROTOCOL;
        EFI_OPEN_PROTOCOL_INFORMATION_ENTRY opener{};
        opener.AgentHandle = firmware_.simulator.ImageHandle();
        opener.ControllerHandle = child;
        opener.Attributes = EFI_OPEN_PROTOCOL_BY_CHILD_CONTROLLER;
        opener.OpenCount = 1;
        firmware_.simulator.Handles().Find(parent, path_guid)->openers.push_back(opener);
    }

private:
    Firmware& firmware_;
    std::vector<std::unique_ptr<std::vector<std::uint8_t>>> paths_;
    EFI_BLOCK_IO_PROTOCOL protocol_{};
};

const std::vector<std::uint8_t> kPciNode = {1, 1, 6, 0, 0, 2};
const std::vector<std::uint8_t> kSataNode = {3, 18, 10, 0, 0, 0, 0xFF, 0xFF, 0, 0};  // not a known kind

std::vector<std::uint8_t> HardDrive(std::uint32_t partition) {
    std::vector<std::uint8_t> node(42, 0);
    node[0] = 4;
    node[1] = 1;
    node[2] = 42;
    node[4] = static_cast<std::uint8_t>(partition);
    node[40] = 2;
    node[41] = 2;
    return node;
}

std::vector<std::uint8_t> Join(std::vector<std::uint8_t> a, const std::vector<std::uint8_t>& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

std::vector<EFI_HANDLE> Enumerate(std::uint32_t mode, std::uint64_t expected_status = 0) {
    Fdisk::BlockDeviceList list;
    list.handles.push_back(nullptr);  // whatever stood in the list goes
    list.status = 99;
    Fdisk::EnumerateBlockDevices(list, mode);
    EXPECT_EQ(list.status, expected_status);
    return list.handles;
}

TEST(BlockEnumeration, ImagesGiveDisksAndTheirPartitions) {
    Firmware firmware;
    TestSupport::TempFolder folder;
    std::string gpt = folder.Path() + "/gpt.img";
    Shell("'" + ImageScript() + "' '" + gpt + "' 8 2:AAAAAAAA-0000-4000-8000-000000000001 2:AAAAAAAA-0000-4000-8000-000000000002 >/dev/null");
    std::size_t first = firmware.Disks().Attach(gpt);
    std::size_t second = firmware.Disks().Attach(RawImage(folder, "raw.img", 64 * 512));
    EFI_HANDLE disk1 = firmware.Disks().Disk(first).Handle();
    EFI_HANDLE disk2 = firmware.Disks().Disk(second).Handle();
    std::vector<HostFirmware::BlockIoMedium*> partitions = firmware.Disks().Partitions(first);
    ASSERT_EQ(partitions.size(), 2u);
    EXPECT_TRUE(firmware.Disks().Partitions(second).empty());

    struct Case {
        std::uint32_t mode;
        std::vector<EFI_HANDLE> expected;
    };
    const Case cases[] = {
        {Fdisk::kWholeMedia, {disk1, disk2}},
        {Fdisk::kPartitions, {disk1, partitions[0]->Handle(), partitions[1]->Handle(), disk2}},
        {7, {disk1, disk2}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.mode);
        std::size_t pool_blocks = firmware.simulator.LivePoolBlocks();
        EXPECT_EQ(Enumerate(c.mode), c.expected);
        EXPECT_EQ(firmware.simulator.LivePoolBlocks(), pool_blocks);  // every firmware buffer given back
    }
}

TEST(BlockEnumeration, TheLastNodeDecides) {
    struct Case {
        const char* what;
        std::vector<std::uint8_t> path;
        bool block_io;
        bool in_mode_0;
        bool in_mode_1;
    };
    std::vector<std::uint8_t> short_hard_drive = HardDrive(1);
    short_hard_drive[2] = 30;
    short_hard_drive.resize(30);
    std::vector<std::uint8_t> end_in_the_high_type = Join(kPciNode, {0xFF, 0xFF, 4, 0});
    const Case cases[] = {
        {"known node with Block I/O", kPciNode, true, true, true},
        {"known node without Block I/O", kPciNode, false, false, false},
        {"unknown node with Block I/O", kSataNode, true, false, false},
        {"known node behind an unknown one", Join(kSataNode, kPciNode), true, true, true},
        {"partition 0 needs no Block I/O", Join(kPciNode, HardDrive(0)), false, true, false},
        {"partition 3 needs no Block I/O", Join(kPciNode, HardDrive(3)), false, false, true},
        {"hard drive node shorter than the standard's", Join(kPciNode, short_hard_drive), true, false, false},
        {"a node shorter than a header", {1, 1, 2, 0, 0x7F, 0xFF, 4, 0}, true, false, false},
        {"nothing in front of the end", {}, true, false, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Firmware firmware;
        HandMadeDevices devices(firmware);
        EFI_HANDLE handle = devices.Add(c.path, c.block_io);
        EXPECT_EQ(Enumerate(0).size(), c.in_mode_0 ? 1u : 0u);
        EXPECT_EQ(Enumerate(1).size(), c.in_mode_1 ? 1u : 0u);
        if (c.in_mode_1) {
            EXPECT_EQ(Enumerate(1)[0], handle);
        }
    }
    // The end may stand with the high bit of its type set.
    Firmware firmware;
    HandMadeDevices devices(firmware);
    devices.Add(end_in_the_high_type, true, false);
    EXPECT_EQ(Enumerate(0).size(), 1u);
}

TEST(BlockEnumeration, WalksTheControllerTreeParentsFirst) {
    Firmware firmware;
    HandMadeDevices devices(firmware);
    // Database order: a child before its parent, a second root, a handle
    // reachable through two parents, and a child without a device path.
    EFI_HANDLE child = devices.Add(Join(kPciNode, HardDrive(1)), true);
    EFI_HANDLE root1 = devices.Add(kPciNode, true);
    EFI_HANDLE root2 = devices.Add(Join(kPciNode, kPciNode), true);
    EFI_HANDLE shared = devices.Add(Join(kPciNode, HardDrive(2)), true);
    EFI_HANDLE pathless = firmware.simulator.Handles().Create();
    devices.Link(root1, child);
    devices.Link(root1, shared);
    devices.Link(root1, child);  // a second protocol opened for the same child
    devices.Link(root2, shared);
    devices.Link(root2, pathless);

    EXPECT_EQ(Enumerate(1), (std::vector<EFI_HANDLE>{root1, child, shared, root2, shared}));
    EXPECT_EQ(Enumerate(0), (std::vector<EFI_HANDLE>{root1, root2}));
}

TEST(BlockEnumeration, ALoopInTheTreeEnds) {
    Firmware firmware;
    HandMadeDevices devices(firmware);
    EFI_HANDLE root = devices.Add(kPciNode, true);
    EFI_HANDLE a = devices.Add(Join(kPciNode, kPciNode), true);
    EFI_HANDLE b = devices.Add(Join(kPciNode, Join(kPciNode, kPciNode)), true);
    devices.Link(root, a);
    devices.Link(a, b);
    devices.Link(b, a);
    EXPECT_EQ(Enumerate(0), (std::vector<EFI_HANDLE>{root, a, b, a}));
}

TEST(BlockEnumeration, NoDevicesOrAFailedScanLeaveTheListEmpty) {
    Firmware firmware;
    for (std::uint32_t mode : {0u, 1u}) EXPECT_TRUE(Enumerate(mode).empty());
    TestSupport::TempFolder folder;
    firmware.Disks().Attach(RawImage(folder, "d.img", 8 * 512));
    EXPECT_EQ(Enumerate(0).size(), 1u);
    firmware.simulator.FailPoolAllocations(true);
    EXPECT_TRUE(Enumerate(0, EFI_OUT_OF_RESOURCES).empty());
    firmware.simulator.FailPoolAllocations(false);
}

}  // namespace
