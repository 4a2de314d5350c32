// Leads to refused files, in the host world: one record, replaced by each
// refusal, since the loader stops at its first.
#include "platform/host/file_leads.h"

#include <algorithm>
#include <memory>

namespace HostFirmware {
namespace {

std::unique_ptr<RefusedFile> last_refused;

}  // namespace

const RefusedFile* LastRefusedFile() { return last_refused.get(); }

void ForgetRefusedFile() { last_refused.reset(); }

}  // namespace HostFirmware

namespace EfiLoader {

void NoteRefusedFile(const std::uint8_t guid[16], const std::u16string& path, FileLeadStep step) {
    auto refused = std::make_unique<HostFirmware::RefusedFile>();
    std::copy(guid, guid + 16, refused->guid);
    refused->path = path;
    refused->step = step;
    HostFirmware::last_refused = std::move(refused);
}

}  // namespace EfiLoader
