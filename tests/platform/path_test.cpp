#include <gtest/gtest.h>

#include "platform/path.h"

namespace qx::path {
namespace {

TEST(Path, SplitsAndJoins) {
  const struct { const char* in; const char* parent; const char* name; const char* stem; const char* ext; } rows[] = {
      // A dot in a folder is no extension.
      {"dir/a.b.c", "dir/", "a.b.c", "a.b", ".c"}, {"a.", "", "a.", "a", "."}, {"/a", "/", "a", "a", ""},
      {"dir.x/a", "dir.x/", "a", "a", ""}, {".rc", "", ".rc", "", ".rc"}, {"dir/", "dir/", "", "", ""},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.in);
    EXPECT_EQ(ParentFolder(r.in), r.parent);
    EXPECT_EQ(FileName(r.in), r.name);
    EXPECT_EQ(Stem(r.in), r.stem);
    EXPECT_EQ(Extension(r.in), r.ext);
  }
  for (const auto& [a, b, joined] : {std::tuple{"dir", "a", "dir/a"}, {"dir/", "a", "dir/a"}, {"", "a", "a"},
                                      {"dir", "", "dir/"}})
    EXPECT_EQ(Join(a, b), joined) << a << "+" << b;
}

}  // namespace
}  // namespace qx::path
