// What a layout reader found wrong, and where, so a person can be told more than "failed".
#pragma once

#include <cstddef>
#include <string_view>

namespace qx {

struct LayoutResult {
  enum Code {
    kOk,
    kTruncated,    // a field lies past the end of the bytes
    kNotAGroup,    // the header says single-variable file
    kBadTable,     // entries out of order or out of place
    kBadOffset,    // a data offset or size field points outside the file or backwards
    kTooLarge,     // a count or size would not fit its field
  };
  Code code = kOk;
  size_t offset = 0;        // where the problem was seen
  const char* what = "";    // one line for people

  explicit operator bool() const { return code == kOk; }
  // The code as a diagnostic names it: "truncated", "not-a-group", "bad-table", "bad-offset",
  // "too-large".
  std::string_view CodeName() const;
  static LayoutResult Ok() { return {}; }
  static LayoutResult Fail(Code c, size_t at, const char* text) { return {c, at, text}; }
};

// Records a failed result as the call's diagnostic, naming the file and the offset:
//   {kTruncated, 156, "table entry past the end"} for "g.mag"
//     => {"truncated", "g.mag", "table entry past the end (offset 156)"}
void RecordLayoutFailure(const LayoutResult& result, std::string_view file);

}  // namespace qx
