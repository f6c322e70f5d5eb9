#include "platform/CommaList.h"

namespace qx {

std::vector<std::string> SplitCommaList(std::string_view text) {
  std::vector<std::string> items;
  size_t start = 0;
  for (size_t comma = text.find(','); comma != std::string_view::npos;
       comma = text.find(',', start)) {
    items.emplace_back(text.substr(start, comma - start));
    start = comma + 1;
  }
  if (start < text.size()) items.emplace_back(text.substr(start));
  return items;
}

}  // namespace qx
