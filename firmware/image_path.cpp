#include "firmware/image_path.h"

#include <efi.h>

#include "firmware/efi_file.h"
#include "firmware/firmware_access.h"
#include "loader/common/error.h"
#include "loader/common/error_codes.h"
#include "loader/common/messages.h"

namespace Uefi {
namespace {

std::u16string cached_image_path;

constexpr std::uint8_t kMediaDevicePath = 4;
constexpr std::uint8_t kFilePathSubtype = 4;
constexpr std::uint8_t kEndDevicePath = 0x7F;
constexpr std::size_t kNodeHeader = 4;

[[noreturn]] void FailInternal(std::uint64_t tag) { throw Common::Error(tag, Common::EFI_INTERNAL, Common::Messages::EFI_INTERNAL); }

std::uint16_t NodeLength(const std::uint8_t* node) { return static_cast<std::uint16_t>(node[2] | (node[3] << 8)); }

// The characters of a file path node, up to its terminator or its end.
std::u16string NodePath(const std::uint8_t* node) {
    std::u16string path;
    std::size_t characters = (NodeLength(node) - kNodeHeader) / 2;
    for (std::size_t i = 0; i < characters; ++i) {
        char16_t c = static_cast<char16_t>(node[kNodeHeader + 2 * i] | (node[kNodeHeader + 2 * i + 1] << 8));
        if (c == 0) break;
        path.push_back(c);
    }
    return path;
}

// Trailing backslashes go while more than one character is left; leading
// ones go except in the first node, whose leading backslash is the root.
void TrimBackslashes(std::u16string& part, bool first_node) {
    for (bool changed = true; changed;) {
        changed = false;
        if (part.size() > 1 && part.back() == u'\\') {
            part.pop_back();
            changed = true;
        }
        if (!first_node && !part.empty() && part.front() == u'\\') {
            part.erase(0, 1);
            changed = true;
        }
    }
}

}  // namespace

std::u16string GetImagePath() {
    if (!cached_image_path.empty()) return cached_image_path;
    EFI_LOADED_IMAGE* image = GetLoadedImage();
    auto* node = reinterpret_cast<const std::uint8_t*>(image->FilePath);
    if (node == nullptr) FailInternal(ERROR_TAG);
    std::u16string result;
    for (bool first = true; node[0] != kEndDevicePath; first = false) {
        if (node[0] != kMediaDevicePath || node[1] != kFilePathSubtype || NodeLength(node) < kNodeHeader) {
            FailInternal(ERROR_TAG);
        }
        std::u16string part = NodePath(node);
        TrimBackslashes(part, first);
        if (!part.empty()) {
            if (!result.empty() && result.back() != u'\\') result.push_back(u'\\');
            result += part;
        }
        node += NodeLength(node);
    }
    if (result.empty()) FailInternal(ERROR_TAG);
    cached_image_path = result;
    return result;
}

void ForgetImagePath() { cached_image_path.clear(); }

}  // namespace Uefi
