#pragma once
// BootOrder: the numbers of the boot entries, in the order the firmware
// tries them. An order object is a snapshot: each GetBootOrder reads the
// firmware afresh and makes new entry objects.
#include <boost/shared_ptr.hpp>

#include <cstdint>
#include <list>
#include <vector>

#include "firmware/boot_entry.h"
#include "firmware/load_option.h"
#include "firmware/variable.h"
#include "loader/common/error.h"

namespace Uefi {

// Entry numbers that CreateEntry hands out: 0 to 127.
constexpr std::uint16_t kCreatableEntries = 128;

class BootOrder {
public:
    using EntryList = std::list<boost::shared_ptr<BootEntry>>;
    using iterator = EntryList::iterator;

    // The lowest number in 0..127 that the order does not hold, as a new
    // entry that is not written; none when all are taken.
    virtual Common::Error CreateEntry(boost::shared_ptr<BootEntry>& entry) = 0;
    virtual iterator Begin() = 0;
    virtual iterator End() = 0;
    // In memory only.
    virtual Common::Error Erase(iterator position) = 0;
    // Puts the entry in front of `position`, drops its number elsewhere,
    // writes the order and then every entry of it.
    virtual Common::Error Insert(iterator position, const boost::shared_ptr<BootEntry>& entry) = 0;
    // Drops every occurrence of the entry's number and writes the order.
    virtual Common::Error Remove(const boost::shared_ptr<BootEntry>& entry) = 0;

protected:
    // Released through shared pointers that know the concrete class.
    ~BootOrder() = default;
};

class BootOrderImpl final : public BootOrder {
public:
    Common::Error CreateEntry(boost::shared_ptr<BootEntry>& entry) override;
    iterator Begin() override { return list.begin(); }
    iterator End() override { return list.end(); }
    Common::Error Erase(iterator position) override;
    Common::Error Insert(iterator position, const boost::shared_ptr<BootEntry>& entry) override;
    Common::Error Remove(const boost::shared_ptr<BootEntry>& entry) override;

    // Reads the variable once. After a failed read the object counts as
    // loaded with an empty order.
    Common::Error LoadOrder();

private:
    Common::Error SaveOrder();
    // Writes every entry of a fresh snapshot once more, in order.
    static Common::Error RewriteEntries();

    boost::shared_ptr<Variable> variable;
    EntryList list;
};

// A new snapshot of the firmware's order, stored before it is read; the
// result is that of the read.
Common::Error GetBootOrder(boost::shared_ptr<BootOrder>& order);

// The first entry of the order whose optional data hold `pattern`; entries
// that cannot be read are passed over. UEFI_ENTRY_NOT_FOUND when none.
Common::Error FindTagged(const std::vector<std::uint8_t>& pattern, boost::shared_ptr<BootEntry>& entry);

// The first entry of the order whose load option names the same partition
// and file (SameLoadOptions). UEFI_ENTRY_NOT_FOUND when none.
Common::Error FindByLoadOptions(LoadOptions& options, boost::shared_ptr<BootEntry>& entry);

// Takes the entry out of the order, and only then deletes its variable.
Common::Error DropEntry(const boost::shared_ptr<BootEntry>& entry);

}  // namespace Uefi
