#include <gtest/gtest.h>

#include <map>
#include <optional>

#include "formats/DeviceFamily.h"
#include "formats/GroupComment.h"
#include "formats/LayoutMA.h"
#include "support/Bytes.h"

namespace qx {
namespace {

using test::Bytes;
using test::Hex;

const SYSTEMTIME kWhen{2026, 11, 2, 17, 10, 31, 0, 0};
constexpr const char* kWhenText = "11/17/26, 10:31:00";

Bytes Header(unsigned count, std::string_view comment = kWhenText) {
  Bytes b;
  b.Text("**QXMA**\x01", 10).Zeros(8).Text(comment, 40).U16(count);
  return b;
}
Bytes& Entry(Bytes& b, uint32_t offset, std::string_view name, unsigned type, unsigned attr,
             unsigned extra) {
  return b.U32(offset).Text(name, 8).U8(type).U8(attr).U16(extra);
}

MAVariable Var(std::string_view name, unsigned type, std::string_view data, unsigned attr = 0,
               unsigned extra = 0) {
  MAVariable v;
  v.fields.name = MakeNameField(name);
  v.fields.type = static_cast<uint8_t>(type);
  v.fields.attribute = static_cast<uint8_t>(attr);
  v.fields.extra = {static_cast<unsigned char>(extra), static_cast<unsigned char>(extra >> 8)};
  v.data.assign(data.begin(), data.end());
  return v;
}

std::vector<unsigned char> Write(const MAGroup& g) {
  std::vector<unsigned char> out;
  EXPECT_TRUE(g.Serialize(out));
  return out;
}

MAGroup Parsed(std::span<const unsigned char> bytes) {
  MAGroup g;
  const LayoutResult r = MAGroup::Parse(bytes, g);
  EXPECT_TRUE(r) << r.what << " at " << r.offset;
  return g;
}

// The group that holds prog1 (6 bytes) in "main": 0x68 bytes.
Bytes OneVariableGroup() {
  Bytes b = Header(2);
  Entry(b, 0x62, "main", 0x1F, 0, 1);
  Entry(b, 0x62, "prog1", 0x12, 0x07, 0x1234);
  b.U32(0x68).U8(0x5A).U8(0xA5).Text("ABCDEF");
  return b;
}

// main (a: 4 bytes, b: 2), x (empty), y (c: 3), with a comment and marker of its own.
Bytes SampleGroup() {
  Bytes b = Header(6, "made elsewhere");
  Entry(b, 162, "main", 0x1F, 0, 2);
  Entry(b, 162, "a", 0x12, 0, 0);
  Entry(b, 166, "b", 0x04, 0x80, 0xBEEF);
  Entry(b, 168, "x", 0x1F, 3, 0);
  Entry(b, 168, "y", 0x1F, 0, 1);
  Entry(b, 168, "c", 0x0C, 0, 0);
  b.U32(171).U8(0x12).U8(0x34).Text("aaaabbccc");
  return b;
}

TEST(LayoutMA, NewEmptyGroupIs0x52Bytes) {
  Bytes want = Header(1);
  Entry(want, 0x52, "main", 0x1F, 0, 0);
  want.U32(0x52).U8(0x5A).U8(0xA5);
  ASSERT_EQ(want.size(), 0x52u);
  const auto got = Write(MAGroup::NewEmpty(kSigMA, GroupCommentText(kWhen)));
  EXPECT_EQ(got, want.vec()) << Hex(got);
  EXPECT_TRUE(WalkMAGroup(got).members.empty());
}

TEST(LayoutMA, NewMemberGoesFirstInItsFolder) {
  MAGroup g = MAGroup::NewEmpty(kSigMA, kWhenText);
  ASSERT_TRUE(g.InsertFirst(0, Var("prog1", 0x12, "ABCDEF", 0x07, 0x1234)));
  const auto one = Write(g);
  EXPECT_EQ(one, OneVariableGroup().vec()) << Hex(one);

  // a then b: b's entry and data come first; count 3 puts the data at 0x72.
  MAGroup two = MAGroup::NewEmpty(kSigMA, kWhenText);
  two.InsertFirst(0, Var("a", 0x12, "aaa"));
  two.InsertFirst(0, Var("b", 0x12, "bbbbb"));
  Bytes want = Header(3);
  Entry(want, 0x72, "main", 0x1F, 0, 2);
  Entry(want, 0x72, "b", 0x12, 0, 0);
  Entry(want, 0x77, "a", 0x12, 0, 0);
  want.U32(0x7A).U8(0x5A).U8(0xA5).Text("bbbbbaaa");
  EXPECT_EQ(Write(two), want.vec()) << Hex(Write(two));
}

TEST(LayoutMA, AppendedFolderMovesEveryOffsetBy32) {
  MAGroup g = Parsed(OneVariableGroup());
  ASSERT_TRUE(g.AppendFolder(MakeNameField("new"), Var("c", 0x0C, "xyz")));
  Bytes want = Header(4);
  Entry(want, 0x82, "main", 0x1F, 0, 1);
  Entry(want, 0x82, "prog1", 0x12, 0x07, 0x1234);
  Entry(want, 0x88, "new", 0x1F, 0, 1);
  Entry(want, 0x88, "c", 0x0C, 0, 0);
  want.U32(0x8B).U8(0x5A).U8(0xA5).Text("ABCDEFxyz");
  const auto got = Write(g);
  ASSERT_EQ(got, want.vec()) << Hex(got);

  // Deleting the only member of "new" removes the folder too: back to the 0x68-byte group.
  MAGroup h = Parsed(got);
  EXPECT_EQ(h.RemoveMembersIf([](const MAFolder&, const MAVariable& m) {
    return NameFieldText(m.fields.name) == "c";
  }), 1u);
  EXPECT_EQ(h.EntryCount(), 2u);
  EXPECT_EQ(Write(h), OneVariableGroup().vec());
}

TEST(LayoutMA, DeletingKeepsFoldersThatStillHoldMembers) {
  const struct {
    const char* drop;
    std::vector<std::string> folders;  // after the delete
    uint32_t size;
  } rows[] = {
      {"a", {"main", "x", "y"}, 171 - 16 - 4},
      {"b", {"main", "x", "y"}, 171 - 16 - 2},
      {"c", {"main", "x"}, 171 - 32 - 3},  // y emptied: gone; x was empty already: stays
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.drop);
    MAGroup g = Parsed(SampleGroup());
    g.RemoveMembersIf([&](const MAFolder&, const MAVariable& m) { return NameFieldText(m.fields.name) == r.drop; });
    std::vector<std::string> folders;
    for (const MAFolder& f : g.folders()) folders.push_back(NameFieldText(f.name));
    EXPECT_EQ(folders, r.folders);
    const auto bytes = Write(g);
    EXPECT_EQ(bytes.size(), r.size);
    // Every remaining member still reads back with its own data: "aaaa", "bb", "ccc".
    const std::map<char, std::string> data{{'a', "aaaa"}, {'b', "bb"}, {'c', "ccc"}};
    for (const MAMemberView& m : WalkMAGroup(bytes).members) {
      const auto block = MABlock(bytes, m);
      ASSERT_TRUE(block);
      EXPECT_EQ(std::string(block->begin(), block->end()), data.at(static_cast<char>(m.fields.name[0])));
    }
  }
}

TEST(LayoutMA, UnchangedGroupsWriteBackByteForByte) {
  Bytes lead = Header(2);  // two stray bytes between the table and the first block
  Entry(lead, 0x64, "main", 0x1F, 0, 1);
  Entry(lead, 0x64, "v", 0x00, 9, 0x0102);
  lead.U32(0x67).U8(0).U8(0).Text("??").Text("abc");
  for (const Bytes& b : {SampleGroup(), OneVariableGroup(), lead}) {
    SCOPED_TRACE(Hex(b));
    EXPECT_EQ(Write(Parsed(b)), b.vec());
  }
}

TEST(LayoutMA, BytesAfterTheFileSizeStayOnAddAndJoinTheLastBlockOnDelete) {
  Bytes b = SampleGroup();
  b.Text("TT");  // file size field says 171; the file is 173 bytes
  MAGroup add = Parsed(b);
  add.InsertFirst(0, Var("n", 0x12, "N"));
  const auto added = Write(add);
  ASSERT_EQ(added.size(), 173u + 16 + 1);
  EXPECT_EQ(added[60 + 16 * 7], 171 + 16 + 1);  // size field: old + entry + data, not the length
  EXPECT_EQ(std::string(added.end() - 2, added.end()), "TT");

  MAGroup del = Parsed(b);
  del.RemoveMembersIf([](const MAFolder&, const MAVariable& m) { return m.fields.name[0] == 'a'; });
  const auto deleted = Write(del);
  ASSERT_EQ(deleted.size(), 173u - 16 - 4);
  EXPECT_EQ(deleted[60 + 16 * 5], deleted.size());  // the real length
  const MAWalk w = WalkMAGroup(deleted);
  ASSERT_EQ(w.members.size(), 2u);
  EXPECT_EQ(w.members[1].BlockLength(), 5u);  // "ccc" + "TT"
}

TEST(LayoutMA, DamagedGroupsAreRefusedForChanges) {
  const auto patched = [](size_t at, std::vector<unsigned char> with) {
    std::vector<unsigned char> b = SampleGroup().vec();
    std::copy(with.begin(), with.end(), b.begin() + static_cast<ptrdiff_t>(at));
    return b;
  };
  const auto cut = [](size_t n) {
    std::vector<unsigned char> b = SampleGroup().vec();
    b.resize(n);
    return b;
  };
  const struct {
    const char* what;
    std::vector<unsigned char> bytes;
    LayoutResult::Code code;
    size_t offset;
  } rows[] = {
      {"header cut", cut(59), LayoutResult::kTruncated, 59},
      {"table cut", cut(150), LayoutResult::kTruncated, 156},
      {"single-variable file", patched(10, {'m', 'a', 'i', 'n'}), LayoutResult::kNotAGroup, 10},
      {"count past the end", patched(58, {0xFF, 0x00}), LayoutResult::kTruncated, 60 + 16 * 255},
      {"table starts with a variable", patched(72, {0x12}), LayoutResult::kBadTable, 60},
      {"member count overruns", patched(74, {6, 0}), LayoutResult::kBadTable, 60},
      {"last folder overruns", patched(138, {2, 0}), LayoutResult::kBadTable, 124},
      {"folder counted as member", patched(74, {3, 0}), LayoutResult::kBadTable, 108},
      {"offsets backwards", patched(92, {160, 0}), LayoutResult::kBadOffset, 92},
      {"offset inside the table", patched(76, {100, 0}), LayoutResult::kBadOffset, 76},
      {"size field past the end", patched(156, {172, 0}), LayoutResult::kBadOffset, 156},
      {"size field before last block", patched(156, {167, 0}), LayoutResult::kBadOffset, 156},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.what);
    MAGroup g;
    const LayoutResult res = MAGroup::Parse(r.bytes, g);
    EXPECT_EQ(res.code, r.code) << res.what;
    EXPECT_EQ(res.offset, r.offset);
  }
  // The looser "empty" test of adding and deleting: folder bytes adding up to 0 mod 256.
  EXPECT_TRUE(Parsed(patched(10, {0x80, 0x80})).EntryCount() == 6);
}

TEST(LayoutMA, WalkFollowsFoldersAndTheBlockRule) {
  const Bytes b = SampleGroup();
  const MAWalk w = WalkMAGroup(b);
  EXPECT_EQ(w.end, MAWalk::kTableEnd);
  ASSERT_EQ(w.members.size(), 3u);
  const struct {
    const char* folder;
    const char* name;
    uint32_t offset, length;
  } want[] = {{"main", "a", 162, 4}, {"main", "b", 166, 2}, {"y", "c", 168, 3}};
  for (size_t i = 0; i < 3; ++i) {
    SCOPED_TRACE(want[i].name);
    EXPECT_EQ(NameFieldText(w.members[i].folder), want[i].folder);
    EXPECT_EQ(NameFieldText(w.members[i].fields.name), want[i].name);
    EXPECT_EQ(w.members[i].dataOffset, want[i].offset);
    EXPECT_EQ(w.members[i].BlockLength(), want[i].length);
  }
  EXPECT_EQ(w.members[1].fields.attribute, 0x80);
  EXPECT_EQ(w.members[1].fields.extra[1], 0xBE);
}

TEST(LayoutMA, WalkOfDamagedFilesStopsCleanly) {
  const std::vector<unsigned char> whole = SampleGroup().vec();
  const struct {
    size_t keep;  // bytes of the file that remain
    size_t members;
    MAWalk::End end;
  } rows[] = {
      {0, 0, MAWalk::kStepFailed},        {63, 0, MAWalk::kStepFailed},
      {92, 0, MAWalk::kTableEnd},         // first data offset 162 lies beyond the file
      {162, 3, MAWalk::kTableEnd},        // table whole, data gone: listed, blocks unreadable
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.keep);
    const std::span<const unsigned char> bytes(whole.data(), r.keep);
    const MAWalk w = WalkMAGroup(bytes);
    EXPECT_EQ(w.members.size(), r.members);
    EXPECT_EQ(w.end, r.end);
    for (const MAMemberView& m : w.members) EXPECT_FALSE(MABlock(bytes, m));
  }
  // A first data offset that ends the table early: only the entries before it are looked at.
  std::vector<unsigned char> early = whole;
  early[60] = 60 + 16 * 2 + 6;
  EXPECT_EQ(WalkMAGroup(early).members.size(), 1u);
}

// Each bound at its edge: one byte either side of where reading must stop.
TEST(LayoutMA, BoundsHoldAtTheirEdges) {
  const std::vector<unsigned char> whole = SampleGroup().vec();
  // A first data offset of 159 lets files cut to 159 or 160 bytes reach c's entry at 140.
  std::vector<unsigned char> early = whole;
  early[60] = 159;
  // A member is read only with the block-end field after it: c's ends at 160.
  for (const size_t keep : {size_t{160}, size_t{159}}) {
    SCOPED_TRACE(keep);
    const MAWalk w = WalkMAGroup(std::span(early).first(keep));
    EXPECT_EQ(w.members.size(), keep == 160 ? 3u : 2u);
    EXPECT_EQ(w.end, keep == 160 ? MAWalk::kTableEnd : MAWalk::kMemberUnreadable);
  }
  const struct {
    const char* what;
    uint32_t bOffset;  // b's data offset; its block ends at 168
    std::optional<size_t> bLength;
  } rows[] = {
      {"block ends where its data starts", 168, 0},
      {"block ends before its data", 169, std::nullopt},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.what);
    std::vector<unsigned char> b = whole;
    b[92] = static_cast<unsigned char>(r.bOffset);
    const MAWalk w = WalkMAGroup(b);
    ASSERT_EQ(w.members.size(), 3u);
    const auto block = MABlock(b, w.members[1]);
    EXPECT_EQ(block ? std::optional(block->size()) : std::nullopt, r.bLength);
    ASSERT_TRUE(MABlock(b, w.members[2]));  // the last block ends with the file
    EXPECT_EQ(MABlock(b, w.members[2])->size(), 3u);
  }
}

// The entry count is a 16-bit field: a member needs one free entry, a new folder two.
TEST(LayoutMA, EntryCountStopsAt65535) {
  MAGroup g = MAGroup::NewEmpty(kSigMA, kWhenText);  // main: one entry
  while (g.EntryCount() < 0xFFFD) ASSERT_TRUE(g.InsertFirst(0, Var("v", 0x12, "")));
  EXPECT_TRUE(g.AppendFolder(MakeNameField("f"), Var("w", 0x12, "")));  // 0xFFFF entries
  g = MAGroup::NewEmpty(kSigMA, kWhenText);
  while (g.EntryCount() < 0xFFFE) ASSERT_TRUE(g.InsertFirst(0, Var("v", 0x12, "")));
  EXPECT_FALSE(g.AppendFolder(MakeNameField("f"), Var("w", 0x12, "")));
  EXPECT_TRUE(g.InsertFirst(0, Var("v", 0x12, "")));
  EXPECT_FALSE(g.InsertFirst(0, Var("v", 0x12, "")));
  EXPECT_EQ(g.EntryCount(), 0xFFFFu);
}

TEST(LayoutMA, SingleVariableFiles) {
  Bytes want;
  want.Text("**QXNBX*\x08", 10).Text("main", 8).Zeros(40).U16(1);
  Entry(want, 0x52, "prog1", 0x12, 0x07, 0x1234);
  want.U32(0x58).U8(0xA5).U8(0x5A).Text("ABCDEF");
  const Bytes group = OneVariableGroup();
  const MAWalk w = WalkMAGroup(group);
  ASSERT_EQ(w.members.size(), 1u);
  const auto block = MABlock(group, w.members[0]);
  ASSERT_TRUE(block);
  EXPECT_EQ(BuildMASingleFile(kSigRa, w.members[0].folder, w.members[0].fields, *block), want.vec());

  // The file names its folder at offset 10 and walks as one member in that folder.
  EXPECT_EQ(MAIsGroup(want), false);
  EXPECT_EQ(NameFieldText(WalkMAGroup(want).members.at(0).folder), "main");
  MASingleFile f;
  ASSERT_TRUE(ParseMASingleFile(want, f));
  EXPECT_EQ(NameFieldText(f.folder), "main");
  EXPECT_EQ(f.fields.extra[0], 0x34);
  EXPECT_EQ(std::string(f.data.begin(), f.data.end()), "ABCDEF");
  // The same bytes with an empty folder field read as a group.
  std::vector<unsigned char> asGroup = want.vec();
  std::fill(asGroup.begin() + 10, asGroup.begin() + 18, 0);
  EXPECT_EQ(MAIsGroup(asGroup), true);

  const struct {
    const char* what;
    size_t keep;
    uint32_t sizeField;
  } bad[] = {{"short", 0x51, 0x58}, {"size below header", 0x58, 0x51}, {"size past end", 0x58, 0x59}};
  for (const auto& r : bad) {
    SCOPED_TRACE(r.what);
    std::vector<unsigned char> b = want.vec();
    b[0x4C] = static_cast<unsigned char>(r.sizeField);
    b.resize(r.keep);
    EXPECT_FALSE(ParseMASingleFile(b, f));
  }
}

}  // namespace
}  // namespace qx
