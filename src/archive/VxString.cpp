#include "archive/VxString.h"

#include <cstring>

namespace qx {

int VxString::Compare(const char* text) const {
  std::string_view other = text != nullptr ? std::string_view(text) : std::string_view();
  size_t common = text_.size() < other.size() ? text_.size() : other.size();
  int c = common == 0 ? 0 : std::memcmp(text_.data(), other.data(), common);  // unsigned bytes
  if (c != 0) return c < 0 ? -1 : 1;
  if (text_.size() == other.size()) return 0;
  return text_.size() < other.size() ? -1 : 1;
}

}  // namespace qx
