#include "loader/document_way.h"

#include <memory>

#include "firmware/efi_file.h"
#include "firmware/image_path.h"
#include "loader/configuration_file.h"

namespace EfiLoader {
namespace {

void ThrowIfFailed(const Common::Error& error) {
    if (error.Failed()) throw error;
}

}  // namespace

std::u16string DocumentPath(const std::u16string& image_path) {
    std::size_t dot = image_path.rfind(u'.');
    if (dot == std::u16string::npos) return std::u16string();
    return image_path.substr(0, dot + 1) + u"xml";
}

void RunDocumentWay(ConfigurationFile& document) {
    std::u16string path = DocumentPath(Uefi::GetImagePath());
    if (path.empty()) return;
    {
        std::unique_ptr<ri_file> file = Uefi::OpenFile(path);
        ThrowIfFailed(document.Load(*file));
    }
    std::uint32_t jobs = document.GetJobCount();
    for (std::uint32_t index = 0; index < jobs; ++index) {
        ActionPointer job;
        ThrowIfFailed(document.GetJob(index, job));
        ThrowIfFailed(job->Run());
    }
    ActionPointer main_action;
    ThrowIfFailed(document.GetMainAction(main_action));
    ThrowIfFailed(main_action->Run());
}

}  // namespace EfiLoader
