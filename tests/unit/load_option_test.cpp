// EFI_LOAD_OPTION values: parsing, writing, the partition and file an option
// names, and their comparison and text form.
#include <gtest/gtest.h>

#include <unistd.h>

#include "firmware/load_option.h"
#include "loader/common/error_codes.h"
#include "platform/host/variable_store.h"
#include "tests/unit/boot_values.h"

namespace {

using BootValues::Bytes;
using BootValues::Concat;

const char16_t* const kBadBootPath = u"Ruta de arranque incorrecta.";

struct Parsed {
    Uefi::LoadOptionsImpl options;
    Common::Error error;
    Bytes rest;  // what the cursor left: the optional data
};

Parsed Parse(const Bytes& value) {
    Parsed parsed;
    Uefi::ByteCursor cursor(value.data(), static_cast<std::int32_t>(value.size()));
    parsed.error = parsed.options.Parse(cursor);
    parsed.rest.assign(cursor.next, cursor.next + cursor.left);
    return parsed;
}

Bytes Serialized(Uefi::LoadOptionsImpl& options) {
    Bytes bytes;
    EXPECT_FALSE(options.Serialize(bytes));
    return bytes;
}

TEST(LoadOption, NewOptionIsActiveWithNoPath) {
    boost::shared_ptr<Uefi::LoadOptions> created;
    ASSERT_FALSE(Uefi::CreateLoadOptions(created));
    auto& options = static_cast<Uefi::LoadOptionsImpl&>(*created);
    EXPECT_EQ(Serialized(options), (Bytes{1, 0, 0, 0, 4, 0, 0, 0, 0x7F, 0xFF, 4, 0}));
    EXPECT_EQ(options.FilePathListLength(), 4);
    std::u16string path;
    EXPECT_EQ(options.GetPath(path).Code(), Common::UEFI_BAD_LOAD_OPTION);
    EXPECT_EQ(options.GetPath(path).Message(), u"");
}

TEST(LoadOption, ParseTakesEveryFieldAndStopsAtTheOptionalData) {
    const Bytes optional = {'a', 'r', 'g', 0, 0xFF};
    const Bytes value = BootValues::GptEntry(u"Debian", u"\\EFI\\debian\\grubx64.efi", optional, 3);
    Parsed parsed = Parse(value);
    ASSERT_FALSE(parsed.error);
    EXPECT_EQ(parsed.rest, optional);
    Uefi::LoadOptionsImpl& options = parsed.options;
    EXPECT_EQ(options.Attributes(), 1u);
    EXPECT_EQ(options.FilePathListLength(), 42 + 4 + 2 * (23 + 1) + 4);
    std::u16string text;
    ASSERT_FALSE(options.GetDescription(text));
    EXPECT_EQ(text, u"Debian");
    ASSERT_FALSE(options.GetPath(text));
    EXPECT_EQ(text, u"\\EFI\\debian\\grubx64.efi");
    std::uint32_t number = 0, type = 0;
    std::uint64_t start = 0, size = 0;
    ASSERT_FALSE(options.GetPartitionNumber(number));
    ASSERT_FALSE(options.GetPartitionType(type));
    ASSERT_FALSE(options.GetPartitionStart(start));
    ASSERT_FALSE(options.GetPartitionSize(size));
    EXPECT_EQ(number, 3u);
    EXPECT_EQ(type, Uefi::kPartitionTypeGpt);
    EXPECT_EQ(start, 2048u);
    EXPECT_EQ(size, 204800u);
    EFI_GUID guid;
    ASSERT_FALSE(options.GetGptSignature(guid));
    EXPECT_EQ(BootValues::GuidBytes(guid),
              BootValues::GuidBytes(BootValues::Guid(0x11223344, 0x5566, 0x7788, 0x99AABBCCDDEEFF03ull)));
    // Written back unchanged, without the optional data.
    EXPECT_EQ(Serialized(options), Bytes(value.begin(), value.end() - optional.size()));
}

TEST(LoadOption, ListShapesAndLengthsThatLie) {
    const Bytes file = BootValues::FileNode(u"\\A.EFI");
    const Bytes pci = BootValues::Node(1, 1, {0, 2});
    const Bytes tail = {0xAB, 0xCD};
    struct Case {
        const char* what;
        Bytes value;
        std::uint32_t code;        // 0 for success
        const char16_t* message;   // of a failure
        std::size_t nodes;
        Bytes rest;                // what is left behind the list
        int serialized_change;     // length of Serialize's output minus the bytes parsed
    };
    const Case cases[] = {
        {"list length 0: all behind the description is optional data", BootValues::LoadOption(1, u"D", {}, Concat({file, tail}), 0),
         0, nullptr, 0, Concat({file, tail}), 4},
        {"only the end node", BootValues::LoadOption(1, u"D", BootValues::kEndEntire, tail), 0, nullptr, 0, tail, 0},
        {"two instances", BootValues::LoadOption(1, u"D", Concat({pci, BootValues::kEndInstance, file, BootValues::kEndEntire}), tail),
         0, nullptr, 2, tail, -4},
        {"no end node at all", BootValues::LoadOption(1, u"D", Concat({pci, file}), tail), 0, nullptr, 2, tail, 4},
        {"list length one byte short", BootValues::LoadOption(1, u"D", Concat({pci, file, BootValues::kEndEntire}), tail,
                                                               static_cast<int>(pci.size() + file.size() + 3)),
         Common::UEFI_BAD_LOAD_OPTION, kBadBootPath, 3 - 1, {}, 0},
        {"list length past the value", BootValues::LoadOption(1, u"D", Concat({pci}), {}, 200), Common::UEFI_BAD_LOAD_OPTION,
         nullptr, 1, {}, 0},
        {"list length inside a node's header", BootValues::LoadOption(1, u"D", Concat({pci, file}), {}, 2),
         Common::UEFI_BAD_LOAD_OPTION, kBadBootPath, 1, {}, 0},
        {"attributes cut", {1, 0, 0}, Common::UEFI_BAD_LOAD_OPTION, nullptr, 0, {}, 0},
        {"list length cut", {1, 0, 0, 0, 4}, Common::UEFI_BAD_LOAD_OPTION, nullptr, 0, {}, 0},
        {"description without terminator", {1, 0, 0, 0, 4, 0, 'D', 0, 'E', 0}, Common::UEFI_BAD_LOAD_OPTION, nullptr, 0, {}, 0},
        {"node Length below its header", BootValues::LoadOption(1, u"D", {1, 1, 2, 0, 0x7F, 0xFF, 4, 0}),
         Common::UEFI_BAD_LOAD_OPTION, nullptr, 0, {}, 0},
    };
    for (const Case& c : cases) {
        Parsed parsed = Parse(c.value);
        EXPECT_EQ(parsed.error.Code(), c.code) << c.what;
        EXPECT_EQ(parsed.options.Nodes().size(), c.nodes) << c.what;
        if (c.code != 0) {
            EXPECT_EQ(parsed.error.Message(), c.message != nullptr ? c.message : u"") << c.what;
            continue;
        }
        EXPECT_EQ(parsed.rest, c.rest) << c.what;
        const std::size_t parsed_part = c.value.size() - parsed.rest.size();
        const Bytes written = Serialized(parsed.options);
        EXPECT_EQ(static_cast<int>(written.size()) - static_cast<int>(parsed_part), c.serialized_change) << c.what;
        // What was written reads back to the same nodes, and writes the same.
        Parsed again = Parse(written);
        ASSERT_FALSE(again.error) << c.what;
        EXPECT_TRUE(again.rest.empty()) << c.what;
        EXPECT_EQ(again.options.Nodes().size(), c.nodes) << c.what;
        EXPECT_EQ(Serialized(again.options), written) << c.what;
    }
}

TEST(LoadOption, ValuesWrittenByTheFirmwareComeBackByteForByte) {
    const char* const file = "/usr/share/OVMF/OVMF_VARS_4M.ms.fd";
    if (access(file, R_OK) != 0) GTEST_SKIP() << "no OVMF variable file";
    HostFirmware::VariableStore store;
    std::string problem;
    ASSERT_TRUE(store.LoadFile(file, problem)) << problem;
    struct Expected {
        std::u16string name;
        std::uint32_t attributes;
        std::u16string description;
        std::size_t nodes;
        std::size_t optional;
    };
    // The boot manager's own entries: its front page (a hidden application),
    // the disk it found, and the built-in shell.
    const Expected entries[] = {
        {u"Boot0000", 0x109, u"UiApp", 2, 0},
        {u"Boot0001", 1, u"UEFI QEMU HARDDISK QM00001 ", 3, 16},
        {u"Boot0002", 1, u"EFI Internal Shell", 2, 0},
    };
    for (const Expected& expected : entries) {
        const auto* variable = store.Find(BootValues::kGlobal, expected.name);
        ASSERT_NE(variable, nullptr);
        Parsed parsed = Parse(variable->data);
        ASSERT_FALSE(parsed.error);
        EXPECT_EQ(parsed.options.Attributes(), expected.attributes);
        std::u16string description;
        ASSERT_FALSE(parsed.options.GetDescription(description));
        EXPECT_EQ(description, expected.description);
        EXPECT_EQ(parsed.options.Nodes().size(), expected.nodes);
        EXPECT_EQ(parsed.rest.size(), expected.optional);
        std::uint32_t type = 0;
        EXPECT_EQ(parsed.options.GetPartitionType(type).Code(), Common::UEFI_BAD_LOAD_OPTION) << "no hard drive node";
        Bytes written = Serialized(parsed.options);
        written.insert(written.end(), parsed.rest.begin(), parsed.rest.end());
        EXPECT_EQ(written, variable->data);
    }
}

TEST(LoadOption, SignaturesAreReadOnlyOfTheirKind) {
    const Bytes mbr = BootValues::HardDriveNode(2, 63, 1000, {0x78, 0x56, 0x34, 0x12}, 1, 1);
    const Bytes gpt = BootValues::HardDriveNode(1, 34, 1000, Bytes(16, 0x5A), 2, 2);
    const Bytes none = BootValues::HardDriveNode(1, 34, 1000, Bytes(16, 0x5A), 2, 0);
    const Bytes file = BootValues::FileNode(u"\\X");
    struct Case {
        const char* what;
        Bytes list;
        std::uint32_t type_code, type;
        std::uint32_t mbr_code, mbr;
        std::uint32_t gpt_code;
    };
    const std::uint32_t kBad = Common::UEFI_BAD_LOAD_OPTION, kWrong = Common::UEFI_WRONG_SIGNATURE_KIND;
    const Case cases[] = {
        {"no hard drive node", file, kBad, 0, kBad, 0, kBad},
        {"MBR node", Concat({file, mbr}), 0, Uefi::kPartitionTypeMbr, 0, 0x12345678, kWrong},
        {"GUID node", gpt, 0, Uefi::kPartitionTypeGpt, kWrong, 0, 0},
        {"signature type 0", none, 0, Uefi::kPartitionTypeNone, kWrong, 0, kWrong},
        {"the first hard drive node counts", Concat({mbr, gpt}), 0, Uefi::kPartitionTypeMbr, 0, 0x12345678, kWrong},
    };
    for (const Case& c : cases) {
        Parsed parsed = Parse(BootValues::LoadOption(1, u"", Concat({c.list, BootValues::kEndEntire})));
        ASSERT_FALSE(parsed.error) << c.what;
        std::uint32_t type = 0, mbr = 0;
        EFI_GUID gpt_guid;
        EXPECT_EQ(parsed.options.GetPartitionType(type).Code(), c.type_code) << c.what;
        EXPECT_EQ(type, c.type) << c.what;
        EXPECT_EQ(parsed.options.GetMbrSignature(mbr).Code(), c.mbr_code) << c.what;
        EXPECT_EQ(mbr, c.mbr) << c.what;
        EXPECT_EQ(parsed.options.GetGptSignature(gpt_guid).Code(), c.gpt_code) << c.what;
        if (c.gpt_code == 0) {
            EXPECT_EQ(BootValues::GuidBytes(gpt_guid), Bytes(16, 0x5A)) << c.what;
        }
    }
}

TEST(LoadOption, WritesFindTheNodeOrMakeIt) {
    // Partition fields make a node of the GUID kind, which later writes find
    // and never change in kind.
    Uefi::LoadOptionsImpl gpt_first;
    ASSERT_FALSE(gpt_first.SetPartitionNumber(5));
    ASSERT_FALSE(gpt_first.SetMbrSignature(0xCAFEBABE));
    ASSERT_FALSE(gpt_first.SetPartitionStart(0x1122334455ull));
    ASSERT_FALSE(gpt_first.SetPartitionSize(77));
    ASSERT_FALSE(gpt_first.SetPath(std::u16string(200, u'p')));
    ASSERT_FALSE(gpt_first.SetDescription(u"Made"));
    ASSERT_EQ(gpt_first.Nodes().size(), 2u);
    std::uint32_t type = 0, mbr = 0;
    ASSERT_FALSE(gpt_first.GetPartitionType(type));
    EXPECT_EQ(type, Uefi::kPartitionTypeGpt);
    EXPECT_EQ(gpt_first.GetMbrSignature(mbr).Code(), Common::UEFI_WRONG_SIGNATURE_KIND);
    EXPECT_EQ(gpt_first.Nodes()[1]->Length(), 406);
    Bytes signature = {0xBE, 0xBA, 0xFE, 0xCA};
    signature.resize(16, 0);
    const Bytes expected = BootValues::LoadOption(
        1, u"Made",
        Concat({BootValues::HardDriveNode(5, 0x1122334455ull, 77, signature, 2, 2),
                BootValues::FileNode(std::u16string(200, u'p')), BootValues::kEndEntire}));
    EXPECT_EQ(Serialized(gpt_first), expected);
    EXPECT_EQ(gpt_first.FilePathListLength(), 42 + 406 + 4);

    // The MBR signature first makes a node of the MBR kind.
    Uefi::LoadOptionsImpl mbr_first;
    ASSERT_FALSE(mbr_first.SetMbrSignature(0x01020304));
    ASSERT_FALSE(mbr_first.SetPartitionNumber(2));
    ASSERT_FALSE(mbr_first.GetPartitionType(type));
    EXPECT_EQ(type, Uefi::kPartitionTypeMbr);
    ASSERT_FALSE(mbr_first.GetMbrSignature(mbr));
    EXPECT_EQ(mbr, 0x01020304u);
    EFI_GUID guid;
    EXPECT_EQ(mbr_first.GetGptSignature(guid).Code(), Common::UEFI_WRONG_SIGNATURE_KIND);
    // A GPT signature written into the MBR node keeps it of the MBR kind.
    ASSERT_FALSE(mbr_first.SetGptSignature(BootValues::Guid(0xA0A1A2A3, 0xB0B1, 0xC0C1, 0)));
    ASSERT_FALSE(mbr_first.GetMbrSignature(mbr));
    EXPECT_EQ(mbr, 0xA0A1A2A3u);
    EXPECT_EQ(mbr_first.Nodes().size(), 1u);

    // A path replaces the path of the first file node, and Length follows.
    Parsed parsed = Parse(BootValues::GptEntry(u"E", u"\\OLD\\PATH.EFI"));
    ASSERT_FALSE(parsed.error);
    ASSERT_FALSE(parsed.options.SetPath(u"\\N"));
    EXPECT_EQ(Serialized(parsed.options), BootValues::GptEntry(u"E", u"\\N"));
    // A path that Length cannot hold is refused and changes nothing.
    EXPECT_EQ(parsed.options.SetPath(std::u16string(40000, u'x')).Code(), Common::UEFI_BAD_LOAD_OPTION);
    std::u16string path;
    ASSERT_FALSE(parsed.options.GetPath(path));
    EXPECT_EQ(path, u"\\N");
}

TEST(LoadOption, SameOptionsNameTheSameFileOnTheSamePartition) {
    const Bytes mbr_a = BootValues::HardDriveNode(1, 63, 10, {1, 2, 3, 4}, 1, 1);
    const Bytes mbr_a_other_number = BootValues::HardDriveNode(2, 63, 10, {1, 2, 3, 4}, 1, 1);
    const Bytes mbr_b = BootValues::HardDriveNode(1, 63, 10, {9, 2, 3, 4}, 1, 1);
    const Bytes gpt_a = BootValues::HardDriveNode(1, 34, 10, Bytes(16, 1), 2, 2);
    const Bytes gpt_a_elsewhere = BootValues::HardDriveNode(4, 9999, 5, Bytes(16, 1), 2, 2);
    const Bytes gpt_b = BootValues::HardDriveNode(1, 34, 10, Bytes(16, 2), 2, 2);
    const Bytes none = BootValues::HardDriveNode(1, 34, 10, Bytes(16, 1), 2, 0);
    const Bytes x = BootValues::FileNode(u"\\X.EFI");
    const Bytes x_lower = BootValues::FileNode(u"\\x.efi");
    struct Case {
        const char* what;
        Bytes a, b;
        bool same;
    };
    const Case cases[] = {
        {"same GPT partition, same path", Concat({gpt_a, x}), Concat({gpt_a, x}), true},
        {"GPT signature decides, not number, start or size", Concat({gpt_a, x}), Concat({x, gpt_a_elsewhere}), true},
        {"other GPT partition", Concat({gpt_a, x}), Concat({gpt_b, x}), false},
        {"case counts in paths", Concat({gpt_a, x}), Concat({gpt_a, x_lower}), false},
        {"same MBR disk and number", Concat({mbr_a, x}), Concat({mbr_a, x}), true},
        {"MBR partition number counts", Concat({mbr_a, x}), Concat({mbr_a_other_number, x}), false},
        {"other MBR disk", Concat({mbr_a, x}), Concat({mbr_b, x}), false},
        {"kinds differ", Concat({mbr_a, x}), Concat({gpt_a, x}), false},
        {"no signature kind, even alike", Concat({none, x}), Concat({none, x}), false},
        {"no path", gpt_a, gpt_a, false},
        {"no partition", x, x, false},
    };
    for (const Case& c : cases) {
        Parsed a = Parse(BootValues::LoadOption(1, u"A", Concat({c.a, BootValues::kEndEntire})));
        Parsed b = Parse(BootValues::LoadOption(1, u"B", Concat({c.b, BootValues::kEndEntire})));
        ASSERT_FALSE(a.error) << c.what;
        ASSERT_FALSE(b.error) << c.what;
        EXPECT_EQ(Uefi::SameLoadOptions(a.options, b.options), c.same) << c.what;
        EXPECT_EQ(Uefi::SameLoadOptions(b.options, a.options), c.same) << c.what;
    }
    Parsed none_only = Parse(BootValues::LoadOption(1, u"", Concat({none, x, BootValues::kEndEntire})));
    EXPECT_FALSE(Uefi::SameLoadOptions(none_only.options, none_only.options)) << "not even the same object";
}

TEST(LoadOption, TextFormShowsWhatCanBeRead) {
    Parsed gpt = Parse(BootValues::GptEntry(u"Debian", u"\\EFI\\debian\\grubx64.efi"));
    ASSERT_FALSE(gpt.error);
    std::u16string text;
    ASSERT_FALSE(Uefi::DescribeLoadOptions(gpt.options, text));
    EXPECT_EQ(text,
              u"Descripti\u206Fn: Debian\n"
              u"Path:\\EFI\\debian\\grubx64.efi\n"
              u"GUID11223344-5566-7788-99AA-BBCCDDEEFF01\n"
              u"Partition number 1\n"
              u"Begin: 2048\n"
              u"Partition Size:204800\n"
              u"\n"
              u"----------------\n"
              u"\n");

    Uefi::LoadOptionsImpl mbr;
    ASSERT_FALSE(mbr.SetMbrSignature(1));
    ASSERT_FALSE(mbr.SetPartitionStart(18446744073709551615ull));
    ASSERT_FALSE(Uefi::DescribeLoadOptions(mbr, text));
    EXPECT_EQ(text,
              u"Descripti\u206Fn: \n"
              u"Path:Unknown\n"
              u"GUIDUnknown\n"
              u"Partition number 0\n"
              u"Begin: 18446744073709551615\n"
              u"Partition Size:0\n"
              u"\n"
              u"----------------\n"
              u"\n");
}

}  // namespace
