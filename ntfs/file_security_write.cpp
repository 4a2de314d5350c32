// Storing a file's security descriptor: in its own security attribute on
// a 1.2 volume (or where the file has one already), otherwise once per
// volume in $Secure, the file keeping only the id.
#include <cstring>
#include <vector>

#include "loader/common/byte_order.h"
#include "loader/common/raise.h"
#include "ntfs/ntfs_file.h"
#include "ntfs/system_indexes.h"

namespace ntfs {

namespace {

constexpr std::uint16_t kVersionWithOwnDescriptors = 0x102;

void WriteOwnDescriptor(Attribute& attribute, const void* descriptor, std::uint32_t length) {
    if (attribute.write(0, length, descriptor) != length) Common::Raise(ERROR_TAG, Common::Failures::FILE_WRITE);
    if (attribute.resize(length, true) != length) Common::Raise(ERROR_TAG, Common::Failures::FILE_DISK_FULL);
}

}  // namespace

void NTFSFileObject::setSecurity(const void* descriptor, std::uint32_t length) {
    if (driver->read_only) driver->refuse_change(ERROR_TAG);
    AttributeRef own = record.find(kSecurityDescriptor);
    if (!own && driver->version == kVersionWithOwnDescriptors) {
        own = AttributeRef(record.get(), record->createAttribute(kSecurityDescriptor, std::u16string(), true));
    }
    if (own) {
        WriteOwnDescriptor(*own, descriptor, length);
        record->flush();
        return;
    }
    AttributeRef standard = record.find(kStandardInformation);
    if (!standard || !driver->secure_file) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    StandardInformation value{};
    if (standard->read(0, sizeof(value), &value) != sizeof(value)) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_READ);
    }
    value.security_id_.set(driver->secure_file->add(descriptor, length));
    if (standard->write(0, sizeof(value), &value) != sizeof(value)) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_WRITE);
    }
    record->flush();
}

}  // namespace ntfs
