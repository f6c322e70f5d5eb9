// A minimal JSON writer for `qxgroup call`: one flat object of strings and integers.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace qx::cli {

// `text` is UTF-8; the result is a quoted JSON string. Invalid UTF-8 is passed through as it is
// only when it cannot be otherwise, so callers convert to UTF-8 first.
std::string JsonString(std::string_view text);

class JsonObject {
 public:
  void AddString(std::string_view key, std::string_view utf8Value);
  void AddInteger(std::string_view key, int64_t value);
  void AddRaw(std::string_view key, std::string_view json);
  std::string Str() const { return "{" + body_ + "}"; }

 private:
  void Key(std::string_view key);
  std::string body_;
};

}  // namespace qx::cli
