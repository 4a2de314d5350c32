#pragma once
// The Common::Error an action raises, with its cause; the null error when it
// raises none.
#include "loader/common/error.h"

namespace TestSupport {

template <typename Action>
Common::Error RaisedError(Action action) {
    try {
        action();
    } catch (const Common::Error& error) {
        return error;
    }
    return Common::Error();
}

}  // namespace TestSupport
