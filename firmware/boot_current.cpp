#include "firmware/boot_current.h"

#include <boost/make_shared.hpp>

#include "firmware/boot_next.h"

namespace Uefi {

Common::Error BootCurrentImpl::Get(boost::shared_ptr<BootEntry>& entry) {
    if (!variable) variable = CreateVariable(kGlobalVariable, u"BootCurrent", kReadAttributes);
    return EntryOfNumberVariable(*variable, entry);
}

Common::Error CreateBootCurrent(boost::shared_ptr<BootCurrent>& boot_current) {
    boot_current = boost::make_shared<BootCurrentImpl>();
    return Common::Success;
}

}  // namespace Uefi
