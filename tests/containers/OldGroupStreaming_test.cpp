// Old-style groups read by offset and streamed: replacements that only mark the old member must
// write what deleting it would have written, and a member whose bytes are not all there fails
// without leaving a file behind.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "containers/OldGroupBytes.h"
#include "containers/ContainerFactory.h"
#include "containers/OldGroupContainerMA.h"
#include "platform/Diagnostic.h"
#include "platform/ReuseScope.h"
#include "support/ScopedRegistry.h"
#include "support/TempDir.h"

namespace qx {
namespace {

using test::Le16;
using test::Le32;
using test::Padded;

const std::string kMA = "**QXMA**\x01";

struct Var {
  std::string name, data;
};
struct Folder {
  std::string name;
  std::vector<Var> members;
};

std::string Entry(uint32_t offset, const std::string& name, const std::string& typeEtc) {
  return Le32(offset) + Padded(name, 8) + typeEtc;
}

// Folder entries point at their first member's data; variables are programs (type 0x12).
std::string GroupFile(const std::vector<Folder>& folders) {
  size_t count = 0;
  for (const Folder& f : folders) count += 1 + f.members.size();
  uint32_t offset = static_cast<uint32_t>(66 + 16 * count);
  std::string table, data;
  for (const Folder& f : folders) {
    table += Entry(offset, f.name, "\x1F" + std::string(1, '\0') + Le16(static_cast<unsigned>(f.members.size())));
    for (const Var& v : f.members) {
      table += Entry(offset, v.name, std::string("\x12\0\0\0", 4));
      offset += static_cast<uint32_t>(v.data.size());
      data += v.data;
    }
  }
  return Padded(kMA, 10) + std::string(8, '\0') + Padded("c", 40) +
         Le16(static_cast<unsigned>(count)) + table + Le32(offset) + "\x5A\xA5" + data;
}

std::string SingleFile(const std::string& folder, const Var& v) {
  return Padded(kMA, 10) + Padded(folder, 8) + std::string(40, '\0') + Le16(1) +
         Entry(0x52, v.name, std::string("\x12\0\0\0", 4)) +
         Le32(static_cast<uint32_t>(0x52 + v.data.size())) + "\xA5\x5A" + v.data;
}

class OldGroupStreamingTest : public ::testing::Test {
 protected:
  test::ScopedRegistry registry_;
  const test::TempDir& dir_ = registry_.dir();
};

// Each replaced member goes, and its replacement goes first in its folder; a folder left empty
// goes too, and the replacement's folder is made anew at the end; bytes after the old file size
// join the last block left once a member is deleted.
TEST_F(OldGroupStreamingTest, ReplacingDuplicatesWritesWhatDeletingWould) {
  const Var a{"A", "aaaa"}, b{"B", "bb"}, c{"C", "ccc"};
  const Var a1{"A", "11"}, a2{"A", "222"}, b1{"B", "1"}, c1{"C", "1111"};
  const struct {
    const char* name;
    std::vector<Folder> start;
    std::string tail;
    std::vector<std::pair<std::string, Var>> adds;  // folder, variable
    std::vector<Folder> expected;
  } rows[] = {
      {"one", {{"main", {a, b, c}}}, "", {{"main", b1}}, {{"main", {b1, a, c}}}},
      {"two", {{"main", {a, b, c}}}, "", {{"main", a1}, {"main", c1}}, {{"main", {c1, a1, b}}}},
      {"twice", {{"main", {a, b}}}, "", {{"main", a1}, {"main", a2}}, {{"main", {a2, b}}}},
      {"emptied folder", {{"x", {a}}, {"main", {b}}}, "", {{"x", a1}}, {{"main", {b}}, {"x", {a1}}}},
      {"emptied twice", {{"x", {a}}, {"main", {b}}}, "", {{"x", a1}, {"x", a2}},
       {{"main", {b}}, {"x", {a2}}}},
      {"tail", {{"main", {a, b}}}, "TT", {{"main", b1}}, {{"main", {b1, {"A", "aaaaTT"}}}}},
      {"tail before a new folder", {{"x", {a}}, {"main", {b}}}, "TT", {{"x", a1}},
       {{"main", {{"B", "bbTT"}}}, {"x", {a1}}}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const std::string group = dir_.Write(std::string(row.name) + ".mag", GroupFile(row.start) + row.tail);
    StringList files;
    for (size_t i = 0; i < row.adds.size(); ++i)
      files.push_back(dir_.Write(std::string(row.name) + std::to_string(i) + ".map",
                                 SingleFile(row.adds[i].first, row.adds[i].second)));
    OldGroupContainerMA container(group, nullptr);
    int32_t state = PromptReplaceAll;
    ASSERT_EQ(container.AddMembers(files, "", &state, nullptr, nullptr), 1);
    EXPECT_EQ(test::ReadFileBytes(group), GroupFile(row.expected));
  }
}

// The table is read without the data; a member whose bytes the file does not hold (its table
// entry points past the end, or the file ends early) is refused with a reason, and nothing is
// left in the destination.
TEST_F(OldGroupStreamingTest, MembersPastTheEndFailCleanly) {
  const std::string good = GroupFile({{"main", {{"A", "aaaa"}, {"B", "bb"}}}});
  std::string pointsPast = good;
  pointsPast.replace(60 + 32, 4, Le32(0x10000));  // B's offset: A's block ends past the end
  const struct {
    const char* name;
    std::string bytes;
    const char* member;
  } rows[] = {
      {"ends early", good.substr(0, good.size() - 1), "main.B.map"},
      {"points past", pointsPast, "main.A.map"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const std::string group = dir_.Write(std::string(row.name) + ".mag", row.bytes);
    const std::string out = dir_ / (std::string(row.name) + "-out");
    std::filesystem::create_directory(out);
    OldGroupContainerMA container(group, nullptr);
    for (int all = 0; all < 2; ++all) {
      diag::Clear();
      EXPECT_EQ(all ? container.ExtractAllMembers(out + "/") : container.ExtractMember(row.member, out + "/"), 0);
      ASSERT_NE(diag::Current(), nullptr);
      EXPECT_EQ(diag::Current()->code, "damaged");
      EXPECT_FALSE(std::filesystem::exists(out + "/" + row.member));
    }
    EXPECT_EQ(test::ReadFileBytes(group), row.bytes);
  }
}

// Another process cuts the group short while a change is under way (here: while the duplicate
// question is asked): the rewrite, which copies the members from the group, fails with a reason
// and leaves the group as the other process left it, without a temporary file beside it.
TEST_F(OldGroupStreamingTest, GroupCutShortDuringAChangeStaysAsItIs) {
  // Members larger than what a read buffers, so that the cut is met and not read around.
  const std::string big(60000, 'x');
  // A KC-style entry (h = 11) and file: the section of two such entries stores length 0.
  const auto kc = [](const std::string& name, const std::string& data) {
    const std::string d = Le16(static_cast<unsigned>(data.size()));
    return Le16(11) + d + "\x05" + Padded(name, 8) + d + data;
  };
  const auto kcFile = [](const std::string& section) {
    return Padded("**QXKC**\x1A\x0A", 11) + std::string(42, '\0') +
           Le16(section.size() < 65536 ? static_cast<unsigned>(section.size()) : 0) + section + "cs";
  };
  const struct {
    const char* name;
    std::string group, dup;
  } rows[] = {
      {"g.mag", GroupFile({{"main", {{"A", big}, {"B", big}}}}), SingleFile("main", {"A", "11"})},
      {"g.kcg", kcFile(kc("A", big) + kc("B", big)), kcFile(kc("A", "11"))},
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
    const test::TempDir dir;
    const std::string group = dir.Write(row.name, row.group);
    const std::string dup = dir.Write(std::string("a") + (row.name + 1), row.dup);
    Cut cut{group};
    ContainerFactory factory;
    std::unique_ptr<GroupContainer> container = factory.CreateContainer(group);
    ASSERT_NE(container, nullptr);
    diag::Clear();
    EXPECT_EQ(container->AddMembers({dup}, "", nullptr, &Cut::Ask, &cut), 0);
    ASSERT_NE(diag::Current(), nullptr);
    EXPECT_EQ(diag::Current()->code, "damaged");
    EXPECT_EQ(std::filesystem::file_size(group), 100u);
    size_t files = 0;
    for ([[maybe_unused]] const auto& e : std::filesystem::directory_iterator(dir.path())) ++files;
    EXPECT_EQ(files, 2u);  // the group and the file added
  }
}

// Within a reuse scope a changed group is read again, not served from the earlier listing.
TEST_F(OldGroupStreamingTest, ReusedListingFollowsChanges) {
  const std::string group = dir_.Write("g.mag", GroupFile({{"main", {{"A", "aaaa"}, {"B", "bb"}}}}));
  const std::string add = dir_.Write("c.map", SingleFile("main", {"C", "ccc"}));
  const ReuseScope reuse;
  OldGroupContainerMA container(group, nullptr);
  EXPECT_EQ(container.ContainsMember("main.C.map"), 0);
  ASSERT_EQ(container.AddMembers({add}, "", nullptr, nullptr, nullptr), 1);
  EXPECT_EQ(container.ContainsMember("main.C.map"), 1);
  EXPECT_EQ(container.ExtractMember("main.c.MAP", dir_.path() + "/"), 1);
  EXPECT_EQ(test::ReadFileBytes(dir_ / "main.C.map"), SingleFile("main", {"C", "ccc"}));
}

}  // namespace
}  // namespace qx
