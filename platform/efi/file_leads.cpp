// Leads to refused files, in the firmware world: the console report is all
// a person sees there, so nothing is kept.
#include "loader/file_leads.h"

namespace EfiLoader {

void NoteRefusedFile(const std::uint8_t*, const std::u16string&, FileLeadStep) {}

}  // namespace EfiLoader
