// MA-style groups through their container; expected files are built from the field layout.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "containers/ContainerFactory.h"
#include "containers/OldGroupBytes.h"
#include "containers/OldGroupContainerMA.h"
#include "support/ScopedRegistry.h"
#include "support/TempDir.h"

namespace qx {
namespace {

using test::Le16;
using test::Le32;
using test::Padded;

const std::string kMA = "**QXMA**\x01";
const std::string kNBX = "**QXNBX*\x01";
const std::string kNA = "**QXNA**\x01";
const std::string kGroupMarker = "\x5A\xA5";
const std::string kSingleMarker = "\xA5\x5A";

struct Var {
  std::string name;
  uint8_t type;
  std::string data;
};
struct Folder {
  std::string name;
  std::vector<Var> members;
};

std::string VarEntry(uint32_t offset, const Var& v) {
  return Le32(offset) + Padded(v.name, 8) + std::string(1, static_cast<char>(v.type)) + std::string(3, '\0');
}

// A group file: every folder entry points at its first member's data, or at what follows.
std::string MAGroupFile(const std::string& sig, const std::vector<Folder>& folders,
                        const std::string& comment = "", const std::string& marker = kGroupMarker) {
  size_t count = 0;
  for (const Folder& f : folders) count += 1 + f.members.size();
  uint32_t offset = static_cast<uint32_t>(66 + 16 * count);
  std::string table, data;
  for (const Folder& f : folders) {
    table += Le32(offset) + Padded(f.name, 8) + "\x1F" + std::string(1, '\0') +
             Le16(static_cast<unsigned>(f.members.size()));
    for (const Var& v : f.members) {
      table += VarEntry(offset, v);
      offset += static_cast<uint32_t>(v.data.size());
      data += v.data;
    }
  }
  return Padded(sig, 10) + std::string(8, '\0') + Padded(comment, 40) +
         Le16(static_cast<unsigned>(count)) + table + Le32(offset) + marker + data;
}

std::string MASingleFile(const std::string& sig, const std::string& folder, const Var& v) {
  return Padded(sig, 10) + Padded(folder, 8) + std::string(40, '\0') + Le16(1) + VarEntry(0x52, v) +
         Le32(static_cast<uint32_t>(0x52 + v.data.size())) + kSingleMarker + v.data;
}

std::string Read(const std::string& path) { return test::ReadFileBytes(path); }

class MAGroupTest : public ::testing::Test {
 protected:
  std::string Group(const std::vector<Folder>& folders, const std::string& name = "g.mag") {
    return dir_.Write(name, MAGroupFile(kMA, folders, "c"));
  }
  std::string Single(const std::string& file, const std::string& folder, const Var& v,
                     const std::string& sig = kMA) {
    return dir_.Write(file, MASingleFile(sig, folder, v));
  }
  size_t FilesInDir() const {
    size_t n = 0;
    for ([[maybe_unused]] const auto& e : std::filesystem::directory_iterator(dir_.path())) ++n;
    return n;
  }
  test::ScopedRegistry registry_;
  const test::TempDir& dir_ = registry_.dir();
};

const Var kA{"A", 0x12, "aaaa"};
const Var kB{"B", 0x12, "bb"};
const Var kC{"C", 0x0C, "ccc"};

TEST_F(MAGroupTest, NewEmptyGroupHasNoMembers) {
  const std::string group = Group({{"main", {kA}}});
  OldGroupContainerMA c(group, nullptr);
  ASSERT_EQ(c.CreateWithMembers({}, ""), 1);
  EXPECT_EQ(Read(group).size(), 0x52u);
  EXPECT_EQ(c.GetMemberCount(), -1);
  EXPECT_EQ(c.IsValid(), 1);
}

// One 6-byte variable makes the 0x68-byte group; each later one goes first in its folder.
TEST_F(MAGroupTest, CreateFromFiles) {
  const Var v{"V", 0x12, "123456"}, a{"a", 0x12, "A"}, b{"b", 0x12, "BB"};
  const struct {
    std::vector<Var> files;
    size_t size;
    std::vector<Var> expected;
    StringList names;
  } rows[] = {
      {{v}, 0x68, {v}, {"main.V.map"}},
      {{a, b}, 0x52 + 32 + 3, {b, a}, {"main.b.map", "main.a.map"}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.size);
    StringList files;
    for (const Var& f : row.files) files.push_back(Single(f.name + ".map", "main", f));
    const std::string group = dir_ / ("new" + std::to_string(row.size) + ".mag");
    OldGroupContainerMA c(group, nullptr);
    ASSERT_EQ(c.CreateWithMembers(files, ""), 1);
    const std::string bytes = Read(group);
    ASSERT_EQ(bytes.size(), row.size);
    EXPECT_EQ(bytes.substr(58), MAGroupFile(kMA, {{"main", row.expected}}).substr(58));
    StringList names;
    ASSERT_EQ(c.ListMembers(names), 1);
    EXPECT_EQ(names, row.names);
  }
}

TEST_F(MAGroupTest, AddingPlacesTheMemberAndRewritesOffsets) {
  const struct {
    const char* name;
    std::string fileFolder;
    std::string destFolder;
    std::vector<Folder> expected;
  } rows[] = {
      {"first in an existing folder", "MAIN", "", {{"main", {kC, kA}}, {"x", {kB}}}},
      {"the file's folder names the target", "x", "", {{"main", {kA}}, {"x", {kC, kB}}}},
      {"new folder goes last", "new", "", {{"main", {kA}}, {"x", {kB}}, {"new", {kC}}}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const std::string group = Group({{"main", {kA}}, {"x", {kB}}});
    const std::string file = Single("c.mas", row.fileFolder, kC);
    OldGroupContainerMA c(group, nullptr);
    int32_t state = 0;
    ASSERT_EQ(c.AddMembers({file}, row.destFolder, &state, nullptr, nullptr), 1);
    EXPECT_EQ(Read(group), MAGroupFile(kMA, row.expected, "c"));
  }
}

TEST_F(MAGroupTest, Deleting) {
  const std::vector<Folder> start = {{"main", {kA, kB}}, {"x", {kC}}, {"empty", {}}};
  const struct {
    const char* name;
    StringList names;
    int32_t result;
    std::vector<Folder> expected;  // empty: unchanged
  } rows[] = {
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
    const std::string before = Read(group);
    const size_t files = FilesInDir();
    OldGroupContainerMA c(group, nullptr);
    EXPECT_EQ(c.DeleteMembers(row.names), row.result);
    EXPECT_EQ(Read(group), row.expected.empty() ? before : MAGroupFile(kMA, row.expected, "c"));
    EXPECT_EQ(FilesInDir(), files);  // no temporary file left behind
  }
}

TEST_F(MAGroupTest, FamiliesAndDuplicates) {
  const struct {
    const char* name;
    std::string fileSig;
    Var var;
    PromptResult answer;
    int32_t result;
    std::vector<PromptReason> asked;
    std::vector<Folder> expected;  // empty: unchanged
  } rows[] = {
      {"nbx renamed to ma, duplicate", kNBX, {"A", 0x12, "new"}, PromptReplace, 1, {PromptDuplicate},
       {{"main", {{"A", 0x12, "new"}, kB}}}},
      {"nbx renamed, new name", kNBX, {"Q", 0x12, "q"}, PromptReplace, 1, {}, {{"main", {{"Q", 0x12, "q"}, kA, kB}}}},
      {"na refused", kNA, {"Q", 0x12, "q"}, PromptReplace, 0, {PromptRefused}, {}},
      {"flash refused", "**QXFL**", {"Q", 0x12, "q"}, PromptReplace, 0, {PromptRefused}, {}},
      {"skip", kMA, {"a", 0x12, "new"}, PromptSkip, 1, {PromptDuplicate}, {}},
      {"cancel", kMA, {"a", 0x12, "new"}, PromptCancel, 1, {PromptDuplicate}, {}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const std::string group = Group({{"main", {kA, kB}}});
    const std::string before = Read(group);
    OldGroupContainerMA c(group, nullptr);
    test::RecordingPrompt p;
    p.answer = row.answer;
    int32_t state = 0;
    const std::string file = Single("f.nbp", "main", row.var, row.fileSig);
    EXPECT_EQ(c.AddMembers({file}, "", &state, &test::RecordingPrompt::Ask, &p), row.result);
    EXPECT_EQ(p.asked, row.asked);
    EXPECT_EQ(Read(group), row.expected.empty() ? before : MAGroupFile(kMA, row.expected, "c"));
  }
}

TEST_F(MAGroupTest, AddingAGroupMergesMemberByMember) {
  const std::string group = Group({{"main", {kA}}});
  const std::string other = dir_.Write("o.mag", MAGroupFile(kMA, {{"main", {kB}}, {"x", {kC}}}));
  OldGroupContainerMA c(group, nullptr);
  int32_t state = 0;
  ASSERT_EQ(c.AddMembers({other}, "", &state, nullptr, nullptr), 1);
  EXPECT_EQ(Read(group), MAGroupFile(kMA, {{"main", {kB, kA}}, {"x", {kC}}}, "c"));
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
  EXPECT_EQ(Read(out + "x.C.mas"), MASingleFile(kMA, "x", kC));
  EXPECT_EQ(c.ContainsMember("main.p.MAP"), 1);
  EXPECT_EQ(c.ContainsMember("main.p"), 0);
  std::string name;
  EXPECT_EQ(c.GetMemberName(1, name), 1);
  EXPECT_EQ(name, "x.C.mas");
  EXPECT_EQ(c.GetMemberName(2, name), 0);
}

TEST_F(MAGroupTest, TypeWithoutLetterListsBareAndRefusesChanges) {
  const std::string group = Group({{"main", {{"Z", 0x05, "z"}, kA}}});
  const std::string before = Read(group);
  OldGroupContainerMA c(group, nullptr);
  StringList names;
  EXPECT_EQ(c.ListMembers(names), 1);
  EXPECT_EQ(names, (StringList{"main.Z", "main.A.map"}));
  EXPECT_EQ(c.DeleteMembers({"main.a.map"}), 0);
  int32_t state = 0;
  EXPECT_EQ(c.AddMembers({Single("b.map", "main", kB)}, "", &state, nullptr, nullptr), 0);
  EXPECT_EQ(Read(group), before);
}

TEST_F(MAGroupTest, Validity) {
  const struct {
    const char* name;
    std::string bytes;
    int32_t valid;
  } rows[] = {
      {"group", MAGroupFile(kMA, {{"main", {kA}}}), 1},
      {"nbx group", MAGroupFile(kNBX, {{"main", {kA}}}), 1},
      {"single file", MASingleFile(kMA, "main", kA), 0},
      {"hwl group", MAGroupFile("**QXHWL*", {{"main", {kA}}}), 0},
      {"short", kMA, 0},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    OldGroupContainerMA c(dir_.Write("v.mag", row.bytes), nullptr);
    EXPECT_EQ(c.IsValid(), row.valid);
  }
  // A group that went away after it was opened is no longer one.
  OldGroupContainerMA gone(dir_.Write("gone.mag", MAGroupFile(kMA, {{"main", {kA}}})), nullptr);
  std::filesystem::remove(dir_ / "gone.mag");
  EXPECT_EQ(gone.IsValid(), 0);
}

}  // namespace
}  // namespace qx
