#pragma once
// A copy of one catalog record, taken out of its node so that it stays
// valid whatever the tree reads next. Its size was checked against its type
// when it was taken: a folder record is 88 bytes, a file record 248, a
// thread 10 plus its name.
#include <cstdint>
#include <cstring>

#include "hfsplus/hfsplus_records.h"
#include "hfsplus/hfsplus_string.h"

namespace hfsplus {

struct CatalogRecord {
    static constexpr std::size_t kMaxSize = 520;

    alignas(8) unsigned char bytes[kMaxSize] = {};
    std::size_t size = 0;
    // The key it stood under.
    std::uint32_t parent_id = 0;
    HFSPlusString name;

    std::uint16_t type() const { return size >= 2 ? Common::LoadBE16(bytes) : 0; }
    bool is_folder() const { return type() == kFolderRecord; }
    bool is_file() const { return type() == kFileRecord; }
    bool is_thread() const { return type() == kFolderThreadRecord || type() == kFileThreadRecord; }
    const HFSPlusCatalogFolder& folder() const { return *reinterpret_cast<const HFSPlusCatalogFolder*>(bytes); }
    const HFSPlusCatalogFile& file() const { return *reinterpret_cast<const HFSPlusCatalogFile*>(bytes); }
    const HFSPlusCatalogThread& thread() const { return *reinterpret_cast<const HFSPlusCatalogThread*>(bytes); }
    // The same for a change of the copy; the caller knows the type.
    HFSPlusCatalogFolder& folder() { return *reinterpret_cast<HFSPlusCatalogFolder*>(bytes); }
    HFSPlusCatalogFile& file() { return *reinterpret_cast<HFSPlusCatalogFile*>(bytes); }
    // The folder's or the file's own id; 0 for a thread.
    std::uint32_t id() const { return is_folder() ? folder().folderID() : is_file() ? file().fileID() : 0; }
    // The type bits of fileMode (folder and file records alike).
    std::uint16_t mode_type() const { return static_cast<std::uint16_t>(mode() & kModeTypeMask); }
    std::uint16_t mode() const { return is_folder() ? folder().permissions().fileMode() : is_file() ? file().permissions().fileMode() : 0; }
};

}  // namespace hfsplus
