#include "firmware/load_option.h"

#include <boost/make_shared.hpp>

#include <cstddef>
#include <cstring>

#include "loader/common/byte_order.h"
#include "loader/common/error_codes.h"

namespace Uefi {
namespace {

const char16_t* const kBadBootPath = u"Ruta de arranque incorrecta.";
constexpr std::uint32_t kLargestLength = 0xFFFF;

// The fixed fields at the start of an EFI_LOAD_OPTION; the description and
// the device path list follow.
struct LoadOptionHeader {
    Common::le32 Attributes;
    Common::le16 FilePathListLength;
};
static_assert(sizeof(LoadOptionHeader) == 6, "attributes and list length");
static_assert(offsetof(LoadOptionHeader, FilePathListLength) == 4, "load option layout");

Common::Error BadOption(std::uint64_t tag) { return Common::Error(tag, Common::UEFI_BAD_LOAD_OPTION); }
Common::Error WrongKind(std::uint64_t tag) { return Common::Error(tag, Common::UEFI_WRONG_SIGNATURE_KIND); }

void AppendAscii(std::u16string& text, const char* ascii) {
    for (; *ascii != 0; ++ascii) text.push_back(static_cast<char16_t>(*ascii));
}

}  // namespace

void AppendDecimal(std::u16string& text, std::uint64_t value) {
    char16_t digits[20];
    int count = 0;
    do {
        digits[count++] = static_cast<char16_t>(u'0' + value % 10);
        value /= 10;
    } while (value != 0);
    while (count > 0) text.push_back(digits[--count]);
}

void AppendHex(std::u16string& text, std::uint64_t value, int digits) {
    static const char16_t kDigits[] = u"0123456789ABCDEF";
    for (int shift = 4 * (digits - 1); shift >= 0; shift -= 4) text.push_back(kDigits[(value >> shift) & 0xF]);
}

void AppendGuid(std::u16string& text, const EFI_GUID& guid) {
    AppendHex(text, guid.Data1, 8);
    text.push_back(u'-');
    AppendHex(text, guid.Data2, 4);
    text.push_back(u'-');
    AppendHex(text, guid.Data3, 4);
    text.push_back(u'-');
    AppendHex(text, guid.Data4[0], 2);
    AppendHex(text, guid.Data4[1], 2);
    text.push_back(u'-');
    for (int i = 2; i < 8; ++i) AppendHex(text, guid.Data4[i], 2);
}

boost::shared_ptr<HardDrivePath> LoadOptionsImpl::FirstHardDrive() const {
    for (const DevicePathPointer& node : nodes) {
        if (auto hard_drive = AsHardDrive(node)) return hard_drive;
    }
    return boost::shared_ptr<HardDrivePath>();
}

boost::shared_ptr<FileDevicePath> LoadOptionsImpl::FirstFilePath() const {
    for (const DevicePathPointer& node : nodes) {
        if (auto file = AsFilePath(node)) return file;
    }
    return boost::shared_ptr<FileDevicePath>();
}

HardDrivePath& LoadOptionsImpl::HardDriveFor(std::uint8_t mbr_type, std::uint8_t signature_type) {
    // A node that exists keeps its kind, whatever is written into it.
    if (auto hard_drive = FirstHardDrive()) return *hard_drive;
    auto made = boost::make_shared<HardDrivePath>();
    made->SetKind(mbr_type, signature_type);
    nodes.push_back(made);
    return *made;
}

Common::Error LoadOptionsImpl::GetDescription(std::u16string& value) {
    value = description;
    return Common::Success;
}

Common::Error LoadOptionsImpl::GetPath(std::u16string& value) {
    auto file = FirstFilePath();
    if (!file) return BadOption(ERROR_TAG);
    value = file->path;
    return Common::Success;
}

Common::Error LoadOptionsImpl::GetPartitionType(std::uint32_t& value) {
    auto hard_drive = FirstHardDrive();
    if (!hard_drive) return BadOption(ERROR_TAG);
    switch (hard_drive->SignatureType()) {
        case kMbrSignatureType:
            value = kPartitionTypeMbr;
            break;
        case kGuidSignatureType:
            value = kPartitionTypeGpt;
            break;
        default:
            value = kPartitionTypeNone;
            break;
    }
    return Common::Success;
}

Common::Error LoadOptionsImpl::GetGptSignature(EFI_GUID& value) {
    std::uint32_t type = 0;
    Common::Error error = GetPartitionType(type);
    if (error) return error;
    if (type != kPartitionTypeGpt) return WrongKind(ERROR_TAG);
    std::memcpy(&value, FirstHardDrive()->PartitionSignature(), sizeof(value));
    return Common::Success;
}

Common::Error LoadOptionsImpl::GetMbrSignature(std::uint32_t& value) {
    std::uint32_t type = 0;
    Common::Error error = GetPartitionType(type);
    if (error) return error;
    if (type != kPartitionTypeMbr) return WrongKind(ERROR_TAG);
    // An MBR signature is the disk's 32-bit number, in the first four bytes.
    value = Common::LoadLE32(FirstHardDrive()->PartitionSignature());
    return Common::Success;
}

Common::Error LoadOptionsImpl::GetPartitionStart(std::uint64_t& value) {
    auto hard_drive = FirstHardDrive();
    if (!hard_drive) return BadOption(ERROR_TAG);
    value = hard_drive->PartitionStart();
    return Common::Success;
}

Common::Error LoadOptionsImpl::GetPartitionSize(std::uint64_t& value) {
    auto hard_drive = FirstHardDrive();
    if (!hard_drive) return BadOption(ERROR_TAG);
    value = hard_drive->PartitionSize();
    return Common::Success;
}

Common::Error LoadOptionsImpl::GetPartitionNumber(std::uint32_t& value) {
    auto hard_drive = FirstHardDrive();
    if (!hard_drive) return BadOption(ERROR_TAG);
    value = hard_drive->PartitionNumber();
    return Common::Success;
}

Common::Error LoadOptionsImpl::SetDescription(const std::u16string& value) {
    description = value;
    return Common::Success;
}

Common::Error LoadOptionsImpl::SetPath(const std::u16string& value) {
    // Header, characters and terminator must fit the 16-bit Length.
    const std::uint64_t length = 2 * static_cast<std::uint64_t>(value.size()) + kNodeHeaderSize + 2;
    if (length > kLargestLength) return BadOption(ERROR_TAG);
    auto file = FirstFilePath();
    if (!file) {
        file = boost::make_shared<FileDevicePath>();
        nodes.push_back(file);
    }
    file->path = value;
    file->SetLength(static_cast<std::uint16_t>(length));
    return Common::Success;
}

Common::Error LoadOptionsImpl::SetMbrSignature(std::uint32_t value) {
    Common::StoreLE32(HardDriveFor(kMbrPartitionFormat, kMbrSignatureType).PartitionSignature(), value);
    return Common::Success;
}

Common::Error LoadOptionsImpl::SetGptSignature(const EFI_GUID& value) {
    std::memcpy(HardDriveFor(kGptPartitionFormat, kGuidSignatureType).PartitionSignature(), &value, sizeof(value));
    return Common::Success;
}

Common::Error LoadOptionsImpl::SetPartitionStart(std::uint64_t value) {
    HardDriveFor(kGptPartitionFormat, kGuidSignatureType).SetPartitionStart(value);
    return Common::Success;
}

Common::Error LoadOptionsImpl::SetPartitionSize(std::uint64_t value) {
    HardDriveFor(kGptPartitionFormat, kGuidSignatureType).SetPartitionSize(value);
    return Common::Success;
}

Common::Error LoadOptionsImpl::SetPartitionNumber(std::uint32_t value) {
    HardDriveFor(kGptPartitionFormat, kGuidSignatureType).SetPartitionNumber(value);
    return Common::Success;
}

Common::Error LoadOptionsImpl::Parse(ByteCursor& cursor) {
    nodes.clear();
    if (!cursor.Read(attributes) || !cursor.Read(file_path_list_length) || !cursor.ReadString16(description)) {
        return BadOption(ERROR_TAG);
    }
    std::int32_t left = file_path_list_length;
    while (left > 0) {
        DevicePathPointer node;
        std::uint16_t length = 0;
        Common::Error error = ReadDevicePathNode(cursor, node, length);
        if (error) return error;
        // End nodes, of an instance or of the whole list, are not kept.
        if (node) nodes.push_back(node);
        left -= length;
    }
    if (left < 0) return Common::Error(ERROR_TAG, Common::UEFI_BAD_LOAD_OPTION, kBadBootPath);
    return Common::Success;
}

Common::Error LoadOptionsImpl::Serialize(std::vector<std::uint8_t>& bytes) {
    // The length in the object is not trusted: it is the nodes' sum.
    std::uint32_t length = kNodeHeaderSize;  // the end node
    for (const DevicePathPointer& node : nodes) length += node->Length();
    if (length > kLargestLength) return BadOption(ERROR_TAG);
    file_path_list_length = static_cast<std::uint16_t>(length);
    LoadOptionHeader header;
    header.Attributes.set(attributes);
    header.FilePathListLength.set(file_path_list_length);
    const auto* fixed = reinterpret_cast<const std::uint8_t*>(&header);
    bytes.insert(bytes.end(), fixed, fixed + sizeof(header));
    AppendString16(bytes, description);
    for (const DevicePathPointer& node : nodes) WriteDevicePathNode(*node, bytes);
    AppendEndOfPath(bytes);
    return Common::Success;
}

Common::Error CreateLoadOptions(boost::shared_ptr<LoadOptions>& options) {
    options = boost::make_shared<LoadOptionsImpl>();
    return Common::Success;
}

bool SameLoadOptions(LoadOptions& a, LoadOptions& b) {
    std::u16string path_a, path_b;
    if (a.GetPath(path_a) || b.GetPath(path_b) || path_a != path_b) return false;
    std::uint32_t type_a = 0, type_b = 0;
    if (a.GetPartitionType(type_a) || b.GetPartitionType(type_b) || type_a != type_b) return false;
    if (type_a == kPartitionTypeGpt) {
        EFI_GUID guid_a, guid_b;
        if (a.GetGptSignature(guid_a) || b.GetGptSignature(guid_b)) return false;
        return std::memcmp(&guid_a, &guid_b, sizeof(EFI_GUID)) == 0;
    }
    if (type_a == kPartitionTypeMbr) {
        std::uint32_t signature_a = 0, signature_b = 0, number_a = 0, number_b = 0;
        if (a.GetMbrSignature(signature_a) || b.GetMbrSignature(signature_b) || signature_a != signature_b) return false;
        if (a.GetPartitionNumber(number_a) || b.GetPartitionNumber(number_b)) return false;
        return number_a == number_b;
    }
    return false;
}

Common::Error DescribeLoadOptions(LoadOptions& options, std::u16string& text) {
    std::u16string out;
    std::u16string description;
    out += u"Descripti\u206Fn: ";
    out += options.GetDescription(description) ? std::u16string(u"Unknown") : description;
    out += u"\n";

    std::u16string path;
    out += u"Path:";
    out += options.GetPath(path) ? std::u16string(u"Unknown") : path;
    out += u"\n";

    EFI_GUID guid;
    out += u"GUID";
    if (options.GetGptSignature(guid)) {
        out += u"Unknown";
    } else {
        AppendGuid(out, guid);
    }
    out += u"\n";

    std::uint32_t number = 0;
    out += u"Partition number ";
    if (options.GetPartitionNumber(number)) {
        out += u"Unknown";
    } else {
        AppendDecimal(out, number);
    }
    out += u"\n";

    std::uint64_t start = 0;
    out += u"Begin: ";
    if (options.GetPartitionStart(start)) {
        out += u"Unknown";
    } else {
        AppendDecimal(out, start);
    }
    out += u"\n";

    std::uint64_t size = 0;
    out += u"Partition Size:";
    if (options.GetPartitionSize(size)) {
        out += u"Unknown";
    } else {
        AppendDecimal(out, size);
    }
    out += u"\n\n";
    AppendAscii(out, "----------------");
    out += u"\n\n";
    text = out;
    return Common::Success;
}

}  // namespace Uefi
