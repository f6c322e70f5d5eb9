// Test files written field by field as strings, straight from the layout tables, so expected
// bytes never come from the code under test: little-endian fields, padded texts, and the
// old-style group files built from them. support/ZipBytes.h builds zip archives the same way.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace qx::test {

inline std::string Le16(unsigned v) {
  return {static_cast<char>(v & 0xFF), static_cast<char>(v >> 8 & 0xFF)};
}
inline std::string Le32(uint32_t v) { return Le16(v & 0xFFFF) + Le16(v >> 16); }
// `text` cut or zero-padded to `n` bytes.
inline std::string Padded(std::string_view text, size_t n) {
  std::string s(text);
  s.resize(n, '\0');
  return s;
}
inline std::string Byte(unsigned v) { return std::string(1, static_cast<char>(v)); }

// The layouts take and give byte spans; tests compare strings, which print readably.
inline std::span<const unsigned char> U(const std::string& s) {
  return {reinterpret_cast<const unsigned char*>(s.data()), s.size()};
}
inline std::string S(std::span<const unsigned char> b) { return {b.begin(), b.end()}; }

// ---- MA-style groups: header (signature, default folder, comment, count), 16-byte entries,
// the file size field and a marker, then the members' data in table order.
inline const std::string kMA = "**QXMA**\x01";

struct Var { std::string name; unsigned type = 0x12; std::string data; unsigned attr = 0, extra = 0; };
struct Folder { std::string name; std::vector<Var> members; };

inline std::string MAEntry(uint32_t offset, std::string_view name, unsigned type, unsigned attr,
                           unsigned extra) {
  return Le32(offset) + Padded(name, 8) + Byte(type) + Byte(attr) + Le16(extra);
}

// Every folder entry points at its first member's data (or at what follows); its extra field
// counts its members.
inline std::string MAGroupFile(const std::vector<Folder>& folders, std::string_view comment = "",
                               std::string_view sig = kMA) {
  size_t count = 0;
  for (const Folder& f : folders) count += 1 + f.members.size();
  uint32_t offset = static_cast<uint32_t>(66 + 16 * count);
  std::string table, data;
  for (const Folder& f : folders) {
    table += MAEntry(offset, f.name, 0x1F, 0, static_cast<unsigned>(f.members.size()));
    for (const Var& v : f.members) {
      table += MAEntry(offset, v.name, v.type, v.attr, v.extra);
      offset += static_cast<uint32_t>(v.data.size());
      data += v.data;
    }
  }
  return Padded(sig, 10) + std::string(8, '\0') + Padded(comment, 40) +
         Le16(static_cast<unsigned>(count)) + table + Le32(offset) + "\x5A\xA5" + data;
}

inline std::string MAVarFile(std::string_view folder, const Var& v, std::string_view sig = kMA) {
  return Padded(sig, 10) + Padded(folder, 8) + std::string(40, '\0') + Le16(1) +
         MAEntry(0x52, v.name, v.type, v.attr, v.extra) +
         Le32(static_cast<uint32_t>(0x52 + v.data.size())) + "\xA5\x5A" + v.data;
}

// ---- KC-style groups: signature, comment, data length, entries, checksum.
inline const std::string kKC = Padded("**QXKC**\x1A\x0A", 11);
inline const std::string kKDX = Padded("**QXKDX*\x1A\x0A", 11);

// One entry: h (11, or 13 for the KDX header), x (by default d), type, name field, [2 more
// bytes for KDX], d, data.
inline std::string KCEntry(unsigned type, std::string_view name, std::string_view data,
                           bool kdx = false, int x = -1) {
  const unsigned d = static_cast<unsigned>(data.size());
  return Le16(kdx ? 13 : 11) + Le16(x < 0 ? d : static_cast<unsigned>(x)) + Byte(type) +
         Padded(name, 8) + (kdx ? std::string("\xEE\xFF") : "") + Le16(d) + std::string(data);
}

inline unsigned Sum(std::string_view bytes) {
  unsigned s = 0;
  for (unsigned char c : bytes) s += c;
  return s & 0xFFFF;
}

inline std::string KCFile(std::string_view sig, std::string_view comment, std::string_view section) {
  return Padded(sig, 11) + Padded(comment, 42) + Le16(static_cast<unsigned>(section.size())) +
         std::string(section) + Le16(Sum(section));
}

}  // namespace qx::test
