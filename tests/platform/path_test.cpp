#include <gtest/gtest.h>

#include "platform/path.h"

namespace qx::path {
namespace {

TEST(Path, SplitsLikeThePlatformPathSplitter) {
  const struct {
    const char* in;
    const char* parent;
    const char* name;
    const char* stem;
    const char* ext;
  } rows[] = {
      {"dir/a.b.c", "dir/", "a.b.c", "a.b", ".c"},
      {"dir/", "dir/", "", "", ""},
      {"a", "", "a", "a", ""},
      {"a.", "", "a.", "a", "."},
      {"/a", "/", "a", "a", ""},
      {"dir.x/a", "dir.x/", "a", "a", ""},  // a dot in a folder is no extension
      {".rc", "", ".rc", "", ".rc"},
      {"d/e/f.MAP", "d/e/", "f.MAP", "f", ".MAP"},
      {"", "", "", "", ""},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.in);
    EXPECT_EQ(ParentFolder(r.in), r.parent);
    EXPECT_EQ(FileName(r.in), r.name);
    EXPECT_EQ(Stem(r.in), r.stem);
    EXPECT_EQ(Extension(r.in), r.ext);
  }
}

TEST(Path, JoinPutsOneSlash) {
  const struct {
    const char* folder;
    const char* name;
    const char* joined;
  } rows[] = {
      {"dir", "a", "dir/a"}, {"dir/", "a", "dir/a"}, {"", "a", "a"}, {"dir", "", "dir/"}, {"/", "a", "/a"},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(std::string(r.folder) + " + " + r.name);
    EXPECT_EQ(Join(r.folder, r.name), r.joined);
  }
}

}  // namespace
}  // namespace qx::path
