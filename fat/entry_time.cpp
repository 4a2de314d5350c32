#include "fat/entry_time.h"

#include "platform/clib/clib.h"

namespace {

constexpr int kFirstYear = 1980;
constexpr int kLastYear = 2107;
constexpr int kCalendarYearBase = 1900;  // years of Clib::CalendarTime count from here

}  // namespace

file_time FATDriver::EntryTime::from_disk(std::uint16_t date, std::uint16_t time, std::uint8_t tenths) {
    if (date == 0 && time == 0) return 0;
    Clib::CalendarTime local;
    local.second = (time & 31) * 2;
    local.minute = (time >> 5) & 63;
    local.hour = time >> 11;
    local.day = date & 31;
    local.month = ((date >> 5) & 15) - 1;
    local.year = (date >> 9) + (kFirstYear - kCalendarYearBase);
    local.daylight = -1;
    std::int64_t seconds = Clib::MakeTime(local);
    if (seconds == -1) return 0;
    return seconds * 1000 + std::int64_t(tenths) * 10;
}

void FATDriver::EntryTime::to_disk(file_time value, std::uint16_t& date, std::uint16_t& time, std::uint8_t& tenths) {
    Clib::CalendarTime local;
    if (!Clib::LocalTime(value / 1000, local)) return;
    int year = local.year + kCalendarYearBase;
    if (year < kFirstYear || year > kLastYear) return;
    date = static_cast<std::uint16_t>((year - kFirstYear) << 9 | (local.month + 1) << 5 | local.day);
    time = static_cast<std::uint16_t>(local.hour << 11 | local.minute << 5 | local.second / 2);
    tenths = static_cast<std::uint8_t>((value % 2000) / 10);
}

file_time FATDriver::EntryTime::now() { return Clib::Now(); }
