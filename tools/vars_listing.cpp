// The listing of morvane vars: the boot manager's variables of an OVMF
// variable file (a copy of a machine's NVRAM) the way `efibootmgr -v` lists
// a running machine's: BootNext, BootCurrent, Timeout, BootOrder, then every
// Boot#### with its description, device path and optional data. The load
// options are read by the system's own parser, so an entry the loader would
// refuse shows as damaged here too.
#include <efi.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "firmware/byte_cursor.h"
#include "firmware/load_option.h"
#include "loader/common/byte_order.h"
#include "loader/common/error.h"
#include "platform/clib/clib.h"
#include "platform/host/variable_store.h"
#include "tools/fs_volume.h"
#include "tools/vars_command.h"

namespace MorvaneTool {
namespace {

const EFI_GUID kGlobalVariable = EFI_GLOBAL_VARIABLE;

using Bytes = std::vector<std::uint8_t>;

std::string Format(const char* format, ...) {
    char buffer[256];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(buffer, sizeof(buffer), format, arguments);
    va_end(arguments);
    return buffer;
}

std::string Hex(const std::uint8_t* bytes, std::size_t size) {
    std::string text;
    for (std::size_t i = 0; i < size; ++i) text += Format("%02x", bytes[i]);
    return text;
}

std::string Utf8(const std::u16string& text) { return Clib::ToMultibyte(text.data(), text.size()); }

// The text form of one node as the UEFI standard writes it, for the
// kinds a boot entry usually holds; any other kind in its generic form.
std::string NodeText(const std::uint8_t* node, std::size_t length) {
    const std::uint8_t type = node[0], subtype = node[1];
    const std::uint8_t* data = node + 4;
    const std::size_t size = length - 4;
    auto has = [size](std::size_t needed) { return size >= needed; };
    if (type == 1 && subtype == 1 && has(2)) return Format("Pci(0x%X,0x%X)", data[1], data[0]);
    if (type == 1 && subtype == 5 && has(4)) return Format("Ctrl(0x%X)", static_cast<unsigned>(Common::LoadLE32(data)));
    if (type == 1 && subtype == 4 && has(16)) return "VenHw(" + GuidText(data) + ")";
    if (type == 2 && subtype == 1 && has(8)) {
        const auto hid = static_cast<std::uint32_t>(Common::LoadLE32(data));
        const auto uid = static_cast<unsigned>(Common::LoadLE32(data + 4));
        if ((hid & 0xFFFF) == 0x41D0) {
            switch (hid >> 16) {
                case 0x0A03: return Format("PciRoot(0x%X)", uid);
                case 0x0A08: return Format("PcieRoot(0x%X)", uid);
                case 0x0604: return Format("Floppy(0x%X)", uid);
                default: return Format("Acpi(PNP%04X,0x%X)", hid >> 16, uid);
            }
        }
        return Format("Acpi(0x%08X,0x%X)", hid, uid);
    }
    if (type == 3 && subtype == 1 && has(4)) {
        return Format("Ata(%s,%s,0x%X)", data[0] ? "Secondary" : "Primary", data[1] ? "Slave" : "Master",
                      static_cast<unsigned>(Common::LoadLE16(data + 2)));
    }
    if (type == 3 && subtype == 2 && has(4)) {
        return Format("Scsi(0x%X,0x%X)", static_cast<unsigned>(Common::LoadLE16(data)), static_cast<unsigned>(Common::LoadLE16(data + 2)));
    }
    if (type == 3 && subtype == 5 && has(2)) return Format("USB(0x%X,0x%X)", data[0], data[1]);
    if (type == 3 && subtype == 11 && has(33)) return "MAC(" + Hex(data, 6) + Format(",0x%X)", data[32]);
    if (type == 3 && subtype == 18 && has(6)) {
        return Format("Sata(0x%X,0x%X,0x%X)", static_cast<unsigned>(Common::LoadLE16(data)),
                      static_cast<unsigned>(Common::LoadLE16(data + 2)), static_cast<unsigned>(Common::LoadLE16(data + 4)));
    }
    if (type == 3 && subtype == 23 && has(12)) {
        std::string eui;
        for (int i = 0; i < 8; ++i) eui += Format(i == 0 ? "%02X" : "-%02X", data[4 + i]);
        return Format("NVMe(0x%X,", static_cast<unsigned>(Common::LoadLE32(data))) + eui + ")";
    }
    if (type == 4 && subtype == 1 && has(38)) {
        const unsigned number = static_cast<unsigned>(Common::LoadLE32(data));
        const unsigned long long start = Common::LoadLE64(data + 4), blocks = Common::LoadLE64(data + 12);
        const std::uint8_t signature_type = data[37];
        std::string signature;
        if (signature_type == 1) {
            signature = Format("MBR,0x%08X", static_cast<unsigned>(Common::LoadLE32(data + 20)));
        } else if (signature_type == 2) {
            signature = "GPT," + GuidText(data + 20);
        } else {
            signature = Format("%u,0", signature_type);
        }
        return Format("HD(%u,", number) + signature + Format(",0x%llX,0x%llX)", start, blocks);
    }
    if (type == 4 && subtype == 2 && has(20)) {
        return Format("CDROM(0x%X,0x%llX,0x%llX)", static_cast<unsigned>(Common::LoadLE32(data)),
                      static_cast<unsigned long long>(Common::LoadLE64(data + 4)),
                      static_cast<unsigned long long>(Common::LoadLE64(data + 12)));
    }
    if (type == 4 && subtype == 3 && has(16)) return "VenMedia(" + GuidText(data) + ")";
    if (type == 4 && subtype == 4) {
        std::u16string path;
        for (std::size_t i = 0; i + 1 < size; i += 2) {
            auto c = static_cast<char16_t>(Common::LoadLE16(data + i));
            if (c == 0) break;
            path.push_back(c);
        }
        return Utf8(path);
    }
    if (type == 4 && subtype == 6 && has(16)) return "FvFile(" + GuidText(data) + ")";
    if (type == 4 && subtype == 7 && has(16)) return "Fv(" + GuidText(data) + ")";
    if (type == 4 && subtype == 8 && has(16)) {
        return Format("Offset(0x%llX,0x%llX)", static_cast<unsigned long long>(Common::LoadLE64(data)),
                      static_cast<unsigned long long>(Common::LoadLE64(data + 8)));
    }
    return Format("Path(%u,%u,", type, subtype) + Hex(data, size) + ")";
}

// The device path list as text: nodes joined by '/', instances by ','.
std::string PathText(const std::uint8_t* list, std::size_t size) {
    std::string text;
    bool node_before = false;
    for (std::size_t at = 0; at < size;) {
        if (size - at < 4) return text + "<cut>";
        const std::size_t length = static_cast<std::size_t>(Common::LoadLE16(list + at + 2));
        if (length < 4 || length > size - at) return text + "<bad node length>";
        if (list[at] == 0x7F) {
            if (list[at + 1] == 0xFF) break;
            text += ',';
            node_before = false;
        } else {
            if (node_before) text += '/';
            text += NodeText(list + at, length);
            node_before = true;
        }
        at += length;
    }
    return text;
}

bool PrintableByte(std::uint32_t c) { return c >= 0x20 && c < 0x7F; }

bool Printable(const Bytes& data) { return !data.empty() && std::all_of(data.begin(), data.end(), PrintableByte); }

// Load options for an application are UCS-2 text with a terminator, and
// a one-shot tag may stand behind them: the text, and what follows it.
bool LeadingWideText(const Bytes& data, std::string& text, Bytes& rest) {
    text.clear();
    for (std::size_t at = 0; at + 1 < data.size(); at += 2) {
        const std::uint32_t unit = static_cast<std::uint32_t>(Common::LoadLE16(data.data() + at));
        if (unit == 0) {
            rest.assign(data.begin() + static_cast<std::ptrdiff_t>(at + 2), data.end());
            return !text.empty();
        }
        if (!PrintableByte(unit)) return false;
        text.push_back(static_cast<char>(unit));
    }
    return false;
}

std::string DataText(const Bytes& data) {
    std::string text = " data:" + Hex(data.data(), data.size());
    if (Printable(data)) return text + " \"" + std::string(data.begin(), data.end()) + "\"";
    std::string wide;
    Bytes rest;
    if (!LeadingWideText(data, wide, rest)) return text;
    text += " u\"" + wide + "\"";
    if (Printable(rest)) text += " \"" + std::string(rest.begin(), rest.end()) + "\"";
    return text;
}

std::string EntryLine(std::uint16_t number, const Bytes& value) {
    std::string line = Format("Boot%04X", number);
    Uefi::ByteCursor cursor(value.data(), static_cast<std::int32_t>(std::min<std::size_t>(value.size(), 0x7FFFFFFF)));
    Uefi::LoadOptionsImpl options;
    Common::Error error = options.Parse(cursor);
    if (error) {
        std::u16string message = error.Message();
        return line + "? <damaged load option: code " + Format("0x%X", error.Code()) +
               (message.empty() ? "" : ", " + Utf8(message)) + ">";
    }
    std::u16string description;
    static_cast<void>(options.GetDescription(description));
    line += (options.Attributes() & Uefi::kLoadOptionActive) != 0 ? "* " : "  ";
    line += Utf8(description);
    // The list stands between the description and the optional data.
    const std::size_t list_end = static_cast<std::size_t>(cursor.next - value.data());
    const std::size_t list_start = 6 + 2 * (description.size() + 1);
    line += '\t';
    if (list_start <= list_end) line += PathText(value.data() + list_start, list_end - list_start);
    const Bytes optional(cursor.next, cursor.next + cursor.left);
    if (!optional.empty()) line += DataText(optional);
    return line;
}

bool BootNumber(const std::u16string& name, std::uint16_t& number) {
    if (name.size() != 8 || name.compare(0, 4, u"Boot") != 0) return false;
    number = 0;
    for (std::size_t i = 4; i < 8; ++i) {
        char16_t c = name[i];
        int digit = c >= u'0' && c <= u'9' ? c - u'0' : c >= u'A' && c <= u'F' ? c - u'A' + 10 : -1;
        if (digit < 0) return false;
        number = static_cast<std::uint16_t>(number * 16 + digit);
    }
    return true;
}

void PrintNumberVariable(const HostFirmware::VariableStore& store, const char16_t* name, const char* label) {
    const HostFirmware::StoredVariable* variable = store.Find(kGlobalVariable, name);
    if (variable == nullptr) return;
    if (variable->data.size() < 2) {
        std::printf("%s: <%zu bytes>\n", label, variable->data.size());
        return;
    }
    std::printf("%s: %04X\n", label, static_cast<unsigned>(Common::LoadLE16(variable->data.data())));
}

}  // namespace

void PrintBootVariables(const HostFirmware::VariableStore& store) {
    PrintNumberVariable(store, u"BootNext", "BootNext");
    PrintNumberVariable(store, u"BootCurrent", "BootCurrent");
    if (const auto* timeout = store.Find(kGlobalVariable, u"Timeout")) {
        if (timeout->data.size() >= 2) {
            std::printf("Timeout: %u seconds\n", static_cast<unsigned>(Common::LoadLE16(timeout->data.data())));
        }
    }
    if (const auto* order = store.Find(kGlobalVariable, u"BootOrder")) {
        std::string numbers;
        for (std::size_t at = 0; at + 2 <= order->data.size(); at += 2) {
            numbers += Format(at == 0 ? "%04X" : ",%04X", static_cast<unsigned>(Common::LoadLE16(order->data.data() + at)));
        }
        if (order->data.size() % 2 != 0) numbers += " <odd last byte>";
        std::printf("BootOrder: %s\n", numbers.c_str());
    }

    std::vector<std::pair<std::uint16_t, const HostFirmware::StoredVariable*>> entries;
    for (const auto& variable : store.All()) {
        std::uint16_t number = 0;
        if (std::memcmp(&variable.vendor, &kGlobalVariable, sizeof(EFI_GUID)) == 0 && BootNumber(variable.name, number)) {
            entries.emplace_back(number, &variable);
        }
    }
    std::sort(entries.begin(), entries.end(),
              [](const auto& a, const auto& b) { return a.first < b.first; });
    // A fresh variable file holds none; silence would read as a failure.
    if (entries.empty()) std::printf("no boot entries\n");
    for (const auto& entry : entries) std::printf("%s\n", EntryLine(entry.first, entry.second->data).c_str());
}

}  // namespace MorvaneTool
