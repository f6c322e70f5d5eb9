#include <gtest/gtest.h>

#include <filesystem>
#include <set>

#include <sys/stat.h>

#include "platform/fs.h"
#include "support/TempDir.h"

namespace qx::fs {
namespace {

TEST(Fs, OpenReadRefusesAllButFilesAndAttributes) {
  test::TempDir dir;
  const std::string file = dir.Write("a.bin", "12345");
  EXPECT_TRUE(File::OpenRead(file).IsOpen());
  ASSERT_EQ(::mkfifo((dir / "pipe").c_str(), 0600), 0);  // a pipe: refused at once, not waited on
  for (const std::string& refused : {dir.path(), dir / "none", std::string(), dir / "pipe"})
    EXPECT_FALSE(File::OpenRead(refused).IsOpen()) << refused;

  // Seeks back and ahead, within what the buffer holds or not, land where they should.
  File f = File::OpenRead(file);
  char buf[8] = {};
  EXPECT_EQ(f.Read(buf, 2), 2u);
  for (const auto& [to, want] : {std::pair{3, "45"}, {0, "12345"}, {5, ""}, {1, "2345"}}) {
    ASSERT_TRUE(f.Seek(to));
    EXPECT_EQ(std::string(buf, f.Read(buf, sizeof buf)), want);
    EXPECT_TRUE(f.AtEnd());
  }
  std::vector<unsigned char> bytes;
  EXPECT_TRUE(ReadWholeFile(file, bytes) && bytes.size() == 5);
  EXPECT_FALSE(ReadWholeFile(file, bytes, 4));  // over the limit: nothing read
  EXPECT_TRUE(bytes.empty());

  EXPECT_EQ(GetAttributes(file), kAttrNormal);
  EXPECT_EQ(GetAttributes(dir.path()) & kAttrDirectory, kAttrDirectory);
  std::filesystem::permissions(file, std::filesystem::perms::owner_read);
  EXPECT_EQ(GetAttributes(file) & kAttrReadOnly, kAttrReadOnly);
  EXPECT_EQ(GetAttributes(dir / "none"), kInvalidAttributes);
  EXPECT_FALSE(Exists(dir / "none"));
  EXPECT_TRUE(Exists(dir.path()));
}

TEST(Fs, WildcardMatching) {
  const struct { const char* name; const char* mask; bool match; } rows[] = {
      {"abc.kdp", "a?c.*", true}, {"abc", "ab", false}, {"ab", "a?c", false}, {"", "*", true},
      {"aaa", "*a*a*a*a", false}, {"x.QXG", "*.qxg", false}, {"abcbc", "*bc", true}, {"noext", "*.*", true},
      {"noext", "noext.*", true}, {"noext", "*.kdp", false}, {"ab", "a.*", false}, {"a*b", "a*", true},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(std::string(r.name) + " ~ " + r.mask);
    EXPECT_EQ(MatchesWildcard(r.name, r.mask), r.match);
  }
}

TEST(Fs, FinderListsMatchesAndDotEntriesIn1252) {
  test::TempDir dir;
  for (const char* n : {"a.kdp", "b.kdp", "c.map", "noext", "\xCE\xB3.map"}) dir.Write(n, "x");
  // Names are 1252 inside and UTF-8 on disk; one that 1252 cannot hold comes back with '?'.
  File out = File::CreateWrite(dir.path() + "/caf\xE9.kdp");
  ASSERT_TRUE(out.IsOpen() && out.Write("abc", 3) && out.Close());
  EXPECT_TRUE(std::filesystem::exists(dir.path() + "/caf\xC3\xA9.kdp"));
  FindData found;
  Finder finder;
  auto names = [&](const std::string& mask) {
    std::set<std::string> seen;
    for (bool ok = finder.First(dir.path() + mask, found); ok; ok = finder.Next(found)) seen.insert(found.name);
    return seen;
  };
  EXPECT_EQ(names("/*.*"),
            (std::set<std::string>{".", "..", "a.kdp", "b.kdp", "c.map", "noext", "?.map", "caf\xE9.kdp"}));
  EXPECT_EQ(names("/?.kdp"), (std::set<std::string>{"a.kdp", "b.kdp"}));
  EXPECT_EQ(names("/*.map"), (std::set<std::string>{"c.map", "?.map"}));
  ASSERT_TRUE(finder.First(dir.path() + "/caf*", found));
  EXPECT_EQ(found.size, 3u);
  EXPECT_FALSE(finder.Next(found));
  EXPECT_TRUE(finder.First(dir / "c.map", found));  // a plain name finds itself
  EXPECT_FALSE(finder.Next(found));
  EXPECT_FALSE(finder.First(dir / "*.none", found));
  EXPECT_FALSE(finder.First(dir.path() + "/missing/*", found));
}

}  // namespace
}  // namespace qx::fs
