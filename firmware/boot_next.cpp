#include "firmware/boot_next.h"

#include <boost/make_shared.hpp>

#include "firmware/boot_order.h"
#include "loader/common/byte_order.h"
#include "loader/common/error_codes.h"

namespace Uefi {

const std::vector<std::uint8_t> kFakeTag = {'F', 'a', 'k', 'e', '_', 't', 'a', 'g'};

Common::Error EntryOfNumberVariable(Variable& variable, boost::shared_ptr<BootEntry>& entry) {
    const std::uint8_t* value = nullptr;
    std::uint32_t size = 0;
    Common::Error error = variable.Get(value, size);
    if (error) return error;
    if (size < 2) return Common::Error(ERROR_TAG, Common::UEFI_NO_VALUE);
    entry = boost::make_shared<BootEntryImpl>(Common::LoadLE16(value));
    return Common::Success;
}

void BootNextImpl::MakeVariable() {
    if (!variable) variable = CreateVariable(kGlobalVariable, u"BootNext", kWritableAttributes);
}

Common::Error BootNextImpl::Set(const boost::shared_ptr<BootEntry>& entry) {
    if (!entry) return Common::Error(ERROR_TAG, Common::UEFI_ENTRY_NOT_FOUND);
    MakeVariable();
    std::uint8_t value[2];
    Common::StoreLE16(value, entry->GetNumber());
    return variable->Set(value, sizeof(value));
}

Common::Error BootNextImpl::Get(boost::shared_ptr<BootEntry>& entry) {
    MakeVariable();
    return EntryOfNumberVariable(*variable, entry);
}

Common::Error BootNextFakeImpl::Get(boost::shared_ptr<BootEntry>& entry) { return FindTagged(kFakeTag, entry); }

Common::Error BootNextFakeImpl::Clear() {
    boost::shared_ptr<BootEntry> tagged;
    Common::Error error = FindTagged(kFakeTag, tagged);
    if (error.Code() == Common::UEFI_ENTRY_NOT_FOUND) return Common::Success;
    if (error) return error;
    return DropEntry(tagged);
}

Common::Error BootNextFakeImpl::Set(const boost::shared_ptr<BootEntry>& entry) {
    if (!entry) return Common::Error(ERROR_TAG, Common::UEFI_ENTRY_NOT_FOUND);
    // A tagged entry from before never stays beside the new one.
    Common::Error error = Clear();
    if (error) return error;
    std::vector<std::uint8_t> data;
    error = entry->GetOptionalData(data);
    if (error) return error;
    // Behind the entry's own data, which survive.
    data.insert(data.end(), kFakeTag.begin(), kFakeTag.end());
    error = entry->SetOptionalData(data);
    if (error) return error;
    error = entry->Save();
    if (error) return error;
    boost::shared_ptr<BootOrder> order;
    error = GetBootOrder(order);
    if (error) return error;
    return order->Insert(order->Begin(), entry);
}

Common::Error CreateBootNext(boost::shared_ptr<BootNext>& boot_next, std::int32_t flag) {
    if (flag != 0) {
        boot_next = boost::make_shared<BootNextImpl>();
    } else {
        boot_next = boost::make_shared<BootNextFakeImpl>();
    }
    return Common::Success;
}

}  // namespace Uefi
