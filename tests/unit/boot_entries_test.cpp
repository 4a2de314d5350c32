// Boot entries, BootOrder, BootNext and BootCurrent over the simulator's
// variable store; above all the one-shot tagged entry that every start of
// the loader must remove, and nothing else.
#include <efi.h>
#include <gtest/gtest.h>

#include <boost/make_shared.hpp>

#include <algorithm>
#include <cstring>
#include <map>

#include "firmware/boot_current.h"
#include "firmware/boot_entry.h"
#include "firmware/boot_next.h"
#include "firmware/boot_order.h"
#include "loader/common/error_codes.h"
#include "tests/unit/boot_values.h"

extern "C" EFI_STATUS EFIAPI _ModuleEntryPoint(EFI_HANDLE image, EFI_SYSTEM_TABLE* system_table);

namespace {

using BootValues::Bytes;
using BootValues::Concat;
using BootValues::Firmware;
using Numbers = std::vector<std::uint16_t>;

const Bytes kTag = BootValues::Ascii("Fake_tag");
const Bytes kDefaultOption = {1, 0, 0, 0, 4, 0, 0, 0, 0x7F, 0xFF, 4, 0};

Bytes Entry(const char* description, const Bytes& optional = {}) {
    std::u16string text(description, description + std::strlen(description));
    return BootValues::GptEntry(text, u"\\EFI\\" + text + u"\\BOOTX64.EFI", optional);
}

// A load option whose list length runs past its nodes.
Bytes DamagedEntry() {
    return BootValues::LoadOption(1, u"Damaged", Concat({BootValues::FileNode(u"\\X"), BootValues::kEndEntire}),
                                  kTag, 4 + 2 * 3 + 3);
}

boost::shared_ptr<Uefi::BootEntry> MakeEntry(std::uint16_t number) {
    boost::shared_ptr<Uefi::BootEntry> entry;
    EXPECT_FALSE(Uefi::CreateBootEntry(number, entry));
    return entry;
}

Numbers OrderNumbers(Uefi::BootOrder& order) {
    Numbers numbers;
    for (auto at = order.Begin(); at != order.End(); ++at) numbers.push_back((*at)->GetNumber());
    return numbers;
}

TEST(BootEntries, DeleteClearsTheVariableOfItsNumberUnread) {
    for (std::uint16_t number : {std::uint16_t(0), std::uint16_t(10), std::uint16_t(0xAB), std::uint16_t(0xFFFF)}) {
        Firmware firmware;
        const std::u16string name = BootValues::BootName(number);
        firmware.PutEntry(number, Entry("Any"));
        firmware.PutEntry(static_cast<std::uint16_t>(number ^ 1), Entry("Neighbour"));
        auto entry = MakeEntry(number);
        EXPECT_EQ(entry->GetNumber(), number);
        ASSERT_FALSE(entry->Delete());
        EXPECT_FALSE(firmware.Has(name)) << std::string(name.begin(), name.end());
        EXPECT_TRUE(firmware.Has(BootValues::BootName(static_cast<std::uint16_t>(number ^ 1))));
        EXPECT_EQ(firmware.Reads(name), 0u) << "nothing is read before the delete";
        ASSERT_EQ(firmware.Store().Calls().size(), 1u);
        EXPECT_EQ(firmware.Store().Calls()[0].attributes, 7u);
    }
    EXPECT_EQ(Uefi::BootVariableName(0xAB), u"Boot00AB");
    EXPECT_EQ(Uefi::BootVariableName(10), u"Boot000A");
}

TEST(BootEntries, OrderHoldsTheWholeNumbersOfTheVariable) {
    Firmware firmware;
    firmware.PutGlobal(u"BootOrder", {3, 0, 0x0A, 0x01, 7});
    boost::shared_ptr<Uefi::BootOrder> order;
    ASSERT_FALSE(Uefi::GetBootOrder(order));
    EXPECT_EQ(OrderNumbers(*order), (Numbers{3, 0x010A}));
    // Erase works on the snapshot only.
    ASSERT_FALSE(order->Erase(order->Begin()));
    EXPECT_EQ(OrderNumbers(*order), (Numbers{0x010A}));
    EXPECT_EQ(firmware.Writes(), 0u);

    // Without BootOrder the snapshot fails once, and then stands empty.
    Firmware bare;
    ASSERT_EQ(Uefi::GetBootOrder(order).Code(), Common::UEFI_VARIABLE_IO);
    ASSERT_TRUE(order);
    boost::shared_ptr<Uefi::BootEntry> created;
    ASSERT_FALSE(order->CreateEntry(created));
    ASSERT_TRUE(created);
    EXPECT_EQ(created->GetNumber(), 0);
    EXPECT_EQ(bare.Reads(u"BootOrder"), 1u);
}

TEST(BootEntries, TagIsFoundAnywhereInTheOptionalDataOfListedEntries) {
    struct Case {
        const char* what;
        Bytes optional;
        bool found;
    };
    const Case cases[] = {
        {"tag alone", kTag, true},
        {"tag at the start", Concat({kTag, {1, 2, 3}}), true},
        {"tag in the middle", Concat({{0, 0}, kTag, {0}}), true},
        {"tag at the end", Concat({BootValues::Ascii("args "), kTag}), true},
        {"tag cut short", BootValues::Ascii("Fake_ta"), false},
        {"tag in another case", BootValues::Ascii("fake_tag"), false},
        {"tag with a hole", BootValues::Ascii("Fake tag"), false},
        {"no optional data", {}, false},
    };
    for (const Case& c : cases) {
        Firmware firmware;
        firmware.PutEntry(1, Entry("First"));
        firmware.PutEntry(2, Entry("Second", c.optional));
        firmware.PutEntry(3, Entry("Unlisted", kTag));
        firmware.PutOrder({1, 2});
        boost::shared_ptr<Uefi::BootEntry> found;
        Common::Error error = Uefi::FindTagged(kTag, found);
        if (c.found) {
            ASSERT_FALSE(error) << c.what;
            EXPECT_EQ(found->GetNumber(), 2) << c.what;
        } else {
            EXPECT_EQ(error.Code(), Common::UEFI_ENTRY_NOT_FOUND) << c.what;
            EXPECT_FALSE(found) << c.what;
        }
        EXPECT_EQ(firmware.Writes(), 0u) << c.what;
    }
}

// One state of the firmware before Clear, and what must stand after it.
struct ClearCase {
    const char* what;
    Bytes order;                          // BootOrder's value; absent when `no_order`
    bool no_order;
    std::map<std::uint16_t, Bytes> entries;
    std::vector<std::u16string> refused_writes;
    std::uint32_t code;                   // Clear's result
    bool order_after_absent;
    Numbers order_after;
    Numbers deleted;                      // Boot#### gone afterwards; all others stay byte for byte
    std::size_t writes;
};

TEST(BootEntries, ClearDropsTheTaggedEntryAndNothingElse) {
    const Bytes tagged = Entry("Tagged", Concat({BootValues::Ascii("x "), kTag}));
    const Bytes other_tagged = Entry("Also tagged", kTag);
    const Bytes plain = Entry("Plain");
    const Bytes with_data = Entry("With data", BootValues::Ascii("quiet"));
    const Bytes huge_tagged = Entry("Huge", Concat({Bytes(1100, 0x20), kTag}));
    const std::uint32_t kIo = Common::UEFI_VARIABLE_IO;
    const ClearCase cases[] = {
        {"tagged entry in the middle", BootValues::Numbers({1, 5, 2}), false, {{1, plain}, {5, tagged}, {2, with_data}}, {},
         0, false, {1, 2}, {5}, 2},
        {"tagged entry alone: the order goes as well", BootValues::Numbers({5}), false, {{5, tagged}, {1, plain}}, {}, 0,
         true, {}, {5}, 2},
        {"tagged entry listed twice: both go in one write", BootValues::Numbers({5, 1, 5, 2}), false,
         {{1, plain}, {2, plain}, {5, tagged}}, {}, 0, false, {1, 2}, {5}, 2},
        {"odd order length", Bytes{1, 0, 5, 0, 7}, false, {{1, plain}, {5, tagged}}, {}, 0, false, {1}, {5}, 2},
        {"missing and damaged entries before it are passed over", BootValues::Numbers({9, 3, 5, 1}), false,
         {{3, DamagedEntry()}, {5, tagged}, {1, plain}}, {}, 0, false, {9, 3, 1}, {5}, 2},
        {"only the first of two tagged entries", BootValues::Numbers({6, 5}), false, {{5, tagged}, {6, other_tagged}}, {},
         0, false, {5}, {6}, 2},
        {"no tagged entry", BootValues::Numbers({1, 2}), false, {{1, plain}, {2, with_data}}, {}, 0, false, {1, 2}, {}, 0},
        {"tagged entry outside the order", BootValues::Numbers({1}), false, {{1, plain}, {5, tagged}}, {}, 0, false, {1},
         {}, 0},
        {"empty order", Bytes{}, false, {{5, tagged}}, {}, 0, false, {}, {}, 0},
        {"no order at all", Bytes{}, true, {{5, tagged}}, {}, kIo, true, {}, {}, 0},
        {"tagged entry too large to read", BootValues::Numbers({5, 1}), false, {{5, huge_tagged}, {1, plain}}, {}, 0, false,
         {5, 1}, {}, 0},
        {"order not writable: the entry stays", BootValues::Numbers({1, 5}), false, {{1, plain}, {5, tagged}},
         {u"BootOrder"}, kIo, false, {1, 5}, {}, 1},
        {"entry not deletable: it has left the order", BootValues::Numbers({1, 5}), false, {{1, plain}, {5, tagged}},
         {u"Boot0005"}, kIo, false, {1}, {}, 2},
    };
    for (const ClearCase& c : cases) {
        Firmware firmware;
        if (!c.no_order) firmware.PutGlobal(u"BootOrder", c.order);
        for (const auto& entry : c.entries) firmware.PutEntry(entry.first, entry.second);
        for (const auto& name : c.refused_writes) firmware.Store().RefuseWrites(name);

        boost::shared_ptr<Uefi::BootNext> boot_next;
        ASSERT_FALSE(Uefi::CreateBootNext(boot_next, 0));
        EXPECT_EQ(boot_next->Clear().Code(), c.code) << c.what;

        if (c.order_after_absent) {
            EXPECT_FALSE(firmware.Has(u"BootOrder")) << c.what;
        } else {
            ASSERT_TRUE(firmware.Has(u"BootOrder")) << c.what;
            EXPECT_EQ(firmware.Order(), c.order_after) << c.what;
        }
        for (const auto& entry : c.entries) {
            const bool deleted = std::find(c.deleted.begin(), c.deleted.end(), entry.first) != c.deleted.end();
            const auto* stored = firmware.Global(BootValues::BootName(entry.first));
            if (deleted) {
                EXPECT_EQ(stored, nullptr) << c.what << ": Boot" << entry.first;
            } else {
                ASSERT_NE(stored, nullptr) << c.what << ": Boot" << entry.first;
                EXPECT_EQ(stored->data, entry.second) << c.what << ": Boot" << entry.first;
            }
        }
        EXPECT_EQ(firmware.Writes(), c.writes) << c.what;
    }
}

TEST(BootEntries, FakeSetTagsTheEntryAndPutsItFirstOnce) {
    Firmware firmware;
    const Bytes own_data = BootValues::Ascii("own");
    firmware.PutEntry(1, Entry("One"));
    firmware.PutEntry(2, Entry("Two", own_data));
    firmware.PutEntry(3, Entry("Three"));
    firmware.PutEntry(4, Entry("Old one-shot", kTag));
    firmware.PutOrder({4, 1, 2, 3});

    boost::shared_ptr<Uefi::BootNext> boot_next;
    ASSERT_FALSE(Uefi::CreateBootNext(boot_next, 0));
    ASSERT_FALSE(boot_next->Set(MakeEntry(2)));
    // The old tagged entry is gone; the new one stands first and only there,
    // its own data kept in front of the tag.
    EXPECT_FALSE(firmware.Has(u"Boot0004"));
    EXPECT_EQ(firmware.Order(), (Numbers{2, 1, 3}));
    EXPECT_EQ(firmware.Global(u"Boot0002")->data, Entry("Two", Concat({own_data, kTag})));
    EXPECT_EQ(firmware.Global(u"Boot0001")->data, Entry("One"));
    EXPECT_EQ(firmware.Global(u"Boot0003")->data, Entry("Three"));
    // Every entry of the order was written once more after the order.
    for (const char16_t* name : {u"Boot0001", u"Boot0002", u"Boot0003"}) {
        EXPECT_GE(firmware.Store().CountCalls(HostFirmware::VariableCall::Set, name), 1u);
    }

    boost::shared_ptr<Uefi::BootEntry> next;
    ASSERT_FALSE(boot_next->Get(next));
    EXPECT_EQ(next->GetNumber(), 2);

    // The next start removes the whole entry, not just its tag.
    ASSERT_FALSE(boot_next->Clear());
    EXPECT_FALSE(firmware.Has(u"Boot0002"));
    EXPECT_EQ(firmware.Order(), (Numbers{1, 3}));
    EXPECT_EQ(boot_next->Get(next).Code(), Common::UEFI_ENTRY_NOT_FOUND);

    // An entry the firmware does not hold cannot be tagged.
    const std::size_t writes = firmware.Writes();
    EXPECT_EQ(boot_next->Set(MakeEntry(9)).Code(), Common::UEFI_VARIABLE_IO);
    EXPECT_EQ(firmware.Writes(), writes);
}

TEST(BootEntries, InsertPutsANumberOnceAndRewritesEveryEntry) {
    Firmware firmware;
    firmware.PutEntry(1, Entry("One", BootValues::Ascii("data")));
    firmware.PutEntry(3, Entry("Three"));
    firmware.PutOrder({1, 7, 3});
    boost::shared_ptr<Uefi::BootOrder> order;
    ASSERT_FALSE(Uefi::GetBootOrder(order));
    // A number already further down moves; one that is new is written with
    // the default option, as is the listed number that had no variable.
    ASSERT_FALSE(order->Insert(order->Begin(), MakeEntry(3)));
    EXPECT_EQ(firmware.Order(), (Numbers{3, 1, 7}));
    ASSERT_FALSE(order->Insert(order->End(), MakeEntry(2)));
    EXPECT_EQ(firmware.Order(), (Numbers{3, 1, 7, 2}));
    EXPECT_EQ(OrderNumbers(*order), (Numbers{3, 1, 7, 2}));
    EXPECT_EQ(firmware.Global(u"Boot0001")->data, Entry("One", BootValues::Ascii("data")));
    EXPECT_EQ(firmware.Global(u"Boot0003")->data, Entry("Three"));
    EXPECT_EQ(firmware.Global(u"Boot0007")->data, kDefaultOption);
    EXPECT_EQ(firmware.Global(u"Boot0002")->data, kDefaultOption);
    EXPECT_EQ(firmware.Global(u"Boot0002")->attributes, 7u);
    // The rewrite stops at the first entry it cannot write.
    firmware.Store().RefuseWrites(u"Boot0001");
    EXPECT_EQ(order->Insert(order->Begin(), MakeEntry(4)).Code(), Common::UEFI_VARIABLE_IO);
    EXPECT_EQ(firmware.Order(), (Numbers{4, 3, 1, 7, 2}));
    EXPECT_EQ(firmware.Store().CountCalls(HostFirmware::VariableCall::Set, u"Boot0007"), 2u);
}

TEST(BootEntries, CreateEntryTakesTheLowestNumberTheOrderLeavesFree) {
    Numbers full, all_but_zero;
    for (std::uint16_t n = 0; n < 128; ++n) {
        full.push_back(n);
        if (n != 0) all_but_zero.push_back(n);
    }
    struct Case {
        const char* what;
        Numbers order;
        bool made;
        std::uint16_t number;
    };
    const Case cases[] = {
        {"gap", {0, 1, 3}, true, 2},
        {"empty order", {}, true, 0},
        {"all 128 taken", full, false, 0},
        {"all but 0", all_but_zero, true, 0},
        {"numbers above 127 do not count", {0, 200, 0x8000}, true, 1},
    };
    for (const Case& c : cases) {
        Firmware firmware;
        Bytes value;
        for (std::uint16_t n : c.order) BootValues::Put(value, n, 2);
        firmware.PutGlobal(u"BootOrder", value);
        firmware.PutEntry(c.number, Entry("Outside the order"));
        boost::shared_ptr<Uefi::BootOrder> order;
        ASSERT_FALSE(Uefi::GetBootOrder(order)) << c.what;
        boost::shared_ptr<Uefi::BootEntry> entry;
        ASSERT_FALSE(order->CreateEntry(entry)) << c.what;
        ASSERT_EQ(static_cast<bool>(entry), c.made) << c.what;
        if (c.made) {
            EXPECT_EQ(entry->GetNumber(), c.number) << c.what;
        }
        EXPECT_EQ(firmware.Writes(), 0u) << c.what;
    }
}

TEST(BootEntries, SaveKeepsWhatItDoesNotChangeAndNeverReplacesWhatItCannotRead) {
    Firmware firmware;
    const Bytes optional = {0, 1, 2, 0xFF, 'F'};
    firmware.PutEntry(1, Entry("Kept", optional));
    firmware.PutEntry(2, Entry("Huge", Bytes(1200, 7)));
    firmware.PutEntry(3, DamagedEntry());

    auto kept = MakeEntry(1);
    ASSERT_FALSE(kept->Save());
    EXPECT_EQ(firmware.Global(u"Boot0001")->data, Entry("Kept", optional));

    // New load options go in front of the entry's own optional data.
    Uefi::LoadOptionsImpl replacement;
    ASSERT_FALSE(replacement.SetDescription(u"New"));
    ASSERT_FALSE(replacement.SetPath(u"\\NEW.EFI"));
    ASSERT_FALSE(kept->SetLoadOptions(boost::make_shared<Uefi::LoadOptionsImpl>(replacement)));
    ASSERT_FALSE(replacement.SetDescription(u"Changed after the copy"));
    ASSERT_FALSE(kept->Save());
    EXPECT_EQ(firmware.Global(u"Boot0001")->data,
              BootValues::LoadOption(1, u"New", Concat({BootValues::FileNode(u"\\NEW.EFI"), BootValues::kEndEntire}),
                                     optional));

    for (std::uint16_t number : {2, 3}) {
        const Bytes before = firmware.Global(BootValues::BootName(number))->data;
        auto entry = MakeEntry(number);
        boost::shared_ptr<Uefi::LoadOptions> options;
        EXPECT_TRUE(entry->GetLoadOptions(options)) << number;
        EXPECT_TRUE(MakeEntry(number)->Save()) << number;
        EXPECT_EQ(firmware.Global(BootValues::BootName(number))->data, before) << number;
    }

    // An entry the firmware does not hold starts from the defaults.
    auto absent = MakeEntry(4);
    boost::shared_ptr<Uefi::LoadOptions> options;
    ASSERT_FALSE(absent->GetLoadOptions(options));
    std::u16string path;
    EXPECT_EQ(options->GetPath(path).Code(), Common::UEFI_BAD_LOAD_OPTION);
    EXPECT_FALSE(absent->Exists());
    ASSERT_FALSE(absent->Save());
    EXPECT_EQ(firmware.Global(u"Boot0004")->data, kDefaultOption);
}

TEST(BootEntries, FindByLoadOptionsComparesPartitionAndPath) {
    Firmware firmware;
    firmware.PutEntry(1, Entry("Other"));
    firmware.PutEntry(2, DamagedEntry());
    firmware.PutEntry(3, BootValues::GptEntry(u"Target", u"\\EFI\\T.EFI", {}, 4));
    firmware.PutEntry(6, BootValues::GptEntry(u"Same again", u"\\EFI\\T.EFI", {}, 4));
    firmware.PutOrder({1, 2, 5, 3, 6});
    Uefi::ByteCursor cursor;
    const Bytes wanted = BootValues::GptEntry(u"Whatever", u"\\EFI\\T.EFI", {}, 4);
    Uefi::LoadOptionsImpl options;
    cursor = Uefi::ByteCursor(wanted.data(), static_cast<std::int32_t>(wanted.size()));
    ASSERT_FALSE(options.Parse(cursor));
    boost::shared_ptr<Uefi::BootEntry> found;
    ASSERT_FALSE(Uefi::FindByLoadOptions(options, found));
    EXPECT_EQ(found->GetNumber(), 3);
    ASSERT_FALSE(options.SetPath(u"\\EFI\\t.efi"));
    found.reset();
    EXPECT_EQ(Uefi::FindByLoadOptions(options, found).Code(), Common::UEFI_ENTRY_NOT_FOUND);
    EXPECT_FALSE(found);
}

TEST(BootEntries, NextAndCurrentCarryOneNumber) {
    Firmware firmware;
    boost::shared_ptr<Uefi::BootNext> boot_next;
    ASSERT_FALSE(Uefi::CreateBootNext(boot_next, 1));
    ASSERT_FALSE(boot_next->Set(MakeEntry(0x1234)));
    ASSERT_TRUE(firmware.Has(u"BootNext"));
    EXPECT_EQ(firmware.Global(u"BootNext")->data, (Bytes{0x34, 0x12}));
    EXPECT_EQ(firmware.Global(u"BootNext")->attributes, 7u);
    boost::shared_ptr<Uefi::BootEntry> entry;
    ASSERT_FALSE(boot_next->Get(entry));
    EXPECT_EQ(entry->GetNumber(), 0x1234);

    // The firmware's own BootNext needs no clearing: Clear touches nothing,
    // not even a tagged entry.
    firmware.PutEntry(5, Entry("Tagged", kTag));
    firmware.PutOrder({5});
    const std::size_t writes = firmware.Writes();
    ASSERT_FALSE(boot_next->Clear());
    EXPECT_EQ(firmware.Writes(), writes);
    EXPECT_TRUE(firmware.Has(u"Boot0005"));

    struct Case {
        const char* what;
        bool present;
        Bytes value;
        std::uint32_t code;
        std::uint16_t number;
    };
    const Case cases[] = {
        {"two bytes", true, {9, 0}, 0, 9},
        {"more than two bytes", true, {2, 1, 7, 7}, 0, 0x0102},
        {"one byte", true, {9}, Common::UEFI_NO_VALUE, 0},
        {"empty", true, {}, Common::UEFI_NO_VALUE, 0},
        {"absent", false, {}, Common::UEFI_VARIABLE_IO, 0},
    };
    for (const Case& c : cases) {
        for (const char16_t* name : {u"BootNext", u"BootCurrent"}) {
            Firmware each;
            if (c.present) each.PutGlobal(name, c.value);
            boost::shared_ptr<Uefi::BootEntry> got;
            Common::Error error;
            if (name == std::u16string(u"BootNext")) {
                boost::shared_ptr<Uefi::BootNext> next;
                ASSERT_FALSE(Uefi::CreateBootNext(next, 7));
                error = next->Get(got);
            } else {
                boost::shared_ptr<Uefi::BootCurrent> current;
                ASSERT_FALSE(Uefi::CreateBootCurrent(current));
                error = current->Get(got);
            }
            EXPECT_EQ(error.Code(), c.code) << c.what;
            EXPECT_EQ(static_cast<bool>(got), c.code == 0) << c.what;
            if (got) {
                EXPECT_EQ(got->GetNumber(), c.number) << c.what;
            }
            EXPECT_EQ(each.Writes(), 0u);
        }
    }
}

TEST(BootEntries, EntryTextShowsNumberOptionAndData) {
    Firmware firmware;
    firmware.PutEntry(10, BootValues::GptEntry(u"Debian", u"\\G.EFI", {'F', 0x0A}, 2));
    std::u16string text;
    ASSERT_FALSE(Uefi::DescribeEntry(*MakeEntry(10), text));
    EXPECT_EQ(text,
              u"---- 10 ----\n"
              u"Descripti\u206Fn: Debian\n"
              u"Path:\\G.EFI\n"
              u"GUID11223344-5566-7788-99AA-BBCCDDEEFF02\n"
              u"Partition number 2\n"
              u"Begin: 2048\n"
              u"Partition Size:204800\n"
              u"\n"
              u"----------------\n"
              u"\n"
              u"Additional data:\n"
              u"00046h 0000Ah \n");
    firmware.PutEntry(11, DamagedEntry());
    EXPECT_EQ(Uefi::DescribeEntry(*MakeEntry(11), text).Code(), Common::UEFI_BAD_LOAD_OPTION);
}

TEST(BootEntries, EveryLoaderRunButHelpClearsTheTaggedEntry) {
    struct Case {
        std::u16string options;
        bool cleared;
    };
    // No document beside the image and no kernel: both runs fail, and the
    // tagged entry is gone all the same. Help touches nothing.
    for (const Case& c : {Case{u"", true}, Case{u"m nokernel", true}, Case{u"m /?", false}}) {
        Firmware firmware;
        if (!c.options.empty()) firmware.simulator.SetLoadOptions(c.options);
        firmware.PutEntry(1, Entry("Linux"));
        firmware.PutEntry(4, Entry("One-shot", kTag));
        firmware.PutOrder({4, 1});
        EXPECT_EQ(firmware.simulator.RunImage(_ModuleEntryPoint), 1u);
        EXPECT_EQ(firmware.Has(u"Boot0004"), !c.cleared);
        EXPECT_EQ(firmware.Order(), c.cleared ? Numbers({1}) : Numbers({4, 1}));
        EXPECT_EQ(firmware.Global(u"Boot0001")->data, Entry("Linux"));
    }
}

}  // namespace
