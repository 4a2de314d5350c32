#pragma once
// The code of the Common::Error an action raises, 0 when it raises none.
#include <cstdint>

#include "tests/support/raised_error.h"

namespace TestSupport {

template <typename Action>
std::uint32_t RaisedCode(Action action) {
    return RaisedError(action).Code();
}

}  // namespace TestSupport
