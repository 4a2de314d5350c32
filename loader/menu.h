#pragma once
// The boot menu: a header and one line per entry, printed once; then a wait
// for one of the entries' keys or for the time-out, and the chosen entry's
// action runs. Entries hold any action, so menus nest.
#include <boost/shared_ptr.hpp>

#include <cstdint>
#include <map>
#include <set>
#include <string>

#include "loader/action.h"

namespace EfiLoader {

// A key as one number: the scan code in the low 16 bits, the character in
// the high 16 bits. 0 is no key at all.
using KeyCode = std::uint32_t;

struct Entry {
    ActionPointer action;
    const xml_element* element = nullptr;
    bool is_default = false;
    std::u16string text;
    KeyCode key = 0;
};

class Menu : public Action {
public:
    using Action::Action;
    Common::Error Load() override;
    Common::Error Run() override;

private:
    Common::Error ReadEntry(const xml_element& entry_element, Entry& entry);

    std::int32_t delay = -1;
    std::u16string topic;
    boost::shared_ptr<Entry> default_entry;
    std::set<KeyCode> keys;
    std::map<KeyCode, boost::shared_ptr<Entry>> entries;
};

// ORs the code of a key name (or of the text's first character) into `code`.
void ParseKeyName(const std::u16string& text, KeyCode& code);

// Waits for one of `keys`, or `timeout_ms` (none when negative); answers the
// key, or 0 for a time-out or a failure of the firmware's events.
KeyCode WaitForKey(const std::set<KeyCode>& keys, std::int32_t timeout_ms);

// Forgets that the console was reset (a new image starts).
void ForgetConsoleReset();

}  // namespace EfiLoader
