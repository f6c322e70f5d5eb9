// Zip archives built byte by byte from the format's layout tables, so tests check VxZip against
// the format rather than against its own writer.
#pragma once

#include <zlib.h>

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "archive/VxZip.h"
#include "support/Bytes.h"

namespace qx::ziptest {

inline bool Logged(const VxZip& zip, const std::string& message) {
  for (const std::string& m : zip.Log())
    if (m == message) return true;
  return false;
}
inline VxByteData Bytes(const std::string& s) { return VxByteData(s.data(), s.size()); }

using test::Le16;
using test::Le32;
inline uint32_t Get16(const std::string& s, size_t at) {
  return static_cast<unsigned char>(s.at(at)) | static_cast<unsigned char>(s.at(at + 1)) << 8;
}

inline uint32_t Crc(const std::string& data) {
  return static_cast<uint32_t>(
      crc32(0, reinterpret_cast<const Bytef*>(data.data()), static_cast<uInt>(data.size())));
}

// Raw deflate (no zlib header), as zip members carry it.
inline std::string Deflate(const std::string& data, int level = 6) {
  z_stream z{};
  deflateInit2(&z, level, Z_DEFLATED, -MAX_WBITS, 8, Z_DEFAULT_STRATEGY);
  std::string out(deflateBound(&z, static_cast<uLong>(data.size())), '\0');
  z.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.data()));
  z.avail_in = static_cast<uInt>(data.size());
  z.next_out = reinterpret_cast<Bytef*>(out.data());
  z.avail_out = static_cast<uInt>(out.size());
  deflate(&z, Z_FINISH);
  out.resize(z.total_out);
  deflateEnd(&z);
  return out;
}

// One member of a hand-made archive. The optional fields replace what would be correct, to
// make damaged archives.
struct Member {
  Member(std::string n, std::string d, uint16_t m = 8)
      : name(std::move(n)), data(std::move(d)), method(m) {}

  std::string name;
  std::string data;  // uncompressed
  uint16_t method = 8;
  uint16_t flags = 0;  // besides the descriptor bit
  int level = 6;
  bool descriptor = false;           // flag bit 3: zero sizes in the local header, sizes after the data
  bool descriptorSignature = true;  // the optional 0x08074b50 before the descriptor
  uint16_t date = 0x5D76, time = 0xA52F;  // 2026-11-22 20:41:30
  uint16_t internalAttributes = 0;
  uint32_t externalAttributes = 0x20;
  std::string localExtra;
  std::optional<uint32_t> crc, compressedSize, uncompressedSize, centralCompressedSize;
  std::optional<std::string> payload;  // the member's stored bytes, instead of compressing `data`
};

struct Options {
  std::string prefix{};   // bytes before the first header
  std::string comment{};  // archive comment
  bool endRecord = true;
  int dropCentral = 0;  // leave out this many central headers at the end
};

inline std::string Payload(const Member& m) {
  if (m.payload) return *m.payload;
  return m.method == 8 ? Deflate(m.data, m.level) : m.data;
}

inline std::string BuildZip(const std::vector<Member>& members, const Options& o = {}) {
  std::string out = o.prefix, directory;
  const size_t central = members.size() - static_cast<size_t>(o.dropCentral);
  for (size_t i = 0; i < members.size(); ++i) {
    const Member& m = members[i];
    const std::string payload = Payload(m);
    const uint32_t crc = m.crc.value_or(Crc(m.data));
    const uint32_t csize = m.compressedSize.value_or(static_cast<uint32_t>(payload.size()));
    const uint32_t usize = m.uncompressedSize.value_or(static_cast<uint32_t>(m.data.size()));
    const uint32_t offset = static_cast<uint32_t>(out.size() - o.prefix.size());
    const uint32_t flags = m.flags | (m.descriptor ? 8 : 0);
    out += Le32(0x04034b50);
    for (uint32_t v : {20u, flags, uint32_t{m.method}, uint32_t{m.time}, uint32_t{m.date}}) out += Le16(v);
    for (uint32_t v : {crc, csize, usize}) out += Le32(m.descriptor ? 0 : v);
    out += Le16(static_cast<uint32_t>(m.name.size()));
    out += Le16(static_cast<uint32_t>(m.localExtra.size()));
    out += m.name + m.localExtra + payload;
    if (m.descriptor) {
      if (m.descriptorSignature) out += Le32(0x08074b50);
      for (uint32_t v : {crc, csize, usize}) out += Le32(v);
    }
    if (i >= central) continue;
    directory += Le32(0x02014b50);
    for (uint32_t v : {20u | 11u << 8, 20u, flags, uint32_t{m.method}, uint32_t{m.time}, uint32_t{m.date}})
      directory += Le16(v);
    for (uint32_t v : {crc, m.centralCompressedSize.value_or(csize), usize}) directory += Le32(v);
    for (uint32_t v : {uint32_t(m.name.size()), 0u, 0u, 0u, uint32_t{m.internalAttributes}})
      directory += Le16(v);
    directory += Le32(m.externalAttributes);
    directory += Le32(offset);
    directory += m.name;
  }
  const size_t directoryStart = out.size() - o.prefix.size();
  out += directory;
  if (o.endRecord) {
    out += Le32(0x06054b50);
    for (uint32_t v : {0u, 0u, uint32_t(central), uint32_t(central)}) out += Le16(v);
    out += Le32(static_cast<uint32_t>(directory.size()));
    out += Le32(static_cast<uint32_t>(directoryStart));
    out += Le16(static_cast<uint32_t>(o.comment.size()));
    out += o.comment;
  }
  return out;
}

}  // namespace qx::ziptest
