// Character sets around the XML document service: preparing a file's bytes for the parser,
// and converting operation arguments and results between a document's declared encoding and
// the UTF-8 the tree holds. All conversions go through platform/codepage.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace qx::xml {

struct Document;

// Turns the raw bytes of a file into parser input: a UTF-16 byte-order mark (FF FE, FE FF)
// means UTF-16 converted to UTF-8, EF BB BF is dropped, otherwise a declared
// encoding="..." other than utf-8 is converted to UTF-8 (left as it is when that fails).
// The text ends at the first NUL byte, as the text given to LoadXml does.
// False, with `error` set, when UTF-16 text cannot be converted.
bool PrepareFileText(const std::vector<unsigned char>& bytes, std::string& text,
                     std::string& error);

// After a file is parsed its text is UTF-8, so a declared "utf-16", "ucs-2" or "unicode"
// becomes "utf-8".
void NormaliseDeclaredEncoding(Document& doc);

// Conversion between one declared encoding and UTF-8. "utf-8", "us-ascii" or nothing: no
// conversion. Any conversion that fails leaves the text as it was.
class TextCodec {
 public:
  explicit TextCodec(std::string_view declared);

  // An argument, to UTF-8. Returns `text` itself or a view on `buffer`.
  std::string_view ToUtf8(std::string_view text, std::string& buffer) const;
  // A result, from UTF-8 into the declared encoding ('?' for what it cannot hold).
  void FromUtf8(std::string_view text, std::string& out) const;
  bool IsIdentity() const { return kind_ == Kind::kIdentity; }

 private:
  enum class Kind { kIdentity, kAsciiCompatible, kOther };
  Kind kind_;
  std::string name_;
};

}  // namespace qx::xml
