// Files of the firmware: the image path, the file protocol road and the load
// file road, against protocol stand-ins installed in the simulator.
#include <efi.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "firmware/efi_file.h"
#include "firmware/firmware_access.h"
#include "firmware/image_path.h"
#include "loader/common/error_codes.h"
#include "platform/clib/clib.h"
#include "platform/host/simulator.h"
#include "tests/support/raised_code.h"
#include "tests/support/temp_folder.h"

namespace {

struct Firmware {
    HostFirmware::Simulator simulator;
    Firmware() { Uefi::InitializeFirmwareAccess(simulator.ImageHandle(), simulator.SystemTable()); }
};

using TestSupport::RaisedCode;

TEST(FirmwareFile, ImagePathFromFilePathNodes) {
    struct Case {
        std::vector<std::u16string> nodes;
        std::u16string expected;
    };
    const Case cases[] = {
        {{u"\\EFI\\BOOT\\BOOTX64.EFI"}, u"\\EFI\\BOOT\\BOOTX64.EFI"},
        {{u"\\EFI\\", u"\\BOOT\\X.EFI"}, u"\\EFI\\BOOT\\X.EFI"},
        {{u"\\EFI\\\\", u"\\\\BOOT\\\\", u"X.EFI"}, u"\\EFI\\BOOT\\X.EFI"},
        {{u"\\", u"X.EFI"}, u"\\X.EFI"},
        {{u"", u"\\A"}, u"A"},
    };
    for (const Case& c : cases) {
        Firmware firmware;
        firmware.simulator.SetImagePath(c.nodes);
        EXPECT_EQ(Uefi::GetImagePath(), c.expected);
    }
    Firmware empty;
    empty.simulator.SetImagePath({u"", u""});
    EXPECT_EQ(RaisedCode([] { Uefi::GetImagePath(); }), Common::EFI_INTERNAL);
}

TEST(FirmwareFile, ImagePathIsCachedForTheRun) {
    Firmware firmware;
    firmware.simulator.SetImagePath({u"\\A.EFI"});
    EXPECT_EQ(Uefi::GetImagePath(), u"\\A.EFI");
    firmware.simulator.SetImagePath({u"\\B.EFI"});
    EXPECT_EQ(Uefi::GetImagePath(), u"\\A.EFI");
}

// ---- a file protocol stand-in that records what the loader asks of it ----

struct FakeFile {
    EFI_FILE_PROTOCOL protocol{};
    std::vector<std::uint8_t> contents;
    std::uint64_t position = 0;
    std::vector<UINTN> reads;
    bool closed = false;
    EFI_STATUS read_status = EFI_SUCCESS;
};

FakeFile* Of(EFI_FILE_PROTOCOL* protocol) { return reinterpret_cast<FakeFile*>(protocol); }

EFI_STATUS EFIAPI FakeRead(EFI_FILE_PROTOCOL* self, UINTN* size, VOID* buffer) {
    FakeFile* file = Of(self);
    file->reads.push_back(*size);
    if (file->read_status != EFI_SUCCESS) return file->read_status;
    std::uint64_t left = file->position < file->contents.size() ? file->contents.size() - file->position : 0;
    if (*size > left) *size = left;
    if (*size != 0) std::memcpy(buffer, file->contents.data() + file->position, *size);
    file->position += *size;
    return EFI_SUCCESS;
}
EFI_STATUS EFIAPI FakeSetPosition(EFI_FILE_PROTOCOL* self, UINT64 position) {
    Of(self)->position = position == ~UINT64(0) ? Of(self)->contents.size() : position;
    return EFI_SUCCESS;
}
EFI_STATUS EFIAPI FakeGetPosition(EFI_FILE_PROTOCOL* self, UINT64* position) {
    *position = Of(self)->position;
    return EFI_SUCCESS;
}
EFI_STATUS EFIAPI FakeClose(EFI_FILE_PROTOCOL* self) {
    Of(self)->closed = true;
    return EFI_SUCCESS;
}

FakeFile MakeFakeFile(std::size_t bytes) {
    FakeFile file;
    static_assert(offsetof(FakeFile, protocol) == 0, "the protocol leads the stand-in");
    file.protocol.Read = FakeRead;
    file.protocol.SetPosition = FakeSetPosition;
    file.protocol.GetPosition = FakeGetPosition;
    file.protocol.Close = FakeClose;
    file.contents.resize(bytes);
    for (std::size_t i = 0; i < bytes; ++i) file.contents[i] = static_cast<std::uint8_t>(i * 7);
    return file;
}

TEST(FirmwareFile, ReadsGoToTheFirmwareInPiecesOfOneMebibyte) {
    struct Case {
        std::size_t file_size;
        std::uint64_t ask;
        std::vector<UINTN> transfers;
        std::uint64_t got;
    };
    const std::uint64_t mib = 0x100000;
    const Case cases[] = {
        {3 * mib, 3 * mib, {mib, mib, mib}, 3 * mib},
        {2 * mib, mib + mib / 2, {mib, mib / 2}, mib + mib / 2},
        {mib / 2, 3 * mib, {mib}, mib / 2},  // a short piece ends the read
        {0, 10, {10}, 0},
    };
    Firmware firmware;
    for (const Case& c : cases) {
        FakeFile fake = MakeFakeFile(c.file_size);
        {
            Uefi::EfiFile file(&fake.protocol);
            std::vector<std::uint8_t> buffer(c.ask);
            std::uint64_t got = 0;
            file.read(buffer.data(), c.ask, got);
            EXPECT_EQ(got, c.got);
            EXPECT_FALSE(file.failed());
            buffer.resize(got);
            EXPECT_EQ(buffer, std::vector<std::uint8_t>(fake.contents.begin(), fake.contents.begin() + got));
            EXPECT_EQ(file.size(), c.file_size);
        }
        EXPECT_EQ(fake.reads, c.transfers);
        EXPECT_TRUE(fake.closed);
    }
}

TEST(FirmwareFile, FailuresAreStoredNotRaised) {
    Firmware firmware;
    FakeFile fake = MakeFakeFile(100);
    Uefi::EfiFile file(&fake.protocol);
    EXPECT_EQ(file.seek(-1), -1);
    EXPECT_EQ(file.error().Code(), Common::FILE_SEEK);
    std::uint64_t got = 5;
    char byte;
    file.read(&byte, 1, got);
    EXPECT_EQ(got, 0u);
    EXPECT_TRUE(fake.reads.empty());

    FakeFile broken = MakeFakeFile(100);
    broken.read_status = EFI_DEVICE_ERROR;
    Uefi::EfiFile failing(&broken.protocol);
    failing.read(&byte, 1, got);
    EXPECT_EQ(failing.error().Code(), Common::FILE_READ);
    failing.set_size(3);
    EXPECT_EQ(failing.error().Code(), Common::FILE_READ);

    FakeFile plain = MakeFakeFile(100);
    Uefi::EfiFile sized(&plain.protocol);
    sized.set_size(3);
    EXPECT_EQ(sized.error().Code(), Common::FILE_UNSUPPORTED);
}

// ---- a load file protocol stand-in ----

struct FakeLoadFile {
    EFI_LOAD_FILE_INTERFACE protocol{};
    std::vector<std::vector<std::u16string>> asked;  // file path nodes of each call
    std::vector<std::uint8_t> contents = {'d', 'a', 't', 'a'};
};
FakeLoadFile* load_file_instance = nullptr;

std::vector<std::u16string> NodesOf(const EFI_DEVICE_PATH* path) {
    std::vector<std::u16string> nodes;
    auto* bytes = reinterpret_cast<const std::uint8_t*>(path);
    while (bytes[0] != 0x7F) {
        std::size_t length = bytes[2] | (bytes[3] << 8);
        std::u16string text;
        for (std::size_t i = 4; i + 1 < length; i += 2) text.push_back(static_cast<char16_t>(bytes[i] | (bytes[i + 1] << 8)));
        EXPECT_EQ(text.back(), 0) << "a file path node ends with its terminator";
        text.pop_back();
        nodes.push_back(text);
        bytes += length;
    }
    return nodes;
}

EFI_STATUS EFIAPI FakeLoad(EFI_LOAD_FILE_INTERFACE*, EFI_DEVICE_PATH* path, BOOLEAN, UINTN* size, VOID* buffer) {
    load_file_instance->asked.push_back(NodesOf(path));
    if (buffer == nullptr || *size < load_file_instance->contents.size()) {
        *size = load_file_instance->contents.size();
        return EFI_BUFFER_TOO_SMALL;
    }
    std::memcpy(buffer, load_file_instance->contents.data(), load_file_instance->contents.size());
    *size = load_file_instance->contents.size();
    return EFI_SUCCESS;
}

TEST(FirmwareFile, LoadFileRoadForDevicesWithoutAFileSystem) {
    struct Case {
        std::u16string image;
        std::u16string path;
        std::vector<std::u16string> nodes;
    };
    const Case cases[] = {
        {u"\\EFI\\BOOT\\LOADER.EFI", u"x.cfg", {u"\\EFI\\BOOT", u"x.cfg"}},
        {u"\\EFI\\BOOT\\LOADER.EFI", u"\\X.EFI", {u"X.EFI"}},
        {u"\\EFI\\BOOT\\LOADER.EFI", u"\\K\\vmlinuz", {u"\\K", u"vmlinuz"}},
        {u"LOADER.EFI", u"x.cfg", {u"x.cfg"}},
    };
    for (const Case& c : cases) {
        Firmware firmware;
        firmware.simulator.SetImagePath({c.image});
        FakeLoadFile load_file;
        load_file.protocol.LoadFile = FakeLoad;
        load_file_instance = &load_file;
        EFI_GUID guid = LOAD_FILE_PROTOCOL;
        firmware.simulator.Handles().Install(firmware.simulator.DeviceHandle(), guid, &load_file.protocol);

        std::unique_ptr<ri_file> file = Uefi::OpenFile(c.path);
        ASSERT_EQ(load_file.asked.size(), 2u);
        EXPECT_EQ(load_file.asked[0], c.nodes);
        EXPECT_EQ(load_file.asked[1], c.nodes);
        char text[8] = {};
        std::uint64_t got = 0;
        file->read(text, sizeof(text), got);
        EXPECT_EQ(std::string(text, got), "data");
        // The device path went back to the pool.
        EXPECT_EQ(firmware.simulator.LivePoolBlocks(), 0u);
    }
}

TEST(FirmwareFile, OpenRefusals) {
    Firmware firmware;
    // Neither a file system nor a load file protocol on the device.
    EXPECT_EQ(RaisedCode([] { Uefi::OpenFile(u"\\x.cfg"); }), Common::FILE_OPEN);
    EXPECT_EQ(RaisedCode([] { Uefi::OpenFile(u""); }), Common::FILE_OPEN);
    EXPECT_EQ(RaisedCode([] { Uefi::OpenFirmwareFile(u"", Uefi::kOpenRead); }), Common::FILE_OPEN);
    EXPECT_EQ(RaisedCode([] { Uefi::OpenFirmwareFile(u"\\x", Uefi::kOpenRead); }), Common::FILE_OPEN);

    // No memory for the load file road's device path.
    FakeLoadFile load_file;
    load_file.protocol.LoadFile = FakeLoad;
    load_file_instance = &load_file;
    EFI_GUID guid = LOAD_FILE_PROTOCOL;
    firmware.simulator.Handles().Install(firmware.simulator.DeviceHandle(), guid, &load_file.protocol);
    Uefi::GetImagePath();
    firmware.simulator.FailPoolAllocations(true);
    EXPECT_EQ(RaisedCode([] { Uefi::OpenFile(u"\\x.cfg"); }), Common::FILE_NO_MEMORY);
    EXPECT_TRUE(load_file.asked.empty());
}

}  // namespace

// ---- the file protocol road, on a simulated ESP over a host folder ----

namespace {

using TestSupport::TempFolder;

std::string ReadWhole(ri_file& file) {
    std::string contents(static_cast<std::size_t>(file.size()), '\0');
    std::uint64_t got = 0;
    file.read(&contents[0], contents.size(), got);
    contents.resize(got);
    return contents;
}

TEST(FirmwareFile, OpensReadsAndWritesOnTheImageDevice) {
    TempFolder esp;
    esp.Write("EFI/BOOT/cfg.xml", "<Root/>");
    Firmware firmware;
    HostFirmware::HostFolderVolume& volume = firmware.simulator.MountEsp(esp.Path());

    std::unique_ptr<ri_file> document = Uefi::OpenFile(u"\\efi\\boot\\CFG.XML");
    EXPECT_EQ(ReadWhole(*document), "<Root/>");
    EXPECT_EQ(document->seek_end(-3), 4);
    EXPECT_EQ(document->seek_relative(-1), 3);
    EXPECT_FALSE(document->failed());
    document.reset();

    {
        std::unique_ptr<rio_file> created = Uefi::OpenFirmwareFile(u"\\new.bin", Uefi::kOpenCreate);
        std::uint64_t written = 0;
        created->write("abcdef", 6, written);
        EXPECT_EQ(written, 6u);
        created->seek(2);
        created->write("XY", 2, written);
        EXPECT_EQ(created->size(), 6u);
        EXPECT_FALSE(created->failed());
    }
    EXPECT_EQ(esp.Read("new.bin"), "abXYef");

    // A directory is not a file, and a read-only open refuses to write.
    EXPECT_EQ(RaisedCode([] { Uefi::OpenFile(u"\\EFI\\BOOT"); }), Common::FILE_OPEN);
    EXPECT_EQ(RaisedCode([] { Uefi::OpenFile(u"\\missing.xml"); }), Common::FILE_OPEN);
    std::unique_ptr<ri_file> read_only = Uefi::OpenFile(u"\\new.bin");
    std::uint64_t written = 0;
    dynamic_cast<rio_file&>(*read_only).write("zz", 2, written);
    EXPECT_EQ(read_only->error().Code(), Common::FILE_WRITE);
    read_only.reset();

    Uefi::DeleteFile(u"\\new.bin");
    EXPECT_EQ(esp.Read("new.bin"), "<missing>");
    EXPECT_EQ(RaisedCode([] { Uefi::DeleteFile(u"\\new.bin"); }), Common::FILE_OPEN);
    // Every file was closed; what stays open is the root of each of the
    // seven opens, which the firmware keeps until the program ends.
    EXPECT_EQ(volume.OpenFiles(), 7);
}

TEST(FirmwareFile, DeletedFileAnswersNotFound) {
    TempFolder esp;
    esp.Write("gone.txt", "x");
    Firmware firmware;
    firmware.simulator.MountEsp(esp.Path());
    std::unique_ptr<rio_file> file = Uefi::OpenFirmwareFile(u"\\gone.txt", Uefi::kOpenReadWrite);
    auto& efi_file = dynamic_cast<Uefi::EfiFile&>(*file);
    efi_file.remove();
    EXPECT_FALSE(efi_file.failed());
    char byte;
    std::uint64_t got = 0;
    efi_file.read(&byte, 1, got);
    EXPECT_EQ(efi_file.error().Code(), Common::FILE_NOT_FOUND);
    EXPECT_EQ(esp.Read("gone.txt"), "<missing>");
}

}  // namespace
