// Firmware variables: the simulator's store against the UEFI rules and the
// OVMF file layout, and Uefi::Variable over it.
#include <efi.h>
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <iterator>

#include "firmware/variable.h"
#include "loader/common/error_codes.h"
#include "tests/unit/boot_values.h"

namespace {

using BootValues::Bytes;
using BootValues::Firmware;
using BootValues::kGlobal;
using HostFirmware::VariableCall;
using HostFirmware::VariableStore;

const EFI_GUID kOtherVendor = BootValues::Guid(0x12345678, 0x9ABC, 0xDEF0, 0x0102030405060708ull);
const EFI_GUID kImageSecurityDatabase = BootValues::Guid(0xD719B2CB, 0x3D3A, 0x4596, 0xA3BCDAD00E67656Full);
const EFI_GUID kX509Certificate = BootValues::Guid(0xA5C059A1, 0x94E4, 0x4AA7, 0x87B5AB155C2BF072ull);
const char* const kPlainVars = "/usr/share/OVMF/OVMF_VARS_4M.fd";
const char* const kEnrolledVars = "/usr/share/OVMF/OVMF_VARS_4M.ms.fd";

CHAR16* Name(const std::u16string& name) { return Uefi::FirmwareString(name.c_str()); }

EFI_STATUS Set(VariableStore& store, const std::u16string& name, UINT32 attributes, const Bytes& data,
               const EFI_GUID& vendor = kGlobal) {
    return store.SetVariable(Name(name), const_cast<EFI_GUID*>(&vendor), attributes, data.size(),
                             data.empty() ? nullptr : data.data());
}

Bytes ReadFile(const char* path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

TEST(VariableStore, SetAndGetFollowTheFirmwareRules) {
    // Applied in order to one store; after each step the stored value of
    // "Var" is checked (absent when `after` is null).
    const Bytes abc = {1, 2, 3};
    const Bytes abcd = {1, 2, 3, 4};
    struct Step {
        const char* what;
        std::u16string name;
        UINT32 attributes;
        Bytes data;
        EFI_STATUS status;
        const Bytes* after;
    };
    const Step steps[] = {
        {"create", u"Var", 7, abc, EFI_SUCCESS, &abc},
        {"other attributes", u"Var", 3, {9}, EFI_INVALID_PARAMETER, &abc},
        {"append", u"Var", 7 | EFI_VARIABLE_APPEND_WRITE, {4}, EFI_SUCCESS, &abcd},
        {"append nothing", u"Var", 7 | EFI_VARIABLE_APPEND_WRITE, {}, EFI_SUCCESS, &abcd},
        {"delete with other attributes", u"Var", 3, {}, EFI_INVALID_PARAMETER, &abcd},
        {"delete by size 0", u"Var", 7, {}, EFI_SUCCESS, nullptr},
        {"delete what is absent", u"Var", 7, {}, EFI_NOT_FOUND, nullptr},
        {"no access attributes on absent", u"Var", 0, {5}, EFI_NOT_FOUND, nullptr},
        {"recreate", u"Var", 7, abc, EFI_SUCCESS, &abc},
        {"delete by attributes 0", u"Var", 0, {5, 5}, EFI_SUCCESS, nullptr},
        {"runtime without boot service", u"Var", 5, abc, EFI_INVALID_PARAMETER, nullptr},
        {"reserved attribute bit", u"Var", 7 | 0x100, abc, EFI_INVALID_PARAMETER, nullptr},
        {"time-based authenticated", u"Var", 0x27, abc, EFI_UNSUPPORTED, nullptr},
        {"empty name", u"", 7, abc, EFI_INVALID_PARAMETER, nullptr},
        {"over the variable size limit", u"Var", 7, Bytes(VariableStore::kMaxVariableSize), EFI_INVALID_PARAMETER,
         nullptr},
    };
    VariableStore store;
    for (const Step& step : steps) {
        EXPECT_EQ(Set(store, step.name, step.attributes, step.data), step.status) << step.what;
        const auto* stored = store.Find(kGlobal, u"Var");
        if (step.after == nullptr) {
            EXPECT_EQ(stored, nullptr) << step.what;
        } else {
            ASSERT_NE(stored, nullptr) << step.what;
            EXPECT_EQ(stored->data, *step.after) << step.what;
            EXPECT_EQ(stored->attributes, 7u) << step.what;
        }
    }
    // Data pointer missing for a non-empty value.
    EXPECT_EQ(store.SetVariable(Name(u"Var"), const_cast<EFI_GUID*>(&kGlobal), 7, 3, nullptr), EFI_INVALID_PARAMETER);
    // The same name under another vendor is another variable.
    EXPECT_EQ(Set(store, u"Var", 7, {1}, kOtherVendor), EFI_SUCCESS);
    EXPECT_EQ(store.Find(kGlobal, u"Var"), nullptr);
}

TEST(VariableStore, GetTellsTheSizeNeededAndTheAttributes) {
    VariableStore store;
    ASSERT_EQ(Set(store, u"Value", 6, {7, 8, 9}), EFI_SUCCESS);
    std::uint8_t buffer[8] = {};
    UINT32 attributes = 0;
    UINTN size = 2;
    EXPECT_EQ(store.GetVariable(Name(u"Value"), const_cast<EFI_GUID*>(&kGlobal), &attributes, &size, buffer),
              EFI_BUFFER_TOO_SMALL);
    EXPECT_EQ(size, 3u);
    EXPECT_EQ(buffer[0], 0);
    size = sizeof(buffer);
    attributes = 0;
    EXPECT_EQ(store.GetVariable(Name(u"Value"), const_cast<EFI_GUID*>(&kGlobal), &attributes, &size, buffer),
              EFI_SUCCESS);
    EXPECT_EQ(size, 3u);
    EXPECT_EQ(attributes, 6u);
    EXPECT_EQ(Bytes(buffer, buffer + 3), (Bytes{7, 8, 9}));
    // Attributes are optional; size and vendor are not.
    EXPECT_EQ(store.GetVariable(Name(u"Value"), const_cast<EFI_GUID*>(&kGlobal), nullptr, &size, buffer), EFI_SUCCESS);
    EXPECT_EQ(store.GetVariable(Name(u"Value"), const_cast<EFI_GUID*>(&kGlobal), nullptr, nullptr, buffer),
              EFI_INVALID_PARAMETER);
    EXPECT_EQ(store.GetVariable(Name(u"Value"), nullptr, nullptr, &size, buffer), EFI_INVALID_PARAMETER);
    EXPECT_EQ(store.GetVariable(Name(u"Value"), const_cast<EFI_GUID*>(&kOtherVendor), nullptr, &size, buffer),
              EFI_NOT_FOUND);
    // Refused reads and writes, for tests of the callers' failure paths.
    store.RefuseReads(u"Value");
    store.RefuseWrites(u"Value");
    EXPECT_EQ(store.GetVariable(Name(u"Value"), const_cast<EFI_GUID*>(&kGlobal), nullptr, &size, buffer),
              EFI_DEVICE_ERROR);
    EXPECT_EQ(Set(store, u"Value", 6, {1}), EFI_WRITE_PROTECTED);
    EXPECT_EQ(store.Find(kGlobal, u"Value")->data, (Bytes{7, 8, 9}));
    EXPECT_EQ(store.CountCalls(VariableCall::Get, u"Value"), 7u);
    EXPECT_EQ(store.CountCalls(VariableCall::Set), 2u);
}

TEST(VariableStore, NextVariableNameWalksEveryVariableOnce) {
    VariableStore store;
    ASSERT_EQ(Set(store, u"BootOrder", 7, {0, 0}), EFI_SUCCESS);
    ASSERT_EQ(Set(store, u"Vendor", 7, {1}, kOtherVendor), EFI_SUCCESS);
    ASSERT_EQ(Set(store, u"A", 7, {1}), EFI_SUCCESS);
    std::vector<std::u16string> seen;
    std::vector<CHAR16> name(2, 0);
    EFI_GUID vendor = {};
    for (;;) {
        UINTN size = name.size() * 2;
        EFI_STATUS status = store.GetNextVariableName(&size, name.data(), &vendor);
        if (status == EFI_BUFFER_TOO_SMALL) {
            ASSERT_GT(size, name.size() * 2);
            name.resize(size / 2, 0);
            continue;
        }
        if (status == EFI_NOT_FOUND) break;
        ASSERT_EQ(status, EFI_SUCCESS);
        seen.emplace_back(reinterpret_cast<const char16_t*>(name.data()));
    }
    EXPECT_EQ(seen, (std::vector<std::u16string>{u"BootOrder", u"Vendor", u"A"}));

    // A name that is not a variable, and a buffer without a terminator.
    CHAR16 unknown[] = {'Z', 0};
    UINTN size = sizeof(unknown);
    EXPECT_EQ(store.GetNextVariableName(&size, unknown, &vendor), EFI_INVALID_PARAMETER);
    CHAR16 unterminated[] = {'A', 'B'};
    size = sizeof(unterminated);
    EXPECT_EQ(store.GetNextVariableName(&size, unterminated, &vendor), EFI_INVALID_PARAMETER);
}

TEST(VariableStore, ReadsOvmfFilesMadeByOthers) {
    VariableStore store;
    std::string problem;
    if (access(kPlainVars, R_OK) != 0 || access(kEnrolledVars, R_OK) != 0) GTEST_SKIP() << "no OVMF variable files";

    ASSERT_TRUE(store.LoadFile(kPlainVars, problem)) << problem;
    EXPECT_TRUE(store.All().empty());
    // The 4 MiB store: 0x40000 bytes behind a 0x48-byte volume header and the
    // 0x1C-byte store header.
    EXPECT_EQ(store.Capacity(), 0x40000u - 0x64u);

    // The enrolled file carries the platform key and the signature databases,
    // time-based authenticated, each a list of EFI_SIGNATURE_LIST records.
    ASSERT_TRUE(store.LoadFile(kEnrolledVars, problem)) << problem;
    struct Expected {
        std::u16string name;
        EFI_GUID vendor;
    };
    for (const Expected& expected : {Expected{u"PK", kGlobal}, Expected{u"KEK", kGlobal},
                                     Expected{u"db", kImageSecurityDatabase}, Expected{u"dbx", kImageSecurityDatabase}}) {
        const auto* variable = store.Find(expected.vendor, expected.name);
        ASSERT_NE(variable, nullptr);
        EXPECT_EQ(variable->attributes, 0x27u);
        std::size_t at = 0;
        while (at + 28 <= variable->data.size()) {
            std::uint32_t list_size = 0;
            std::memcpy(&list_size, variable->data.data() + at + 16, 4);
            ASSERT_GE(list_size, 28u);
            at += list_size;
        }
        EXPECT_EQ(at, variable->data.size()) << "signature lists fill the value exactly";
    }
    const auto* pk = store.Find(kGlobal, u"PK");
    EXPECT_EQ(Bytes(pk->data.begin(), pk->data.begin() + 16), BootValues::GuidBytes(kX509Certificate));
    // The file keeps its history: deleted copies of ConOut, ConIn and
    // BootOrder stand before the live ones, and every BootOrder is deleted.
    EXPECT_EQ(store.Find(kGlobal, u"BootOrder"), nullptr);
    ASSERT_NE(store.Find(kGlobal, u"ConOut"), nullptr);
    EXPECT_EQ(store.Find(kGlobal, u"ConOut")->data.size(), 146u);
    EXPECT_EQ(store.Find(kGlobal, u"ConIn")->data.size(), 195u);
    std::size_t con_outs = 0;
    for (const auto& variable : store.All()) con_outs += variable.name == u"ConOut" ? 1 : 0;
    EXPECT_EQ(con_outs, 1u);
}

TEST(VariableStore, SavedFileReadsBackAndKeepsTheRestOfTheImage) {
    if (access(kEnrolledVars, R_OK) != 0) GTEST_SKIP() << "no OVMF variable file";
    const Bytes original = ReadFile(kEnrolledVars);
    VariableStore store;
    std::string problem;
    ASSERT_TRUE(store.LoadImage(original, problem)) << problem;
    const std::size_t before = store.All().size();
    ASSERT_EQ(Set(store, u"BootOrder", 7, BootValues::Numbers({3, 1})), EFI_SUCCESS);
    ASSERT_EQ(Set(store, u"Odd", 7, {1, 2, 3, 4, 5}), EFI_SUCCESS);
    ASSERT_EQ(Set(store, u"Volatile", 6, {1}), EFI_SUCCESS);
    ASSERT_TRUE(store.Erase(kImageSecurityDatabase, u"dbx"));

    Bytes saved;
    ASSERT_TRUE(store.SaveImage(saved, problem)) << problem;
    ASSERT_EQ(saved.size(), original.size());
    // The volume and store headers, and everything behind the store, stay.
    EXPECT_TRUE(std::equal(original.begin(), original.begin() + 0x64, saved.begin()));
    EXPECT_TRUE(std::equal(original.begin() + 0x40000, original.end(), saved.begin() + 0x40000));

    VariableStore reread;
    ASSERT_TRUE(reread.LoadImage(saved, problem)) << problem;
    EXPECT_EQ(reread.All().size(), before + 1);  // + BootOrder + Odd - dbx; the volatile one is gone
    for (const auto& variable : store.All()) {
        const auto* copy = reread.Find(variable.vendor, variable.name);
        if (variable.name == u"Volatile") {
            EXPECT_EQ(copy, nullptr);
            continue;
        }
        ASSERT_NE(copy, nullptr);
        EXPECT_EQ(copy->attributes, variable.attributes);
        EXPECT_EQ(copy->data, variable.data);
        EXPECT_EQ(copy->monotonic_count, variable.monotonic_count);
        EXPECT_EQ(copy->timestamp, variable.timestamp);
    }
    EXPECT_EQ(reread.Find(kImageSecurityDatabase, u"dbx"), nullptr);

    // Through a file as well.
    char path[] = "/tmp/morvane-vars-XXXXXX";
    int descriptor = mkstemp(path);
    ASSERT_GE(descriptor, 0);
    close(descriptor);
    ASSERT_TRUE(store.SaveFile(path, problem)) << problem;
    EXPECT_EQ(ReadFile(path), saved);
    std::remove(path);
}

TEST(VariableStore, StatesOfHalfDoneWritesDecideWhichCopyCounts) {
    if (access(kPlainVars, R_OK) != 0) GTEST_SKIP() << "no OVMF variable file";
    VariableStore store;
    std::string problem;
    ASSERT_TRUE(store.LoadImage(ReadFile(kPlainVars), problem)) << problem;
    // Three variables whose names differ in their last letter, written by
    // the store, then changed into the states a firmware leaves behind.
    ASSERT_EQ(Set(store, u"XA", 7, {1}), EFI_SUCCESS);
    ASSERT_EQ(Set(store, u"XB", 7, {2}), EFI_SUCCESS);
    ASSERT_EQ(Set(store, u"YA", 7, {3}), EFI_SUCCESS);
    Bytes image;
    ASSERT_TRUE(store.SaveImage(image, problem)) << problem;
    const std::size_t first = 0x64, stride = 68;  // 60-byte header, 6-byte name, 1 byte of data, aligned
    image[first + 2] = 0x3E;                        // XA: in deleted transition...
    image[first + stride + 60 + 2] = 'A';           // ...and XB becomes its replacement
    image[first + 2 * stride + 2] = 0x3E;           // YA: in transition, never replaced
    VariableStore reread;
    ASSERT_TRUE(reread.LoadImage(image, problem)) << problem;
    ASSERT_EQ(reread.All().size(), 2u);
    EXPECT_EQ(reread.Find(kGlobal, u"XA")->data, Bytes{2});
    EXPECT_EQ(reread.Find(kGlobal, u"YA")->data, Bytes{3});

    image[first + 2] = 0x3C;  // a deleted copy never counts
    image[first + stride + 2] = 0x3C;
    ASSERT_TRUE(reread.LoadImage(image, problem)) << problem;
    EXPECT_EQ(reread.Find(kGlobal, u"XA"), nullptr);
}

TEST(VariableStore, DamagedFilesAreRefused) {
    if (access(kPlainVars, R_OK) != 0) GTEST_SKIP() << "no OVMF variable file";
    Bytes pristine = ReadFile(kPlainVars);
    VariableStore writer;
    std::string problem;
    ASSERT_TRUE(writer.LoadImage(pristine, problem));
    ASSERT_EQ(Set(writer, u"Boot0001", 7, Bytes(20, 0xAB)), EFI_SUCCESS);
    Bytes with_variable;
    ASSERT_TRUE(writer.SaveImage(with_variable, problem));

    struct Case {
        const char* what;
        std::size_t offset;
        std::vector<std::uint8_t> bytes;
        std::size_t truncate;
    };
    const Case cases[] = {
        {"cut inside the volume header", 0, {}, 40},
        {"cut inside the store", 0, {}, 0x1000},
        {"no volume signature", 40, {'_', 'F', 'V', 'X'}, 0},
        {"not an NV data volume", 16, {0}, 0},
        {"header length beyond the volume", 48, {0xF0, 0xFF}, 0},
        {"unknown store signature", 0x48, {0}, 0},
        {"store size beyond the volume", 0x48 + 16, {0, 0, 0, 0x10}, 0},
        {"store not healthy", 0x48 + 21, {0x00}, 0},
        {"data size runs past the store", 0x64 + 40, {0xF0, 0xFF, 0x0F, 0x00}, 0},
        {"name size runs past the store", 0x64 + 36, {0xFF, 0xFF, 0xFF, 0xFF}, 0},
        {"name without terminator", 0x64 + 60 + 16, {'x', 0}, 0},
        {"odd name size", 0x64 + 36, {17}, 0},
    };
    for (const Case& c : cases) {
        Bytes image = with_variable;
        std::copy(c.bytes.begin(), c.bytes.end(), image.begin() + c.offset);
        if (c.truncate != 0) image.resize(c.truncate);
        VariableStore store;
        store.Put(kGlobal, u"Before", 7, {1});
        problem.clear();
        EXPECT_FALSE(store.LoadImage(image, problem)) << c.what;
        EXPECT_FALSE(problem.empty()) << c.what;
        // A refused file changes nothing.
        EXPECT_EQ(store.All().size(), 1u) << c.what;
        EXPECT_FALSE(store.SaveImage(image, problem)) << c.what;
    }
}

TEST(Variable, LoadReadsOnceThroughItsFixedBuffer) {
    struct Case {
        std::size_t size;
        bool loads;
    };
    for (const Case& c : {Case{0, true}, Case{1, true}, Case{1024, true}, Case{1025, false}}) {
        Firmware firmware;
        Bytes value(c.size);
        for (std::size_t i = 0; i < value.size(); ++i) value[i] = static_cast<std::uint8_t>(i * 7);
        firmware.PutGlobal(u"Value", value);
        auto variable = Uefi::CreateVariable(Uefi::kGlobalVariable, u"Value", 0);
        EXPECT_EQ(firmware.Reads(u"Value"), 0u) << "creation asks nothing";
        const std::uint8_t* bytes = nullptr;
        std::uint32_t size = 12345;
        Common::Error error = variable->Get(bytes, size);
        if (c.loads) {
            ASSERT_FALSE(error) << c.size;
            EXPECT_EQ(Bytes(bytes, bytes + size), value);
            EXPECT_TRUE(variable->Exists());
            EXPECT_FALSE(variable->Load());
            EXPECT_EQ(firmware.Reads(u"Value"), 1u) << "one firmware read for the life of the object";
        } else {
            EXPECT_EQ(error.Code(), Common::UEFI_VARIABLE_IO);
            EXPECT_EQ(bytes, nullptr);
            EXPECT_EQ(size, 12345u) << "outputs left alone";
            EXPECT_FALSE(variable->Loaded());
            EXPECT_FALSE(variable->Exists()) << "present but unreadable does not exist";
            EXPECT_TRUE(Uefi::IsStoredInFirmware(*variable));
            EXPECT_EQ(variable->Attributes(), 0u) << "a refused read reports no attributes";
        }
    }
}

TEST(Variable, FailedLoadAsksAgainAndSucceedsLater) {
    Firmware firmware;
    auto variable = Uefi::CreateVariable(Uefi::kGlobalVariable, u"Late", 7);
    EXPECT_EQ(variable->Load().Code(), Common::UEFI_VARIABLE_IO);
    EXPECT_FALSE(Uefi::IsStoredInFirmware(*variable));
    firmware.PutGlobal(u"Late", {5, 6});
    EXPECT_FALSE(variable->Load());
    const std::uint8_t* bytes = nullptr;
    std::uint32_t size = 0;
    ASSERT_FALSE(variable->Get(bytes, size));
    EXPECT_EQ(Bytes(bytes, bytes + size), (Bytes{5, 6}));
    EXPECT_EQ(firmware.Reads(u"Late"), 3u);  // two loads and the probe
}

TEST(Variable, SetAndClearWorkOnTheObjectsValue) {
    Firmware firmware;
    firmware.PutGlobal(u"Value", {1, 2, 3, 4});
    auto variable = Uefi::CreateVariable(Uefi::kGlobalVariable, u"Value", 7);
    ASSERT_FALSE(variable->Load());
    const std::uint8_t shorter[] = {9, 8};
    ASSERT_FALSE(variable->Set(shorter, sizeof(shorter)));
    const std::uint8_t* bytes = nullptr;
    std::uint32_t size = 0;
    ASSERT_FALSE(variable->Get(bytes, size));
    EXPECT_EQ(Bytes(bytes, bytes + size), (Bytes{9, 8}));
    EXPECT_EQ(firmware.Global(u"Value")->data, (Bytes{9, 8}));

    ASSERT_FALSE(variable->Clear());
    EXPECT_FALSE(firmware.Has(u"Value")) << "a write of size 0 deletes";
    ASSERT_FALSE(variable->Get(bytes, size));
    EXPECT_EQ(size, 0u);
    EXPECT_TRUE(variable->Exists()) << "the object still holds its (empty) value";
    EXPECT_EQ(firmware.Reads(u"Value"), 1u) << "no read after Clear";
}

TEST(Variable, WritesKeepTheAttributesTheFirmwareReported) {
    Firmware firmware;
    firmware.PutGlobal(u"Order", {1, 0}, 7);
    auto variable = Uefi::CreateVariable(Uefi::kGlobalVariable, u"Order", 0);
    EXPECT_EQ(variable->Attributes(), 0u);
    ASSERT_FALSE(variable->Load());
    EXPECT_EQ(variable->Attributes(), 7u);
    const std::uint8_t value[] = {2, 0};
    ASSERT_FALSE(variable->Set(value, sizeof(value)));
    ASSERT_EQ(firmware.Store().Calls().back().kind, VariableCall::Set);
    EXPECT_EQ(firmware.Store().Calls().back().attributes, 7u);
    EXPECT_EQ(firmware.Global(u"Order")->data, (Bytes{2, 0}));
}

TEST(Variable, RefusedWritesAndWritesWithoutValue) {
    Firmware firmware;
    auto variable = Uefi::CreateVariable(Uefi::kGlobalVariable, u"Value", 7);
    EXPECT_EQ(variable->Save().Code(), Common::UEFI_NO_VALUE);
    EXPECT_EQ(firmware.Writes(), 0u) << "no firmware call without a value";

    firmware.Store().RefuseWrites(u"Value");
    const std::uint8_t value[] = {4, 4, 4};
    Common::Error error = variable->Set(value, sizeof(value));
    EXPECT_EQ(error.Code(), Common::UEFI_VARIABLE_IO);
    EXPECT_EQ(error.Message(), u"");
    EXPECT_FALSE(firmware.Has(u"Value"));
    // The object keeps the value the firmware did not take.
    const std::uint8_t* bytes = nullptr;
    std::uint32_t size = 0;
    ASSERT_FALSE(variable->Get(bytes, size));
    EXPECT_EQ(Bytes(bytes, bytes + size), (Bytes{4, 4, 4}));
    EXPECT_EQ(firmware.Reads(u"Value"), 0u);
}

}  // namespace
