#pragma once
// BootCurrent: the entry that the firmware started for this boot.
#include <boost/shared_ptr.hpp>

#include "firmware/boot_entry.h"
#include "firmware/variable.h"
#include "loader/common/error.h"

namespace Uefi {

class BootCurrent {
public:
    virtual Common::Error Get(boost::shared_ptr<BootEntry>& entry) = 0;

protected:
    // Released through shared pointers that know the concrete class.
    ~BootCurrent() = default;
};

class BootCurrentImpl final : public BootCurrent {
public:
    // A new entry object with the number the variable holds.
    Common::Error Get(boost::shared_ptr<BootEntry>& entry) override;

private:
    boost::shared_ptr<Variable> variable;
};

// Succeeds.
Common::Error CreateBootCurrent(boost::shared_ptr<BootCurrent>& boot_current);

}  // namespace Uefi
