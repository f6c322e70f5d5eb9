#include "qxgroup/Json.h"

#include <cstdio>

namespace qx::cli {

std::string JsonString(std::string_view text) {
  std::string out;
  out.reserve(text.size() + 2);
  out.push_back('"');
  for (unsigned char c : text) {
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      case '\b': out += "\\b"; break;
      case '\f': out += "\\f"; break;
      default:
        if (c < 0x20) {
          char buf[8];
          std::snprintf(buf, sizeof buf, "\\u%04x", c);
          out += buf;
        } else {
          out.push_back(static_cast<char>(c));
        }
    }
  }
  out.push_back('"');
  return out;
}

void JsonObject::Key(std::string_view key) {
  if (!body_.empty()) body_.push_back(',');
  body_ += JsonString(key);
  body_.push_back(':');
}

void JsonObject::AddString(std::string_view key, std::string_view utf8Value) {
  Key(key);
  body_ += JsonString(utf8Value);
}

void JsonObject::AddInteger(std::string_view key, int64_t value) {
  Key(key);
  body_ += std::to_string(value);
}

void JsonObject::AddRaw(std::string_view key, std::string_view json) {
  Key(key);
  body_ += json;
}

}  // namespace qx::cli
