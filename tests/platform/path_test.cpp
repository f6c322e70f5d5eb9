#include <gtest/gtest.h>

#include "platform/path.h"

namespace qx::path {
namespace {

TEST(Path, SplitsAndJoins) {
  const struct { const char* in; const char* parent; const char* name; const char* stem; const char* ext; } rows[] = {
      {"dir/a.b.c", "dir/", "a.b.c", "a.b", ".c"},
      {"a.", "", "a.", "a", "."},
      {"/a", "/", "a", "a", ""},
      {"dir.x/a", "dir.x/", "a", "a", ""},  // a dot in a folder is no extension
      {".rc", "", ".rc", "", ".rc"},
      {"dir/", "dir/", "", "", ""},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.in);
    EXPECT_EQ(ParentFolder(r.in), r.parent);
    EXPECT_EQ(FileName(r.in), r.name);
    EXPECT_EQ(Stem(r.in), r.stem);
    EXPECT_EQ(Extension(r.in), r.ext);
  }
  EXPECT_EQ(Join("dir", "a"), "dir/a");
  EXPECT_EQ(Join("dir/", "a"), "dir/a");
  EXPECT_EQ(Join("", "a"), "a");
  EXPECT_EQ(Join("dir", ""), "dir/");
}

}  // namespace
}  // namespace qx::path
