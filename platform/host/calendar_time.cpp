// Calendar time of the host world: the C library's own, with the host's
// time zone, so that times written to a disk image read the same in the
// host's tools.
#include <time.h>

#include "platform/clib/clib.h"

namespace {

void ToTm(const Clib::CalendarTime& from, tm& to) {
    to = tm();
    to.tm_sec = from.second;
    to.tm_min = from.minute;
    to.tm_hour = from.hour;
    to.tm_mday = from.day;
    to.tm_mon = from.month;
    to.tm_year = from.year;
    to.tm_isdst = from.daylight;
}

void FromTm(const tm& from, Clib::CalendarTime& to) {
    to.second = from.tm_sec;
    to.minute = from.tm_min;
    to.hour = from.tm_hour;
    to.day = from.tm_mday;
    to.month = from.tm_mon;
    to.year = from.tm_year;
    to.daylight = from.tm_isdst;
}

}  // namespace

namespace Clib {

std::int64_t MakeTime(const CalendarTime& local) {
    tm fields;
    ToTm(local, fields);
    return static_cast<std::int64_t>(mktime(&fields));
}

bool LocalTime(std::int64_t seconds, CalendarTime& local) {
    time_t moment = static_cast<time_t>(seconds);
    tm fields;
    if (localtime_r(&moment, &fields) == nullptr) return false;
    FromTm(fields, local);
    return true;
}

std::int64_t Now() {
    timespec now;
    if (clock_gettime(CLOCK_REALTIME, &now) != 0) return 0;
    return static_cast<std::int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

}  // namespace Clib
