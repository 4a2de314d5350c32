// Calendar time of the firmware world. The firmware keeps no time zone that
// can be trusted (most leave it unspecified), so local time is taken to be
// UTC and the conversions are plain arithmetic on the civil calendar. The
// clock is the firmware's real-time clock, read as it shows: whatever zone
// it runs in, a time read from it and written back through LocalTime shows
// the same wall-clock reading.
#include "platform/clib/clib.h"

namespace Clib {

std::int64_t MakeTime(const CalendarTime& local) { return UtcMakeTime(local); }

bool LocalTime(std::int64_t seconds, CalendarTime& local) { return UtcTime(seconds, local); }

std::int64_t Now() {
    EFI_SYSTEM_TABLE* table = SystemTable();
    if (table == nullptr || table->RuntimeServices == nullptr) return 0;
    EFI_TIME clock{};
    if (EFI_ERROR(table->RuntimeServices->GetTime(&clock, nullptr))) return 0;
    CalendarTime local;
    local.second = clock.Second;
    local.minute = clock.Minute;
    local.hour = clock.Hour;
    local.day = clock.Day;
    local.month = clock.Month - 1;
    local.year = clock.Year - 1900;
    return MakeTime(local) * 1000 + clock.Nanosecond / 1000000;
}

}  // namespace Clib
