// KC-style groups through their container; expected files are built from the field layout.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "containers/ContainerFactory.h"
#include "containers/OldGroupBytes.h"
#include "containers/OldGroupContainerKC.h"
#include "support/TempDir.h"

namespace qx {
namespace {

using namespace test;

class KCGroupTest : public ::testing::Test {
 protected:
  // A group of three programs A, B, C named g.kcg.
  std::string ThreeMemberGroup() {
    return dir_.Write("g.kcg", KCFile(kKC, "c", KCEntry(5, "A", "aa") + KCEntry(5, "B", "bbb") +
                                                  KCEntry(5, "C", "c")));
  }
  TempDir dir_;
};

// The layout tests pin the bytes; here the member goes in whole and comes back out whole.
TEST_F(KCGroupTest, CreateWithOneFileThenExtractIt) {
  const std::string entry = KCEntry(5, "PROG", std::string("\x01\x02\x03\x04\x05", 5));
  const std::string single = dir_.Write("p.kcp", KCFile(kKC, "", entry));
  const std::string group = dir_ / "new.kcg";
  OldGroupContainerKC c(group, nullptr);
  ASSERT_EQ(c.CreateWithMembers({single}, ""), 1);
  EXPECT_EQ(ReadFileBytes(group).size(), 77u);
  StringList names;
  EXPECT_EQ(c.ListMembers(names), 1);
  EXPECT_EQ(names, StringList{"PROG.kcp"});
  std::filesystem::create_directory(dir_ / "out");
  ASSERT_EQ(c.ExtractMember("PROG.kcp", dir_ / "out/"), 1);
  EXPECT_EQ(ReadFileBytes(dir_ / "out/PROG.kcp"), ReadFileBytes(single));  // what went in
}

TEST_F(KCGroupTest, CreateWithoutFilesNeedsAKnownFamily) {
  OldGroupContainerKC fresh(dir_ / "none.kcg", nullptr);
  EXPECT_EQ(fresh.CreateWithMembers({}, ""), 0);
  const std::string group = ThreeMemberGroup();
  OldGroupContainerKC c(group, nullptr);
  ASSERT_EQ(c.CreateWithMembers({}, ""), 1);
  const std::string bytes = ReadFileBytes(group);
  ASSERT_EQ(bytes.size(), 57u);
  EXPECT_EQ(bytes.substr(53), std::string(4, '\0'));
}

TEST_F(KCGroupTest, AddingAGroupFileAddsAllItsVariablesInOneWrite) {
  const std::string group = dir_.Write("g.kcg", KCFile(kKC, "keep", KCEntry(5, "A", "aa") + KCEntry(5, "Z", "z")));
  const std::string other = dir_.Write("o.kcg", KCFile(kKC, "", KCEntry(5, "X", "1") + KCEntry(5, "Y", "22") +
                                                                 KCEntry(5, "W", "333")));
  const std::string one = dir_.Write("v.kcp", KCFile(kKC, "", KCEntry(5, "V", "4")));
  OldGroupContainerKC c(group, nullptr);
  int32_t state = 0;
  ASSERT_EQ(c.AddMembers({other, one}, "", &state, nullptr, nullptr), 1);
  const std::string section = KCEntry(5, "A", "aa") + KCEntry(5, "Z", "z") + KCEntry(5, "X", "1") +
                              KCEntry(5, "Y", "22") + KCEntry(5, "W", "333") + KCEntry(5, "V", "4");
  EXPECT_EQ(ReadFileBytes(group), KCFile(kKC, "keep", section));
  EXPECT_EQ(c.GetMemberCount(), 6);
}

// Refused families stop the list with the group as it was (files before them stay added);
// duplicates go by the prompt's answer, replaced without a prompt.
TEST_F(KCGroupTest, AddingFamiliesAndDuplicates) {
  const std::string a = KCEntry(5, "A", "aa"), b = KCEntry(5, "B", "bbb"), c = KCEntry(5, "C", "c");
  const std::string n = KCEntry(5, "N", "n"), b2 = KCEntry(5, "B", "new"), k = KCEntry(5, "K", "k");
  const std::string dup = KCFile(kKC, "", b2), fresh = KCFile(kKC, "", n), ok = KCFile(kKC, "", k);
  const std::string kdx = KCFile(kKDX, "", KCEntry(5, "Q", "q")), p = KCFile(kKC, "", KCEntry(5, "P", "pp"));
  const PromptReason refused = PromptRefused, duplicate = PromptDuplicate;
  const auto kNoPrompt = static_cast<PromptResult>(0);
  // answer: kNoPrompt: no prompt
  const struct { const char* name; std::vector<std::string> files; PromptResult answer; int32_t result;
      std::vector<PromptReason> asked; std::string section; int32_t state = 0; } rows[] = {
      {"kdx into kc", {kdx, ok}, PromptReplace, 0, {refused}, a + b + c},
      {"kb into kc", {KCFile("**QXKB**\x1A\x0A", "", k), ok}, PromptReplace, 0, {refused}, a + b + c},
      {"ma into kc", {KCFile(kMA, "", k), ok}, PromptReplace, 0, {refused}, a + b + c},
      {"files before a refused one stay", {ok, kdx}, kNoPrompt, 0, {}, a + b + c + k},
      {"skip, the next file still goes in", {dup, fresh}, PromptSkip, 1, {duplicate}, a + b + c + n},
      {"cancel stops the list", {dup, fresh}, PromptCancel, 1, {duplicate}, a + b + c, PromptCancel},
      {"replace", {dup, fresh}, PromptReplace, 1, {duplicate}, a + c + b2 + n},
      {"no prompt replaces", {dup, fresh}, kNoPrompt, 1, {}, a + c + b2 + n},
      // The second copy must see the first, the last entry appended, as a duplicate to replace.
      {"the same name twice keeps one", {p, p}, kNoPrompt, 1, {}, a + b + c + KCEntry(5, "P", "pp"),
       PromptReplace},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const std::string group = ThreeMemberGroup();
    StringList files;
    for (const std::string& f : row.files) files.push_back(dir_.Write(std::to_string(files.size()) + ".kcp", f));
    OldGroupContainerKC container(group, nullptr);
    RecordingPrompt prompt;
    prompt.answer = row.answer;
    int32_t state = 0;
    EXPECT_EQ(container.AddMembers(files, "", &state, row.answer == kNoPrompt ? nullptr : &RecordingPrompt::Ask,
                                   &prompt), row.result);
    EXPECT_EQ(prompt.asked, row.asked);
    EXPECT_EQ(ReadFileBytes(group), KCFile(kKC, "c", row.section));
    EXPECT_EQ(state, row.state);
  }
}

// A replacement only marks the old entries; the group written must be what deleting them writes:
// the family's own signature, every entry of the name gone, bytes after the checksum or left
// over at the end of the section dropped.
TEST_F(KCGroupTest, ReplacingWritesWhatDeletingWould) {
  const std::string a = KCEntry(5, "A", "aa"), b = KCEntry(5, "B", "bbb"), c = KCEntry(5, "C", "c");
  const std::string bNew = KCEntry(5, "B", "new");
  const struct { const char* name; std::string start; } rows[] = {
      {"signature and bytes after the checksum", kKC.substr(0, 10) + "Z" + KCFile(kKC, "c", a + b + c).substr(11) + "tail"},
      {"two entries of the name", KCFile(kKC, "c", a + b + c + b)},
      {"section not filled by its entries", KCFile(kKC, "c", a + b + c + "xyz")},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const std::string group = dir_.Write("g.kcg", row.start);
    const std::string dup = dir_.Write("b.kcp", KCFile(kKC, "", bNew));
    OldGroupContainerKC container(group, nullptr);
    EXPECT_EQ(container.AddMembers({dup}, "", nullptr, nullptr, nullptr), 1);
    EXPECT_EQ(ReadFileBytes(group), KCFile(kKC, "c", a + c + bNew));
  }
}

TEST_F(KCGroupTest, Deleting) {
  // section: empty: unchanged
  const struct { const char* name; StringList names; int32_t result; std::string section; } rows[] = {
      {"unknown name ignored", {"nothere.kcp", "b.KCP"}, 1, KCEntry(5, "A", "aa") + KCEntry(5, "C", "c")},
      {"two at once", {"A.kcp", "C.kcp"}, 1, KCEntry(5, "B", "bbb")},
      {"all refused", {"A.kcp", "B.kcp", "C.kcp"}, 0, ""},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const std::string group = ThreeMemberGroup();
    const std::string before = ReadFileBytes(group);
    OldGroupContainerKC c(group, nullptr);
    EXPECT_EQ(c.DeleteMembers(row.names), row.result);
    EXPECT_EQ(ReadFileBytes(group), row.section.empty() ? before : KCFile(kKC, "c", row.section));
  }
}

TEST_F(KCGroupTest, LargeSectionStoresZeroLengthAndReadsBack) {
  const std::string big(65000, '\x07');
  const std::string group = dir_.Write("g.kcg", KCFile(kKC, "", KCEntry(5, "A", big)));
  const std::string file = dir_.Write("b.kcp", KCFile(kKC, "", KCEntry(5, "B", std::string(1000, '\x09'))));
  OldGroupContainerKC c(group, nullptr);
  int32_t state = 0;
  ASSERT_EQ(c.AddMembers({file}, "", &state, nullptr, nullptr), 1);
  EXPECT_EQ(ReadFileBytes(group).size(), 57u + 2 * 15 + 65000 + 1000);
  StringList names;
  EXPECT_EQ(c.ListMembers(names), 1);
  EXPECT_EQ(names, (StringList{"A.kcp", "B.kcp"}));
}

// A valid group is one the factory gives a container for.
TEST_F(KCGroupTest, ValidityByContentsOrExtension) {
  const std::string one = KCFile(kKC, "", KCEntry(5, "A", "aa"));
  const struct { const char* file; std::string bytes; int32_t valid; } rows[] = {
      {"one.kcg", one, 1},
      {"one.KCG", one, 1},
      {"one.kcp", one, 0},
      {"two.kcp", KCFile(kKC, "", KCEntry(5, "A", "aa") + KCEntry(5, "B", "b")), 1},
      {"short.kcg", kKC.substr(0, 9), 0},
      {"ma.kcg", Padded(kMA, 10) + std::string(60, '\0'), 0},
  };
  ContainerFactory factory;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.file);
    OldGroupContainerKC c(dir_.Write(row.file, row.bytes), nullptr);
    EXPECT_EQ(c.IsValid(), row.valid);
    if (row.bytes.starts_with(kKC)) {
      EXPECT_EQ(factory.CreateContainer(dir_ / row.file) != nullptr, row.valid == 1);
    }
  }
}

TEST_F(KCGroupTest, ExtractWritesASingleVariableFile) {
  const std::string group = ThreeMemberGroup();
  OldGroupContainerKC c(group, nullptr);
  const std::string out = dir_.path() + "/";
  ASSERT_EQ(c.ExtractMember("b.kcp", out), 1);
  EXPECT_EQ(ReadFileBytes(out + "B.kcp"), KCFile(kKC, "", KCEntry(5, "B", "bbb")));
  EXPECT_EQ(c.ExtractMember("nothere.kcp", out), 0);
  EXPECT_EQ(c.ExtractMember("b.kcp", out + "missing/"), 0);
  ASSERT_EQ(c.ExtractAllMembers(out), 1);
  EXPECT_EQ(ReadFileBytes(out + "C.kcp"), KCFile(kKC, "", KCEntry(5, "C", "c")));

  // A member whose name would climb out of the folder is not written anywhere.
  const std::string evil = dir_.Write("evil.kcg", KCFile(kKC, "", KCEntry(5, "A", "a") + KCEntry(5, "../EVIL", "e")));
  std::filesystem::create_directory(dir_ / "dest");
  OldGroupContainerKC e(evil, nullptr);
  EXPECT_EQ(e.ExtractMember("../EVIL.kcp", dir_ / "dest/"), 0);
  EXPECT_FALSE(std::filesystem::exists(dir_ / "EVIL.kcp"));
}

TEST_F(KCGroupTest, ContentsListingOfAKdxList) {
  // KDX headers are 13 bytes: two more after the name field.
  const std::string entry = KCEntry(1, "\x5D", std::string(14, 'd'), true);
  const std::string group = dir_.Write("set.kdg", KCFile(kKDX, "", entry));
  OldGroupContainerKC c(group, nullptr);
  std::string xml;
  ASSERT_EQ(c.WriteContentsXml(xml, 1, "*"), 1);
  EXPECT_EQ(xml, "\r\n<group name=\"set.kdg\">\r\n<file Size=\"31\">L1.kdl</file>\r\n</group>\r\n");
}

}  // namespace
}  // namespace qx
