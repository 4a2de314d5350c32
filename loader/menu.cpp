#include "loader/menu.h"

#include "loader/common/error_codes.h"
#include "platform/clib/clib.h"

namespace EfiLoader {

Common::Error Menu::ReadEntry(const xml_element& entry_element, Entry& entry) {
    if (entry_element.name != "Entry") return BadConfiguration(ERROR_TAG);
    entry.element = &entry_element;
    entry.text = entry_element.attribute_or("Text", u"");
    auto key = entry_element.attributes.find("Key");
    if (key == entry_element.attributes.end()) return BadConfiguration(ERROR_TAG);
    ParseKeyName(key->second, entry.key);
    entry.is_default = entry_element.attributes.count("Default") != 0;
    if (entry_element.children.size() != 1) return BadConfiguration(ERROR_TAG);
    return CreateAction(*entry_element.children.front(), entry.action);
}

Common::Error Menu::Load() {
    if (const xml_element* topic_element = element->find_child("Topic")) {
        auto text = topic_element->attributes.find("Text");
        if (text != topic_element->attributes.end()) topic = text->second;
        auto delay_text = topic_element->attributes.find("Delay");
        if (delay_text != topic_element->attributes.end()) delay = static_cast<std::int32_t>(to_number(delay_text->second));
    }
    for (const auto& child : element->children) {
        if (child->name != "Entry") continue;
        auto entry = boost::shared_ptr<Entry>(new Entry);
        Common::Error error = ReadEntry(*child, *entry);
        if (error.Failed()) return error;
        if (entry->is_default) {
            if (default_entry) return BadConfiguration(ERROR_TAG);
            default_entry = entry;
        }
        if (keys.count(entry->key) != 0) return BadConfiguration(ERROR_TAG);
        keys.insert(entry->key);
        entries[entry->key] = entry;
    }
    // A menu with a time-out needs an entry to fall back on.
    if (!default_entry && delay != -1) return BadConfiguration(ERROR_TAG);
    return Action::Load();
}

Common::Error Menu::Run() {
    if (!topic.empty()) Clib::WPrintf(u"%s\n", topic.c_str());
    for (const auto& entry : entries) {
        if (!entry.second->text.empty()) Clib::WPrintf(u"%s\n", entry.second->text.c_str());
    }
    // The product is taken as 32 bits: -1 stays negative, so no time-out.
    auto timeout_ms = static_cast<std::int32_t>(static_cast<std::uint32_t>(delay) * 1000u);
    KeyCode key = WaitForKey(keys, timeout_ms);
    auto chosen = entries.find(key);
    if (key != 0 && chosen != entries.end()) return chosen->second->action->Run();
    if (default_entry) default_entry->action->Run();
    return Common::Success;
}

}  // namespace EfiLoader
