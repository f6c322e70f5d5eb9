// VxString: an 8-bit text of known length through which the archive and XML services hand
// out text results. A result always replaces what the object held.
#pragma once

#include <string>
#include <string_view>

namespace qx {

class VxString {
 public:
  VxString() = default;
  explicit VxString(std::string_view text) : text_(text) {}

  // The text, NUL-terminated (it may hold NUL bytes of its own).
  const char* GetString() const { return text_.c_str(); }
  // Length in bytes, terminator not counted.
  int GetLength() const { return static_cast<int>(text_.size()); }
  void AppendChar(char c) { text_ += c; }
  // Negative, 0 or positive by unsigned byte comparison; a null text counts as empty.
  int Compare(const char* text) const;

  // For the services that fill it.
  void Assign(std::string_view text) { text_.assign(text); }
  std::string& Buffer() { return text_; }
  std::string_view View() const { return text_; }

 private:
  std::string text_;
};

}  // namespace qx
