// MA-style groups through their container, against files built from the field layout: what
// adding, replacing and deleting write, prompts and refusals, listing, extraction, validity.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "containers/ContainerFactory.h"
#include "containers/OldGroupBytes.h"
#include "containers/OldGroupContainerMA.h"
#include "platform/Diagnostic.h"
#include "platform/ReuseScope.h"
#include "support/ScopedRegistry.h"

namespace qx {
namespace {

using namespace test;

const std::string kNBX = "**QXNBX*\x01";

class MAGroupTest : public ::testing::Test {
 protected:
  std::string Group(const std::vector<Folder>& folders, const std::string& tail = "") {
    return dir_.Write("g.mag", MAGroupFile(folders, "c") + tail);
  }
  std::string Single(const std::string& file, const std::string& folder, const Var& v,
                     const std::string& sig = kMA) {
    return dir_.Write(file, MAVarFile(folder, v, sig));
  }
  size_t FilesInDir() const {
    const std::filesystem::directory_iterator files(dir_.path());
    return static_cast<size_t>(std::distance(begin(files), end(files)));
  }
  ScopedRegistry registry_;
  const TempDir& dir_ = registry_.dir();
};

const Var kA{"A", 0x12, "aaaa"};
const Var kB{"B", 0x12, "bb"};
const Var kC{"C", 0x0C, "ccc", 0x80, 0xBEEF};

TEST_F(MAGroupTest, NewEmptyGroupHasNoMembers) {
  const std::string group = Group({{"main", {kA}}});
  OldGroupContainerMA c(group, nullptr);
  ASSERT_EQ(c.CreateWithMembers({}, ""), 1);
  EXPECT_EQ(ReadFileBytes(group).substr(58), MAGroupFile({{"main", {}}}).substr(58));  // the comment is the time
  EXPECT_EQ(c.GetMemberCount(), -1);
  EXPECT_EQ(c.IsValid(), 1);
}

// Each later file goes first in its folder.
TEST_F(MAGroupTest, CreateFromFiles) {
  const Var v{"V", 0x12, "123456"}, a{"a", 0x12, "A"}, b{"b", 0x12, "BB"};
  const struct { std::vector<Var> files, expected; StringList names; } rows[] = {
      {{v}, {v}, {"main.V.map"}},
      {{a, b}, {b, a}, {"main.b.map", "main.a.map"}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.names.front());
    StringList files;
    for (const Var& f : row.files) files.push_back(Single(f.name + ".map", "main", f));
    const std::string group = dir_ / (row.names.front() + ".mag");
    OldGroupContainerMA c(group, nullptr);
    ASSERT_EQ(c.CreateWithMembers(files, ""), 1);
    EXPECT_EQ(ReadFileBytes(group).substr(58), MAGroupFile({{"main", row.expected}}).substr(58));
    StringList names;
    ASSERT_EQ(c.ListMembers(names), 1);
    EXPECT_EQ(names, row.names);
  }
}

// Bytes after the file size field stay where they are on an add.
TEST_F(MAGroupTest, AddingPlacesTheMemberAndRewritesOffsets) {
  const struct { const char* name; std::string file; std::string tail;
      std::vector<Folder> expected; } rows[] = {
      {"first in an existing folder", MAVarFile("MAIN", kC), "", {{"main", {kC, kA}}, {"x", {kB}}}},
      {"the file's folder names the target", MAVarFile("x", kC), "TT", {{"main", {kA}}, {"x", {kC, kB}}}},
      {"new folder goes last", MAVarFile("new", kC), "", {{"main", {kA}}, {"x", {kB}}, {"new", {kC}}}},
      {"a group member by member", MAGroupFile({{"main", {kC}}, {"y", {kB}}}), "",
       {{"main", {kC, kA}}, {"x", {kB}}, {"y", {kB}}}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const std::string group = Group({{"main", {kA}}, {"x", {kB}}}, row.tail);
    OldGroupContainerMA c(group, nullptr);
    int32_t state = 0;
    ASSERT_EQ(c.AddMembers({dir_.Write("c.mas", row.file)}, "", &state, nullptr, nullptr), 1);
    EXPECT_EQ(ReadFileBytes(group), MAGroupFile(row.expected, "c") + row.tail);
  }
}

TEST_F(MAGroupTest, Deleting) {
  const std::vector<Folder> start = {{"main", {kA, kB}}, {"x", {kC}}, {"empty", {}}};
  // expected: empty: unchanged
  const struct { const char* name; StringList names; int32_t result;
      std::vector<Folder> expected; } rows[] = {
      {"one of two", {"main.b.map"}, 1, {{"main", {kA}}, {"x", {kC}}, {"empty", {}}}},
      {"a folder's last member takes the folder", {"x.c.mas"}, 1, {{"main", {kA, kB}}, {"empty", {}}}},
      {"names in any case", {"MAIN.A.MAP"}, 1, {{"main", {kB}}, {"x", {kC}}, {"empty", {}}}},
      {"unknown name refuses", {"main.a.map", "main.zz.map"}, 0, {}},
      {"repeated name refuses", {"main.a.map", "main.a.map"}, 0, {}},
      {"every member refuses", {"main.a.map", "main.b.map", "x.c.mas"}, 0, {}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const std::string group = Group(start);
    const std::string before = ReadFileBytes(group);
    const size_t files = FilesInDir();
    OldGroupContainerMA c(group, nullptr);
    EXPECT_EQ(c.DeleteMembers(row.names), row.result);
    EXPECT_EQ(ReadFileBytes(group), row.expected.empty() ? before : MAGroupFile(row.expected, "c"));
    EXPECT_EQ(FilesInDir(), files);  // no temporary file left behind
  }
}

TEST_F(MAGroupTest, FamiliesAndDuplicates) {
  // expected: empty: unchanged
  const struct { const char* name; std::string fileSig; Var var; PromptResult answer; int32_t result;
      std::vector<PromptReason> asked; std::vector<Folder> expected; } rows[] = {
      {"nbx renamed to ma, duplicate", kNBX, {"A", 0x12, "new"}, PromptReplace, 1, {PromptDuplicate},
       {{"main", {{"A", 0x12, "new"}, kB}}}},
      {"nbx renamed, new name", kNBX, {"Q", 0x12, "q"}, PromptReplace, 1, {}, {{"main", {{"Q", 0x12, "q"}, kA, kB}}}},
      {"na refused", "**QXNA**\x01", {"Q", 0x12, "q"}, PromptReplace, 0, {PromptRefused}, {}},
      {"flash refused", "**QXFL**", {"Q", 0x12, "q"}, PromptReplace, 0, {PromptRefused}, {}},
      {"skip", kMA, {"a", 0x12, "new"}, PromptSkip, 1, {PromptDuplicate}, {}},
      {"cancel", kMA, {"a", 0x12, "new"}, PromptCancel, 1, {PromptDuplicate}, {}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const std::string group = Group({{"main", {kA, kB}}});
    const std::string before = ReadFileBytes(group);
    OldGroupContainerMA c(group, nullptr);
    RecordingPrompt p;
    p.answer = row.answer;
    int32_t state = 0;
    const std::string file = Single("f.nbp", "main", row.var, row.fileSig);
    EXPECT_EQ(c.AddMembers({file}, "", &state, &RecordingPrompt::Ask, &p), row.result);
    EXPECT_EQ(p.asked, row.asked);
    EXPECT_EQ(ReadFileBytes(group), row.expected.empty() ? before : MAGroupFile(row.expected, "c"));
  }
}

// Replacements only mark the old member, yet must write what deleting it would have: each
// replaced member goes and its replacement goes first in its folder; a folder left empty goes
// too and is made anew at the end; bytes after the old file size join the last block left.
TEST_F(MAGroupTest, ReplacingDuplicatesWritesWhatDeletingWould) {
  const Var a{"A", 0x12, "aaaa"}, b{"B", 0x12, "bb"}, c{"C", 0x12, "ccc"};
  const Var a1{"A", 0x12, "11"}, a2{"A", 0x12, "222"}, b1{"B", 0x12, "1"}, c1{"C", 0x12, "1111"};
  // adds: folder, variable
  const struct { const char* name; std::vector<Folder> start; std::string tail;
      std::vector<std::pair<std::string, Var>> adds; std::vector<Folder> expected; } rows[] = {
      {"one", {{"main", {a, b, c}}}, "", {{"main", b1}}, {{"main", {b1, a, c}}}},
      {"two", {{"main", {a, b, c}}}, "", {{"main", a1}, {"main", c1}}, {{"main", {c1, a1, b}}}},
      {"twice", {{"main", {a, b}}}, "", {{"main", a1}, {"main", a2}}, {{"main", {a2, b}}}},
      {"emptied folder", {{"x", {a}}, {"main", {b}}}, "", {{"x", a1}}, {{"main", {b}}, {"x", {a1}}}},
      {"emptied twice", {{"x", {a}}, {"main", {b}}}, "", {{"x", a1}, {"x", a2}}, {{"main", {b}}, {"x", {a2}}}},
      {"tail", {{"main", {a, b}}}, "TT", {{"main", b1}}, {{"main", {b1, {"A", 0x12, "aaaaTT"}}}}},
      {"tail before a new folder", {{"x", {a}}, {"main", {b}}}, "TT", {{"x", a1}},
       {{"main", {{"B", 0x12, "bbTT"}}}, {"x", {a1}}}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const std::string group = Group(row.start, row.tail);
    StringList files;
    for (size_t i = 0; i < row.adds.size(); ++i)
      files.push_back(Single(std::to_string(i) + ".map", row.adds[i].first, row.adds[i].second));
    OldGroupContainerMA container(group, nullptr);
    int32_t state = PromptReplaceAll;
    ASSERT_EQ(container.AddMembers(files, "", &state, nullptr, nullptr), 1);
    EXPECT_EQ(ReadFileBytes(group), MAGroupFile(row.expected, "c"));
  }
}

TEST_F(MAGroupTest, ContentsListingAndExtraction) {
  const std::string group = Group({{"main", {{"P", 0x12, "0123456789"}}}, {"x", {kC}}});
  OldGroupContainerMA c(group, nullptr);
  std::string xml;
  ASSERT_EQ(c.WriteContentsXml(xml, 0, ""), 1);
  EXPECT_EQ(xml, "\r\n<group name=\"g.mag\">\r\n<file Size=\"10\">main.P.map</file>\r\n"
                 "<file Size=\"3\">x.C.mas</file>\r\n</group>\r\n");
  const std::string out = dir_.path() + "/";
  ASSERT_EQ(c.ExtractMember("X.C.MAS", out), 1);
  EXPECT_EQ(ReadFileBytes(out + "x.C.mas"), MAVarFile("x", kC));
  EXPECT_EQ(c.ContainsMember("main.p.MAP"), 1);
  EXPECT_EQ(c.ContainsMember("main.p"), 0);
  std::string name;
  EXPECT_EQ(c.GetMemberName(1, name), 1);
  EXPECT_EQ(name, "x.C.mas");
  EXPECT_EQ(c.GetMemberName(2, name), 0);
}

// The table is read without the data; a member whose bytes the file does not hold (its entry
// points past the end, or the file ends early) is refused with a reason and leaves no file.
TEST_F(MAGroupTest, MembersPastTheEndFailCleanly) {
  const std::string good = MAGroupFile({{"main", {kA, kB}}}, "c");
  const struct { const char* name; std::string bytes; const char* member; } rows[] = {
      {"ends early", good.substr(0, good.size() - 1), "main.B.map"},
      {"points past", std::string(good).replace(60 + 32, 4, Le32(0x10000)), "main.A.map"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const std::string group = dir_.Write("g.mag", row.bytes);
    const std::string out = dir_ / (std::string(row.name) + "/");
    std::filesystem::create_directory(out);
    OldGroupContainerMA container(group, nullptr);
    for (int all = 0; all < 2; ++all) {
      diag::Clear();
      EXPECT_EQ(all ? container.ExtractAllMembers(out) : container.ExtractMember(row.member, out), 0);
      ASSERT_NE(diag::Current(), nullptr);
      EXPECT_EQ(diag::Current()->code, "damaged");
      EXPECT_FALSE(std::filesystem::exists(out + row.member));
    }
    EXPECT_EQ(ReadFileBytes(group), row.bytes);
  }
}

// Another process cuts the group short while the duplicate question is open: the rewrite, which
// copies members from the group, fails with a reason, leaves the group as the other process left
// it and no temporary file beside it. Both old-style families, through the factory.
TEST_F(MAGroupTest, GroupCutShortDuringAChangeStaysAsItIs) {
  const std::string big(60000, 'x');  // larger than a read buffers, so the cut is met
  std::string kc = KCFile(kKC, "", KCEntry(5, "A", big) + KCEntry(5, "B", big));
  kc.replace(53, 2, Le16(0));  // a section past 64 KiB stores length 0
  const struct { const char* name; std::string group, dup; } rows[] = {
      {"g.mag", MAGroupFile({{"main", {{"A", 0x12, big}, {"B", 0x12, big}}}}), MAVarFile("main", {"A", 0x12, "11"})},
      {"g.kcg", kc, KCFile(kKC, "", KCEntry(5, "A", "11"))},
  };
  struct Cut {
    std::string path;
    static PromptResult Ask(const std::string&, PromptReason, GroupContainer*, void* ctx) {
      std::filesystem::resize_file(static_cast<Cut*>(ctx)->path, 100);
      return PromptReplace;
    }
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const size_t before = FilesInDir();
    const std::string group = dir_.Write(row.name, row.group);
    const std::string dup = dir_.Write(std::string("a") + (row.name + 1), row.dup);
    Cut cut{group};
    std::unique_ptr<GroupContainer> container = ContainerFactory().CreateContainer(group);
    ASSERT_NE(container, nullptr);
    diag::Clear();
    EXPECT_EQ(container->AddMembers({dup}, "", nullptr, &Cut::Ask, &cut), 0);
    ASSERT_NE(diag::Current(), nullptr);
    EXPECT_EQ(diag::Current()->code, "damaged");
    EXPECT_EQ(std::filesystem::file_size(group), 100u);
    EXPECT_EQ(FilesInDir(), before + 2);  // the group and the file added
  }
}

// Within a reuse scope a changed group is read again, not served from the earlier listing.
TEST_F(MAGroupTest, ReusedListingFollowsChanges) {
  const std::string group = Group({{"main", {kA, kB}}});
  const ReuseScope reuse;
  OldGroupContainerMA container(group, nullptr);
  EXPECT_EQ(container.ContainsMember("main.C.mas"), 0);
  ASSERT_EQ(container.AddMembers({Single("c.mas", "main", kC)}, "", nullptr, nullptr, nullptr), 1);
  EXPECT_EQ(container.ContainsMember("main.C.mas"), 1);
  EXPECT_EQ(container.ExtractMember("main.c.MAS", dir_.path() + "/"), 1);
  EXPECT_EQ(ReadFileBytes(dir_ / "main.C.mas"), MAVarFile("main", kC));
}

TEST_F(MAGroupTest, TypeWithoutLetterListsBareAndRefusesChanges) {
  const std::string group = Group({{"main", {{"Z", 0x05, "z"}, kA}}});
  const std::string before = ReadFileBytes(group);
  OldGroupContainerMA c(group, nullptr);
  StringList names;
  EXPECT_EQ(c.ListMembers(names), 1);
  EXPECT_EQ(names, (StringList{"main.Z", "main.A.map"}));
  EXPECT_EQ(c.DeleteMembers({"main.a.map"}), 0);
  int32_t state = 0;
  EXPECT_EQ(c.AddMembers({Single("b.map", "main", kB)}, "", &state, nullptr, nullptr), 0);
  EXPECT_EQ(ReadFileBytes(group), before);
}

TEST_F(MAGroupTest, Validity) {
  const struct { const char* name; std::string bytes; int32_t valid; } rows[] = {
      {"group", MAGroupFile({{"main", {kA}}}), 1},
      {"nbx group", MAGroupFile({{"main", {kA}}}, "", kNBX), 1},
      {"single file", MAVarFile("main", kA), 0},
      {"hwl group", MAGroupFile({{"main", {kA}}}, "", "**QXHWL*"), 0},
      {"short", kMA, 0},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    OldGroupContainerMA c(dir_.Write("v.mag", row.bytes), nullptr);
    EXPECT_EQ(c.IsValid(), row.valid);
  }
  // A group that went away after it was opened is no longer one.
  OldGroupContainerMA gone(dir_.Write("gone.mag", MAGroupFile({{"main", {kA}}})), nullptr);
  std::filesystem::remove(dir_ / "gone.mag");
  EXPECT_EQ(gone.IsValid(), 0);
  EXPECT_EQ(gone.ExtractMember("main.A.map", dir_.path() + "/"), 0);
  // Pointed at another file, it answers for that one.
  EXPECT_EQ(gone.SetPath(dir_.Write("back.mag", MAGroupFile({{"main", {kA}}}))), 1);
  EXPECT_EQ(gone.IsValid(), 1);
}

}  // namespace
}  // namespace qx
