// Lists as they travel through the automation interfaces: items separated by single commas, no
// quoting, so no item can hold a comma. The one splitter of such lists, for the component and
// its callers alike.
//   "a,b" => a b;  "a,b," => a b;  "a,,b" => a "" b;  ",a" => "" a;  "" => (none)
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace qx {

// The pieces in text order: every comma ends one; what follows the last comma is a piece only
// when it is not empty.
std::vector<std::string> SplitCommaList(std::string_view text);

}  // namespace qx
