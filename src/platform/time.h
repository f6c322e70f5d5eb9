// Time stand-in: the platform's SYSTEMTIME, local time, MS-DOS date/time (zip headers) and
// file times.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>

namespace qx {

// The eight 16-bit fields in the platform's order.
struct SYSTEMTIME {
  uint16_t wYear;
  uint16_t wMonth;  // 1-12
  uint16_t wDayOfWeek;  // 0 = Sunday
  uint16_t wDay;
  uint16_t wHour;
  uint16_t wMinute;
  uint16_t wSecond;
  uint16_t wMilliseconds;
};

namespace timeutil {

// The local time now.
SYSTEMTIME LocalNow();
// Local time of a POSIX time; false when it cannot be represented.
bool ToLocal(std::time_t t, SYSTEMTIME& out);
// POSIX time of a local time (day of week and milliseconds are ignored); -1 when invalid.
std::time_t FromLocal(const SYSTEMTIME& st);

// MS-DOS date and time: date = (year - 1980) << 9 | month << 5 | day; time = hour << 11 |
// minute << 5 | second / 2.   2026-11-22 20:41:30 => date 0x5D76, time 0xA52F
void ToDosDateTime(const SYSTEMTIME& st, uint16_t& dosDate, uint16_t& dosTime);
// Fields out of range (month 0, day 0, second 60+) are clamped to the nearest valid value.
SYSTEMTIME FromDosDateTime(uint16_t dosDate, uint16_t dosTime);

// Sets a file's access and modification times (path in 1252). False on failure.
bool SetFileTime(const std::string& path, std::time_t modified);
// A file's modification time; -1 when there is no such file.
std::time_t GetFileTime(const std::string& path);

}  // namespace timeutil
}  // namespace qx
