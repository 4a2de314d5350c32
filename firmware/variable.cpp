#include "firmware/variable.h"

#include "firmware/firmware_access.h"
#include "loader/common/error_codes.h"

namespace Uefi {

const EFI_GUID kGlobalVariable = EFI_GLOBAL_VARIABLE;

namespace {

CHAR16* NameOf(const std::u16string& name) { return FirmwareString(name.c_str()); }
EFI_GUID* VendorOf(const EFI_GUID& vendor) { return const_cast<EFI_GUID*>(&vendor); }

}  // namespace

Common::Error Variable::Get(const std::uint8_t*& bytes, std::uint32_t& size) {
    Common::Error error = Load();
    if (error) return error;
    bytes = data.data();
    size = static_cast<std::uint32_t>(data.size());
    return Common::Success;
}

Common::Error Variable::Set(const void* bytes, std::uint32_t size) {
    const auto* first = static_cast<const std::uint8_t*>(bytes);
    if (first == nullptr) size = 0;
    data.assign(first, first + size);
    loaded = true;
    return Save();
}

Common::Error Variable::Clear() {
    data.clear();
    loaded = true;
    return Save();
}

bool UefiVariable::Exists() { return !Load().Failed(); }

Common::Error UefiVariable::Load() {
    if (loaded) return Common::Success;
    // A fixed buffer: nothing is allocated for a value that cannot be read,
    // and a value over its size is refused by the firmware.
    std::uint8_t buffer[kLargestVariableValue];
    UINTN size = sizeof(buffer);
    // The firmware may report attributes along with a refusal; only a
    // successful read replaces ours.
    UINT32 stored_attributes = 0;
    EFI_STATUS status =
        RuntimeServices()->GetVariable(NameOf(name), VendorOf(vendor), &stored_attributes, &size, buffer);
    if (status != EFI_SUCCESS || size > sizeof(buffer)) return Common::Error(ERROR_TAG, Common::UEFI_VARIABLE_IO);
    attributes = stored_attributes;
    data.assign(buffer, buffer + size);
    loaded = true;
    return Common::Success;
}

Common::Error UefiVariable::Save() {
    if (!loaded) return Common::Error(ERROR_TAG, Common::UEFI_NO_VALUE);
    EFI_STATUS status = RuntimeServices()->SetVariable(NameOf(name), VendorOf(vendor), attributes, data.size(),
                                                       data.empty() ? nullptr : data.data());
    if (status != EFI_SUCCESS) return Common::Error(ERROR_TAG, Common::UEFI_VARIABLE_IO);
    return Common::Success;
}

boost::shared_ptr<Variable> CreateVariable(const EFI_GUID& vendor, const std::u16string& name,
                                           std::uint32_t attributes) {
    return boost::shared_ptr<Variable>(new UefiVariable(vendor, name, attributes));
}

bool IsStoredInFirmware(const Variable& variable) {
    // Asking for nothing: a present value of any size answers that the
    // buffer is too small; an empty one answers success.
    std::uint8_t none = 0;
    UINTN size = 0;
    EFI_STATUS status =
        RuntimeServices()->GetVariable(NameOf(variable.Name()), VendorOf(variable.Vendor()), nullptr, &size, &none);
    return status == EFI_SUCCESS || status == EFI_BUFFER_TOO_SMALL;
}

}  // namespace Uefi
