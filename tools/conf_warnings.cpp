// What the loader accepts but a person rarely means: names the loader never
// looks at, key names read as another key, time-outs that are not what they
// say, and partition type GUIDs where a partition's own GUID belongs. Keys
// and GUIDs are read through the loader's own readers.
#include <cstdio>
#include <cstring>

#include "files/utf_conversion.h"
#include "loader/load_kernel.h"
#include "loader/menu.h"
#include "tools/conf_checks.h"

namespace MorvaneTool {
namespace {

struct known_element {
    const char* name;
    const char* attributes[4];
};

// Every element the loader reads and the attributes it reads of each; the
// root's name and attributes are not looked at.
const known_element kSchema[] = {
    {"Menu", {}},
    {"Topic", {"Text", "Delay"}},
    {"Entry", {"Key", "Text", "Default"}},
    {"LoadKernel", {}},
    {"Kernel", {"Path", "Arguments"}},
    {"Ramdisk", {"Path"}},
    {"GPT", {"Guid"}},
    {"Loading", {"Text"}},
    {"Chainload", {}},
    {"Jobs", {}},
    {"Rename", {"FileNameSource", "FileNameTarget"}},
};

const char* const kKeyNames[] = {"Up",  "Down", "Right", "Left", "Home", "End", "Insert", "Delete", "PgUp", "PgDown",
                                 "F1",  "F2",   "F3",    "F4",   "F5",   "F6",  "F7",     "F8",     "F9",   "F10",
                                 "F11", "F12",  "Esc"};

struct type_guid {
    const char* text;
    const char* meaning;
};

const type_guid kTypeGuids[] = {
    {"C12A7328-F81F-11D2-BA4B-00A0C93EC93B", "EFI system partition"},
    {"0FC63DAF-8483-4772-8E79-3D69D8477DE4", "Linux filesystem data"},
    {"EBD0A0A2-B9E5-4433-87C0-68B6B72699C7", "Microsoft basic data"},
    {"E3C9E316-0B5C-4DB8-817D-F92DF00215AE", "Microsoft reserved"},
    {"0657FD6D-A4AB-43C4-84E5-0933C84B4F4F", "Linux swap"},
    {"E6D6D379-F507-44C2-A23C-238F2A3DF928", "Linux LVM"},
    {"A19D880F-05FC-4D3B-A006-743F0F84911E", "Linux RAID"},
    {"4F68BCE3-E8CD-4DB1-96E7-FBCAF984B709", "Linux x86-64 root"},
    {"933AC7E1-2EB4-4F13-B844-0E14E2AEF915", "Linux /home"},
    {"21686148-6449-6E6F-744E-656564454649", "BIOS boot"},
    {"48465300-0000-11AA-AA11-00306543ECAC", "Apple HFS+"},
};

const known_element* FindKnown(const std::string& name) {
    for (const known_element& known : kSchema) {
        if (name == known.name) return &known;
    }
    return nullptr;
}

bool KnowsAttribute(const known_element& known, const std::string& attribute) {
    if (attribute == "xml:space") return true;
    for (const char* name : known.attributes) {
        if (name != nullptr && attribute == name) return true;
    }
    return false;
}

std::string Quoted(const std::u16string& text) { return "'" + utf16_to_utf8(text.data(), text.size()) + "'"; }

std::string Decimal(std::int64_t value) {
    char digits[24];
    std::snprintf(digits, sizeof digits, "%lld", static_cast<long long>(value));
    return digits;
}

EfiLoader::KeyCode KeyOf(const std::u16string& text) {
    EfiLoader::KeyCode code = 0;
    EfiLoader::ParseKeyName(text, code);
    return code;
}

// How the loader reads `text`, when that is not what it spells: a key
// name or one character, both in either case of the first letter.
std::string KeyMisreading(const std::u16string& text) {
    if (text.size() <= 1) return std::string();
    const EfiLoader::KeyCode code = KeyOf(text);
    for (const char* name : kKeyNames) {
        std::u16string spelled(name, name + std::strlen(name));
        if (KeyOf(spelled) != code) continue;
        if (spelled.size() == text.size() && text.substr(1) == spelled.substr(1)) return std::string();
        return "is read as the key " + std::string(name);
    }
    return "is read as the character " + Quoted(text.substr(0, 1));
}

void WarnKey(const xml_element& entry, std::vector<std::string>& warnings) {
    auto key = entry.attributes.find("Key");
    if (key == entry.attributes.end()) return;
    std::string misreading = KeyMisreading(key->second);
    if (!misreading.empty()) warnings.push_back(ElementPlace(entry) + ": Key " + Quoted(key->second) + " " + misreading);
}

bool IsDecimal(const std::u16string& text) {
    if (text.empty()) return false;
    for (char16_t unit : text) {
        if (unit < u'0' || unit > u'9') return false;
    }
    return true;
}

// The time-out the loader's timer is given, in 100 ns units, computed in
// 32 bits as the loader computes it; negative is no time-out at all.
std::int64_t TimerUnits(std::uint32_t delay) {
    auto milliseconds = static_cast<std::int32_t>(delay * 1000u);
    if (milliseconds < 0) return -1;
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(milliseconds) * 10000u);
}

void WarnDelay(const xml_element& topic, std::vector<std::string>& warnings) {
    auto delay_text = topic.attributes.find("Delay");
    if (delay_text == topic.attributes.end()) return;
    const std::uint32_t delay = to_number(delay_text->second);
    const std::string lead = ElementPlace(topic) + ": Delay " + Quoted(delay_text->second);
    // -1 is the loader's own "no time-out".
    if (static_cast<std::int32_t>(delay) == -1) return;
    if (!IsDecimal(delay_text->second)) {
        warnings.push_back(lead + " is not a number of seconds; it is read as " + Decimal(delay));
        return;
    }
    const std::int64_t units = TimerUnits(delay);
    if (units != static_cast<std::int64_t>(delay) * 10000000) {
        warnings.push_back(lead + " wraps in the loader's 32-bit time-out: " +
                           (units < 0 ? std::string("the menu never times out")
                                      : "it times out after " + Decimal(units / 10000000) + " s") +
                           " (214 s at most)");
    }
}

void WarnGuid(const xml_element& gpt, std::vector<std::string>& warnings) {
    auto guid_text = gpt.attributes.find("Guid");
    if (guid_text == gpt.attributes.end()) return;
    std::uint8_t guid[16];
    if (!EfiLoader::ParseGuid(to_bytes(guid_text->second), guid)) return;
    for (const type_guid& type : kTypeGuids) {
        std::uint8_t known[16];
        if (EfiLoader::ParseGuid(type.text, known) && std::memcmp(guid, known, 16) == 0) {
            warnings.push_back(ElementPlace(gpt) + ": Guid " + Quoted(guid_text->second) +
                               " is the partition type GUID '" + type.meaning +
                               "', not a partition's own unique GUID");
            return;
        }
    }
}

// Where the loader builds an action or a job from whatever element stands:
// the root's first child, a child of the jobs list, an entry's only child.
// An unknown name there is refused by the rules, which say so already.
bool InActionSlot(const xml_element& element) {
    const xml_element* parent = element.parent;
    if (parent == nullptr) return false;
    if (parent->parent == nullptr) return parent->children.front().get() == &element;
    if (parent->name == "Jobs") return parent->parent->parent == nullptr && parent->parent->find_child("Jobs") == parent;
    return parent->name == "Entry" && parent->children.size() == 1;
}

void WarnElement(const xml_element& element, std::vector<std::string>& warnings) {
    const known_element* known = FindKnown(element.name);
    if (known == nullptr) {
        if (!InActionSlot(element)) warnings.push_back(ElementPlace(element) + ": element unknown to the loader");
        return;
    }
    for (const auto& attribute : element.attributes) {
        if (!KnowsAttribute(*known, attribute.first)) {
            warnings.push_back(ElementPlace(element) + ": attribute '" + attribute.first +
                               "' unknown to the loader, which skips it");
        }
    }
    if (element.name == "Entry") WarnKey(element, warnings);
    if (element.name == "Topic") WarnDelay(element, warnings);
    if (element.name == "GPT") WarnGuid(element, warnings);
}

}  // namespace

std::string ElementPlace(const xml_element& element) {
    std::string place = "<" + element.name + ">";
    if (element.line == 0) return place;
    return Decimal(element.line) + ":" + Decimal(element.column) + ": " + place;
}

std::vector<std::string> CheckWarnings(const xml_element& root) {
    std::vector<std::string> warnings;
    // Without recursion: a document may nest deeply.
    std::vector<const xml_element*> pending;
    for (auto child = root.children.rbegin(); child != root.children.rend(); ++child) pending.push_back(child->get());
    while (!pending.empty()) {
        const xml_element* element = pending.back();
        pending.pop_back();
        WarnElement(*element, warnings);
        for (auto child = element->children.rbegin(); child != element->children.rend(); ++child) {
            pending.push_back(child->get());
        }
    }
    return warnings;
}

}  // namespace MorvaneTool
