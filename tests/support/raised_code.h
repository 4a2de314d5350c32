#pragma once
// The code of the Common::Error an action raises, 0 when it raises none.
#include <cstdint>

#include "loader/common/error.h"

namespace TestSupport {

template <typename Action>
std::uint32_t RaisedCode(Action action) {
    try {
        action();
    } catch (const Common::Error& error) {
        return error.Code();
    }
    return 0;
}

}  // namespace TestSupport
