#include "loader/common/raise.h"

namespace Common {

void Raise(std::uint64_t tag, const Failure& failure) { throw Error(tag, failure.code, *failure.text); }

void Raise(std::uint64_t tag, const Failure& failure, const Error& cause) {
    Error error(tag, failure.code, *failure.text);
    error.SetNext(cause);
    throw error;
}

void Raise(std::uint64_t tag, std::uint32_t code, const char* site_text) { throw Error(tag, code, site_text); }

}  // namespace Common
