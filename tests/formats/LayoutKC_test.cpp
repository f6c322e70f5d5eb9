#include <gtest/gtest.h>

#include <numeric>

#include "formats/DeviceFamily.h"
#include "formats/LayoutKC.h"
#include "support/Bytes.h"

namespace qx {
namespace {

using test::Bytes;
using test::Hex;

constexpr const char* kWhenText = "11/17/26, 10:31:00";

// One entry with the short header (h = 11) or the KDX one (h = 13).
Bytes Entry(unsigned type, std::string_view name, std::string_view data, bool kdx = false) {
  Bytes e;
  e.U16(kdx ? 13 : 11).U8(0xAB).U8(0xCD).U8(type).Text(name, 8);
  if (kdx) e.U8(0xEE).U8(0xFF);
  return e.U16(static_cast<unsigned>(data.size())).Text(data);
}

unsigned Sum(std::span<const unsigned char> b) { return std::accumulate(b.begin(), b.end(), 0u) & 0xFFFF; }

Bytes Group(std::string_view sig, const std::vector<Bytes>& entries, std::string_view comment = "") {
  Bytes section;
  for (const Bytes& e : entries) section.Raw(e);
  Bytes g;
  g.Text(sig, 11).Text(comment, 42).U16(static_cast<unsigned>(section.size())).Raw(section).U16(Sum(section));
  return g;
}

TEST(LayoutKC, NewEmptyGroupThenOneEntry) {
  Bytes empty;
  empty.Text("**QXKC**\x1A\x0A", 11).Text(kWhenText, 42).U16(0).U16(0);
  KCGroup g = KCGroup::NewEmpty(kSigKC, kWhenText);
  ASSERT_EQ(g.Serialize(), empty.vec());
  ASSERT_EQ(empty.size(), 57u);

  const Bytes entry = Entry(0x05, "PROG", "\x01\x02\x03\xFF\xFE");
  ASSERT_EQ(entry.size(), 20u);
  Bytes file;
  file.Text("**QXKC**\x1A\x0A", 11).Zeros(42).U16(20).Raw(entry).U16(0x7777);
  g.AppendEntries(*KCFileEntries(file));
  Bytes want;
  want.Text("**QXKC**\x1A\x0A", 11).Text(kWhenText, 42).U16(20).Raw(entry).U16(Sum(entry));
  const auto got = g.Serialize();
  EXPECT_EQ(got, want.vec()) << Hex(got);
  EXPECT_EQ(got.size(), 77u);
}

TEST(LayoutKC, WalkReadsTypeNameAndLength) {
  const struct {
    const char* what;
    std::string_view sig;
    unsigned typeByte, type;
    bool kdx;
  } rows[] = {
      {"plain", kSigKC, 0x05, 0x05, false},
      {"high bits dropped", kSigKC, 0x45, 0x05, false},
      {"0x24 kept", kSigKA, 0x24, 0x24, false},
      {"0x3F", kSigKC, 0x3F, 0x1F, false},
      {"KDX header", kSigKDX, 0x15, 0x15, true},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.what);
    // The first entry's header is read the family's way too.
    const Bytes first = r.kdx ? Entry(0x00, "A", "12", true) : Entry(0x00, "A", "12");
    const Bytes file = Group(r.sig, {first, Entry(r.typeByte, "NAME", "xyz", r.kdx)});
    const KCWalk w = WalkKCGroup(file, r.sig);
    EXPECT_FALSE(w.truncated);
    ASSERT_EQ(w.entries.size(), 2u);
    EXPECT_EQ(w.entries[1].type, r.type);
    EXPECT_EQ(NameFieldText(w.entries[1].name), "NAME");
    EXPECT_EQ(w.entries[1].dataLength, 3u);
    EXPECT_EQ(w.entries[1].Size(), r.kdx ? 20u : 18u);
    EXPECT_EQ(w.entries[1].offset, 55 + first.size());
    const auto bytes = KCEntryBytes(file, w.entries[1]);
    ASSERT_TRUE(bytes);
    EXPECT_EQ(std::string(bytes->end() - 3, bytes->end()), "xyz");
  }
}

TEST(LayoutKC, SectionsOf65536BytesOrMoreStoreZero) {
  // 7 entries of 10000 bytes: a 70000-byte section, more than the 16-bit field holds.
  KCGroup g = KCGroup::NewEmpty(kSigKC, "");
  std::vector<Bytes> entries;
  for (int i = 0; i < 7; ++i) {
    entries.push_back(Entry(0x01, "L", std::string(10000 - 15, static_cast<char>('a' + i))));
    g.AppendEntries(entries.back());
  }
  const auto file = g.Serialize();
  ASSERT_EQ(file.size(), 70057u);
  EXPECT_EQ(file[53], 0);
  EXPECT_EQ(file[54], 0);
  EXPECT_EQ(KCDataLength(file), 70000u);
  EXPECT_EQ(WalkKCGroup(file, kSigKC).entries.size(), 7u);
  // A stored 0 in a file under 65536 bytes is an empty section.
  Bytes small = Group(kSigKC, {Entry(0, "A", "1")});
  std::vector<unsigned char> zeroed = small.vec();
  zeroed[53] = 0;
  EXPECT_EQ(KCDataLength(zeroed), 0u);
  EXPECT_TRUE(WalkKCGroup(zeroed, kSigKC).entries.empty());
  // An added file whose field holds 0 contributes nothing.
  std::vector<unsigned char> big = file;
  EXPECT_EQ(KCFileEntries(big)->size(), 0u);
}

TEST(LayoutKC, DeleteRewritesWithTheFamilySignatureAndAFreshChecksum) {
  const Bytes a = Entry(0, "A", "1"), b = Entry(0, "B", "22"), c = Entry(0, "C", "333");
  Bytes file = Group("**QXKC**\x1A\x0A\x07", {a, b, c}, "kept comment");
  file.Text("junk after the checksum");
  std::vector<unsigned char> bytes = file.vec();
  bytes[55 + 15] ^= 0x55;  // a data byte changed without its checksum: still readable
  KCGroup g;
  ASSERT_TRUE(KCGroup::Parse(bytes, g));
  const auto dropped = g.RemoveEntriesIf(kSigKC, [](const KCEntryView& e) { return e.name[0] == 'B'; });
  ASSERT_EQ(dropped, 1u);
  Bytes changedA;
  changedA.Raw(std::span(bytes).subspan(55, a.size()));
  EXPECT_EQ(g.Serialize(), Group(kSigKC, {changedA, c}, "kept comment").vec());
}

TEST(LayoutKC, AddWritesWhereTheChecksumStood) {
  // The in-place add overwrites the old checksum and what follows only as far as it writes.
  const Bytes a = Entry(0, "A", "1");
  Bytes file = Group(kSigKC, {a});
  file.Text("0123456789");
  KCGroup g;
  ASSERT_TRUE(KCGroup::Parse(file, g));
  const Bytes b = Entry(0, "B", "");
  g.AppendEntries(b);  // 15 bytes: covers the old checksum and "0123456789" and 3 more
  Bytes want = Group(kSigKC, {a, b});
  EXPECT_EQ(g.Serialize(), want.vec());

  KCGroup h;
  ASSERT_TRUE(KCGroup::Parse(file, h));
  h.AppendEntries(std::span(b.vec()).first(4));  // a short write leaves "456789"
  Bytes section;
  section.Raw(a).Raw(std::span(b.vec()).first(4));
  Bytes shortWant;
  shortWant.Text(kSigKC, 11).Zeros(42).U16(static_cast<unsigned>(section.size())).Raw(section);
  shortWant.U16(Sum(section)).Text("456789");
  EXPECT_EQ(h.Serialize(), shortWant.vec());
}

TEST(LayoutKC, AnEntryMayEndWithTheFile) {
  // Without its checksum the last entry reaches the end of the bytes, and is still whole.
  const Bytes c = Entry(0, "C", "333");
  const Bytes whole = Group(kSigKC, {Entry(0, "A", "1"), c});
  const std::span<const unsigned char> cut(whole.vec().data(), whole.size() - 2);
  const KCWalk w = WalkKCGroup(cut, kSigKC);
  ASSERT_EQ(w.entries.size(), 2u);
  const auto bytes = KCEntryBytes(cut, w.entries[1]);
  ASSERT_TRUE(bytes);
  EXPECT_TRUE(std::equal(bytes->begin(), bytes->end(), c.vec().begin(), c.vec().end()));
  EXPECT_FALSE(KCEntryBytes(cut.first(cut.size() - 1), w.entries[1]));
}

TEST(LayoutKC, DamagedFiles) {
  const Bytes good = Group(kSigKC, {Entry(0, "A", "1"), Entry(0, "B", "22"), Entry(0, "C", "333")});
  // Every cut walks without reading past the end and keeps the entries before the cut.
  for (size_t n = 0; n < good.size(); ++n) {
    SCOPED_TRACE(n);
    const std::span<const unsigned char> cut(good.vec().data(), n);
    const KCWalk w = WalkKCGroup(cut, kSigKC);
    EXPECT_LE(w.entries.size(), 3u);
    for (const KCEntryView& e : w.entries)
      if (e.offset + e.Size() > n) {
        EXPECT_FALSE(KCEntryBytes(cut, e));
      }
    KCGroup g;
    EXPECT_EQ(static_cast<bool>(KCGroup::Parse(cut, g)), n >= 55 + 51);
  }
  const struct {
    const char* what;
    size_t at;
    std::vector<unsigned char> with;
    size_t entries;
    bool truncated;  // the walk wanted bytes past the end
  } rows[] = {
      {"huge h ends the walk after the entry", 55, {0xFF, 0xFF}, 1, true},
      {"huge d steps past the section", 55 + 13, {0xFF, 0x7F}, 1, false},
      {"data length beyond the file", 53, {0xFF, 0xFF}, 3, true},
      {"data length inside the first entry", 53, {0x05, 0x00}, 1, false},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.what);
    std::vector<unsigned char> b = good.vec();
    std::copy(r.with.begin(), r.with.end(), b.begin() + static_cast<ptrdiff_t>(r.at));
    EXPECT_EQ(WalkKCGroup(b, kSigKC).entries.size(), r.entries);
    EXPECT_EQ(WalkKCGroup(b, kSigKC).truncated, r.truncated);
  }
  // An entry to keep that runs past the section refuses the delete.
  std::vector<unsigned char> b = good.vec();
  b[55 + 13] = 0x40;
  KCGroup g;
  ASSERT_TRUE(KCGroup::Parse(b, g));
  EXPECT_FALSE(g.RemoveEntriesIf(kSigKC, [](const KCEntryView&) { return false; }));
}

TEST(LayoutKC, GroupTestLooksPastTheFirstEntry) {
  // x is the first header field after h: for these entries the 2 bytes AB CD = 0xCDAB, so the
  // first entry "ends" far out and only a long section counts; with x = 0 it is h + 4.
  Bytes one = Group(kSigKC, {Entry(0, "A", "1")});
  std::vector<unsigned char> b = one.vec();
  EXPECT_FALSE(KCSectionHoldsMoreThanFirstEntry(b));
  b[57] = b[58] = 0;
  EXPECT_TRUE(KCSectionHoldsMoreThanFirstEntry(b));  // 16 > 11 + 0 + 4
  b[57] = 1;
  EXPECT_FALSE(KCSectionHoldsMoreThanFirstEntry(b));  // 16 > 11 + 1 + 4 fails
  EXPECT_FALSE(KCSectionHoldsMoreThanFirstEntry(std::span(b).first(58)));
}

TEST(LayoutKC, SingleVariableFile) {
  const Bytes e = Entry(0x24, "N", "abc");
  Bytes want;
  want.Text("**QXKA**\x1A\x0A", 11).Zeros(42).U16(static_cast<unsigned>(e.size())).Raw(e).U16(Sum(e));
  EXPECT_EQ(BuildKCSingleFile(kSigKA, e), want.vec());
}

}  // namespace
}  // namespace qx
