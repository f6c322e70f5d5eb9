// Test files written field by field, straight from the layout tables, so expected bytes never
// come from the code under test: a builder for byte vectors, and the same little-endian fields
// as strings for the tests that assemble files as text (old-style groups, zip archives).
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace qx::test {

class Bytes {
 public:
  // Text cut or zero-padded to `width` (0: as it is).
  Bytes& Text(std::string_view s, size_t width = 0) {
    const size_t n = width == 0 ? s.size() : width;
    for (size_t i = 0; i < n; ++i) b_.push_back(i < s.size() ? static_cast<unsigned char>(s[i]) : 0);
    return *this;
  }
  Bytes& Zeros(size_t n) { return Fill(n, 0); }
  Bytes& Fill(size_t n, unsigned char v) {
    b_.insert(b_.end(), n, v);
    return *this;
  }
  Bytes& U8(unsigned v) {
    b_.push_back(static_cast<unsigned char>(v));
    return *this;
  }
  Bytes& U16(unsigned v) { return U8(v & 0xFF).U8((v >> 8) & 0xFF); }
  Bytes& U32(uint32_t v) { return U16(v & 0xFFFF).U16(v >> 16); }
  Bytes& Raw(std::span<const unsigned char> r) {
    b_.insert(b_.end(), r.begin(), r.end());
    return *this;
  }

  const std::vector<unsigned char>& vec() const { return b_; }
  operator std::span<const unsigned char>() const { return b_; }
  size_t size() const { return b_.size(); }

 private:
  std::vector<unsigned char> b_;
};

inline std::string Le16(unsigned v) {
  return {static_cast<char>(v & 0xFF), static_cast<char>(v >> 8 & 0xFF)};
}
inline std::string Le32(uint32_t v) { return Le16(v & 0xFFFF) + Le16(v >> 16); }
inline std::string Padded(std::string_view text, size_t n) {
  std::string s(text);
  s.resize(n, '\0');
  return s;
}

// The bytes of a vector as text, for readable failure messages.
inline std::string Hex(std::span<const unsigned char> v) {
  static const char* d = "0123456789ABCDEF";
  std::string s;
  for (size_t i = 0; i < v.size(); ++i) {
    if (i % 16 == 0) s += "\n" + std::to_string(i) + ":";
    s += ' ';
    s += d[v[i] >> 4];
    s += d[v[i] & 15];
  }
  return s;
}

}  // namespace qx::test
