#include <gtest/gtest.h>

#include "platform/time.h"
#include "support/TempDir.h"

namespace qx::timeutil {
namespace {

// Ordinary stamps both ways are pinned by the zip tests (tests/archive); here the edges.
TEST(Time, DosEdgesLocalTimeAndFileTimes) {
  uint16_t d = 0, t = 0;
  ToDosDateTime({2107, 12, 0, 31, 23, 59, 58, 0}, d, t);
  EXPECT_EQ(std::pair(d, t), (std::pair<uint16_t, uint16_t>(0xFF9F, 0xBF7D)));
  // Odd seconds lose one; years before the format's range are clamped.
  ToDosDateTime({1975, 6, 0, 15, 1, 2, 3, 0}, d, t);
  EXPECT_EQ(std::pair(d >> 9, t & 0x1F), std::pair(0, 1));
  // A zero date (as some archives store) gives a valid calendar day, and its weekday (a Tuesday).
  const SYSTEMTIME zero = FromDosDateTime(0, 0);
  EXPECT_EQ(std::tuple(zero.wYear, zero.wMonth, zero.wDay, zero.wDayOfWeek), std::tuple(1980, 1, 1, 2));
  EXPECT_EQ(FromDosDateTime(0x21, 0x1F).wSecond, 59);  // a stored 62 seconds is held to the minute
  SYSTEMTIME st{};
  ASSERT_TRUE(ToLocal(1'000'000'000, st));
  EXPECT_EQ(FromLocal(st), 1'000'000'000);
  test::TempDir dir;
  dir.Write("caf\xC3\xA9", "x");  // on disk in UTF-8, named in 1252 below
  EXPECT_TRUE(SetFileTime(dir.path() + "/caf\xE9", 1'000'000'000));
  EXPECT_EQ(GetFileTime(dir.path() + "/caf\xE9"), 1'000'000'000);
  EXPECT_EQ(GetFileTime(dir / "none"), -1);
}

}  // namespace
}  // namespace qx::timeutil
