// HFS+ dates count seconds from 1904-01-01 in a u32; the framework counts
// milliseconds from 1970. The clock is the toolkit's, which is the
// firmware's in the loader.
#include <cstdint>

#include "hfsplus/hfsplus_records.h"
#include "hfsplus/journaled_object.h"
#include "platform/clib/clib.h"

namespace hfsplus {

namespace {

constexpr std::int64_t kMillisecondsPerSecond = 1000;

}  // namespace

std::uint32_t MacTimeFromMilliseconds(std::uint64_t value) {
    return static_cast<std::uint32_t>(value / kMillisecondsPerSecond + kMacEpochOffset);
}

std::uint32_t MacTimeNow() {
    std::int64_t now = Clib::Now();
    return MacTimeFromMilliseconds(now < 0 ? 0 : static_cast<std::uint64_t>(now));
}

// The firmware gives no time-zone bias that this driver would apply, so
// local time is the clock's time.
std::uint32_t MacLocalTimeNow() { return MacTimeNow(); }

std::int64_t MillisecondsFromMacTime(std::uint32_t date) {
    return (static_cast<std::int64_t>(date) - static_cast<std::int64_t>(kMacEpochOffset)) * kMillisecondsPerSecond;
}

}  // namespace hfsplus
