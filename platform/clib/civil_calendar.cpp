// The proleptic Gregorian calendar in UTC, by arithmetic alone. The
// firmware world builds its local time on it; the host world can check it
// against its own C library.
#include "platform/clib/clib.h"

namespace {

constexpr std::int64_t kSecondsPerDay = 86400;
// About 35 million years either way: far inside what the int fields hold.
constexpr std::int64_t kSecondsLimit = std::int64_t(1) << 50;

std::int64_t FloorDivide(std::int64_t value, std::int64_t divisor) {
    std::int64_t quotient = value / divisor;
    if (value % divisor != 0 && (value < 0) != (divisor < 0)) --quotient;
    return quotient;
}

// Days from 1970-01-01 to the first of `month` (1 to 12) of `year`, in the
// proleptic Gregorian calendar, counted in 400-year eras that start on
// 1 March so that the leap day is the last day of its year.
std::int64_t DaysFromCivil(std::int64_t year, int month, int day) {
    year -= month <= 2 ? 1 : 0;
    std::int64_t era = FloorDivide(year, 400);
    std::int64_t year_of_era = year - era * 400;
    int shifted_month = month > 2 ? month - 3 : month + 9;
    std::int64_t day_of_year = (153 * shifted_month + 2) / 5 + day - 1;
    std::int64_t day_of_era = year_of_era * 365 + year_of_era / 4 - year_of_era / 100 + day_of_year;
    return era * 146097 + day_of_era - 719468;
}

void CivilFromDays(std::int64_t days, std::int64_t& year, int& month, int& day) {
    days += 719468;
    std::int64_t era = FloorDivide(days, 146097);
    std::int64_t day_of_era = days - era * 146097;
    std::int64_t year_of_era = (day_of_era - day_of_era / 1460 + day_of_era / 36524 - day_of_era / 146096) / 365;
    std::int64_t day_of_year = day_of_era - (365 * year_of_era + year_of_era / 4 - year_of_era / 100);
    std::int64_t shifted_month = (5 * day_of_year + 2) / 153;
    day = static_cast<int>(day_of_year - (153 * shifted_month + 2) / 5 + 1);
    month = static_cast<int>(shifted_month < 10 ? shifted_month + 3 : shifted_month - 9);
    year = year_of_era + era * 400 + (month <= 2 ? 1 : 0);
}

}  // namespace

namespace Clib {

std::int64_t UtcMakeTime(const CalendarTime& utc) {
    std::int64_t months = (std::int64_t(utc.year) + 1900) * 12 + utc.month;
    std::int64_t year = FloorDivide(months, 12);
    int month = static_cast<int>(months - year * 12) + 1;
    std::int64_t days = DaysFromCivil(year, month, 1) + (std::int64_t(utc.day) - 1);
    return days * kSecondsPerDay + std::int64_t(utc.hour) * 3600 + std::int64_t(utc.minute) * 60 + utc.second;
}

bool UtcTime(std::int64_t seconds, CalendarTime& utc) {
    if (seconds > kSecondsLimit || seconds < -kSecondsLimit) return false;
    std::int64_t days = FloorDivide(seconds, kSecondsPerDay);
    std::int64_t in_day = seconds - days * kSecondsPerDay;
    std::int64_t year = 0;
    CivilFromDays(days, year, utc.month, utc.day);
    utc.month -= 1;
    utc.year = static_cast<int>(year - 1900);
    utc.hour = static_cast<int>(in_day / 3600);
    utc.minute = static_cast<int>(in_day / 60 % 60);
    utc.second = static_cast<int>(in_day % 60);
    utc.daylight = 0;
    return true;
}

}  // namespace Clib
