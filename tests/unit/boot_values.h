#pragma once
// Firmware values laid out by hand from the UEFI standard's formats
// (EFI_LOAD_OPTION, device path nodes, BootOrder), so that tests compare the
// system's reading and writing with bytes it did not make.
#include <efi.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "firmware/firmware_access.h"
#include "platform/host/simulator.h"

namespace BootValues {

using Bytes = std::vector<std::uint8_t>;

inline const EFI_GUID kGlobal = EFI_GLOBAL_VARIABLE;

inline void Put(Bytes& out, std::uint64_t value, int width) {
    for (int i = 0; i < width; ++i, value >>= 8) out.push_back(static_cast<std::uint8_t>(value & 0xFF));
}

inline void PutText(Bytes& out, const std::u16string& text, bool terminated = true) {
    for (char16_t c : text) Put(out, c, 2);
    if (terminated) Put(out, 0, 2);
}

inline Bytes Concat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes& part : parts) out.insert(out.end(), part.begin(), part.end());
    return out;
}

inline Bytes Ascii(const char* text) { return Bytes(text, text + std::strlen(text)); }

// A GUID as the firmware stores it: Data1..3 little endian, then 8 bytes.
inline EFI_GUID Guid(std::uint32_t d1, std::uint16_t d2, std::uint16_t d3, std::uint64_t d4) {
    EFI_GUID guid;
    guid.Data1 = d1;
    guid.Data2 = d2;
    guid.Data3 = d3;
    for (int i = 0; i < 8; ++i) guid.Data4[i] = static_cast<std::uint8_t>(d4 >> (56 - 8 * i));
    return guid;
}

inline Bytes GuidBytes(const EFI_GUID& guid) {
    const auto* raw = reinterpret_cast<const std::uint8_t*>(&guid);
    return Bytes(raw, raw + sizeof(guid));
}

// Media hard drive node: 42 bytes unless `length` says otherwise.
inline Bytes HardDriveNode(std::uint32_t number, std::uint64_t start, std::uint64_t size, const Bytes& signature,
                           std::uint8_t mbr_type, std::uint8_t signature_type, std::uint16_t length = 42) {
    Bytes out = {4, 1};
    Put(out, length, 2);
    Put(out, number, 4);
    Put(out, start, 8);
    Put(out, size, 8);
    Bytes padded = signature;
    padded.resize(16, 0);
    out.insert(out.end(), padded.begin(), padded.end());
    out.push_back(mbr_type);
    out.push_back(signature_type);
    return out;
}

// Media file path node; `extra` bytes of Length beyond the terminated path.
inline Bytes FileNode(const std::u16string& path, int extra = 0) {
    Bytes out = {4, 4};
    Put(out, 4 + 2 * (path.size() + 1) + extra, 2);
    PutText(out, path);
    return out;
}

inline Bytes Node(std::uint8_t type, std::uint8_t subtype, const Bytes& contents) {
    Bytes out = {type, subtype};
    Put(out, 4 + contents.size(), 2);
    out.insert(out.end(), contents.begin(), contents.end());
    return out;
}

inline const Bytes kEndEntire = {0x7F, 0xFF, 4, 0};
inline const Bytes kEndInstance = {0x7F, 0x01, 4, 0};

// EFI_LOAD_OPTION: Attributes, FilePathListLength (the list's real size
// unless given), Description, the list, then the optional data.
inline Bytes LoadOption(std::uint32_t attributes, const std::u16string& description, const Bytes& list,
                        const Bytes& optional = {}, int list_length = -1) {
    Bytes out;
    Put(out, attributes, 4);
    Put(out, list_length < 0 ? list.size() : static_cast<std::size_t>(list_length), 2);
    PutText(out, description);
    out.insert(out.end(), list.begin(), list.end());
    out.insert(out.end(), optional.begin(), optional.end());
    return out;
}

// An entry on a GPT partition of the given number, for the file `path`.
inline Bytes GptEntry(const std::u16string& description, const std::u16string& path, const Bytes& optional = {},
                      std::uint32_t partition = 1) {
    Bytes signature = GuidBytes(Guid(0x11223344, 0x5566, 0x7788, 0x99AABBCCDDEEFF00ull + partition));
    return LoadOption(1, description,
                      Concat({HardDriveNode(partition, 2048, 204800, signature, 2, 2), FileNode(path), kEndEntire}),
                      optional);
}

inline Bytes Numbers(std::initializer_list<std::uint16_t> numbers) {
    Bytes out;
    for (std::uint16_t number : numbers) Put(out, number, 2);
    return out;
}

inline std::u16string BootName(std::uint16_t number) {
    static const char16_t digits[] = u"0123456789ABCDEF";
    std::u16string name = u"Boot";
    for (int shift = 12; shift >= 0; shift -= 4) name.push_back(digits[(number >> shift) & 0xF]);
    return name;
}

// A simulator that the firmware access layer points at.
struct Firmware {
    HostFirmware::Simulator simulator;
    Firmware() { Uefi::InitializeFirmwareAccess(simulator.ImageHandle(), simulator.SystemTable()); }
    HostFirmware::VariableStore& Store() { return simulator.Variables(); }

    void PutGlobal(const std::u16string& name, const Bytes& value, std::uint32_t attributes = 7) {
        Store().Put(kGlobal, name, attributes, value);
    }
    void PutEntry(std::uint16_t number, const Bytes& value) { PutGlobal(BootName(number), value); }
    void PutOrder(std::initializer_list<std::uint16_t> numbers) { PutGlobal(u"BootOrder", Numbers(numbers)); }

    const HostFirmware::StoredVariable* Global(const std::u16string& name) { return Store().Find(kGlobal, name); }
    bool Has(const std::u16string& name) { return Global(name) != nullptr; }
    // The stored BootOrder as numbers; empty when absent.
    std::vector<std::uint16_t> Order() {
        std::vector<std::uint16_t> numbers;
        if (const auto* order = Global(u"BootOrder")) {
            for (std::size_t i = 0; i + 1 < order->data.size(); i += 2) {
                numbers.push_back(static_cast<std::uint16_t>(order->data[i] | (order->data[i + 1] << 8)));
            }
        }
        return numbers;
    }
    std::size_t Writes() { return Store().CountCalls(HostFirmware::VariableCall::Set); }
    std::size_t Reads(const std::u16string& name) { return Store().CountCalls(HostFirmware::VariableCall::Get, name); }
};

}  // namespace BootValues
