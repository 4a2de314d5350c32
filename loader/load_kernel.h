#pragma once
// The action that boots a kernel named in the document. Its files are
// opened when the action is built, so a missing kernel makes the whole
// document unusable rather than failing when its entry is chosen.
#include <boost/shared_ptr.hpp>

#include <cstdint>
#include <memory>
#include <string>

#include "files/dir_object.h"
#include "files/file_object.h"
#include "loader/action.h"

namespace EfiLoader {

// Where a file lies: a GPT partition (all-zero GUID: the loader's own
// volume) and a path.
struct FileLocation {
    std::uint8_t guid[16] = {};
    std::u16string path;
    bool OnOwnVolume() const;
};

class LoadKernel : public Action {
public:
    using Action::Action;
    Common::Error Load() override;
    Common::Error Run() override;

    // The root of the volume named by the first GPT location, mounted once
    // for both files. Its files keep the driver alive on their own too.
    std::unique_ptr<rio_dir> volume;
    boost::shared_ptr<ri_file> kernel;
    boost::shared_ptr<ri_file> ramdisk;
    std::string arguments;

    // Off, Load reads the element only and leaves the files closed: the
    // host's document check judges what a document says without any volume.
    static bool opens_files;
};

// Reads the location of the `key` child (`Kernel` or `Ramdisk`) of the
// action's element, with the action's `GPT` element.
Common::Error ParseLocation(const xml_element* element, const std::string& key, FileLocation& location);
Common::Error OpenLocation(LoadKernel& action, const FileLocation& location, boost::shared_ptr<ri_file>& file);

// The GUID text form "%08lX-%04hX-%04hX-%02X%02X-%02X%02X%02X%02X%02X%02X";
// digits of both cases, anything behind the last field ignored.
bool ParseGuid(const std::string& text, std::uint8_t guid[16]);

}  // namespace EfiLoader
