// Key names and the wait for a key of the menu.
#include <efi.h>

#include "firmware/firmware_access.h"
#include "loader/common/raise.h"
#include "loader/menu.h"

namespace EfiLoader {
namespace {

bool console_reset = false;

struct KeyName {
    const char16_t* name;
    KeyCode code;
};

// Longer names that share a start with a shorter one come first.
const KeyName kKeyNames[] = {
    {u"Up", 1},    {u"Down", 2},   {u"Right", 3},  {u"Left", 4},  {u"Home", 5},  {u"End", 6},
    {u"Insert", 7}, {u"Delete", 8}, {u"F10", 20},   {u"F11", 21},  {u"F12", 22},  {u"F1", 11},
    {u"F2", 12},   {u"F3", 13},    {u"F4", 14},    {u"F5", 15},   {u"F6", 16},   {u"F7", 17},
    {u"F8", 18},   {u"F9", 19},    {u"Esc", 23},
};

char16_t Lower(char16_t c) { return c >= u'A' && c <= u'Z' ? static_cast<char16_t>(c - u'A' + u'a') : c; }

// The first letter matches in either case, the others exactly.
bool StartsWithName(const std::u16string& text, const std::u16string& name) {
    if (text.size() < name.size()) return false;
    if (Lower(text[0]) != Lower(name[0])) return false;
    return text.compare(1, name.size() - 1, name, 1, name.size() - 1) == 0;
}

// "Pg" then "Up" or "Down", the letter behind "Pg" in either case too.
KeyCode PageKey(const std::u16string& text) {
    if (text.size() < 3 || Lower(text[0]) != u'p' || text[1] != u'g') return 0;
    std::u16string rest = text.substr(2);
    if (StartsWithName(rest, u"Up")) return 9;
    if (StartsWithName(rest, u"Down")) return 10;
    return 0;
}

struct TimerEvent {
    EFI_EVENT event = nullptr;
    ~TimerEvent() {
        if (event != nullptr) Uefi::BootServices()->CloseEvent(event);
    }
};

}  // namespace

void ForgetConsoleReset() { console_reset = false; }

void ParseKeyName(const std::u16string& text, KeyCode& code) {
    if (text.empty()) return;
    if (KeyCode page = PageKey(text)) {
        code |= page;
        return;
    }
    for (const KeyName& key : kKeyNames) {
        if (StartsWithName(text, key.name)) {
            code |= key.code;
            return;
        }
    }
    code |= static_cast<KeyCode>(text[0]) << 16;
}

KeyCode WaitForKey(const std::set<KeyCode>& keys, std::int32_t timeout_ms) {
    SIMPLE_INPUT_INTERFACE* input = Uefi::SystemTable()->ConIn;
    if (!console_reset) {
        if (input == nullptr) Common::Raise(ERROR_TAG, Common::Failures::EFI_INTERNAL);
        input->Reset(input, TRUE);
        console_reset = true;
    }
    EFI_BOOT_SERVICES* services = Uefi::BootServices();
    TimerEvent timer;
    if (EFI_ERROR(services->CreateEvent(EVT_TIMER, 0, nullptr, nullptr, &timer.event))) {
        timer.event = nullptr;
        return 0;
    }
    if (timeout_ms >= 0) {
        // Computed in 32 bits as the firmware of old did; long delays wrap.
        auto units = static_cast<std::int32_t>(static_cast<std::uint32_t>(timeout_ms) * 10000u);
        if (EFI_ERROR(services->SetTimer(timer.event, TimerRelative, static_cast<std::uint64_t>(static_cast<std::int64_t>(units))))) {
            return 0;
        }
    }
    EFI_EVENT wait_list[2] = {input->WaitForKey, timer.event};
    UINTN count = timeout_ms >= 0 ? 2 : 1;
    for (;;) {
        UINTN index = 0;
        if (EFI_ERROR(services->WaitForEvent(count, wait_list, &index)) || index != 0) return 0;
        EFI_INPUT_KEY key{};
        if (EFI_ERROR(input->ReadKeyStroke(input, &key))) Common::Raise(ERROR_TAG, Common::Failures::EFI_INTERNAL);
        KeyCode code = (static_cast<KeyCode>(key.UnicodeChar) << 16) | key.ScanCode;
        if (keys.count(code) != 0) return code;
    }
}

}  // namespace EfiLoader
