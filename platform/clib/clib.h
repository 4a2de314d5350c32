#pragma once
// The C library layer over the firmware: standard output on the firmware's
// console, formatted printing for 8-bit and 16-bit formats, the multibyte
// form (UTF-8) of 16-bit strings, calendar time, and the end of the program.
// It holds its own copy of the firmware pointers because it starts before
// anything else.
#include <efi.h>

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <string>

namespace Clib {

// Runs once per image; turns off the firmware watchdog as its first act.
// Answers false when the layer cannot work (no console, no boot services).
bool Initialize(EFI_HANDLE image, EFI_SYSTEM_TABLE* system_table);

// The image and system table that the layer was started with.
EFI_HANDLE ImageHandle();
EFI_SYSTEM_TABLE* SystemTable();

// Ends the program with `status` through the firmware's Exit.
[[noreturn]] void Exit(int status);

// The last error number of the layer (ENOMEM after a failed allocation).
int LastError();
void SetLastError(int error);

// Allocation through the layer; a failure sets LastError.
void* Allocate(std::size_t size);
void Release(void* block);

// printf-style output. In an 8-bit format %s takes an 8-bit string, which is
// UTF-8; in a 16-bit format %s takes a 16-bit string. Supported: %d %i %u %x
// %X %c %s %p %%, flags '-' and '0', a width, and the l/ll/h/z length marks.
int Printf(const char* format, ...);
int WPrintf(const char16_t* format, ...);
std::u16string FormatV(const char* format, va_list arguments);
std::u16string FormatV(const char16_t* format, va_list arguments);

// Writes a 16-bit text to standard output; '\n' goes out as CR LF.
void WriteStdout(const std::u16string& text);

// UTF-16 to the multibyte form and back. Unpaired surrogates pass through as
// their own 3-byte forms, so nothing is lost on the way.
std::string ToMultibyte(const char16_t* text, std::size_t length);
std::u16string FromMultibyte(const char* text, std::size_t length);

// A moment in the calendar, with the fields and ranges of the C library's
// broken-down time: month 0 to 11, year counted from 1900, daylight saving
// -1 for not known.
struct CalendarTime {
    int second = 0;
    int minute = 0;
    int hour = 0;
    int day = 1;
    int month = 0;
    int year = 70;
    int daylight = -1;
};

// Local calendar time to seconds since 1970-01-01 00:00:00 UTC. Fields out
// of their range carry over as with mktime (month 12 is January of the next
// year, day 0 the last day of the month before). -1 when it cannot be told.
std::int64_t MakeTime(const CalendarTime& local);
// Seconds since 1970 to local calendar time; false when it cannot be told.
bool LocalTime(std::int64_t seconds, CalendarTime& local);
// The same two conversions in UTC, by calendar arithmetic alone, whatever
// the world's time zone.
std::int64_t UtcMakeTime(const CalendarTime& utc);
bool UtcTime(std::int64_t seconds, CalendarTime& utc);
// The present moment in milliseconds since 1970, 0 when the clock can't be read.
std::int64_t Now();

}  // namespace Clib

// For the host world: a new image may be started in the same process.
namespace ClibTesting {
void ForgetImage();
}
