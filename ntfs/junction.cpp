#include "ntfs/junction.h"

#include "loader/common/byte_order.h"
#include "loader/common/raise.h"
#include "ntfs/ntfs_directory.h"
#include "ntfs/ntfs_driver.h"
#include "ntfs/ntfs_file.h"
#include "ntfs/system_indexes.h"

namespace ntfs {

namespace {

constexpr std::uint32_t kReparseHeadSize = 8;  // tag, data length, reserved
constexpr std::uint32_t kReparseKeySize = 12;

void StoreName(std::vector<unsigned char>& bytes, std::size_t offset, const std::u16string& name) {
    for (std::size_t i = 0; i < name.size(); ++i) Common::StoreLE16(bytes.data() + offset + 2 * i, name[i]);
}

}  // namespace

std::vector<unsigned char> JunctionData(const std::u16string& target) {
    const std::u16string substitute = u"\\??\\" + target;
    const std::size_t size = (substitute.size() + target.size()) * 2 + 20;
    if (target.empty() || size > ReparsePointHeader::kMaximumSize) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CREATE);
    }
    std::vector<unsigned char> data(size, 0);
    const auto substitute_length = static_cast<std::uint16_t>(substitute.size() * 2);
    Common::StoreLE32(data.data(), kTagMountPoint);
    Common::StoreLE16(data.data() + 4, static_cast<std::uint16_t>(size - kReparseHeadSize));
    Common::StoreLE16(data.data() + 10, substitute_length);
    Common::StoreLE16(data.data() + 12, static_cast<std::uint16_t>(substitute_length + 2));
    Common::StoreLE16(data.data() + 14, static_cast<std::uint16_t>(target.size() * 2));
    StoreName(data, ReparsePointHeader::kMountPointNames, substitute);
    StoreName(data, ReparsePointHeader::kMountPointNames + substitute_length + 2, target);
    return data;
}

std::vector<unsigned char> ReparseIndexEntry(std::uint32_t tag, std::uint64_t reference) {
    constexpr std::uint32_t kDataOffset = IndexEntryHeader::kKeyOffset + kReparseKeySize;
    constexpr std::uint32_t kLength = (kDataOffset + 7) & ~7u;
    std::vector<unsigned char> entry(kLength, 0);
    Common::StoreLE16(entry.data(), static_cast<std::uint16_t>(kDataOffset));
    Common::StoreLE16(entry.data() + 8, static_cast<std::uint16_t>(kLength));
    Common::StoreLE16(entry.data() + 10, static_cast<std::uint16_t>(kReparseKeySize));
    Common::StoreLE32(entry.data() + IndexEntryHeader::kKeyOffset, tag);
    Common::StoreLE64(entry.data() + IndexEntryHeader::kKeyOffset + 4, reference);
    return entry;
}

void NTFSDirectory::symlink_entry(const std::u16string& name, const std::u16string& target) {
    ntfs->refuse_if_unchangeable();
    // Whatever refuses the junction does so before the directory exists.
    const std::vector<unsigned char> data = JunctionData(target);
    ReparseIndex* reparse_index = ntfs->reparse_file ? ntfs->reparse_file->index() : nullptr;
    if (reparse_index == nullptr) Common::Raise(ERROR_TAG, Common::Failures::FILE_CREATE);

    make_directory(name);
    const std::uint64_t reference = found_entry(name).reference;
    RecordRef directory = record_of(reference);
    {
        AttributeRef point(directory.get(), directory->createAttribute(kReparsePoint, std::u16string(), true));
        const auto size = static_cast<std::uint64_t>(data.size());
        if (point->resize(size, true) != size || point->write(0, size, data.data()) != size) {
            Common::Raise(ERROR_TAG, Common::Failures::FILE_WRITE);
        }
    }
    NTFSFileObject junction(ntfs, directory);
    const std::uint32_t attributes = junction.attributes() | kAttributeReparse;
    const std::uint32_t tag = kTagMountPoint;
    MetadataUpdate update;
    update.attributes = &attributes;
    update.reparse_tag = &tag;
    junction.updateMetadata(update, false);
    IndexCursor cursor;
    reparse_index->insert(ReparseIndexEntry(tag, reference), cursor);
}

}  // namespace ntfs
