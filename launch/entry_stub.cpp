#include "launch/entry_stub.h"

extern "C" const std::uint8_t morvane_entry_stub[];
extern "C" const std::uint8_t morvane_entry_stub_end[];

namespace Launch {

const std::uint8_t* EntryStubCode() { return morvane_entry_stub; }
std::size_t EntryStubSize() { return static_cast<std::size_t>(morvane_entry_stub_end - morvane_entry_stub); }

}  // namespace Launch
