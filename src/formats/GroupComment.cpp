#include "formats/GroupComment.h"

#include <cstdio>

namespace qx {

std::string GroupCommentText(const SYSTEMTIME& st) {
  // Fields are reduced to two digits so an out-of-range value can never lengthen the text.
  const auto two = [](unsigned v) { return v % 100u; };
  char text[24];
  std::snprintf(text, sizeof text, "%02u/%02u/%02u, %02u:%02u:%02u", two(st.wMonth), two(st.wDay),
                two(st.wYear), two(st.wHour), two(st.wMinute), two(st.wSecond));
  return text;
}

std::string LocalGroupCommentText() { return GroupCommentText(timeutil::LocalNow()); }

}  // namespace qx
