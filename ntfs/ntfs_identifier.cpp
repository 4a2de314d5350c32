#include "ntfs/ntfs_identifier.h"

#include "loader/common/byte_order.h"
#include "ntfs/ntfs_directory.h"
#include "ntfs/ntfs_driver.h"

namespace ntfs {

file_identifier* NTFSIdentifier::Make(const std::u16string& name, std::uint64_t reference) {
    unsigned char key[kKeySize];
    Common::StoreLE64(key, reference);
    return new the_identifier(name.c_str(), key, kKeySize);
}

bool NTFSIdentifier::Parse(const file_identifier& identifier, std::u16string& name, std::uint64_t& reference) {
    const auto* known = dynamic_cast<const the_identifier*>(&identifier);
    if (known == nullptr || known->key() == nullptr) return false;
    name = known->name();
    reference = Common::LoadLE64(known->key());
    return true;
}

// Identifiers order as their names do in a directory: without regard to case.
int NTFSDriver::compare_identifiers(const file_identifier& a, const file_identifier& b) {
    const auto* left = dynamic_cast<const the_identifier*>(&a);
    const auto* right = dynamic_cast<const the_identifier*>(&b);
    if (left == nullptr || right == nullptr) return left == right ? 0 : left == nullptr ? -1 : 1;
    const std::u16string left_name = left->name();
    const std::u16string right_name = right->name();
    const int order = compare_names(left_name.data(), left_name.size(), right_name.data(), right_name.size());
    return order < 0 ? -1 : order > 0 ? 1 : 0;
}

FileSystemDriver::DirectoryObject* NTFSDriver::open_directory(std::uint32_t id) { return new NTFSDirectory(this, id); }

}  // namespace ntfs
