#include "archive/XmlEncoding.h"

#include <algorithm>
#include <cstring>

#include "archive/XmlDocument.h"
#include "platform/codepage.h"

namespace qx::xml {

namespace {

bool IsUtf16Name(std::string_view name) {
  return EqualsIgnoreCase(name, "utf-16") || EqualsIgnoreCase(name, "ucs-2") ||
         EqualsIgnoreCase(name, "unicode");
}

bool AllAscii(std::string_view text) {
  return std::all_of(text.begin(), text.end(),
                     [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

// The charset named by encoding="..." between the first "<?xml" and the '>' after it.
std::string_view DeclaredCharset(std::string_view text) {
  size_t start = text.find("<?xml");
  if (start == std::string_view::npos) return {};
  size_t end = text.find('>', start);
  std::string_view decl = text.substr(start, end == std::string_view::npos ? end : end - start);
  size_t at = decl.find("encoding=\"");
  if (at == std::string_view::npos) return {};
  at += 10;
  size_t close = decl.find('"', at);
  if (close == std::string_view::npos) return {};
  return decl.substr(at, close - at);
}

}  // namespace

bool PrepareFileText(const std::vector<unsigned char>& bytes, std::string& text,
                     std::string& error) {
  std::string_view all(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  text.clear();
  const char* utf16 = nullptr;
  if (all.size() >= 2 && all[0] == '\xFF' && all[1] == '\xFE') {
    utf16 = "UTF-16LE";
  } else if (all.size() >= 2 && all[0] == '\xFE' && all[1] == '\xFF') {
    utf16 = "UTF-16BE";
  }
  if (utf16 != nullptr) {
    if (!codepage::ConvertCharset(utf16, "UTF-8", all.substr(2), text)) {
      error = "Invalid UTF-16 text";
      return false;
    }
  } else if (all.size() >= 3 && all.substr(0, 3) == "\xEF\xBB\xBF") {
    text.assign(all.substr(3));
  } else {
    std::string_view charset = DeclaredCharset(all);
    if (charset.empty() || EqualsIgnoreCase(charset, "utf-8") ||
        !codepage::ConvertCharset(charset, "UTF-8", all, text)) {
      text.assign(all);
    }
  }
  size_t nul = text.find('\0');
  if (nul != std::string::npos) text.resize(nul);
  return true;
}

void NormaliseDeclaredEncoding(Document& doc) {
  for (auto& [name, value] : doc.declaration) {
    if (name == "encoding" && IsUtf16Name(value)) value = "utf-8";
  }
}

TextCodec::TextCodec(std::string_view declared) : kind_(Kind::kOther), name_(declared) {
  // 8-bit text cannot be UTF-16, so those names are treated as the UTF-8 the tree holds.
  if (declared.empty() || EqualsIgnoreCase(declared, "utf-8") ||
      EqualsIgnoreCase(declared, "us-ascii") || IsUtf16Name(declared)) {
    kind_ = Kind::kIdentity;
  } else if (StartsWithIgnoreCase(declared, "iso-8859-") ||
             StartsWithIgnoreCase(declared, "windows-125")) {
    kind_ = Kind::kAsciiCompatible;
  }
}

std::string_view TextCodec::ToUtf8(std::string_view text, std::string& buffer) const {
  if (kind_ == Kind::kIdentity || (kind_ == Kind::kAsciiCompatible && AllAscii(text))) {
    return text;
  }
  if (!codepage::ConvertCharset(name_, "UTF-8", text, buffer)) return text;
  return buffer;
}

void TextCodec::FromUtf8(std::string_view text, std::string& out) const {
  if (kind_ == Kind::kIdentity || (kind_ == Kind::kAsciiCompatible && AllAscii(text))) {
    out.assign(text);
    return;
  }
  if (!codepage::ConvertCharset("UTF-8", name_, text, out)) out.assign(text);
}

}  // namespace qx::xml
