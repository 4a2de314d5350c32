#include "firmware/image_path.h"

#include <efi.h>

#include "firmware/device_path.h"
#include "firmware/efi_file.h"
#include "firmware/firmware_access.h"
#include "loader/common/byte_order.h"
#include "loader/common/raise.h"

namespace Uefi {
namespace {

std::u16string cached_image_path;

// The characters of a file path node, up to its terminator or its end.
std::u16string NodePath(const std::uint8_t* node) {
    std::u16string path;
    std::size_t characters = (NodeHeaderAt(node).Length.get() - kNodeHeaderSize) / 2;
    for (std::size_t i = 0; i < characters; ++i) {
        auto c = static_cast<char16_t>(Common::LoadLE16(node + kNodeHeaderSize + 2 * i));
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
    if (node == nullptr) Common::Raise(ERROR_TAG, Common::Failures::EFI_INTERNAL);
    std::u16string result;
    for (bool first = true; NodeHeaderAt(node).Type != kEndDevicePath; first = false) {
        const DevicePathHeader& header = NodeHeaderAt(node);
        if (header.Type != kMediaDevicePath || header.SubType != kFilePathSubtype || header.Length.get() < kNodeHeaderSize) {
            Common::Raise(ERROR_TAG, Common::Failures::EFI_INTERNAL);
        }
        std::u16string part = NodePath(node);
        TrimBackslashes(part, first);
        if (!part.empty()) {
            if (!result.empty() && result.back() != u'\\') result.push_back(u'\\');
            result += part;
        }
        node += header.Length.get();
    }
    if (result.empty()) Common::Raise(ERROR_TAG, Common::Failures::EFI_INTERNAL);
    cached_image_path = result;
    return result;
}

void ForgetImagePath() { cached_image_path.clear(); }

}  // namespace Uefi
