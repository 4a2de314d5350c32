#pragma once
// One firmware variable: its name, vendor, attributes and value. The value is
// read from the firmware at most once per object and written back on request;
// a caller who wants a fresh value makes a new object. This is the one door
// to the firmware's variable services.
#include <efi.h>

#include <boost/shared_ptr.hpp>

#include <cstdint>
#include <string>
#include <vector>

#include "loader/common/error.h"

namespace Uefi {

// EFI_GLOBAL_VARIABLE, the vendor of every variable the system names.
extern const EFI_GUID kGlobalVariable;

// Attributes given at creation: non-volatile, boot service and runtime
// access for what may be written; none for what is only read.
constexpr std::uint32_t kWritableAttributes =
    EFI_VARIABLE_NON_VOLATILE | EFI_VARIABLE_BOOTSERVICE_ACCESS | EFI_VARIABLE_RUNTIME_ACCESS;
constexpr std::uint32_t kReadAttributes = 0;

// The largest value a Load can take: it reads through a fixed buffer.
constexpr std::uint32_t kLargestVariableValue = 1024;

class Variable {
public:
    Variable(const EFI_GUID& vendor, const std::u16string& name, std::uint32_t attributes)
        : vendor(vendor), name(name), attributes(attributes) {}
    virtual ~Variable() = default;
    Variable(const Variable&) = delete;
    Variable& operator=(const Variable&) = delete;

    virtual bool Exists() = 0;
    virtual Common::Error Load() = 0;
    virtual Common::Error Save() = 0;

    // Loads, then points `bytes` at the value; the pointer stays good until
    // the value changes. On failure the outputs are left alone.
    Common::Error Get(const std::uint8_t*& bytes, std::uint32_t& size);
    // Makes the value a copy of the bytes, and saves it.
    Common::Error Set(const void* bytes, std::uint32_t size);
    // Empties the value and saves it: the firmware deletes the variable.
    Common::Error Clear();

    const EFI_GUID& Vendor() const { return vendor; }
    const std::u16string& Name() const { return name; }
    std::uint32_t Attributes() const { return attributes; }
    bool Loaded() const { return loaded; }

protected:
    bool loaded = false;
    std::vector<std::uint8_t> data;
    EFI_GUID vendor;
    std::u16string name;
    std::uint32_t attributes;
};

// The variable over the firmware's runtime services.
class UefiVariable final : public Variable {
public:
    using Variable::Variable;
    bool Exists() override;
    Common::Error Load() override;
    Common::Error Save() override;
};

// A new unloaded variable; the firmware is not asked.
boost::shared_ptr<Variable> CreateVariable(const EFI_GUID& vendor, const std::u16string& name,
                                           std::uint32_t attributes);

// Whether the firmware holds a value under the variable's name and vendor,
// of any size, including one too large for Load. Lets a caller tell an
// absent variable from one it cannot read; the variable itself is untouched.
bool IsStoredInFirmware(const Variable& variable);

}  // namespace Uefi
