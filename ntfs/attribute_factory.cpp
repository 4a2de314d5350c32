#include "ntfs/attribute_factory.h"

#include "ntfs/compressed_attribute.h"
#include "ntfs/encrypted_attribute.h"
#include "ntfs/res_attribute.h"

namespace ntfs {

Attribute* MakeAttribute(NTFSDriver* driver, BaseFileRecord* record, AttributeRecord* header) {
    if (!header->non_resident()) return new ResAttribute(driver, record, header);
    const std::uint16_t flags = header->flags();
    if ((flags & (kFlagSparse | kCompressionMask)) != 0) return new CompressedAttribute(driver, record, header);
    if ((flags & kFlagEncrypted) != 0) return new EncryptedAttribute(driver, record, header);
    return new NonresAttribute(driver, record, header);
}

}  // namespace ntfs
