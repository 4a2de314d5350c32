#pragma once
// The symbol of an error code, as error_codes.h spells it, for messages that
// people read next to the loader's sources.
#include <cstdint>

namespace MorvaneTool {

const char* ErrorName(std::uint32_t code);

}  // namespace MorvaneTool
