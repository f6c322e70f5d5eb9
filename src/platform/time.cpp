#include "platform/time.h"

#include <sys/stat.h>

#include <algorithm>
#include <chrono>

#include "platform/fs.h"

namespace qx::timeutil {

bool ToLocal(std::time_t t, SYSTEMTIME& out) {
  std::tm tm{};
  if (::localtime_r(&t, &tm) == nullptr) return false;
  out.wYear = static_cast<uint16_t>(tm.tm_year + 1900);
  out.wMonth = static_cast<uint16_t>(tm.tm_mon + 1);
  out.wDayOfWeek = static_cast<uint16_t>(tm.tm_wday);
  out.wDay = static_cast<uint16_t>(tm.tm_mday);
  out.wHour = static_cast<uint16_t>(tm.tm_hour);
  out.wMinute = static_cast<uint16_t>(tm.tm_min);
  out.wSecond = static_cast<uint16_t>(tm.tm_sec);
  out.wMilliseconds = 0;
  return true;
}

SYSTEMTIME LocalNow() {
  using namespace std::chrono;
  const auto now = system_clock::now();
  SYSTEMTIME st{};
  ToLocal(system_clock::to_time_t(now), st);
  st.wMilliseconds =
      static_cast<uint16_t>(duration_cast<milliseconds>(now.time_since_epoch()).count() % 1000);
  return st;
}

std::time_t FromLocal(const SYSTEMTIME& st) {
  std::tm tm{};
  tm.tm_year = st.wYear - 1900;
  tm.tm_mon = st.wMonth - 1;
  tm.tm_mday = st.wDay;
  tm.tm_hour = st.wHour;
  tm.tm_min = st.wMinute;
  tm.tm_sec = st.wSecond;
  tm.tm_isdst = -1;
  return std::mktime(&tm);
}

void ToDosDateTime(const SYSTEMTIME& st, uint16_t& dosDate, uint16_t& dosTime) {
  const int year = std::clamp<int>(st.wYear, 1980, 2107) - 1980;
  dosDate = static_cast<uint16_t>((year << 9) | ((st.wMonth & 0x0F) << 5) | (st.wDay & 0x1F));
  dosTime = static_cast<uint16_t>(((st.wHour & 0x1F) << 11) | ((st.wMinute & 0x3F) << 5) |
                                  ((st.wSecond / 2) & 0x1F));
}

SYSTEMTIME FromDosDateTime(uint16_t dosDate, uint16_t dosTime) {
  SYSTEMTIME st{};
  st.wYear = static_cast<uint16_t>(1980 + (dosDate >> 9));
  st.wMonth = static_cast<uint16_t>(std::clamp((dosDate >> 5) & 0x0F, 1, 12));
  st.wDay = static_cast<uint16_t>(std::max(dosDate & 0x1F, 1));
  st.wHour = static_cast<uint16_t>(std::min(dosTime >> 11, 23));
  st.wMinute = static_cast<uint16_t>(std::min((dosTime >> 5) & 0x3F, 59));
  st.wSecond = static_cast<uint16_t>(std::min((dosTime & 0x1F) * 2, 59));
  // Day of week through the calendar (Sakamoto's method), so the fields are consistent.
  static const int offsets[] = {0, 3, 2, 5, 0, 3, 5, 1, 4, 6, 2, 4};
  int y = st.wYear - (st.wMonth < 3 ? 1 : 0);
  st.wDayOfWeek =
      static_cast<uint16_t>((y + y / 4 - y / 100 + y / 400 + offsets[st.wMonth - 1] + st.wDay) % 7);
  return st;
}

bool SetFileTime(const std::string& path, std::time_t modified) {
  const struct timespec t{modified, 0};
  return fs::SetFileTimes(path, t, t);
}

std::time_t GetFileTime(const std::string& path) {
  struct stat st {};
  if (::stat(fs::ToNative(path).c_str(), &st) != 0) return -1;
  return st.st_mtime;
}

}  // namespace qx::timeutil
