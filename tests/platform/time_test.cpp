#include <gtest/gtest.h>

#include "platform/time.h"
#include "support/TempDir.h"

namespace qx::timeutil {
namespace {

TEST(Time, DosDateTimeRoundTrip) {
  const struct {
    SYSTEMTIME st;
    uint16_t date, time;
  } rows[] = {
      {{2026, 11, 0, 22, 20, 41, 30, 0}, 0x5D76, 0xA52F},
      {{1980, 1, 0, 1, 0, 0, 0, 0}, 0x0021, 0x0000},
      {{2107, 12, 0, 31, 23, 59, 58, 0}, 0xFF9F, 0xBF7D},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.st.wYear);
    uint16_t d = 0, t = 0;
    ToDosDateTime(r.st, d, t);
    EXPECT_EQ(d, r.date);
    EXPECT_EQ(t, r.time);
    const SYSTEMTIME back = FromDosDateTime(d, t);
    EXPECT_EQ(back.wYear, r.st.wYear);
    EXPECT_EQ(back.wMonth, r.st.wMonth);
    EXPECT_EQ(back.wDay, r.st.wDay);
    EXPECT_EQ(back.wHour, r.st.wHour);
    EXPECT_EQ(back.wMinute, r.st.wMinute);
    EXPECT_EQ(back.wSecond, r.st.wSecond);
  }
  // Odd seconds lose one; years outside the format's range are clamped.
  uint16_t d = 0, t = 0;
  ToDosDateTime({1975, 6, 0, 15, 1, 2, 3, 0}, d, t);
  EXPECT_EQ(d >> 9, 0);
  EXPECT_EQ(t & 0x1F, 1);
  // A zero date (as some archives store) gives a valid calendar day, and its weekday.
  const SYSTEMTIME zero = FromDosDateTime(0, 0);
  EXPECT_EQ(zero.wMonth, 1);
  EXPECT_EQ(zero.wDay, 1);
  EXPECT_EQ(zero.wDayOfWeek, 2);  // 1 January 1980 was a Tuesday
}

TEST(Time, LocalTimeAndFileTimes) {
  SYSTEMTIME st{};
  ASSERT_TRUE(ToLocal(1'000'000'000, st));
  EXPECT_EQ(FromLocal(st), 1'000'000'000);
  const SYSTEMTIME now = LocalNow();
  EXPECT_GE(now.wYear, 2024);

  test::TempDir dir;
  dir.Write("caf\xC3\xA9", "x");  // on disk in UTF-8, named in 1252 below
  EXPECT_TRUE(SetFileTime(dir.path() + "/caf\xE9", 1'000'000'000));
  EXPECT_EQ(GetFileTime(dir.path() + "/caf\xE9"), 1'000'000'000);
  EXPECT_EQ(GetFileTime(dir / "none"), -1);
}

}  // namespace
}  // namespace qx::timeutil
