#include "ntfs/file_security.h"

#include <initializer_list>

#include "loader/common/byte_order.h"
#include "loader/common/raise.h"
#include "ntfs/ntfs_driver.h"
#include "ntfs/ntfs_records.h"
#include "ntfs/system_indexes.h"

namespace ntfs {

namespace {

// A descriptor lives in one attribute or one $SDS record; neither goes
// past the 256 KiB blocks of $SDS.
constexpr std::uint64_t kMaxDescriptorSize = 0x40000;

// Self-relative, with a DACL: SE_SELF_RELATIVE | SE_DACL_PRESENT.
constexpr std::uint16_t kBuiltInControl = 0x8004;
constexpr std::uint32_t kFullAccess = 0x1F01FF;
constexpr std::uint8_t kAccessAllowed = 0;

// S-1-5-<sub authorities>
std::vector<unsigned char> NtAuthoritySid(std::initializer_list<std::uint32_t> sub_authorities) {
    std::vector<unsigned char> sid = {1, static_cast<unsigned char>(sub_authorities.size()), 0, 0, 0, 0, 0, 5};
    for (std::uint32_t sub : sub_authorities) {
        unsigned char bytes[4];
        Common::StoreLE32(bytes, sub);
        sid.insert(sid.end(), bytes, bytes + 4);
    }
    return sid;
}

void Append16(std::vector<unsigned char>& out, std::uint16_t value) {
    unsigned char bytes[2];
    Common::StoreLE16(bytes, value);
    out.insert(out.end(), bytes, bytes + 2);
}

void Append32(std::vector<unsigned char>& out, std::uint32_t value) {
    unsigned char bytes[4];
    Common::StoreLE32(bytes, value);
    out.insert(out.end(), bytes, bytes + 4);
}

std::vector<unsigned char> AllowedAce(const std::vector<unsigned char>& sid) {
    std::vector<unsigned char> ace = {kAccessAllowed, 0};
    Append16(ace, static_cast<std::uint16_t>(8 + sid.size()));
    Append32(ace, kFullAccess);
    ace.insert(ace.end(), sid.begin(), sid.end());
    return ace;
}

std::uint32_t SecurityIdOf(const RecordRef& record) {
    AttributeRef standard = record.find(kStandardInformation);
    if (!standard) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    if (standard->size() < StandardInformation::kLongSize) return 0;
    StandardInformation value;
    if (standard->read(0, sizeof(value), &value) != sizeof(value)) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_READ);
    }
    return value.security_id();
}

}  // namespace

std::vector<unsigned char> BuiltInDescriptor() {
    const std::vector<unsigned char> system = NtAuthoritySid({18});
    const std::vector<unsigned char> administrators = NtAuthoritySid({32, 544});
    const std::vector<unsigned char> system_ace = AllowedAce(system);
    const std::vector<unsigned char> administrators_ace = AllowedAce(administrators);

    constexpr std::uint32_t kHeaderSize = 20;
    constexpr std::uint32_t kAclHeaderSize = 8;
    const std::uint32_t owner = kHeaderSize;
    const auto group = static_cast<std::uint32_t>(owner + administrators.size());
    const auto dacl = static_cast<std::uint32_t>(group + system.size());
    const auto acl_size = static_cast<std::uint16_t>(kAclHeaderSize + system_ace.size() + administrators_ace.size());

    std::vector<unsigned char> out = {1, 0};
    Append16(out, kBuiltInControl);
    Append32(out, owner);
    Append32(out, group);
    Append32(out, 0);  // no SACL
    Append32(out, dacl);
    out.insert(out.end(), administrators.begin(), administrators.end());
    out.insert(out.end(), system.begin(), system.end());
    out.insert(out.end(), {2, 0});
    Append16(out, acl_size);
    Append16(out, 2);
    Append16(out, 0);
    out.insert(out.end(), system_ace.begin(), system_ace.end());
    out.insert(out.end(), administrators_ace.begin(), administrators_ace.end());
    return out;
}

std::vector<unsigned char> ReadSecurity(NTFSDriver* driver, const RecordRef& record) {
    const std::uint32_t id = SecurityIdOf(record);
    if (id != 0) {
        if (!driver->secure_file) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        return driver->secure_file->descriptor(id);
    }
    AttributeRef own = record.find(kSecurityDescriptor);
    if (!own) return BuiltInDescriptor();
    const std::uint64_t size = own->size();
    if (size > kMaxDescriptorSize) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    std::vector<unsigned char> descriptor(static_cast<std::size_t>(size));
    if (own->read(0, size, descriptor.data()) != size) Common::Raise(ERROR_TAG, Common::Failures::FILE_READ);
    return descriptor;
}

}  // namespace ntfs
