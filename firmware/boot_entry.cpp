#include "firmware/boot_entry.h"

#include <boost/make_shared.hpp>
#include <boost/pointer_cast.hpp>

#include "loader/common/error_codes.h"

namespace Uefi {

std::u16string BootVariableName(std::uint16_t number) {
    std::u16string name = u"Boot";
    AppendHex(name, number, 4);
    return name;
}

BootEntryImpl::BootEntryImpl(std::uint16_t number) : options(boost::make_shared<LoadOptionsImpl>()), number(number) {}

Common::Error BootEntryImpl::LoadEntry() {
    if (variable) return Common::Success;
    variable = CreateVariable(kGlobalVariable, BootVariableName(number), kWritableAttributes);
    const std::uint8_t* value = nullptr;
    std::uint32_t size = 0;
    Common::Error error = variable->Get(value, size);
    if (error) return error;
    // Values are at most 1024 bytes, so the size fits the cursor's count.
    ByteCursor cursor(value, static_cast<std::int32_t>(size));
    options = boost::make_shared<LoadOptionsImpl>();
    error = options->Parse(cursor);
    if (error) return error;
    optional_data.insert(optional_data.end(), cursor.next, cursor.next + cursor.left);
    return Common::Success;
}

bool BootEntryImpl::Absent() { return variable && !variable->Exists() && !IsStoredInFirmware(*variable); }

Common::Error BootEntryImpl::GetOptionalData(std::vector<std::uint8_t>& bytes) {
    Common::Error error = LoadEntry();
    if (error) return error;
    bytes = optional_data;
    return Common::Success;
}

Common::Error BootEntryImpl::SetOptionalData(const std::vector<std::uint8_t>& bytes) {
    optional_data = bytes;
    return Common::Success;
}

Common::Error BootEntryImpl::GetLoadOptions(boost::shared_ptr<LoadOptions>& out) {
    Common::Error error = LoadEntry();
    if (error) {
        if (!Absent()) return error;
        options = boost::make_shared<LoadOptionsImpl>();
    }
    out = options;
    return Common::Success;
}

Common::Error BootEntryImpl::SetLoadOptions(const boost::shared_ptr<LoadOptions>& given) {
    auto source = boost::dynamic_pointer_cast<LoadOptionsImpl>(given);
    if (!source) return Common::Error(ERROR_TAG, Common::UEFI_BAD_LOAD_OPTION);
    Common::Error error = LoadEntry();
    if (error && !Absent()) return error;
    options = boost::make_shared<LoadOptionsImpl>(*source);
    return Common::Success;
}

bool BootEntryImpl::Exists() {
    static_cast<void>(LoadEntry());
    return variable && variable->Exists();
}

Common::Error BootEntryImpl::Delete() {
    if (!variable) variable = CreateVariable(kGlobalVariable, BootVariableName(number), kWritableAttributes);
    return variable->Clear();
}

Common::Error BootEntryImpl::Save() {
    Common::Error error = LoadEntry();
    if (error && !Absent()) return error;
    if (!variable || !variable->Exists()) {
        variable = CreateVariable(kGlobalVariable, BootVariableName(number), kWritableAttributes);
    }
    std::vector<std::uint8_t> value;
    error = options->Serialize(value);
    if (error) return error;
    value.insert(value.end(), optional_data.begin(), optional_data.end());
    if (value.size() > kLargestVariableValue) {
        // It could be written, but never read back by this system.
        return Common::Error(ERROR_TAG, Common::UEFI_BAD_LOAD_OPTION);
    }
    return variable->Set(value.data(), static_cast<std::uint32_t>(value.size()));
}

Common::Error CreateBootEntry(std::uint16_t number, boost::shared_ptr<BootEntry>& entry) {
    entry = boost::make_shared<BootEntryImpl>(number);
    return Common::Success;
}

Common::Error DescribeEntry(BootEntry& entry, std::u16string& text) {
    boost::shared_ptr<LoadOptions> options;
    Common::Error error = entry.GetLoadOptions(options);
    if (error) return error;
    std::vector<std::uint8_t> optional_data;
    error = entry.GetOptionalData(optional_data);
    if (error) return error;

    std::u16string out = u"---- ";
    AppendDecimal(out, entry.GetNumber());
    out += u" ----\n";
    std::u16string described;
    error = DescribeLoadOptions(*options, described);
    if (error) return error;
    out += described;
    out += u"Additional data:\n";
    for (std::uint8_t byte : optional_data) {
        out += u"0";
        AppendHex(out, byte, 4);
        out += u"h ";
    }
    out += u"\n";
    text = out;
    return Common::Success;
}

}  // namespace Uefi
