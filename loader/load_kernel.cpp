#include "loader/load_kernel.h"

#include <algorithm>
#include <memory>

#include "firmware/efi_file.h"
#include "launch/boot_linux.h"
#include "loader/file_leads.h"
#include "loader/mount_volume.h"
#include "loader/partition_disk.h"
#include "loader/common/error_codes.h"
#include "loader/common/messages.h"
#include "platform/clib/clib.h"

namespace EfiLoader {
namespace {

// One hexadecimal field as the C library's scanning reads it: white space
// before it, then within `width` characters an optional sign, an optional
// "0x" and the digits. A minus negates modulo the field's width.
bool ScanHex(const std::string& text, std::size_t& at, unsigned width, std::uint64_t& value) {
    while (at < text.size() && (text[at] == ' ' || (text[at] >= '\t' && text[at] <= '\r'))) ++at;
    bool negative = false;
    if (at < text.size() && (text[at] == '+' || text[at] == '-')) {
        negative = text[at] == '-';
        ++at;
        if (--width == 0) return false;
    }
    if (at + 1 < text.size() && text[at] == '0' && (text[at + 1] == 'x' || text[at + 1] == 'X') && width > 2) {
        // "0x" counts towards the width, as in the C library.
        at += 2;
        width -= 2;
    }
    value = 0;
    unsigned digits = 0;
    for (; digits < width && at < text.size(); ++digits, ++at) {
        char c = text[at];
        int digit = c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
        if (digit < 0) break;
        value = value * 16 + static_cast<unsigned>(digit);
    }
    if (negative) value = 0 - value;
    return digits != 0;
}

bool Expect(const std::string& text, std::size_t& at, char c) {
    if (at >= text.size() || text[at] != c) return false;
    ++at;
    return true;
}

}  // namespace

bool FileLocation::OnOwnVolume() const {
    return std::all_of(guid, guid + 16, [](std::uint8_t byte) { return byte == 0; });
}

bool ParseGuid(const std::string& text, std::uint8_t guid[16]) {
    std::size_t at = 0;
    std::uint64_t fields[11];
    const unsigned widths[11] = {8, 4, 4, 2, 2, 2, 2, 2, 2, 2, 2};
    for (int i = 0; i < 11; ++i) {
        if ((i == 1 || i == 2 || i == 3 || i == 5) && !Expect(text, at, '-')) return false;
        if (!ScanHex(text, at, widths[i], fields[i])) return false;
    }
    // The first three fields are numbers in the machine's order (little-endian).
    for (int byte = 0; byte < 4; ++byte) guid[byte] = static_cast<std::uint8_t>(fields[0] >> (8 * byte));
    for (int byte = 0; byte < 2; ++byte) guid[4 + byte] = static_cast<std::uint8_t>(fields[1] >> (8 * byte));
    for (int byte = 0; byte < 2; ++byte) guid[6 + byte] = static_cast<std::uint8_t>(fields[2] >> (8 * byte));
    for (int i = 3; i < 11; ++i) guid[5 + i] = static_cast<std::uint8_t>(fields[i]);
    return true;
}

Common::Error ParseLocation(const xml_element* element, const std::string& key, FileLocation& location) {
    std::fill(location.guid, location.guid + 16, 0);
    const xml_element* child = element->find_child(key);
    if (child == nullptr) return BadConfiguration(ERROR_TAG);
    if (const xml_element* gpt = element->find_child("GPT")) {
        auto guid = gpt->attributes.find("Guid");
        if (guid != gpt->attributes.end() && !ParseGuid(to_bytes(guid->second), location.guid)) return BadConfiguration(ERROR_TAG);
    }
    auto path = child->attributes.find("Path");
    if (path == child->attributes.end()) return BadConfiguration(ERROR_TAG);
    location.path = path->second;
    return Common::Success;
}

Common::Error OpenLocation(LoadKernel& action, const FileLocation& location, boost::shared_ptr<ri_file>& file) {
    if (location.OnOwnVolume()) {
        std::u16string path = location.path;
        std::replace(path.begin(), path.end(), u'/', u'\\');
        try {
            file.reset(Uefi::OpenFile(path).release());
        } catch (const Common::Error&) {
            NoteRefusedFile(location.guid, path, FileLeadStep::file);
            throw;
        }
        return Common::Success;
    }
    if (!action.volume) {
        std::unique_ptr<Fdisk::SimpleDisk> disk;
        Common::Error error = FindPartitionDisk(location.guid, disk);
        if (error.Failed()) {
            NoteRefusedFile(location.guid, location.path, FileLeadStep::partition);
            return error;
        }
        action.volume.reset(MountVolume(kDriverTable[0].factory, disk));
        if (!action.volume) {
            NoteRefusedFile(location.guid, location.path, FileLeadStep::volume);
            return Common::Error(ERROR_TAG, Common::VOLUME_NOT_MOUNTED);
        }
    }
    const char16_t* leaf = location.path.c_str();
    std::unique_ptr<rio_dir> parent(action.volume->open_parent(leaf));
    if (parent) file.reset(parent->open_for_update(leaf, true));
    if (!file || file->failed()) {
        NoteRefusedFile(location.guid, location.path, FileLeadStep::file);
        return Common::Error(ERROR_TAG, Common::VOLUME_NOT_MOUNTED);
    }
    return Common::Success;
}

Common::Error LoadKernel::Load() {
    FileLocation location;
    Common::Error error = ParseLocation(element, "Kernel", location);
    if (!error.Failed() && opens_files) error = OpenLocation(*this, location, kernel);
    if (error.Failed()) return error;
    error = ParseLocation(element, "Ramdisk", location);
    if (!error.Failed() && opens_files) error = OpenLocation(*this, location, ramdisk);
    if (error.Failed()) return error;
    const xml_element* kernel_element = element->find_child("Kernel");
    if (kernel_element == nullptr) return BadConfiguration(ERROR_TAG);
    auto arguments_value = kernel_element->attributes.find("Arguments");
    if (arguments_value != kernel_element->attributes.end()) arguments = to_bytes(arguments_value->second);
    return Action::Load();
}

Common::Error LoadKernel::Run() {
    if (!loading.empty()) Clib::WPrintf(u"%s\n", loading.c_str());
    Launch::BootLinux(*kernel, ramdisk.get(), arguments);
    return Common::Success;
}

bool LoadKernel::opens_files = true;

}  // namespace EfiLoader
