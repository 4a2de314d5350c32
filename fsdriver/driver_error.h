#pragma once
// How the framework raises: one error born where the failure is met, with
// its code, its tag and, when a device refused, the device's error as cause.
#include <cstdint>

#include "loader/common/error.h"
#include "loader/common/error_codes.h"
#include "loader/common/messages.h"

[[noreturn]] inline void RaiseDriverError(std::uint64_t tag, std::uint32_t code, const char16_t* text) {
    throw Common::Error(tag, code, text);
}

[[noreturn]] inline void RaiseDriverError(std::uint64_t tag, std::uint32_t code, const char16_t* text,
                                          const Common::Error& cause) {
    Common::Error error(tag, code, text);
    error.SetNext(cause);
    throw error;
}
