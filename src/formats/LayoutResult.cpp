#include "formats/LayoutResult.h"

#include <string>

#include "platform/Diagnostic.h"

namespace qx {

std::string_view LayoutResult::CodeName() const {
  switch (code) {
    case kOk: return "ok";
    case kTruncated: return "truncated";
    case kNotAGroup: return "not-a-group";
    case kBadTable: return "bad-table";
    case kBadOffset: return "bad-offset";
    case kTooLarge: return "too-large";
  }
  return "damaged";
}

void RecordLayoutFailure(const LayoutResult& result, std::string_view file) {
  if (result) return;
  diag::Record(result.CodeName(), file,
               std::string(result.what) + " (offset " + std::to_string(result.offset) + ")");
}

}  // namespace qx
