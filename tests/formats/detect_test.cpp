#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include "formats/DeviceFamily.h"
#include "support/TempDir.h"

namespace qx {
namespace {

using namespace std::string_literals;

TEST(DetectFileSignature, FirstBytesAndExtension) {
  const struct { const char* name; std::string bytes; std::string_view want; } rows[] = {
      {"x.kac", "**QXKA**\x1A\x0A\0more"s, kSigKA}, {"x.kbc", "**QXKB**\x1A\x0A\0"s, kSigKB},
      {"x.kcp", "**QXKC**\x1A\x0A\0"s, kSigKC}, {"x.kdp", "**QXKDX*\x1A\x0A\0"s, kSigKDX},
      {"x.kfg", "**QXKF**\x1A\x0A\0"s, kSigKF}, {"x.map", "**QXMA**\x01\0"s, kSigMA},
      {"x.nap", "**QXNA**\x01\0"s, kSigNA},
      // NA, NBX and MA written with the 0x1A 0x0A tail stand for the 0x01 forms.
      {"x.nap", "**QXNA**\x1A\x0A\0"s, kSigNA}, {"x.nbp", "**QXNBX*\x1A\x0A\0"s, kSigNBX},
      {"x.bin", "**QXMA**\x1A\x0A\0"s, kSigMA},
      // The NBX bytes are MA or ra by extension, looked at only when it has 3+ characters.
      {"x.map", "**QXNBX*\x01\0"s, kSigMA}, {"x.rap", "**QXNBX*\x01\0"s, kSigRa},
      {"x.MAP", "**QXNBX*\x01\0"s, kSigMA}, {"x.nbp", "**QXNBX*\x01\0"s, kSigNBX},
      {"noext", "**QXNBX*\x01\0"s, kSigNBX}, {"x.m", "**QXNBX*\x01\0"s, kSigNBX},
      {"ma.rap", "**QXNBX*\x01\0"s, kSigRa},   // only the extension is searched
      {"x.rama", "**QXNBX*\x01\0"s, kSigMA},   // "ma" is tested first
      {"x.nbp", "**QXNBX*\x08\0"s, kSigRa},    // what the system writes for ra
      {"x.hwl", "**QXHWL*\0\0"s, kSigHWL}, {"x.fl", "**QXFL**"s, kSigFlash},
      {"x.kdk", "**QXFL**\x02\x40\x01\x00"s, kSigFlash}, {"x.zip", "PK\x03\x04\x14\0\0\0"s, kSigZip},
      {"e.zip", "PK\x05\x06"s + std::string(18, '\0'), kSigZip},
      {"t.txt", "hello world, not calculator data"s, kSigUnknown},
      {"z.bin", "\0**QXMA**\x01"s, kSigUnknown}, {"empty", ""s, kSigUnknown}, {"short", "PK"s, kSigUnknown},
      {"short2", "**Q"s, kSigUnknown},
  };
  test::TempDir dir;
  for (const auto& r : rows) {
    SCOPED_TRACE(std::string(r.name) + " " + r.bytes.substr(0, 10));
    const std::string path = dir.Write(r.name, r.bytes);
    EXPECT_EQ(DetectFileSignature(path), r.want);
  }
}

TEST(DetectFileSignature, NearMissesAreReturnedAsRead) {
  test::TempDir dir;
  // Signature bytes followed by other bytes than the family's: no family matches.
  EXPECT_EQ(DetectFileSignature(dir.Write("a", "**QXHWL*\x05\0"s)), "**QXHWL*\x05");
  EXPECT_EQ(FindFamilyBySignature(DetectFileSignature(dir.Write("b", "**QXKC**\x1A\x0B"s))),
            nullptr);
  EXPECT_EQ(DetectFileSignature(dir.Write("c", "**QX"s)), "**QX");
}

TEST(DetectFileSignature, UnopenablePaths) {
  test::TempDir dir;
  EXPECT_EQ(DetectFileSignature(dir / "missing"), kSigUnknown);
  EXPECT_EQ(DetectFileSignature(dir.path()), kSigUnknown);
  EXPECT_EQ(DetectFileSignature(""), kSigUnknown);
  const std::string locked = dir.Write("locked.map", "**QXMA**\x01\0"s);
  ::chmod(locked.c_str(), 0);
  if (::geteuid() != 0) {
    EXPECT_EQ(DetectFileSignature(locked), kSigUnknown);
  }
  // A 1252 name reaches the disk as UTF-8.
  dir.Write("caf\xC3\xA9.map", "**QXMA**\x01\0"s);
  EXPECT_EQ(DetectFileSignature(dir.path() + "/caf\xE9.map"), kSigMA);
}

TEST(DeviceFamily, Compatibility) {
  EXPECT_TRUE(AreFamiliesCompatible(kSigMA, kSigNBX));
  EXPECT_TRUE(AreFamiliesCompatible(kSigRa, kSigMA));
  EXPECT_TRUE(AreFamiliesCompatible(kSigKC, kSigKC));
  EXPECT_FALSE(AreFamiliesCompatible(kSigMA, kSigNA));
  EXPECT_FALSE(AreFamiliesCompatible(kSigKA, kSigKC));
  EXPECT_FALSE(AreFamiliesCompatible(kSigFlash, kSigFlash));
  EXPECT_FALSE(AreFamiliesCompatible(kSigUnknown, kSigUnknown));
  for (const FamilyInfo& f : Families()) {
    EXPECT_EQ(FindFamilyBySignature(f.signature), &f);
    EXPECT_EQ(f.hasGroups, f.name != "KB" && f.name != "KF") << f.name;  // no groups of theirs
  }
}

}  // namespace
}  // namespace qx
