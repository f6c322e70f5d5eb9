// The MA layout where the container tests do not reach: bytes kept as found, refusals with
// their offsets, walks of damaged files and the bounds at their edges. Adding and deleting
// are checked byte for byte through the container.
#include <gtest/gtest.h>

#include <optional>

#include "formats/DeviceFamily.h"
#include "formats/GroupComment.h"
#include "formats/LayoutMA.h"
#include "support/Bytes.h"

namespace qx {
namespace {

using namespace test;

constexpr const char* kWhenText = "11/17/26, 10:31:00";

std::string Header(unsigned count, std::string_view comment) {
  return Padded(kMA, 10) + std::string(8, '\0') + Padded(comment, 40) + Le16(count);
}

MAVariable NewVar(std::string_view name) {
  MAVariable v;
  v.fields.name = MakeNameField(name);
  v.fields.type = 0x12;
  return v;
}

std::string Write(const MAGroup& g) {
  std::vector<unsigned char> out;
  EXPECT_TRUE(g.Serialize(out));
  return S(out);
}

MAGroup Parsed(const std::string& bytes) {
  MAGroup g;
  const LayoutResult r = MAGroup::Parse(U(bytes), g);
  EXPECT_TRUE(r) << r.what << " at " << r.offset;
  return g;
}

// main (a: 4 bytes, b: 2), x (empty, attribute 3), y (c: 3), with a comment and marker of its own.
std::string SampleGroup() {
  return Header(6, "made elsewhere") + MAEntry(162, "main", 0x1F, 0, 2) + MAEntry(162, "a", 0x12, 0, 0) +
         MAEntry(166, "b", 0x04, 0x80, 0xBEEF) + MAEntry(168, "x", 0x1F, 3, 0) +
         MAEntry(168, "y", 0x1F, 0, 1) + MAEntry(168, "c", 0x0C, 0, 0) + Le32(171) + "\x12\x34" +
         "aaaabbccc";
}

TEST(LayoutMA, NewEmptyGroupIs0x52Bytes) {
  const std::string got = Write(MAGroup::NewEmpty(kSigMA, GroupCommentText({2026, 11, 2, 17, 10, 31, 0, 0})));
  EXPECT_EQ(got, MAGroupFile({{"main", {}}}, kWhenText));
  EXPECT_TRUE(WalkMAGroup(U(got)).members.empty());
}

TEST(LayoutMA, UnchangedGroupsWriteBackByteForByte) {
  // Two stray bytes between the table and the first block.
  const std::string lead = Header(2, "") + MAEntry(0x64, "main", 0x1F, 0, 1) + MAEntry(0x64, "v", 0, 9, 0x0102) +
                           Le32(0x67) + std::string(2, '\0') + "??abc";
  for (const std::string& b : {SampleGroup(), lead}) EXPECT_EQ(Write(Parsed(b)), b);
}

TEST(LayoutMA, BytesAfterTheFileSizeStayOnAddAndJoinTheLastBlockOnDelete) {
  const std::string b = SampleGroup() + "TT";  // file size field says 171; the file is 173 bytes
  MAGroup add = Parsed(b);
  add.InsertFirst(0, NewVar("n"));
  const std::string added = Write(add);
  ASSERT_EQ(added.size(), 173u + 16);
  EXPECT_EQ(added.substr(60 + 16 * 7, 4), Le32(171 + 16));  // old + entry, not the length
  EXPECT_EQ(added.substr(added.size() - 2), "TT");

  MAGroup del = Parsed(b);
  del.RemoveMembersIf([](const MAFolder&, const MAVariable& m) { return m.fields.name[0] == 'a'; });
  const std::string deleted = Write(del);
  ASSERT_EQ(deleted.size(), 173u - 16 - 4);
  EXPECT_EQ(deleted.substr(60 + 16 * 5, 4), Le32(static_cast<uint32_t>(deleted.size())));
  const MAWalk w = WalkMAGroup(U(deleted));
  ASSERT_EQ(w.members.size(), 2u);
  EXPECT_EQ(w.members[1].BlockLength(), 5u);  // "ccc" + "TT"
}

TEST(LayoutMA, DamagedGroupsAreRefusedForChanges) {
  const auto patched = [](size_t at, const std::string& with) { return SampleGroup().replace(at, with.size(), with); };
  const struct { const char* what; std::string bytes; LayoutResult::Code code; size_t offset; } rows[] = {
      {"header cut", SampleGroup().substr(0, 59), LayoutResult::kTruncated, 59},
      {"table cut", SampleGroup().substr(0, 150), LayoutResult::kTruncated, 156},
      {"single-variable file", patched(10, "main"), LayoutResult::kNotAGroup, 10},
      {"count past the end", patched(58, Le16(255)), LayoutResult::kTruncated, 60 + 16 * 255},
      {"table starts with a variable", patched(72, "\x12"), LayoutResult::kBadTable, 60},
      {"member count overruns", patched(74, Le16(6)), LayoutResult::kBadTable, 60},
      {"last folder overruns", patched(138, Le16(2)), LayoutResult::kBadTable, 124},
      {"folder counted as member", patched(74, Le16(3)), LayoutResult::kBadTable, 108},
      {"offsets backwards", patched(92, Le16(160)), LayoutResult::kBadOffset, 92},
      {"offset inside the table", patched(76, Le16(100)), LayoutResult::kBadOffset, 76},
      {"size field past the end", patched(156, Le16(172)), LayoutResult::kBadOffset, 156},
      {"size field before last block", patched(156, Le16(167)), LayoutResult::kBadOffset, 156},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.what);
    MAGroup g;
    const LayoutResult res = MAGroup::Parse(U(r.bytes), g);
    EXPECT_EQ(res.code, r.code) << res.what;
    EXPECT_EQ(res.offset, r.offset);
  }
  // The looser "empty" test of adding and deleting: folder bytes adding up to 0 mod 256.
  EXPECT_EQ(Parsed(patched(10, "\x80\x80")).EntryCount(), 6u);
}

TEST(LayoutMA, WalkOfDamagedFilesStopsCleanly) {
  const std::string whole = SampleGroup();
  // keep: bytes of the file that remain
  const struct { size_t keep; size_t members; MAWalk::End end; } rows[] = {
      {0, 0, MAWalk::kStepFailed},        {63, 0, MAWalk::kStepFailed},
      {92, 0, MAWalk::kTableEnd},         // first data offset 162 lies beyond the file
      {162, 3, MAWalk::kTableEnd},        // table whole, data gone: listed, blocks unreadable
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.keep);
    const std::span<const unsigned char> bytes = U(whole).first(r.keep);
    const MAWalk w = WalkMAGroup(bytes);
    EXPECT_EQ(w.members.size(), r.members);
    EXPECT_EQ(w.end, r.end);
    for (const MAMemberView& m : w.members) EXPECT_FALSE(MABlock(bytes, m));
  }
  // A first data offset that ends the table early: only the entries before it are looked at.
  std::string early = whole;
  early[60] = 60 + 16 * 2 + 6;
  EXPECT_EQ(WalkMAGroup(U(early)).members.size(), 1u);
}

// Each bound at its edge: one byte either side of where reading must stop.
TEST(LayoutMA, BoundsHoldAtTheirEdges) {
  // A first data offset of 159 lets files cut to 159 or 160 bytes reach c's entry at 140.
  std::string early = SampleGroup();
  early[60] = static_cast<char>(159);
  // A member is read only with the block-end field after it: c's ends at 160.
  for (const size_t keep : {size_t{160}, size_t{159}}) {
    SCOPED_TRACE(keep);
    const MAWalk w = WalkMAGroup(U(early).first(keep));
    EXPECT_EQ(w.members.size(), keep == 160 ? 3u : 2u);
    EXPECT_EQ(w.end, keep == 160 ? MAWalk::kTableEnd : MAWalk::kMemberUnreadable);
  }
  // b's data offset against its block end (168): a block may be empty, not negative.
  for (const auto& [bOffset, bLength] : {std::pair<unsigned, std::optional<size_t>>{168, 0}, {169, std::nullopt}}) {
    SCOPED_TRACE(bOffset);
    std::string b = SampleGroup();
    b[92] = static_cast<char>(bOffset);
    const MAWalk w = WalkMAGroup(U(b));
    ASSERT_EQ(w.members.size(), 3u);
    const auto block = MABlock(U(b), w.members[1]);
    EXPECT_EQ(block ? std::optional(block->size()) : std::nullopt, bLength);
    ASSERT_TRUE(MABlock(U(b), w.members[2]));  // the last block ends with the file
    EXPECT_EQ(MABlock(U(b), w.members[2])->size(), 3u);
  }
}

// The entry count is a 16-bit field: a member needs one free entry, a new folder two.
TEST(LayoutMA, EntryCountStopsAt65535) {
  MAGroup g = MAGroup::NewEmpty(kSigMA, kWhenText);  // main: one entry
  while (g.EntryCount() < 0xFFFD) ASSERT_TRUE(g.InsertFirst(0, NewVar("v")));
  EXPECT_TRUE(g.AppendFolder(MakeNameField("f"), NewVar("w")));  // 0xFFFF entries
  g = MAGroup::NewEmpty(kSigMA, kWhenText);
  while (g.EntryCount() < 0xFFFE) ASSERT_TRUE(g.InsertFirst(0, NewVar("v")));
  EXPECT_FALSE(g.AppendFolder(MakeNameField("f"), NewVar("w")));
  EXPECT_TRUE(g.InsertFirst(0, NewVar("v")));
  EXPECT_FALSE(g.InsertFirst(0, NewVar("v")));
  EXPECT_EQ(g.EntryCount(), 0xFFFFu);
}

TEST(LayoutMA, SingleVariableFiles) {
  const Var prog1{"prog1", 0x12, "ABCDEF", 0x07, 0x1234};
  const std::string want = MAVarFile("main", prog1, "**QXNBX*\x08");
  const std::string group = MAGroupFile({{"main", {prog1}}});
  const MAWalk w = WalkMAGroup(U(group));
  ASSERT_EQ(w.members.size(), 1u);
  const auto block = MABlock(U(group), w.members[0]);
  ASSERT_TRUE(block);
  EXPECT_EQ(S(BuildMASingleFile(kSigRa, w.members[0].folder, w.members[0].fields, *block)), want);

  // The file names its folder at offset 10 and walks as one member in that folder.
  EXPECT_EQ(MAIsGroup(U(want)), false);
  EXPECT_EQ(NameFieldText(WalkMAGroup(U(want)).members.at(0).folder), "main");
  MASingleFile f;
  ASSERT_TRUE(ParseMASingleFile(U(want), f));
  EXPECT_EQ(NameFieldText(f.folder), "main");
  EXPECT_EQ(f.fields.extra[0], 0x34);
  EXPECT_EQ(S(f.data), "ABCDEF");
  // The same bytes with an empty folder field read as a group.
  EXPECT_EQ(MAIsGroup(U(std::string(want).replace(10, 8, 8, '\0'))), true);

  const struct {
    const char* what;
    size_t keep;
    uint32_t sizeField;
  } bad[] = {{"short", 0x51, 0x58}, {"size below header", 0x58, 0x51}, {"size past end", 0x58, 0x59}};
  for (const auto& r : bad) {
    SCOPED_TRACE(r.what);
    const std::string b = std::string(want).replace(0x4C, 4, Le32(r.sizeField)).substr(0, r.keep);
    EXPECT_FALSE(ParseMASingleFile(U(b), f));
  }
}

}  // namespace
}  // namespace qx
