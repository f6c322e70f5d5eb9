// Text out of the XML service as std::string, with its exact length (embedded NULs kept).
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "archive/VxXml.h"

namespace qx::test {

inline std::string Str(const VxString& s) {
  return std::string(s.GetString(), static_cast<size_t>(s.GetLength()));
}
inline std::string Xml(const VxXml& x) {
  VxString s;
  EXPECT_TRUE(x.GetXml(s));
  return Str(s);
}
inline std::string Tag(const VxXml& x) {
  VxString s;
  EXPECT_TRUE(x.GetTag(s));
  return Str(s);
}
inline std::string Content(const VxXml& x) {
  VxString s;
  EXPECT_TRUE(x.GetContent(s));
  return Str(s);
}

}  // namespace qx::test
