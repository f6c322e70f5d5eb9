#include <gtest/gtest.h>

#include "formats/DeviceFamily.h"
#include "formats/GroupComment.h"
#include "formats/MemberNames.h"

namespace qx {
namespace {

using namespace std::string_literals;

NameField Field(const std::string& bytes) { return MakeNameField(bytes); }

TEST(MemberNames, KCStyle) {
  // name: name field bytes
  const struct { std::string_view family; unsigned type; std::string name; std::string want; } rows[] = {
      // Single variable letters.
      {kSigKDX, 0x00, "\x5B", "theta.kdn"}, {kSigKC, 0x00, "\x5B", "[.kcn"},
      {kSigKA, 0x00, "\xC1", "\xC1.kan"}, {kSigKC, 0x00, "\xC1", "theta.kcn"}, {kSigKC, 0x01, "A", "A.kcc"},
      {kSigKC, 0x00, "AB", "A.kcn"}, {kSigKA, 0x14, "B", "B.kan"},
      {kSigKA, 0x01, "B", "B"},  // KA: other types have no extension
      // Rules by type, before any look at the name.
      {kSigKDX, 0x05, "AB\x5B" "C", "ABthetaC.kdp"}, {kSigKC, 0x06, "P\xC1", "Ptheta.kcp"},
      {kSigKA, 0x05, "\x5D\x01", "\x5D\x01.kap"}, {kSigKA, 0x0F, "x", "WindowRange.kaw"},
      {kSigKC, 0x0F, "x", "WindowRange.kcw"}, {kSigKA, 0x10, "x", "UserZoomWin.kaw"},
      {kSigKC, 0x10, "x", "UserZoomWin.kcz"}, {kSigKDX, 0x10, "x", "UserZoomWin.kdz"},
      {kSigKDX, 0x11, "x", "TableSetup.kdt"}, {kSigKDX, 0x15, "V", "V.kdv"},
      {kSigKC, 0x15, "V", "V.kcc"},  // no type rule in KC: the letter rule
      {kSigKC, 0x17, "G", "G.kcg"}, {kSigKA, 0x17, "G", "G.kan"}, {kSigKA, 0x1A, "V", "V.kav"},
      {kSigKC, 0x1A, "V", "V.kcc"}, {kSigKA, 0x24, "N", "N.kak"}, {kSigKDX, 0x24, "N", "N.kdk"},
      {kSigKC, 0x24, "N", "N.kcc"},
      // Lists.
      {kSigKC, 0x01, "\x5D\x00"s, "L1.kcl"}, {kSigKC, 0x01, "\x5D\x05"s, "L6.kcl"},
      {kSigKDX, 0x01, "\x5D\x06MYLST", "MYLST.kdl"}, {kSigKDX, 0x01, "\x5D\x07\xC1X", "thetaX.kdl"},
      {kSigKA, 0x01, "\x5D\x01", "L1.kal"}, {kSigKA, 0x01, "\x5D\x06", "L6.kal"},
      {kSigKA, 0x01, "\x5D\x00OWN"s, "OWN.kal"},
      // Equations.
      {kSigKC, 0x03, "\x5E\x10", "Y1.kcy"}, {kSigKC, 0x03, "\x5E\x18", "Y9.kcy"},
      {kSigKC, 0x03, "\x5E\x19", "Y0.kcy"}, {kSigKC, 0x03, "\x5E\x20", "X1T.kcy"},
      {kSigKC, 0x03, "\x5E\x21", "Y1T.kcy"}, {kSigKC, 0x03, "\x5E\x23", "Y2T.kcy"},
      {kSigKDX, 0x03, "\x5E\x3F", "Y@T.kdy"}, {kSigKC, 0x03, "\x5E\x40", "r1.kcy"},
      {kSigKC, 0x03, "\x5E\x7F", "rp.kcy"}, {kSigKC, 0x03, "\x5E\x80", "u.kcy"},
      {kSigKC, 0x03, "\x5E\x82", "w.kcy"},
      {kSigKC, 0x03, "\x5E\x05", "\x5E\x05"},  // below 0x10: no rule, raw name
      {kSigKA, 0x03, "\x5E\x10", "Y1.kay"}, {kSigKA, 0x03, "\x5E\x82", "C3.kac"},
      {kSigKA, 0x03, "\x5E\x40", "\x5E\x40"},
      // Pictures, graph databases, strings, matrices.
      {kSigKC, 0x07, "\x60\x09", "Pic0.kci"}, {kSigKC, 0x07, "\x60\x00"s, "Pic1.kci"},
      {kSigKA, 0x07, "\x60\x03", "Pic3.kai"}, {kSigKC, 0x08, "\x61\x00"s, "GDB1.kcd"},
      {kSigKDX, 0x04, "\xAA\x03", "Str4.kds"}, {kSigKC, 0x02, "\x5C\x01", "B.kcm"},
      {kSigKA, 0x02, "\x5C\x01", "\x5C\x01"}, {kSigKA, 0x04, "\xAA\x03", "\xAA\x03"},
      // Tokens with no rule.
      {kSigKC, 0x01, "\x62\x01", "\x62\x01"}, {kSigKDX, 0x01, "\xBB\x01", "\xBB\x01"},
      {kSigKC, 0x01, "\x7E\x01\x5B", "\x7E\x01\x5B"},
      // A full 8-byte field has no terminator.
      {kSigKC, 0x05, "ABCDEFGH", "ABCDEFGH.kcp"},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.want);
    EXPECT_EQ(MemberFileNameKC(Field(r.name), static_cast<uint8_t>(r.type), r.family), r.want);
  }
}

TEST(MemberNames, MAStyle) {
  // ext: null: no letter
  const struct { unsigned type; std::string_view family; const char* ext; } rows[] = {
      {0x12, kSigMA, ".map"}, {0x24, kSigRa, ".rak"}, {0x0C, kSigNBX, ".nbs"},
      {0x00, kSigNA, ".nae"}, {0x1F, kSigMA, ".mag"}, {0x8B, kSigMA, ".mat"},
      {0x26, kSigMA, ".mab"}, {0x27, kSigMA, ".mab"}, {0x1D, kSigMA, ".mab"},
      {0x05, kSigMA, nullptr}, {0x8C, kSigMA, nullptr}, {0xFF, kSigNA, nullptr},
      {0x05, kSigHWL, ""},    {0x12, kSigKC, ""},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.type);
    const auto ext = TypeExtensionMA(static_cast<uint8_t>(r.type), r.family);
    if (r.ext == nullptr) {
      EXPECT_FALSE(ext);
    } else {
      ASSERT_TRUE(ext);
      EXPECT_EQ(*ext, r.ext);
    }
  }
  EXPECT_EQ(MemberFileNameMA("main", "prog1", 0x12, kSigMA), "main.prog1.map");
  EXPECT_EQ(MemberFileNameMA("main", "prog1", 0x05, kSigMA), "main.prog1");
  EXPECT_EQ(MemberFileNameMA("", "prog1", 0x12, kSigRa), "prog1.rap");
  EXPECT_EQ(MemberFileNameMA("f", "v", 0x12, kSigHWL), "f.v");
}

TEST(MemberNames, CompatibleFamilyRenaming) {
  const struct { const char* name; std::string_view group; const char* want; } rows[] = {
      {"main.prog1.nbp", kSigMA, "main.prog1.map"}, {"main.prog1.map", kSigRa, "main.prog1.rap"},
      {"a.b.rak", kSigNBX, "a.b.nbk"}, {"prog", kSigMA, "prog"},
      {"x.y", kSigMA, "x.ma"},  // fewer than 3 characters from the dot: all of them
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.name);
    EXPECT_EQ(RenameForGroupFamily(r.name, r.group), r.want);
  }
}

TEST(GroupComment, TwoDigitDateAnd24HourTime) {
  const struct { SYSTEMTIME st; const char* want; } rows[] = {
      {{2026, 11, 2, 17, 10, 31, 0, 0}, "11/17/26, 10:31:00"},
      {{2005, 1, 0, 2, 3, 4, 5, 999}, "01/02/05, 03:04:05"},
      {{1999, 12, 5, 31, 23, 59, 59, 0}, "12/31/99, 23:59:59"},
      {{2000, 6, 0, 1, 0, 0, 0, 0}, "06/01/00, 00:00:00"},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.want);
    EXPECT_EQ(GroupCommentText(r.st), r.want);
  }
  EXPECT_EQ(LocalGroupCommentText().size(), 18u);
}

}  // namespace
}  // namespace qx
