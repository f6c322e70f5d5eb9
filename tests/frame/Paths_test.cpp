#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

#include "frame/FrameFixtures.h"
#include "platform/fs.h"
#include "support/TempDir.h"

namespace qx::test {
namespace {

TEST(SplitListTest, CutsAndSortsBytewise) {
  // One trailing comma ends the list; case matters, a prefix is smaller, bytes compare unsigned,
  // blanks belong to the item.
  const std::pair<std::string, StringList> cases[] = {
      {"b,a,a", {"a", "a", "b"}}, {"a,b,", {"a", "b"}}, {"a,,b", {"", "a", "b"}}, {",", {""}}, {"", {}},
      {"ab,a,B", {"B", "a", "ab"}}, {"\xe9,z", {"z", "\xe9"}}, {" b,b", {" b", "b"}}};
  for (const auto& [text, expected] : cases) EXPECT_EQ(SplitList(text), expected) << text;
}

// <base>/data/grp.qxg exists, so path splitting finds where the file system ends.
struct GroupPathTest : ScriptedTest {
  void SetUp() override {
    std::filesystem::create_directory(root / "data");
    root.Write("data/grp.qxg", "PK");
    // A private temporary folder of its own, so other runs' leftovers never count.
    if (const char* old = std::getenv("TMPDIR")) oldTmp = old;
    ::setenv("TMPDIR", base.c_str(), 1);
  }
  void TearDown() override { oldTmp.empty() ? ::unsetenv("TMPDIR") : ::setenv("TMPDIR", oldTmp.c_str(), 1); }
  std::string oldTmp;
  TempDir root;
  const std::string base = root.path();
};

TEST_F(GroupPathTest, SplitGroupPathCutsWhereTheFileSystemEnds) {
  const std::string g = base + "/data/grp.qxg", data = base + "/data";
  const struct { std::string path, group, inGroup; } cases[] = {
      {g + "/folder/file.kdp", g, "folder\\file.kdp"}, {g, g, ""}, {g + "/", g, ""}, {g + "//x", g, "x"},
      {data, data, ""}, {data + "/missing/x.kdp", data, "missing\\x.kdp"},
      {"qx-no-such-dir/x", "", "qx-no-such-dir\\x"}, {"", "", ""}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.path);
    const GroupPathParts parts = SplitGroupPath(c.path);
    EXPECT_EQ(parts.group + "|" + parts.inGroup, c.group + "|" + c.inGroup);
  }
}

TEST_F(GroupPathTest, DoesPathExistAsksTheRightQuestion) {
  const std::string g = base + "/data/grp.qxg", temp = GetTempGroupFolder();
  std::filesystem::remove(fs::ToNative(temp));
  const struct {
    const char* name; std::string path; bool makeContainer; int32_t result; HRESULT expected; LONG value;
    std::vector<std::string> calls;
  } cases[] = {
      {"member present", g + "/x.kdp", true, 1, S_OK, 1, {"ContainsMember(x.kdp)"}},
      {"member absent", g + "/x.kdp", true, 0, S_OK, 0, {"ContainsMember(x.kdp)"}},
      {"group itself", g, true, 1, S_OK, 1, {"ContainsMember()"}},
      {"no container", g + "/x.kdp", false, 1, S_FALSE, 0, {}},
      // In a folder: copied out into the call's own work folder in the private temporary folder
      // and looked for there (the fake writes nothing); the work folder goes with the call.
      {"nested member", g + "/dir/x.kdp", true, 1, S_OK, 0, {"ExtractMember(dir\\x.kdp|" + temp + "call-"}},
      {"nested, not extracted", g + "/dir/x.kdp", true, 0, S_OK, 0, {"ExtractMember(dir\\x.kdp|" + temp + "call-"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    script.calls.clear();
    script.makeContainer = c.makeContainer;
    script.result = c.result;
    LONG value = 77;
    const Bstr path(codepage::AnsiToWide(c.path));
    EXPECT_EQ(fm->get_DoesPathExist(path.get(), &value), c.expected);
    EXPECT_EQ(value, c.value);
    ASSERT_EQ(script.calls.size(), c.calls.size());
    for (size_t i = 0; i < c.calls.size(); ++i) EXPECT_EQ(script.calls[i].rfind(c.calls[i], 0), 0u);
    EXPECT_FALSE(std::filesystem::exists(fs::ToNative(temp))) << "work folder left behind";
  }
}

// Groups and other files: python/tests/test_dispatch.py. A member that cannot be copied out is
// no group, and no failure.
TEST_F(GroupPathTest, IsGroupOfAMemberThatCannotBeCopiedOut) {
  script.makeContainer = false;
  const Bstr member(codepage::AnsiToWide(base + "/data/grp.qxg/sub.qxg"));
  LONG value = 77;
  ASSERT_EQ(fm->get_IsGroup(member.get(), &value), S_OK);
  EXPECT_EQ(value, 0);
  EXPECT_TRUE(std::filesystem::is_directory(fs::ToNative(GetTempGroupFolder())));
}

}  // namespace
}  // namespace qx::test
