#pragma once
// The times of a directory entry: a date and a time of day in local time,
// two-second steps, with an optional hundredths byte for the creation time.
// Years run from 1980 to 2107.
#include <cstdint>

#include "fat/fat_driver.h"
#include "files/dir_object.h"

class FATDriver::EntryTime {
public:
    // 0 (not known) for a date and time that are both 0.
    static file_time from_disk(std::uint16_t date, std::uint16_t time, std::uint8_t tenths);
    // Leaves the three outputs unchanged for years outside 1980..2107.
    static void to_disk(file_time value, std::uint16_t& date, std::uint16_t& time, std::uint8_t& tenths);
    // The present moment, for the times of new and changed entries.
    static file_time now();
};
