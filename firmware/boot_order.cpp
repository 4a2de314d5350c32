#include "firmware/boot_order.h"

#include <boost/make_shared.hpp>

#include <algorithm>
#include <set>

#include "loader/common/byte_order.h"
#include "loader/common/error_codes.h"

namespace Uefi {
namespace {

const char16_t* const kBootOrderName = u"BootOrder";

Common::Error NotFound(std::uint64_t tag) { return Common::Error(tag, Common::UEFI_ENTRY_NOT_FOUND); }

}  // namespace

Common::Error BootOrderImpl::LoadOrder() {
    if (variable) return Common::Success;
    variable = CreateVariable(kGlobalVariable, kBootOrderName, kReadAttributes);
    const std::uint8_t* value = nullptr;
    std::uint32_t size = 0;
    Common::Error error = variable->Get(value, size);
    if (error) return error;
    // An odd last byte is no number.
    for (std::uint32_t at = 0; at + 2 <= size; at += 2) {
        list.push_back(boost::make_shared<BootEntryImpl>(Common::LoadLE16(value + at)));
    }
    return Common::Success;
}

Common::Error BootOrderImpl::SaveOrder() {
    if (!variable) variable = CreateVariable(kGlobalVariable, kBootOrderName, kWritableAttributes);
    std::vector<std::uint8_t> value(2 * list.size());
    std::size_t at = 0;
    for (const auto& entry : list) {
        Common::StoreLE16(&value[at], entry->GetNumber());
        at += 2;
    }
    // An empty order is written with size 0, which deletes the variable.
    return variable->Set(value.data(), static_cast<std::uint32_t>(value.size()));
}

Common::Error BootOrderImpl::RewriteEntries() {
    boost::shared_ptr<BootOrder> fresh;
    Common::Error error = GetBootOrder(fresh);
    if (error) return error;
    for (auto at = fresh->Begin(); at != fresh->End(); ++at) {
        error = (*at)->Save();
        if (error) return error;
    }
    return Common::Success;
}

Common::Error BootOrderImpl::CreateEntry(boost::shared_ptr<BootEntry>& entry) {
    Common::Error error = LoadOrder();
    if (error) return error;
    std::set<std::uint16_t> taken;
    for (const auto& listed : list) taken.insert(listed->GetNumber());
    for (std::uint16_t number = 0; number < kCreatableEntries; ++number) {
        if (taken.count(number) == 0) {
            entry = boost::make_shared<BootEntryImpl>(number);
            return Common::Success;
        }
    }
    // All taken: no entry, and no error either; the caller checks the pointer.
    return Common::Success;
}

Common::Error BootOrderImpl::Erase(iterator position) {
    if (position != list.end()) list.erase(position);
    return Common::Success;
}

Common::Error BootOrderImpl::Insert(iterator position, const boost::shared_ptr<BootEntry>& entry) {
    if (!entry) return NotFound(ERROR_TAG);
    const std::uint16_t number = entry->GetNumber();
    iterator inserted = list.insert(position, entry);
    // A number stands in the order once.
    for (iterator at = list.begin(); at != list.end();) {
        if (at != inserted && (*at)->GetNumber() == number) {
            at = list.erase(at);
        } else {
            ++at;
        }
    }
    Common::Error error = SaveOrder();
    if (error) return error;
    return RewriteEntries();
}

Common::Error BootOrderImpl::Remove(const boost::shared_ptr<BootEntry>& entry) {
    if (!entry) return NotFound(ERROR_TAG);
    static_cast<void>(LoadOrder());
    const std::uint16_t number = entry->GetNumber();
    list.remove_if([number](const boost::shared_ptr<BootEntry>& listed) { return listed->GetNumber() == number; });
    return SaveOrder();
}

Common::Error GetBootOrder(boost::shared_ptr<BootOrder>& order) {
    auto made = boost::make_shared<BootOrderImpl>();
    order = made;
    return made->LoadOrder();
}

Common::Error FindTagged(const std::vector<std::uint8_t>& pattern, boost::shared_ptr<BootEntry>& entry) {
    boost::shared_ptr<BootOrder> order;
    Common::Error error = GetBootOrder(order);
    if (error) return error;
    for (auto at = order->Begin(); at != order->End(); ++at) {
        std::vector<std::uint8_t> data;
        if ((*at)->GetOptionalData(data)) continue;
        if (data.empty()) continue;
        if (std::search(data.begin(), data.end(), pattern.begin(), pattern.end()) != data.end()) {
            entry = *at;
            return Common::Success;
        }
    }
    return NotFound(ERROR_TAG);
}

Common::Error FindByLoadOptions(LoadOptions& options, boost::shared_ptr<BootEntry>& entry) {
    boost::shared_ptr<BootOrder> order;
    Common::Error error = GetBootOrder(order);
    if (error) return error;
    for (auto at = order->Begin(); at != order->End(); ++at) {
        boost::shared_ptr<LoadOptions> listed;
        if ((*at)->GetLoadOptions(listed)) continue;
        if (SameLoadOptions(options, *listed)) {
            entry = *at;
            return Common::Success;
        }
    }
    return NotFound(ERROR_TAG);
}

Common::Error DropEntry(const boost::shared_ptr<BootEntry>& entry) {
    boost::shared_ptr<BootOrder> order;
    Common::Error error = GetBootOrder(order);
    if (error) return error;
    error = order->Remove(entry);
    if (error) return error;
    return entry->Delete();
}

}  // namespace Uefi
