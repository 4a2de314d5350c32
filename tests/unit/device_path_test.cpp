// Device path nodes: the known kinds, and reading and writing nodes with
// every length checked.
#include <gtest/gtest.h>

#include "firmware/device_path.h"
#include "loader/common/error_codes.h"
#include "tests/unit/boot_values.h"

namespace {

using BootValues::Bytes;
using BootValues::Concat;

TEST(DevicePath, KnownNodesAreTheTableKeys) {
    struct Case {
        std::uint8_t type, subtype;
        bool known;
    };
    const Case cases[] = {
        {3, 5, true},      {3, 16, false},  {255, 255, true}, {127, 255, true}, {127, 1, true},
        {255, 1, true},    {0, 0, false},   {5, 2, false},    {5, 1, true},     {1, 1, true},
        {1, 6, false},     {2, 2, true},    {2, 3, false},    {3, 15, true},    {3, 7, false},
        {3, 18, false},    {4, 1, true},    {4, 5, true},     {4, 6, false},    {127, 2, false},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(Uefi::IsKnownNode(c.type, c.subtype), c.known) << int(c.type) << "," << int(c.subtype);
    }
    int known = 0;
    for (int type = 0; type < 256; ++type) {
        for (int subtype = 0; subtype < 256; ++subtype) known += Uefi::IsKnownNode(type, subtype) ? 1 : 0;
    }
    EXPECT_EQ(known, 30);
}

TEST(DevicePath, NodesAreReadAsTheirKindAndWrittenBack) {
    const Bytes guid = BootValues::GuidBytes(BootValues::Guid(0xAABBCCDD, 0x1122, 0x3344, 0x5566778899AABBCCull));
    const Bytes trailer = {0xEE, 0xEE};
    struct Case {
        const char* what;
        Bytes input;             // followed by the trailer
        int consumed;            // bytes the cursor moves
        std::uint16_t length;    // the Length reported
        std::uint8_t type, subtype;
        bool kept;               // a node object results
        Bytes written;           // what writing the node gives
    };
    const Bytes hard_drive = BootValues::HardDriveNode(3, 0x800, 0x100000, guid, 2, 2);
    const Bytes hard_drive_long = BootValues::HardDriveNode(1, 34, 99, {0xDE, 0xAD, 0xBE, 0xEF}, 1, 1, 60);
    const Bytes file = BootValues::FileNode(u"\\EFI\\BOOT\\BOOTX64.EFI");
    const Bytes file_padded = BootValues::FileNode(u"A", 10);
    const Bytes vendor_media = BootValues::Node(4, 3, Concat({guid, {1, 2, 3}}));
    const Bytes empty_common = BootValues::Node(3, 18, {});
    const Bytes pci = BootValues::Node(1, 1, {2, 0x1F});
    const Bytes all_ones_end = {0xFF, 0xFF, 4, 0};
    const Case cases[] = {
        {"hard drive", hard_drive, 42, 42, 4, 1, true, hard_drive},
        {"hard drive whose Length says 60", hard_drive_long, 42, 60, 4, 1, true, hard_drive_long},
        {"file path", file, static_cast<int>(file.size()), static_cast<std::uint16_t>(file.size()), 4, 4, true, file},
        {"file path with Length past its terminator", Concat({file_padded, Bytes(10, 0x55)}), 8, 18, 4, 4, true,
         file_padded},
        {"vendor media, kept byte for byte", vendor_media, 23, 23, 4, 3, true, vendor_media},
        {"common node of Length 4", empty_common, 4, 4, 3, 18, true, empty_common},
        {"PCI", pci, 6, 6, 1, 1, true, pci},
        {"end of the whole path", BootValues::kEndEntire, 4, 4, 0x7F, 0xFF, false, {}},
        {"end of an instance", BootValues::kEndInstance, 4, 4, 0x7F, 0x01, false, {}},
        {"end with a long Length takes 4 bytes", {0x7F, 0xFF, 8, 0, 0, 0, 0, 0}, 4, 8, 0x7F, 0xFF, false, {}},
        {"type 0xFF is no end when read", all_ones_end, 4, 4, 0xFF, 0xFF, true, all_ones_end},
    };
    for (const Case& c : cases) {
        Bytes value = Concat({c.input, trailer});
        Uefi::ByteCursor cursor(value.data(), static_cast<std::int32_t>(value.size()));
        Uefi::DevicePathPointer node;
        std::uint16_t length = 0;
        ASSERT_FALSE(Uefi::ReadDevicePathNode(cursor, node, length)) << c.what;
        EXPECT_EQ(cursor.next - value.data(), c.consumed) << c.what;
        EXPECT_EQ(cursor.left, static_cast<std::int32_t>(value.size()) - c.consumed) << c.what;
        EXPECT_EQ(length, c.length) << c.what;
        if (!c.kept) {
            EXPECT_FALSE(node) << c.what;
            continue;
        }
        ASSERT_TRUE(node) << c.what;
        EXPECT_EQ(node->Type(), c.type) << c.what;
        EXPECT_EQ(node->SubType(), c.subtype) << c.what;
        EXPECT_EQ(node->Length(), c.length) << c.what;
        Bytes written;
        Uefi::WriteDevicePathNode(*node, written);
        EXPECT_EQ(written, c.written) << c.what;
    }
}

TEST(DevicePath, RecordsHoldTheFieldsOfTheirNodes) {
    const Bytes signature = BootValues::GuidBytes(BootValues::Guid(0x01020304, 0x0506, 0x0708, 0x090A0B0C0D0E0F10ull));
    Bytes value = Concat({BootValues::HardDriveNode(7, 0x123456789Aull, 0xFEDCBA98765ull, signature, 2, 2),
                          BootValues::FileNode(u"\\K\u00E9rnel"), BootValues::Node(4, 3, {9, 9})});
    Uefi::ByteCursor cursor(value.data(), static_cast<std::int32_t>(value.size()));
    std::vector<Uefi::DevicePathPointer> nodes;
    while (cursor.left > 0) {
        Uefi::DevicePathPointer node;
        std::uint16_t length = 0;
        ASSERT_FALSE(Uefi::ReadDevicePathNode(cursor, node, length));
        nodes.push_back(node);
    }
    ASSERT_EQ(nodes.size(), 3u);
    auto hard_drive = Uefi::AsHardDrive(nodes[0]);
    ASSERT_TRUE(hard_drive);
    EXPECT_EQ(hard_drive->PartitionNumber(), 7u);
    EXPECT_EQ(hard_drive->PartitionStart(), 0x123456789Aull);
    EXPECT_EQ(hard_drive->PartitionSize(), 0xFEDCBA98765ull);
    EXPECT_EQ(Bytes(hard_drive->PartitionSignature(), hard_drive->PartitionSignature() + 16), signature);
    EXPECT_EQ(hard_drive->MbrType(), 2);
    EXPECT_EQ(hard_drive->SignatureType(), 2);
    EXPECT_FALSE(Uefi::AsFilePath(nodes[0]));
    auto file = Uefi::AsFilePath(nodes[1]);
    ASSERT_TRUE(file);
    EXPECT_EQ(file->path, u"\\K\u00E9rnel");
    EXPECT_FALSE(Uefi::AsHardDrive(nodes[2]));
    EXPECT_FALSE(Uefi::AsFilePath(nodes[2]));

    // A long path takes both bytes of Length.
    std::u16string long_path(200, u'x');
    Bytes long_value = BootValues::FileNode(long_path);
    Uefi::ByteCursor long_cursor(long_value.data(), static_cast<std::int32_t>(long_value.size()));
    Uefi::DevicePathPointer long_node;
    std::uint16_t length = 0;
    ASSERT_FALSE(Uefi::ReadDevicePathNode(long_cursor, long_node, length));
    EXPECT_EQ(length, 406);
    EXPECT_EQ(Uefi::AsFilePath(long_node)->path, long_path);
}

TEST(DevicePath, CutOrLyingNodesAreRefusedInPlace) {
    const Bytes hard_drive = BootValues::HardDriveNode(1, 2, 3, {}, 2, 2);
    Bytes file = BootValues::FileNode(u"ABC");
    struct Case {
        const char* what;
        Bytes value;
    };
    const Case cases[] = {
        {"nothing", {}},
        {"three bytes of header", {4, 4, 6}},
        {"Length 0", {1, 1, 0, 0, 1, 2}},
        {"Length 3", {4, 3, 3, 0, 0, 0}},
        {"end node with Length 2", {0x7F, 0xFF, 2, 0}},
        {"hard drive cut at 41 bytes", Bytes(hard_drive.begin(), hard_drive.end() - 1)},
        {"hard drive whose Length says 4, cut", Bytes{4, 1, 4, 0, 1, 0, 0, 0}},
        {"file path without terminator", Bytes(file.begin(), file.end() - 2)},
        {"file path with half a terminator", Bytes(file.begin(), file.end() - 1)},
        {"common node longer than the value", {3, 5, 8, 0, 1, 2}},
        {"common node Length 0xFFFF", {1, 4, 0xFF, 0xFF, 0, 0, 0, 0}},
    };
    for (const Case& c : cases) {
        Uefi::ByteCursor cursor(c.value.data(), static_cast<std::int32_t>(c.value.size()));
        Uefi::DevicePathPointer node;
        std::uint16_t length = 0;
        Common::Error error = Uefi::ReadDevicePathNode(cursor, node, length);
        EXPECT_EQ(error.Code(), Common::UEFI_BAD_LOAD_OPTION) << c.what;
        EXPECT_EQ(cursor.next, c.value.data()) << c.what;
        EXPECT_EQ(cursor.left, static_cast<std::int32_t>(c.value.size())) << c.what;
        EXPECT_FALSE(node) << c.what;
    }
}

}  // namespace
