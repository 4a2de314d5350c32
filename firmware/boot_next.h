#pragma once
// The entry to boot next, in two ways. BootNextImpl uses the firmware's own
// BootNext variable. BootNextFakeImpl works without it: the entry, tagged in
// its optional data, is put at the head of BootOrder, and the next start of
// the loader removes it again, so a one-shot entry never stays behind.
#include <boost/shared_ptr.hpp>

#include <cstdint>
#include <vector>

#include "firmware/boot_entry.h"
#include "firmware/variable.h"
#include "loader/common/error.h"

namespace Uefi {

// The tag of a one-shot entry: the eight bytes of "Fake_tag", no terminator.
extern const std::vector<std::uint8_t> kFakeTag;

class BootNext {
public:
    virtual Common::Error Clear() = 0;
    virtual Common::Error Set(const boost::shared_ptr<BootEntry>& entry) = 0;
    virtual Common::Error Get(boost::shared_ptr<BootEntry>& entry) = 0;

protected:
    // Released through shared pointers that know the concrete class.
    ~BootNext() = default;
};

class BootNextImpl final : public BootNext {
public:
    // The firmware forgets BootNext by itself once it has used it.
    Common::Error Clear() override { return Common::Success; }
    Common::Error Set(const boost::shared_ptr<BootEntry>& entry) override;
    Common::Error Get(boost::shared_ptr<BootEntry>& entry) override;

private:
    void MakeVariable();

    boost::shared_ptr<Variable> variable;
};

class BootNextFakeImpl final : public BootNext {
public:
    // Drops the tagged entry, from BootOrder first and then its Boot####;
    // having none is success.
    Common::Error Clear() override;
    // Tags the entry, which the firmware must hold, and puts it first.
    Common::Error Set(const boost::shared_ptr<BootEntry>& entry) override;
    Common::Error Get(boost::shared_ptr<BootEntry>& entry) override;
};

// A flag other than 0 makes a BootNextImpl, 0 a BootNextFakeImpl. Succeeds.
Common::Error CreateBootNext(boost::shared_ptr<BootNext>& boot_next, std::int32_t flag);

// The first entry number of a BootNext or BootCurrent value; a value too
// short to hold one is UEFI_NO_VALUE.
Common::Error EntryOfNumberVariable(Variable& variable, boost::shared_ptr<BootEntry>& entry);

}  // namespace Uefi
