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

using test::Le16;
using test::Padded;

using test::TempDir;

// One entry with h = 11: x (= d), type, name field, d, data.
std::string Entry(uint8_t type, std::string_view name, std::string_view data) {
  return Le16(11) + Le16(static_cast<unsigned>(data.size())) + std::string(1, static_cast<char>(type)) +
         Padded(name, 8) + Le16(static_cast<unsigned>(data.size())) + std::string(data);
}

unsigned Sum(std::string_view bytes) {
  unsigned s = 0;
  for (unsigned char c : bytes) s += c;
  return s & 0xFFFF;
}

const std::string kKC = Padded("**QXKC**\x1A\x0A", 11);
const std::string kKDX = Padded("**QXKDX*\x1A\x0A", 11);

std::string KCFile(const std::string& sig, std::string_view comment, std::string_view section) {
  return sig + Padded(comment, 42) + Le16(static_cast<unsigned>(section.size())) +
         std::string(section) + Le16(Sum(section));
}

std::string Read(const std::string& path) { return test::ReadFileBytes(path); }

class KCGroupTest : public ::testing::Test {
 protected:
  // A group of three programs A, B, C named g.kcg.
  std::string ThreeMemberGroup() {
    return dir_.Write("g.kcg", KCFile(kKC, "c", Entry(5, "A", "aa") + Entry(5, "B", "bbb") +
                                                  Entry(5, "C", "c")));
  }
  TempDir dir_;
};

// The layout tests pin the bytes; here the member goes in whole and comes back out whole.
TEST_F(KCGroupTest, CreateWithOneFileThenExtractIt) {
  const std::string entry = Entry(5, "PROG", std::string("\x01\x02\x03\x04\x05", 5));
  const std::string single = dir_.Write("p.kcp", KCFile(kKC, "", entry));
  const std::string group = dir_ / "new.kcg";
  OldGroupContainerKC c(group, nullptr);
  ASSERT_EQ(c.CreateWithMembers({single}, ""), 1);
  EXPECT_EQ(Read(group).size(), 77u);
  StringList names;
  EXPECT_EQ(c.ListMembers(names), 1);
  EXPECT_EQ(names, StringList{"PROG.kcp"});
  std::filesystem::create_directory(dir_ / "out");
  ASSERT_EQ(c.ExtractMember("PROG.kcp", dir_ / "out/"), 1);
  EXPECT_EQ(Read(dir_ / "out/PROG.kcp"), Read(single));  // what went in
}

TEST_F(KCGroupTest, CreateWithoutFilesNeedsAKnownFamily) {
  OldGroupContainerKC fresh(dir_ / "none.kcg", nullptr);
  EXPECT_EQ(fresh.CreateWithMembers({}, ""), 0);
  const std::string group = ThreeMemberGroup();
  OldGroupContainerKC c(group, nullptr);
  ASSERT_EQ(c.CreateWithMembers({}, ""), 1);
  const std::string bytes = Read(group);
  ASSERT_EQ(bytes.size(), 57u);
  EXPECT_EQ(bytes.substr(53), std::string(4, '\0'));
}

TEST_F(KCGroupTest, AddingAGroupFileAddsAllItsVariablesInOneWrite) {
  const std::string group = dir_.Write("g.kcg", KCFile(kKC, "keep", Entry(5, "A", "aa") + Entry(5, "Z", "z")));
  const std::string other = dir_.Write("o.kcg", KCFile(kKC, "", Entry(5, "X", "1") + Entry(5, "Y", "22") +
                                                                 Entry(5, "W", "333")));
  const std::string one = dir_.Write("v.kcp", KCFile(kKC, "", Entry(5, "V", "4")));
  OldGroupContainerKC c(group, nullptr);
  int32_t state = 0;
  ASSERT_EQ(c.AddMembers({other, one}, "", &state, nullptr, nullptr), 1);
  const std::string section = Entry(5, "A", "aa") + Entry(5, "Z", "z") + Entry(5, "X", "1") +
                              Entry(5, "Y", "22") + Entry(5, "W", "333") + Entry(5, "V", "4");
  EXPECT_EQ(Read(group), KCFile(kKC, "keep", section));
  EXPECT_EQ(c.GetMemberCount(), 6);
}

TEST_F(KCGroupTest, RefusedFamiliesPromptAndLeaveTheGroup) {
  const struct {
    const char* name;
    std::string sig;
  } rows[] = {{"kdx into kc", kKDX}, {"kb into kc", Padded("**QXKB**\x1A\x0A", 11)},
              {"ma into kc", Padded("**QXMA**\x01", 10)}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const std::string group = ThreeMemberGroup();
    const std::string before = Read(group);
    const std::string file = dir_.Write("f.kcp", KCFile(row.sig, "", Entry(5, "Q", "q")));
    const std::string ok = dir_.Write("ok.kcp", KCFile(kKC, "", Entry(5, "K", "k")));
    OldGroupContainerKC c(group, nullptr);
    test::RecordingPrompt p;
    p.answer = PromptReplace;
    int32_t state = 0;
    EXPECT_EQ(c.AddMembers({file, ok}, "", &state, &test::RecordingPrompt::Ask, &p), 0);
    EXPECT_EQ(p.asked, std::vector<PromptReason>{PromptRefused});
    EXPECT_EQ(Read(group), before);
  }
}

TEST_F(KCGroupTest, FilesBeforeARefusedOneStayAdded) {
  const std::string group = ThreeMemberGroup();
  const std::string ok = dir_.Write("ok.kcp", KCFile(kKC, "", Entry(5, "K", "k")));
  const std::string bad = dir_.Write("bad.kdp", KCFile(kKDX, "", Entry(5, "Q", "q")));
  OldGroupContainerKC c(group, nullptr);
  int32_t state = 0;
  EXPECT_EQ(c.AddMembers({ok, bad}, "", &state, nullptr, nullptr), 0);
  EXPECT_EQ(c.ContainsMember("k.KCP"), 1);
  EXPECT_EQ(c.GetMemberCount(), 4);
}

TEST_F(KCGroupTest, DuplicateAnswers) {
  const struct {
    const char* name;
    PromptResult answer;
    bool withPrompt;
    std::string expectedSection;
    int32_t expectedState;
  } rows[] = {
      {"skip, the next file still goes in", PromptSkip, true,
       Entry(5, "A", "aa") + Entry(5, "B", "bbb") + Entry(5, "C", "c") + Entry(5, "N", "n"), 0},
      {"cancel stops the list", PromptCancel, true,
       Entry(5, "A", "aa") + Entry(5, "B", "bbb") + Entry(5, "C", "c"), PromptCancel},
      {"replace", PromptReplace, true,
       Entry(5, "A", "aa") + Entry(5, "C", "c") + Entry(5, "B", "new") + Entry(5, "N", "n"), 0},
      {"no prompt replaces", PromptSkip, false,
       Entry(5, "A", "aa") + Entry(5, "C", "c") + Entry(5, "B", "new") + Entry(5, "N", "n"), 0},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const std::string group = ThreeMemberGroup();
    const std::string dup = dir_.Write("b.kcp", KCFile(kKC, "", Entry(5, "B", "new")));
    const std::string fresh = dir_.Write("n.kcp", KCFile(kKC, "", Entry(5, "N", "n")));
    OldGroupContainerKC c(group, nullptr);
    test::RecordingPrompt p;
    p.answer = row.answer;
    int32_t state = 0;
    EXPECT_EQ(c.AddMembers({dup, fresh}, "", &state, row.withPrompt ? &test::RecordingPrompt::Ask : nullptr, &p), 1);
    EXPECT_EQ(Read(group), KCFile(kKC, "c", row.expectedSection));
    EXPECT_EQ(state, row.expectedState);
  }
}

// A replacement only marks the old entries; the group written must be what deleting them writes:
// the family's own signature, every entry of the name gone, bytes after the checksum or left
// over at the end of the section dropped.
TEST_F(KCGroupTest, ReplacingWritesWhatDeletingWould) {
  const std::string a = Entry(5, "A", "aa"), b = Entry(5, "B", "bbb"), c = Entry(5, "C", "c");
  const std::string bNew = Entry(5, "B", "new");
  const struct {
    const char* name;
    std::string start;
  } rows[] = {
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
    EXPECT_EQ(Read(group), KCFile(kKC, "c", a + c + bNew));
  }
}

TEST_F(KCGroupTest, TheSameNameTwiceInOneAddKeepsOne) {
  // The second copy must see the first, the last entry appended, as a duplicate to replace.
  const std::string group = ThreeMemberGroup();
  const std::string p = dir_.Write("p.kcp", KCFile(kKC, "", Entry(5, "P", "pp")));
  OldGroupContainerKC c(group, nullptr);
  int32_t state = 0;
  EXPECT_EQ(c.AddMembers({p, p}, "", &state, nullptr, nullptr), 1);
  EXPECT_EQ(Read(group), KCFile(kKC, "c", Entry(5, "A", "aa") + Entry(5, "B", "bbb") +
                                              Entry(5, "C", "c") + Entry(5, "P", "pp")));
}

TEST_F(KCGroupTest, Deleting) {
  const struct {
    const char* name;
    StringList names;
    int32_t result;
    std::string section;  // empty: unchanged
  } rows[] = {
      {"unknown name ignored", {"nothere.kcp", "b.KCP"}, 1, Entry(5, "A", "aa") + Entry(5, "C", "c")},
      {"two at once", {"A.kcp", "C.kcp"}, 1, Entry(5, "B", "bbb")},
      {"all refused", {"A.kcp", "B.kcp", "C.kcp"}, 0, ""},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const std::string group = ThreeMemberGroup();
    const std::string before = Read(group);
    OldGroupContainerKC c(group, nullptr);
    EXPECT_EQ(c.DeleteMembers(row.names), row.result);
    EXPECT_EQ(Read(group), row.section.empty() ? before : KCFile(kKC, "c", row.section));
  }
}

TEST_F(KCGroupTest, LargeSectionStoresZeroLengthAndReadsBack) {
  const std::string big(65000, '\x07');
  const std::string group = dir_.Write("g.kcg", KCFile(kKC, "", Entry(5, "A", big)));
  const std::string file = dir_.Write("b.kcp", KCFile(kKC, "", Entry(5, "B", std::string(1000, '\x09'))));
  OldGroupContainerKC c(group, nullptr);
  int32_t state = 0;
  ASSERT_EQ(c.AddMembers({file}, "", &state, nullptr, nullptr), 1);
  EXPECT_EQ(Read(group).size(), 57u + 2 * 15 + 65000 + 1000);
  StringList names;
  EXPECT_EQ(c.ListMembers(names), 1);
  EXPECT_EQ(names, (StringList{"A.kcp", "B.kcp"}));
}

// A valid group is one the factory gives a container for.
TEST_F(KCGroupTest, ValidityByContentsOrExtension) {
  const std::string one = KCFile(kKC, "", Entry(5, "A", "aa"));
  const struct {
    const char* file;
    std::string bytes;
    int32_t valid;
  } rows[] = {
      {"one.kcg", one, 1},
      {"one.KCG", one, 1},
      {"one.kcp", one, 0},
      {"two.kcp", KCFile(kKC, "", Entry(5, "A", "aa") + Entry(5, "B", "b")), 1},
      {"short.kcg", kKC.substr(0, 9), 0},
      {"ma.kcg", Padded("**QXMA**\x01", 10) + std::string(60, '\0'), 0},
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
  EXPECT_EQ(Read(out + "B.kcp"), KCFile(kKC, "", Entry(5, "B", "bbb")));
  EXPECT_EQ(c.ExtractMember("nothere.kcp", out), 0);
  EXPECT_EQ(c.ExtractMember("b.kcp", out + "missing/"), 0);
  ASSERT_EQ(c.ExtractAllMembers(out), 1);
  EXPECT_EQ(Read(out + "C.kcp"), KCFile(kKC, "", Entry(5, "C", "c")));

  // A member whose name would climb out of the folder is not written anywhere.
  const std::string evil = dir_.Write("evil.kcg", KCFile(kKC, "", Entry(5, "A", "a") + Entry(5, "../EVIL", "e")));
  std::filesystem::create_directory(dir_ / "dest");
  OldGroupContainerKC e(evil, nullptr);
  EXPECT_EQ(e.ExtractMember("../EVIL.kcp", dir_ / "dest/"), 0);
  EXPECT_FALSE(std::filesystem::exists(dir_ / "EVIL.kcp"));
}

TEST_F(KCGroupTest, ContentsListingOfAKdxList) {
  // KDX headers are 13 bytes: two more after the name field.
  const std::string data(14, 'd');
  const std::string entry = Le16(13) + Le16(14) + std::string(1, '\x01') + Padded("\x5D\x00", 8) +
                            std::string(2, '\0') + Le16(14) + data;
  const std::string group = dir_.Write("set.kdg", KCFile(kKDX, "", entry));
  OldGroupContainerKC c(group, nullptr);
  std::string xml;
  ASSERT_EQ(c.WriteContentsXml(xml, 1, "*"), 1);
  EXPECT_EQ(xml, "\r\n<group name=\"set.kdg\">\r\n<file Size=\"31\">L1.kdl</file>\r\n</group>\r\n");
}

}  // namespace
}  // namespace qx
