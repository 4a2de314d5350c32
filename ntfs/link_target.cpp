#include "ntfs/link_target.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "loader/common/byte_order.h"
#include "loader/common/raise.h"
#include "ntfs/ntfs_records.h"

namespace ntfs {

namespace {

// Arrays, not strings: nothing here may need a constructor at start-up.
constexpr char16_t kNativePrefix[] = u"\\??\\";
constexpr char16_t kVerbatimPrefix[] = u"\\\\?\\";
constexpr std::size_t kNativePrefixLength = 4;
constexpr std::size_t kTagAndLength = 8;

bool IsDriveLetter(char16_t c) { return (c >= u'A' && c <= u'Z') || (c >= u'a' && c <= u'z'); }

// "X:" exactly.
bool IsDrive(const std::u16string& part) { return part.size() == 2 && IsDriveLetter(part[0]) && part[1] == u':'; }

// `length` bytes of 16-bit characters at `offset`, which must lie in `data`.
std::u16string NameAt(const std::vector<unsigned char>& data, std::size_t offset, std::size_t length) {
    if (offset > data.size() || length > data.size() - offset || length % 2 != 0) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    std::u16string name(length / 2, u'\0');
    for (std::size_t i = 0; i < name.size(); ++i) {
        name[i] = static_cast<char16_t>(Common::LoadLE16(data.data() + offset + 2 * i));
    }
    return name;
}

}  // namespace

std::u16string TargetOfSubstitute(const std::u16string& substitute) {
    if (substitute.compare(0, kNativePrefixLength, kNativePrefix) != 0) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_OPEN);
    }
    std::u16string target = substitute.substr(kNativePrefixLength);
    if (IsDrive(target)) return target + u"\\";
    if (!IsDrive(target.substr(0, target.find(u'\\')))) return std::u16string(kVerbatimPrefix) + target;
    return target;
}

std::u16string ReadLinkTarget(const RecordRef& record) {
    AttributeRef reparse = record.find(kReparsePoint);
    if (!reparse) return std::u16string();
    const std::uint64_t size = reparse->size();
    if (size > ReparsePointHeader::kMaximumSize) return std::u16string();
    if (size < kTagAndLength) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    std::vector<unsigned char> data(static_cast<std::size_t>(size));
    if (reparse->read(0, size, data.data()) != size) Common::Raise(ERROR_TAG, Common::Failures::FILE_READ);
    ReparsePointHeader header = {};
    std::memcpy(&header, data.data(), std::min<std::size_t>(data.size(), sizeof(header)));
    switch (header.reparse_tag()) {
    case kTagMountPoint:
        if (data.size() < ReparsePointHeader::kMountPointNames) {
            Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        }
        return TargetOfSubstitute(NameAt(data, ReparsePointHeader::kMountPointNames + header.substitute_name_offset(),
                                         header.substitute_name_length()));
    case kTagSymlink: {
        if (data.size() < ReparsePointHeader::kSymlinkNames) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        std::u16string substitute = NameAt(data, ReparsePointHeader::kSymlinkNames + header.substitute_name_offset(),
                                           header.substitute_name_length());
        if ((header.symlink_flags() & ReparsePointHeader::kSymlinkRelative) != 0) return substitute;
        return TargetOfSubstitute(substitute);
    }
    default:
        // Only links have a target this system can follow.
        Common::Raise(ERROR_TAG, Common::Failures::FILE_OPEN);
    }
}

}  // namespace ntfs
