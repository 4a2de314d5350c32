#pragma once
// The value of a Boot#### variable up to its optional data: an
// EFI_LOAD_OPTION with its attributes, description and device path list,
// turned into an object and back. The boot entries learn from it which
// partition and file an option names without walking device paths.
#include <efi.h>

#include <boost/shared_ptr.hpp>

#include <cstdint>
#include <string>
#include <vector>

#include "firmware/byte_cursor.h"
#include "firmware/device_path.h"
#include "loader/common/error.h"

namespace Uefi {

// What GetPartitionType answers, from the first hard drive node's
// SignatureType.
constexpr std::uint32_t kPartitionTypeMbr = 2;
constexpr std::uint32_t kPartitionTypeGpt = 8;
constexpr std::uint32_t kPartitionTypeNone = 0x8000;

constexpr std::uint32_t kLoadOptionActive = 1;

class LoadOptions {
public:
    virtual Common::Error GetDescription(std::u16string& value) = 0;
    virtual Common::Error GetPath(std::u16string& value) = 0;
    virtual Common::Error GetGptSignature(EFI_GUID& value) = 0;
    virtual Common::Error GetPartitionStart(std::uint64_t& value) = 0;
    virtual Common::Error GetPartitionSize(std::uint64_t& value) = 0;
    virtual Common::Error GetMbrSignature(std::uint32_t& value) = 0;
    virtual Common::Error GetPartitionNumber(std::uint32_t& value) = 0;
    virtual Common::Error GetPartitionType(std::uint32_t& value) = 0;
    virtual Common::Error SetDescription(const std::u16string& value) = 0;
    virtual Common::Error SetPath(const std::u16string& value) = 0;
    virtual Common::Error SetGptSignature(const EFI_GUID& value) = 0;
    virtual Common::Error SetMbrSignature(std::uint32_t value) = 0;
    virtual Common::Error SetPartitionStart(std::uint64_t value) = 0;
    virtual Common::Error SetPartitionSize(std::uint64_t value) = 0;
    virtual Common::Error SetPartitionNumber(std::uint32_t value) = 0;

protected:
    // Released through shared pointers that know the concrete class.
    ~LoadOptions() = default;
};

class LoadOptionsImpl final : public LoadOptions {
public:
    // An active option with no description and no path.
    LoadOptionsImpl() = default;
    // Copies the fields; the nodes are shared, not copied.
    LoadOptionsImpl(const LoadOptionsImpl&) = default;
    LoadOptionsImpl& operator=(const LoadOptionsImpl&) = default;

    Common::Error GetDescription(std::u16string& value) override;
    Common::Error GetPath(std::u16string& value) override;
    Common::Error GetGptSignature(EFI_GUID& value) override;
    Common::Error GetPartitionStart(std::uint64_t& value) override;
    Common::Error GetPartitionSize(std::uint64_t& value) override;
    Common::Error GetMbrSignature(std::uint32_t& value) override;
    Common::Error GetPartitionNumber(std::uint32_t& value) override;
    Common::Error GetPartitionType(std::uint32_t& value) override;
    Common::Error SetDescription(const std::u16string& value) override;
    Common::Error SetPath(const std::u16string& value) override;
    Common::Error SetGptSignature(const EFI_GUID& value) override;
    Common::Error SetMbrSignature(std::uint32_t value) override;
    Common::Error SetPartitionStart(std::uint64_t value) override;
    Common::Error SetPartitionSize(std::uint64_t value) override;
    Common::Error SetPartitionNumber(std::uint32_t value) override;

    // Fills the object from the value at the cursor and moves the cursor
    // behind the device path list. End nodes are dropped, so the instances of
    // a list come out as one list of nodes. Nothing past the cursor's end is
    // read: a value cut short is UEFI_BAD_LOAD_OPTION.
    Common::Error Parse(ByteCursor& cursor);
    // Appends the value, with one end node; recomputes the list length.
    Common::Error Serialize(std::vector<std::uint8_t>& bytes);

    std::uint32_t Attributes() const { return attributes; }
    void SetAttributes(std::uint32_t value) { attributes = value; }
    std::uint16_t FilePathListLength() const { return file_path_list_length; }
    const std::vector<DevicePathPointer>& Nodes() const { return nodes; }

private:
    boost::shared_ptr<HardDrivePath> FirstHardDrive() const;
    boost::shared_ptr<FileDevicePath> FirstFilePath() const;
    // The first hard drive node, or a new one of the given kind at the end.
    HardDrivePath& HardDriveFor(std::uint8_t mbr_type, std::uint8_t signature_type);

    std::uint32_t attributes = kLoadOptionActive;
    std::uint16_t file_path_list_length = 0;
    std::u16string description;
    std::vector<DevicePathPointer> nodes;
};

// A new object with the defaults. Succeeds.
Common::Error CreateLoadOptions(boost::shared_ptr<LoadOptions>& options);

// Whether two options name the same file on the same partition: equal paths,
// and a partition of one kind, MBR or GPT, with equal signatures (and, for
// MBR, equal partition numbers). Any read that fails makes them different.
bool SameLoadOptions(LoadOptions& a, LoadOptions& b);

// A text form for diagnostics, one field a line; an unreadable field shows
// as "Unknown". Succeeds.
Common::Error DescribeLoadOptions(LoadOptions& options, std::u16string& text);

// Text helpers shared with the entry's description.
void AppendDecimal(std::u16string& text, std::uint64_t value);
void AppendHex(std::u16string& text, std::uint64_t value, int digits);
void AppendGuid(std::u16string& text, const EFI_GUID& guid);

}  // namespace Uefi
