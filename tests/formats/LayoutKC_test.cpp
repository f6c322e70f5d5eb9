// The KC layout where the container tests do not reach: header variants, the 16-bit length,
// the checksum's place, damaged files. Adding and deleting are checked through the container.
#include <gtest/gtest.h>

#include "formats/DeviceFamily.h"
#include "formats/LayoutKC.h"
#include "support/Bytes.h"

namespace qx {
namespace {

using namespace test;

// Entries here carry x = 0xCDAB, which the group test reads.
std::string Entry(unsigned type, std::string_view name, std::string_view data, bool kdx = false) {
  return KCEntry(type, name, data, kdx, 0xCDAB);
}
std::string Group(std::string_view sig, const std::string& section) { return KCFile(sig, "", section); }

std::string Parsed(const std::string& bytes, KCGroup& g) {
  EXPECT_TRUE(KCGroup::Parse(U(bytes), g));
  return bytes;
}

TEST(LayoutKC, WalkReadsTypeNameAndLength) {
  const struct { const char* what; std::string_view sig; unsigned typeByte, type; bool kdx; } rows[] = {
      {"plain", kSigKC, 0x05, 0x05, false}, {"high bits dropped", kSigKC, 0x45, 0x05, false},
      {"0x24 kept", kSigKA, 0x24, 0x24, false}, {"0x3F", kSigKC, 0x3F, 0x1F, false},
      {"KDX header", kSigKDX, 0x15, 0x15, true},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.what);
    // The first entry's header is read the family's way too.
    const std::string first = Entry(0x00, "A", "12", r.kdx);
    const std::string file = Group(r.sig, first + Entry(r.typeByte, "NAME", "xyz", r.kdx));
    const KCWalk w = WalkKCGroup(U(file), r.sig);
    EXPECT_FALSE(w.truncated);
    ASSERT_EQ(w.entries.size(), 2u);
    EXPECT_EQ(w.entries[1].type, r.type);
    EXPECT_EQ(NameFieldText(w.entries[1].name), "NAME");
    EXPECT_EQ(w.entries[1].dataLength, 3u);
    EXPECT_EQ(w.entries[1].Size(), r.kdx ? 20u : 18u);
    EXPECT_EQ(w.entries[1].offset, 55 + first.size());
    const auto bytes = KCEntryBytes(U(file), w.entries[1]);
    ASSERT_TRUE(bytes);
    EXPECT_EQ(S(*bytes).substr(bytes->size() - 3), "xyz");
  }
}

TEST(LayoutKC, SectionsOf65536BytesOrMoreStoreZero) {
  // 7 entries of 10000 bytes: a 70000-byte section, more than the 16-bit field holds.
  KCGroup g = KCGroup::NewEmpty(kSigKC, "");
  for (int i = 0; i < 7; ++i) g.AppendEntries(U(Entry(0x01, "L", std::string(10000 - 15, static_cast<char>('a' + i)))));
  const auto file = g.Serialize();
  ASSERT_EQ(file.size(), 70057u);
  EXPECT_EQ(S(file).substr(53, 2), Le16(0));
  EXPECT_EQ(KCDataLength(file), 70000u);
  EXPECT_EQ(WalkKCGroup(file, kSigKC).entries.size(), 7u);
  EXPECT_EQ(KCFileEntries(file)->size(), 0u);  // an added file whose field holds 0 adds nothing
  // A stored 0 in a file under 65536 bytes is an empty section.
  const std::string zeroed = Group(kSigKC, Entry(0, "A", "1")).replace(53, 2, Le16(0));
  EXPECT_EQ(KCDataLength(U(zeroed)), 0u);
  EXPECT_TRUE(WalkKCGroup(U(zeroed), kSigKC).entries.empty());
}

TEST(LayoutKC, DeleteRewritesWithTheFamilySignatureAndAFreshChecksum) {
  const std::string a = Entry(0, "A", "1"), b = Entry(0, "B", "22"), c = Entry(0, "C", "333");
  std::string bytes = KCFile("**QXKC**\x1A\x0A\x07", "kept comment", a + b + c) + "junk after the checksum";
  bytes[55 + 15] ^= 0x55;  // a data byte changed without its checksum: still readable
  KCGroup g;
  Parsed(bytes, g);
  ASSERT_EQ(g.RemoveEntriesIf(kSigKC, [](const KCEntryView& e) { return e.name[0] == 'B'; }), 1u);
  EXPECT_EQ(S(g.Serialize()), KCFile(kKC, "kept comment", bytes.substr(55, a.size()) + c));
}

TEST(LayoutKC, AddWritesWhereTheChecksumStood) {
  // The in-place add overwrites the old checksum and what follows only as far as it writes.
  const std::string a = Entry(0, "A", "1"), b = Entry(0, "B", "");
  const std::string file = Group(kSigKC, a) + "0123456789";
  KCGroup g;
  Parsed(file, g);
  g.AppendEntries(U(b));  // 15 bytes: covers the old checksum and "0123456789" and 3 more
  EXPECT_EQ(S(g.Serialize()), Group(kSigKC, a + b));

  KCGroup h;
  Parsed(file, h);
  h.AppendEntries(U(b).first(4));  // a short write leaves "456789"
  EXPECT_EQ(S(h.Serialize()), Group(kSigKC, a + b.substr(0, 4)) + "456789");
}

TEST(LayoutKC, AnEntryMayEndWithTheFile) {
  // Without its checksum the last entry reaches the end of the bytes, and is still whole.
  const std::string c = Entry(0, "C", "333");
  const std::string whole = Group(kSigKC, Entry(0, "A", "1") + c);
  const auto cut = U(whole).first(whole.size() - 2);
  const KCWalk w = WalkKCGroup(cut, kSigKC);
  ASSERT_EQ(w.entries.size(), 2u);
  const auto bytes = KCEntryBytes(cut, w.entries[1]);
  ASSERT_TRUE(bytes);
  EXPECT_EQ(S(*bytes), c);
  EXPECT_FALSE(KCEntryBytes(cut.first(cut.size() - 1), w.entries[1]));
}

TEST(LayoutKC, DamagedFiles) {
  const std::string good = Group(kSigKC, Entry(0, "A", "1") + Entry(0, "B", "22") + Entry(0, "C", "333"));
  // Every cut walks without reading past the end and keeps the entries before the cut.
  for (size_t n = 0; n < good.size(); ++n) {
    SCOPED_TRACE(n);
    const auto cut = U(good).first(n);
    const KCWalk w = WalkKCGroup(cut, kSigKC);
    EXPECT_LE(w.entries.size(), 3u);
    for (const KCEntryView& e : w.entries)
      if (e.offset + e.Size() > n) {
        EXPECT_FALSE(KCEntryBytes(cut, e));
      }
    KCGroup g;
    EXPECT_EQ(static_cast<bool>(KCGroup::Parse(cut, g)), n >= 55 + 51);
  }
  // truncated: the walk wanted bytes past the end
  const struct { const char* what; size_t at; unsigned with; size_t entries; bool truncated; } rows[] = {
      {"huge h ends the walk after the entry", 55, 0xFFFF, 1, true},
      {"huge d steps past the section", 55 + 13, 0x7FFF, 1, false},
      {"data length beyond the file", 53, 0xFFFF, 3, true},
      {"data length inside the first entry", 53, 5, 1, false},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.what);
    const std::string b = std::string(good).replace(r.at, 2, Le16(r.with));
    EXPECT_EQ(WalkKCGroup(U(b), kSigKC).entries.size(), r.entries);
    EXPECT_EQ(WalkKCGroup(U(b), kSigKC).truncated, r.truncated);
  }
  // An entry to keep that runs past the section refuses the delete.
  KCGroup g;
  Parsed(std::string(good).replace(55 + 13, 1, "\x40"), g);
  EXPECT_FALSE(g.RemoveEntriesIf(kSigKC, [](const KCEntryView&) { return false; }));
}

TEST(LayoutKC, GroupTestLooksPastTheFirstEntry) {
  // x is the first header field after h: 0xCDAB here, so the first entry "ends" far out and
  // only a long section counts; with x = 0 it is h + 4.
  std::string b = Group(kSigKC, Entry(0, "A", "1"));
  EXPECT_FALSE(KCSectionHoldsMoreThanFirstEntry(U(b)));
  b.replace(57, 2, Le16(0));
  EXPECT_TRUE(KCSectionHoldsMoreThanFirstEntry(U(b)));  // 16 > 11 + 0 + 4
  b[57] = 1;
  EXPECT_FALSE(KCSectionHoldsMoreThanFirstEntry(U(b)));  // 16 > 11 + 1 + 4 fails
  EXPECT_FALSE(KCSectionHoldsMoreThanFirstEntry(U(b).first(58)));
}

}  // namespace
}  // namespace qx
