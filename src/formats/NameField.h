// Fixed-width fields of the calculator layouts: 8-byte name fields (zero-padded, no terminator
// when full) and zero-padded signature fields. Byte values are the device's, never converted.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>

namespace qx {

inline constexpr size_t kNameFieldSize = 8;
using NameField = std::array<unsigned char, kNameFieldSize>;

// The text of a name field: its bytes up to the first zero byte, at most 8.
//   "main\0\0\0\0" => "main"    "ABCDEFGH" => "ABCDEFGH"    "\0x..." => ""
inline std::string NameFieldText(const NameField& field) {
  const auto end = std::find(field.begin(), field.end(), 0);
  return std::string(field.begin(), end);
}

// A name field holding `text`, cut to 8 bytes and padded with zero bytes.
inline NameField MakeNameField(std::string_view text) {
  NameField field{};
  std::memcpy(field.data(), text.data(), std::min(text.size(), kNameFieldSize));
  return field;
}

inline NameField ReadNameField(const unsigned char* p) {
  NameField field;
  std::memcpy(field.data(), p, kNameFieldSize);
  return field;
}

// `text` cut or zero-padded to exactly N bytes (signatures, comments).
template <size_t N>
std::array<unsigned char, N> PaddedField(std::string_view text) {
  std::array<unsigned char, N> field{};
  std::memcpy(field.data(), text.data(), std::min(text.size(), N));
  return field;
}

}  // namespace qx
