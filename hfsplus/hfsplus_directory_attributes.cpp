// Named attributes added to an entry by name. The attribute goes into the
// attributes tree, and the owner's catalog record gets the flag that tells
// readers to look there: without it the attribute is an orphan that
// checkers report and other systems never see.
#include <string>

#include "hfsplus/attributes_file.h"
#include "hfsplus/catalog_file.h"
#include "hfsplus/hfsplus_directory.h"
#include "hfsplus/hfsplus_driver.h"
#include "hfsplus/hfsplus_metadata.h"
#include "loader/common/raise.h"

namespace hfsplus {

namespace {

constexpr unsigned kAttributesComponent = 5;
constexpr std::uint16_t kHasAttributes = 0x0004;
constexpr std::size_t kMaxAttributeName = 127;

// Finder information and the resource fork live in the catalog record and
// the resource fork; an attribute of their names would shadow them.
bool IsReservedAttribute(const std::u16string& name) {
    return name == u"com.apple.FinderInfo" || name == u"com.apple.ResourceFork";
}

}  // namespace

void HFSPlusDirectoryObject::AddInlineAttribute(const std::u16string& name, const std::u16string& attribute,
                                                const void* data, std::uint32_t size) {
    hfs->refuse_if_unchangeable();
    if (attribute.empty() || attribute.size() > kMaxAttributeName || IsReservedAttribute(attribute) ||
        !hfs->metadata().HasComponent(kAttributesComponent)) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
    }
    TouchDirectory();
    CatalogFile& catalog = hfs->metadata().GetCatalogFile();
    CatalogRecord record = GetChild(name);
    // A link's attributes are its inode's, as its other fields are.
    if (record.is_file() && CatalogFile::IsHardLink(record)) record = catalog.ResolveHardLink(record.id());
    if (!record.is_folder() && !record.is_file()) Common::Raise(ERROR_TAG, Common::Failures::FILE_NOT_FOUND);
    hfs->metadata().GetAttributesFile().AddInlineAttribute(record.id(), HFSPlusString(attribute), data, size);
    if (record.is_folder()) {
        record.folder().flags_.set(record.folder().flags() | kHasAttributes);
        catalog.WriteFolderRecord(record.id(), record);
    } else {
        record.file().flags_.set(record.file().flags() | kHasAttributes);
        catalog.WriteFileRecord(record.id(), record);
    }
}

}  // namespace hfsplus
