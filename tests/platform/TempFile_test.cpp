#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "platform/TempFile.h"
#include "platform/path.h"
#include "support/TempDir.h"

namespace qx::fs {
namespace {

std::string Contents(const std::string& path) {
  std::vector<unsigned char> bytes;
  return ReadWholeFile(path, bytes) ? std::string(bytes.begin(), bytes.end()) : "<none>";
}

size_t EntryCount(const std::string& dir) {
  return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(dir), {}));
}

TEST(TempFile, KeepReplacesTheTargetAndDiscardLeavesIt) {
  const struct {
    const char* name;
    bool keep;        // Keep(), else Discard()
    bool explicitly;  // else the destructor decides
    const char* expected;
  } rows[] = {
      {"g.grp", true, true, "new"},
      {"g.grp", false, true, "old"},
      {"g.grp", false, false, "old"},
      {"caf\xE9.grp", true, true, "new"},  // 1252 name, UTF-8 on disk
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(std::string(r.name) + (r.keep ? " keep" : " discard"));
    test::TempDir dir;
    const std::string target = dir / r.name;
    File old = File::CreateWrite(target);
    ASSERT_TRUE(old.Write("old", 3));
    ASSERT_TRUE(old.Close());
    {
      TempFile tmp(target);
      ASSERT_TRUE(tmp.IsOpen());
      EXPECT_EQ(path::ParentFolder(tmp.path()), path::ParentFolder(target));
      ASSERT_TRUE(tmp.file().Write("new", 3));
      EXPECT_EQ(Contents(target), "old");  // nothing visible before Keep
      if (r.explicitly) {
        if (r.keep)
          EXPECT_TRUE(tmp.Keep());
        else
          tmp.Discard();
      }
    }
    EXPECT_EQ(Contents(target), r.expected);
    EXPECT_EQ(EntryCount(dir.path()), 1u);  // no temporary file left behind
  }
}

TEST(TempFile, NewTargetGetsOrdinaryPermissionsAndExistingKeepsItsOwn) {
  test::TempDir dir;
  const std::string fresh = dir / "fresh.grp";
  TempFile a(fresh);
  ASSERT_TRUE(a.Keep());
  struct stat st {};
  ASSERT_EQ(::stat(fresh.c_str(), &st), 0);
  EXPECT_NE(st.st_mode & 0044, 0u) << "not just owner-only as mkstemp makes it";

  ::chmod(fresh.c_str(), 0640);
  TempFile b(fresh);
  ASSERT_TRUE(b.Keep());
  ASSERT_EQ(::stat(fresh.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0640u);
}

TEST(TempFile, FailuresLeaveNothingBehind) {
  test::TempDir dir;
  EXPECT_FALSE(TempFile(dir / "missing/g.grp").IsOpen());
  EXPECT_FALSE(TempFile(dir.path() + "/").IsOpen());
  EXPECT_FALSE(TempFile("").Keep());

  // Keeping over a folder fails; the temporary file goes and the folder stays.
  CreateFolder(dir / "sub");
  TempFile tmp(dir / "sub");
  ASSERT_TRUE(tmp.IsOpen());
  EXPECT_FALSE(tmp.Keep());
  EXPECT_EQ(EntryCount(dir.path()), 1u);
  EXPECT_TRUE(GetAttributes(dir / "sub") & kAttrDirectory);
}

}  // namespace
}  // namespace qx::fs
