#include "loader/document_way.h"

#include <memory>

#include "firmware/efi_file.h"
#include "firmware/image_path.h"
#include "loader/common/error_codes.h"

namespace EfiLoader {

std::u16string DocumentPath(const std::u16string& image_path) {
    std::size_t dot = image_path.rfind(u'.');
    if (dot == std::u16string::npos) return std::u16string();
    return image_path.substr(0, dot + 1) + u"xml";
}

void RunDocumentWay() {
    std::u16string path = DocumentPath(Uefi::GetImagePath());
    if (path.empty()) return;
    std::unique_ptr<ri_file> document = Uefi::OpenFile(path);
    // The document readers and the actions they feed are not built yet: a
    // document that opens is refused as a configuration the loader cannot
    // carry out.
    throw Common::Error(ERROR_TAG, Common::BAD_CONFIGURATION);
}

}  // namespace EfiLoader
