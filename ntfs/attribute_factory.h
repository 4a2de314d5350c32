#pragma once
// Which attribute class serves a header: a resident value ResAttribute;
// a non-resident one with the sparse or a compression bit
// CompressedAttribute, with the encryption bit EncryptedAttribute, else
// NonresAttribute.
#include "ntfs/attribute.h"

namespace ntfs {

Attribute* MakeAttribute(NTFSDriver* driver, BaseFileRecord* record, AttributeRecord* header);

}  // namespace ntfs
